// The object dumper: the dump on success, and the texts of a failed dump.
#include <gtest/gtest.h>

#include <string>

#include "host/services/collecting_tracer.h"
#include "host/services/service_locator.h"
#include "support/fake_serializers.h"
#include "tov_common/runtime_field.h"
#include "tov_common/serobj_dumper.h"

namespace {

std::string Text(const zel::string_t& s) { return std::string(s.view()); }

class SerObjDumperTest : public ::testing::Test {
 protected:
  host::CollectingTracer tracer;
  testsupport::FakeMetaInfoProvider provider;
  testsupport::FakeStorageSerializer2 storage;
  testsupport::FakeXmlStorageFactory factory;
  tov::RuntimeField field;
  host::ServiceLocator locator;  // last: it lets go of the services above first
};

struct SmallId {
  static constexpr std::uint32_t SerId = 0x0000ABCD;
};

TEST_F(SerObjDumperTest, DumpIsTheStructuredTextOrTheExceptionText) {
  const std::string head = "cannot dump name=tov::RuntimeField serid=0xd1345cf5 exception: ";
  const std::string noLookup = Text(tov::SerObjDump<tov::RuntimeField>(&locator, &field).Text());
  ASSERT_EQ(noLookup.rfind(head, 0), 0u) << noLookup;
  try {
    zel::GetTypeDescriptor(&locator, tov::RuntimeField::SerId);
    FAIL();
  } catch (const std::exception& e) {
    // Same site, same what(): the dump ends in it.
    EXPECT_EQ(noLookup.substr(head.size()), std::string(e.what()));
  }
  // The id is lower-case hex without leading zeros.
  const SmallId small;
  const std::string smallText = Text(tov::SerObjDump<SmallId>(&locator, &small).Text());
  EXPECT_NE(smallText.find("serid=0xabcd exception: "), std::string::npos) << smallText;

  provider.known = zel::StaticTypeDescriptor<tov::RuntimeField>::Get();
  locator.Register<zel::ITracer>(&tracer);
  locator.Register(&provider);
  locator.Register(&storage);
  locator.Register(&factory);
  factory.document = "<root><name>-1</name></root>";
  const tov::SerObjDump<tov::RuntimeField> dump(&locator, &field);
  EXPECT_EQ(Text(dump.Text()), "<root><name>-1</name></root>");
  EXPECT_EQ(dump.Text().c_str()[dump.Text().size()], '\0');

  storage.serializeResult = testsupport::kFakeFailure;
  const std::string failed = Text(tov::SerObjDump<tov::RuntimeField>(&locator, &field).Text());
  EXPECT_EQ(failed.rfind(head, 0), 0u) << failed;
  EXPECT_NE(failed.find("Expression failed"), std::string::npos) << failed;
}

TEST(RuntimeFieldTest, DescriptorsAndDefaults) {
  struct Expect {
    const zel::TypeDescriptor* d;
    std::uint32_t serId;
    const char* name;
  } cases[] = {
      {zel::StaticTypeDescriptor<tov::RuntimeField>::Get(), 0xD1345CF5, "RuntimeField"},
      {zel::StaticTypeDescriptor<tov::AdditionalField>::Get(), 0x0EFA8E30, "AdditionalField"},
  };
  for (const Expect& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.d->serId, c.serId);
    EXPECT_STREQ(c.d->name, c.name);
    EXPECT_EQ(c.d->size, sizeof(tov::RuntimeField));
    ASSERT_EQ(zel::FieldCount(c.d->fields), 2u);
    EXPECT_STREQ(c.d->fields[0].name, "name");
    EXPECT_EQ(c.d->fields[0].type, 18u);
    EXPECT_EQ(c.d->fields[0].size, 4u);
    EXPECT_STREQ(c.d->fields[1].name, "data");
    EXPECT_EQ(c.d->fields[1].type, 40u);
    EXPECT_EQ(c.d->fields[1].offset, offsetof(tov::RuntimeField, data));
    EXPECT_EQ(c.d->fields[1].flags, 0u);
  }
  alignas(tov::RuntimeField) unsigned char memory[sizeof(tov::RuntimeField)];
  cases[0].d->helper->ConstructCopy(memory, nullptr);
  auto* f = reinterpret_cast<tov::RuntimeField*>(memory);
  EXPECT_EQ(f->name, -1);
  EXPECT_EQ(f->data.tag(), 0u);
  cases[0].d->helper->Destroy(f);
}

}  // namespace
