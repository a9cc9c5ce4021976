// Blob tools against fake serialisers: calling order, the check lines, and
// outputs that only change on success.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "support/fake_serializers.h"
#include "tov_common/blob_tools.h"
#include "tov_common/runtime_field.h"
#include "zel/module_lock.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace {

using testsupport::kFakeFailure;

class BlobToolsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    locator.Register<zel::ITracer>(&tracer);
    locator.Register(&alloc);
    locator.Register(&binary);
    locator.Register(&storage);
    locator.Register(&factory);
    old = tools::Blob{'o', 'l', 'd'};
    data = zel::anydescrptr(&field, zel::StaticTypeDescriptor<tov::RuntimeField>::Get());
  }
  void TearDown() override {
    EXPECT_EQ(alloc.LiveBlocks(), 0);
    EXPECT_EQ(factory.nodesAlive.load(), 0);
    EXPECT_EQ(binary.OutstandingRefs(), 1);  // the locator's own
    EXPECT_EQ(storage.OutstandingRefs(), 1);
  }

  // The one line traced holds each fragment; the tracer starts afresh.
  void ExpectLine(std::initializer_list<const char*> fragments) {
    const auto lines = tracer.Lines();
    ASSERT_EQ(lines.size(), 1u);
    for (const char* f : fragments) EXPECT_NE(lines[0].text.find(f), std::string::npos) << lines[0].text;
    tracer.Clear();
  }
  std::string Old() const { return std::string(old.begin(), old.end()); }

  host::CollectingTracer tracer;
  host::CountingAllocator alloc;
  testsupport::FakeBinarySerializer binary;
  testsupport::FakeStorageSerializer2 storage;
  testsupport::FakeXmlStorageFactory factory;
  tov::RuntimeField field;
  zel::anydescrptr data;
  tools::Blob old;
  host::ServiceLocator locator;  // last: it lets go of the services above first
};

TEST_F(BlobToolsTest, AnyToBlobCopiesExactlyTheBytesAndFreesThem) {
  binary.output = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(tools::AnyToBlob(&locator, data, old), 0);
  ASSERT_EQ(old.size(), 6u);
  EXPECT_EQ(old[5], 6);
  EXPECT_EQ(binary.lastObject, &field);

  binary.output = {9};  // fits the block it has: copied in place
  ASSERT_EQ(tools::AnyToBlob(&locator, data, old), 0);
  EXPECT_EQ(std::vector<unsigned char>(old.begin(), old.end()), std::vector<unsigned char>{9});

  binary.output.clear();
  ASSERT_EQ(tools::AnyToBlob(&locator, data, old), 0);
  EXPECT_TRUE(old.empty());
  EXPECT_TRUE(tracer.Lines().empty());
}

TEST_F(BlobToolsTest, AnyToBlobFailuresLeaveTheBlob) {
  const zel::anydescrptr empty;
  EXPECT_EQ(tools::AnyToBlob(&locator, empty, old), zel::result::InvalidArgument);
  EXPECT_EQ(binary.serializeCalls, 0) << "the serialiser is not asked for";
  ExpectLine({"blob_tools.cpp:", "(data.IsValid()),(bool) failed: result = falseData refers to nullptr"});

  binary.serializeResult = kFakeFailure;
  binary.allocateOnFailure = true;  // what a failing serialiser gave back is freed as well
  EXPECT_EQ(tools::AnyToBlob(&locator, data, old), kFakeFailure);
  ExpectLine({"(serializer->Serialize(data, alloc, &ptr, len, SerMode)),(ZEL_SUCCEEDED(_result)) failed: result = "
              "0x8000004b (Unspecified error)Cannot serialize data"});

  locator.Refuse(zel::IAllocator::iid);
  EXPECT_NE(tools::AnyToBlob(&locator, data, old), 0);
  ExpectLine({"(zel::GetInterface(sl, alloc.Ref()))", "Cannot get IAllocator interface"});
  locator.Allow(zel::IAllocator::iid);

  locator.Refuse(zel::IBinarySerializer::iid);
  locator.Refuse(zel::ITracer::iid);  // no tracer: silent, same result
  EXPECT_EQ(tools::AnyToBlob(&locator, data, old), zel::result::InterfaceNotSupported);
  EXPECT_TRUE(tracer.Lines().empty());
  EXPECT_EQ(Old(), "old");
}

