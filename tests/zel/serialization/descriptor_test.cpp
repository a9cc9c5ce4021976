// Descriptor tables, the generic helpers, typed pointers and the lookup.
#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <string>

#include "host/serialization/meta_info_provider.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "support/fake_serializers.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/serialization/ser_obj_descriptor.h"
#include "zel/types/vector.h"
#include "zel/util/anydescrptr.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace {

struct Point {
  static constexpr std::uint32_t SerId = 0x00C0FFEE;
  int x = -1;
  zel::types::vector_t<unsigned long> ids;
};

zel::SerObjDescriptorImpl<Point> g_pointHelper;
zel::TypeDescriptorField g_pointRows[] = {zel::MakeFieldRow("x", offsetof(Point, x)),
                                          zel::MakeFieldRow("ids", offsetof(Point, ids)), zel::kFieldTableTerminator};
zel::TypeDescriptor g_pointDescriptor{Point::SerId, "Point", sizeof(Point), g_pointRows, &g_pointHelper};

TEST(FieldTableTest, FillRunsOnceAndStopsAtTheTerminator) {
  zel::TypeDescriptorField rows[] = {zel::MakeFieldRow("a", 0), zel::MakeFieldRow("b", 8), zel::kFieldTableTerminator,
                                     zel::MakeFieldRow("beyond", 16)};
  zel::SerVectorHelperImpl<zel::types::vector_t<unsigned long>> vh;
  const zel::TypeDescriptorFieldFill fills[] = {{18, 0, 4, nullptr}, {19, 0x2000, 24, &vh}, {99, 99, 99, nullptr}};
  bool filled = false;
  EXPECT_TRUE(zel::FillTypeDescriptorFields(rows, fills, filled));
  EXPECT_TRUE(filled);
  EXPECT_EQ(rows[0].type, 18u);
  EXPECT_EQ(rows[1].flags, 0x2000u);
  EXPECT_EQ(rows[1].vectorHelper, &vh);
  EXPECT_EQ(rows[1].offset, 8u);
  EXPECT_EQ(rows[2].flags, zel::kFieldTableEnd);
  EXPECT_EQ(rows[3].type, 0u) << "nothing behind the terminator is touched";
  EXPECT_EQ(zel::FieldCount(rows), 2u);

  const zel::TypeDescriptorFieldFill other[] = {{7, 7, 7, nullptr}, {7, 7, 7, nullptr}};
  EXPECT_FALSE(zel::FillTypeDescriptorFields(rows, other, filled));
  EXPECT_EQ(rows[0].type, 18u);
}

TEST(SerObjDescriptorImplTest, ConstructCopyNewCopyMove) {
  alignas(Point) unsigned char memory[sizeof(Point)];
  g_pointHelper.ConstructCopy(memory, nullptr);
  auto* p = reinterpret_cast<Point*>(memory);
  EXPECT_EQ(p->x, -1);
  g_pointHelper.Destroy(p);

  host::CountingAllocator alloc;
  Point source;
  source.x = 5;
  source.ids = zel::types::vector_t<unsigned long>(&alloc);
  source.ids.push_back(7);
  auto* copy = static_cast<Point*>(g_pointHelper.NewCopy(&source, &alloc));
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->x, 5);
  ASSERT_EQ(copy->ids.size(), 1u);

  Point target;
  EXPECT_EQ(g_pointHelper.Move(&source, &target), 1);
  EXPECT_TRUE(source.ids.empty());
  EXPECT_EQ(source.x, -1);
  EXPECT_EQ(target.ids.get_allocator().get(), &alloc) << "the allocator goes with the data";

  g_pointHelper.Destroy(copy);
  alloc.Free(copy);
  alloc.FailAfter(0);
  EXPECT_EQ(g_pointHelper.NewCopy(&source, &alloc), nullptr);
}

TEST(SerVectorHelperImplTest, BoundsNullsAndGrowth) {
  zel::SerVectorHelperImpl<zel::types::vector_t<unsigned long>> h;
  zel::types::vector_t<unsigned long> v;
  std::uint32_t n = 99;
  void* element = nullptr;
  const zel::TypeDescriptor* d = &g_pointDescriptor;
  constexpr zel::result_t kInvalid = zel::result::InvalidArgument;

  EXPECT_EQ(h.Resize(nullptr, 1), kInvalid);
  EXPECT_EQ(h.GetCount(&v, nullptr), kInvalid);
  EXPECT_EQ(h.Resize(&v, 3), 0);
  EXPECT_EQ(v.capacity(), 4u);
  EXPECT_EQ(v[2], 0u);
  EXPECT_EQ(h.Resize(&v, 9), 0);
  EXPECT_EQ(v.capacity(), 9u) << "growth beyond the old count takes the new count";
  EXPECT_EQ(h.Resize(&v, 10), 0);
  EXPECT_EQ(v.capacity(), 18u);
  EXPECT_EQ(h.GetCount(&v, &n), 0);
  EXPECT_EQ(n, 10u);
  EXPECT_EQ(h.GetElement(&v, 10, &element), kInvalid);
  EXPECT_EQ(h.GetElement(&v, 9, &element), 0);
  EXPECT_EQ(element, &v[9]);
  EXPECT_EQ(h.GetElementDescriptor(&d), zel::result::NotFound);
  EXPECT_EQ(d, nullptr);
  EXPECT_EQ(h.GetElementSize(&n), 0);
  EXPECT_EQ(n, 8u);

  host::CountingAllocator alloc;
  zel::types::vector_t<unsigned long> refused(&alloc);
  alloc.FailAfter(0);
  EXPECT_EQ(h.Resize(&refused, 1), zel::result::OutOfMemory) << "out of memory becomes a code";
}