TEST_F(BlobToolsTest, AnyFromBlobPassesTheBytesAndReturnsZeroOnAnySuccess) {
  const unsigned char bytes[] = {9, 8, 7};
  const tools::BlobRange range{bytes, bytes + 3};
  binary.deserializeResult = 1;
  EXPECT_EQ(tools::AnyFromBlob(&locator, range, data), 0);
  EXPECT_EQ(binary.lastInput, (std::vector<unsigned char>{9, 8, 7}));

  binary.deserializeResult = kFakeFailure;
  EXPECT_EQ(tools::AnyFromBlob(&locator, range, data), kFakeFailure);
  ExpectLine({"(serializer->Deserialize(blob, data, len, SerMode))", "Cannot deserialize data"});
}

TEST_F(BlobToolsTest, AnyToXmlBlobFillsTheBufferOnlyOnSuccess) {
  const std::uint32_t lockBefore = zel::ModuleLockCount.load();
  factory.document = "<root>x</root>";
  ASSERT_EQ(tools::AnyToXmlBlob(&locator, data, old), 0);
  EXPECT_EQ(Old(), "<root>x</root>");
  EXPECT_EQ(factory.createCalls, 1) << "an empty stream gets a new document";
  EXPECT_EQ(factory.lastRootName, "root");
  EXPECT_EQ(zel::ModuleLockCount.load(), lockBefore) << "the stream died with the node";

  factory.flushResult = kFakeFailure;
  EXPECT_EQ(tools::AnyToXmlBlob(&locator, data, old), kFakeFailure);
  EXPECT_EQ(Old(), "<root>x</root>");
  ExpectLine({"(node->Flush()),(ZEL_SUCCEEDED(_result)) failed: result = 0x8000004b (Unspecified error)"});

  factory.flushResult = 0;
  factory.giveNode = false;  // the serialiser meets a null node and fails
  EXPECT_EQ(tools::AnyToXmlBlob(&locator, data, old), zel::result::InvalidArgument);
  ExpectLine({"(serializer->Serialize(data, node, 0, 0))"});

  locator.Refuse(zel::IXmlStorageFactory::iid);
  EXPECT_EQ(tools::AnyToXmlBlob(&locator, data, old), zel::result::InvalidArgument);
  EXPECT_EQ(Old(), "<root>x</root>");
  EXPECT_EQ(zel::ModuleLockCount.load(), lockBefore);
}

TEST_F(BlobToolsTest, AnyFromXmlBlobOpensOrCreatesAndBothStructuredFormsNeedATracer) {
  const tools::BlobRange empty{};
  EXPECT_EQ(tools::AnyFromXmlBlob(&locator, empty, data), 0);
  EXPECT_EQ(factory.createCalls, 1);
  EXPECT_EQ(factory.openCalls, 0);

  const unsigned char doc[] = {'<', 'r', '/', '>'};
  storage.deserializeResult = 1;
  EXPECT_EQ(tools::AnyFromXmlBlob(&locator, tools::BlobRange{doc, doc + 4}, data), 0);
  EXPECT_EQ(factory.openCalls, 1);
  EXPECT_EQ(factory.lastReadOnly, 1);
  EXPECT_EQ(storage.lastObject, &field);

  storage.deserializeResult = kFakeFailure;
  EXPECT_EQ(tools::AnyFromXmlBlob(&locator, tools::BlobRange{doc, doc + 4}, data), kFakeFailure);
  ExpectLine({"(serializer->Deserialize( data, node, zel::IStorageSerializer2::Flags::Default, nullptr)),"
              "(ZEL_SUCCEEDED(_result)) failed: result = 0x8000004b (Unspecified error)"});

  // Both structured forms need a tracer.
  locator.Refuse(zel::ITracer::iid);
  EXPECT_THROW(tools::AnyToXmlBlob(&locator, data, old), zel::GetInterfaceException);
  EXPECT_THROW(tools::AnyFromXmlBlob(&locator, tools::BlobRange{}, data), zel::GetInterfaceException);
  EXPECT_EQ(Old(), "old");
}

}  // namespace