TEST(AnyDescrPtrTest, CopyRules) {
  host::CountingAllocator alloc;
  {
    zel::anydescrptr empty;
    zel::anydescrptr emptyCopy(empty);
    EXPECT_FALSE(emptyCopy.IsValid());

    Point value;
    value.x = 3;
    zel::anydescrptr referring(&value, &g_pointDescriptor);
    EXPECT_FALSE(referring.owns());
    EXPECT_THROW(zel::anydescrptr{referring}, std::bad_alloc);

    zel::anydescrptr owning;
    owning.assign_copy(&value, &g_pointDescriptor, &alloc);
    EXPECT_EQ(alloc.LiveBlocks(), 1);
    EXPECT_NE(owning.get(), &value);
    zel::anydescrptr copy(owning);
    EXPECT_EQ(alloc.LiveBlocks(), 2);
    EXPECT_EQ(copy.get_as<Point>()->x, 3);
    EXPECT_EQ(copy.allocator(), &alloc);
    EXPECT_EQ(copy.descriptor(), &g_pointDescriptor);

    zel::anydescrptr moved(std::move(copy));
    EXPECT_FALSE(copy.IsValid());
    EXPECT_EQ(copy.allocator(), nullptr);

    alloc.FailAfter(0);
    EXPECT_THROW(zel::anydescrptr{owning}, std::bad_alloc);
    EXPECT_THROW(owning.assign_copy(&value, &g_pointDescriptor, &alloc), std::bad_alloc);
    EXPECT_EQ(owning.get_as<Point>()->x, 3) << "a failed assignment keeps what was held";
    EXPECT_THROW(owning.assign_copy(&value, &g_pointDescriptor, nullptr), std::bad_alloc);
    alloc.FailAfter(-1);
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
  EXPECT_EQ(alloc.OutstandingRefs(), 0);
}

TEST(TypeLookup, ProviderFirstThenRegistryThenTexts) {
  testsupport::FakeMetaInfoProvider provider;
  testsupport::FakeMetaInfoProvider behindRegistry;  // what the host's registry asks on a miss
  const zel::RefPtr<host::MetaInfoProvider> registry = host::MetaInfoProvider::Create();
  host::CountingAllocator alloc;
  host::ServiceLocator locator;  // last: it lets go of the services above first

  // Neither interface.
  try {
    zel::GetTypeDescriptor(&locator, Point::SerId);
    FAIL() << "expected an exception";
  } catch (const zel::CheckResultFailedException& e) {
    EXPECT_EQ(e.GetText(), "No meta info provider");
    EXPECT_TRUE(e.GetMessage().empty());
    EXPECT_TRUE(zel::Failed(zel::GetResult(e)));
  }

  // A provider that doesn't know the id, and a registry that doesn't either.
  locator.Register(&provider);
  locator.Register<zel::IStructMetaInfoRegistry>(registry.Get());
  try {
    zel::GetTypeDescriptor(&locator, Point::SerId);
    FAIL() << "expected an exception";
  } catch (const zel::CheckResultFailedException& e) {
    EXPECT_EQ(e.GetText(), "This structure is not registered at meta info provider");
    EXPECT_EQ(zel::GetResult(e), zel::result::NotFound);
    EXPECT_NE(std::string(e.what()).find("zel.typeid=0x00c0ffee"), std::string::npos) << e.what();
  }
  EXPECT_EQ(provider.findCalls, 1);

  behindRegistry.known = &g_pointDescriptor;
  ASSERT_EQ(registry->RegisterProvider(&behindRegistry), 0);
  EXPECT_EQ(zel::GetTypeDescriptor(&locator, Point::SerId), &g_pointDescriptor);
  provider.known = &g_pointDescriptor;
  locator.Refuse(zel::IStructMetaInfoRegistry::iid);
  EXPECT_EQ(zel::GetTypeDescriptor(&locator, Point::SerId), &g_pointDescriptor);

  Point value;
  const zel::anydescrptr ref = zel::make_anydescrptr(&locator, value);
  EXPECT_EQ(ref.get(), &value);
  EXPECT_FALSE(ref.owns());

  // Owning needs the locator's allocator.
  EXPECT_THROW(zel::make_owning_anydescrptr(&locator, value), zel::GetInterfaceException);
  locator.Register(&alloc);
  {
    const zel::anydescrptr owned = zel::make_owning_anydescrptr(&locator, value);
    EXPECT_TRUE(owned.owns());
    EXPECT_EQ(alloc.LiveBlocks(), 1);
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
}

}  // namespace
