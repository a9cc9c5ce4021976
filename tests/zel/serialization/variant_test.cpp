// variant_t: ownership of what it holds, move leaving tag 0, assignment
// across and within tags.
#include <gtest/gtest.h>

#include "host/services/counting_allocator.h"
#include "zel/serialization/ser_obj_descriptor.h"
#include "zel/serialization/variant.h"

namespace {

TEST(VariantTest, InterfaceReferenceIsOwned) {
  host::CountingAllocator object;  // any counted object
  {
    zel::variant_t v;
    v.SetObject(&object);
    EXPECT_EQ(object.OutstandingRefs(), 1);
    zel::variant_t copy(v);
    EXPECT_EQ(object.OutstandingRefs(), 2);
    zel::variant_t moved(std::move(copy));
    EXPECT_EQ(copy.tag(), zel::vt::Empty);
    EXPECT_EQ(object.OutstandingRefs(), 2) << "move hands the reference over";
    moved.SetInt32(4);  // a different tag ends the old value
    EXPECT_EQ(object.OutstandingRefs(), 1);
    v = v;
    EXPECT_EQ(object.OutstandingRefs(), 1);
  }
  EXPECT_EQ(object.OutstandingRefs(), 0);
}

TEST(VariantTest, MoveLeavesTagZeroForEveryKind) {
  host::CountingAllocator alloc;
  zel::byte_vector_t bytes(&alloc);
  bytes.push_back(1);

  zel::variant_t values[6];
  values[0].SetInt32(-7);
  values[1].SetWString(zel::wstring_t(u"a wide text longer than any inline buffer would hold"));
  values[2].SetString(zel::string_t("narrow"));
  values[3].SetBytes(std::move(bytes));
  values[4].SetWords128(1, 2);
  values[5].SetReference(zel::vt::UInt64, &alloc);
  const std::uint32_t tags[] = {zel::vt::Int32, zel::vt::WString, zel::vt::String, zel::vt::Bytes, zel::vt::Pair64,
                                zel::vt::ByRef | zel::vt::UInt64};
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(values[i].tag(), tags[i]);
    zel::variant_t target;
    target.SetString(zel::string_t("old"));
    target = std::move(values[i]);
    EXPECT_EQ(values[i].tag(), zel::vt::Empty);
    EXPECT_EQ(target.tag(), tags[i]);
  }
  EXPECT_TRUE(zel::vt::IsByRef(20487));
  EXPECT_FALSE(zel::vt::IsByRef(zel::vt::Bytes));
}

TEST(VariantTest, CopiesAreDeepAndSameTagAssignsInPlace) {
  host::CountingAllocator alloc;
  {
    zel::variant_t a;
    a.SetWString(zel::wstring_t(std::u16string_view(u"first value, long enough for the heap"), &alloc));
    zel::variant_t b(a);
    EXPECT_NE(b.GetWString().data(), a.GetWString().data());
    EXPECT_EQ(b.GetWString().view(), a.GetWString().view());

    zel::variant_t c;
    c.SetWString(zel::wstring_t(u"x"));
    c = a;
    EXPECT_EQ(c.GetWString().view(), a.GetWString().view());
    c.SetUInt64(0xFFFFFFFFFFFFFFFFull);
    EXPECT_EQ(c.GetUInt64(), 0xFFFFFFFFFFFFFFFFull);
    EXPECT_EQ(c.IfWString(), nullptr);
    b.Clear();
    EXPECT_TRUE(b.empty());
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
}

struct Small {
  int v = 0;
};
zel::SerObjDescriptorImpl<Small> g_smallHelper;
zel::TypeDescriptorField g_smallRows[] = {zel::kFieldTableTerminator};
zel::TypeDescriptor g_smallDescriptor{1, "Small", sizeof(Small), g_smallRows, &g_smallHelper};

TEST(VariantTest, TypedObjectIsDestroyedThroughItsDescriptor) {
  host::CountingAllocator alloc;
  {
    Small s{9};
    zel::anydescrptr owned;
    owned.assign_copy(&s, &g_smallDescriptor, &alloc);
    zel::variant_t v;
    v.SetTyped(std::move(owned));
    zel::variant_t copy(v);
    EXPECT_EQ(alloc.LiveBlocks(), 2);
    EXPECT_EQ(copy.GetTyped().get_as<Small>()->v, 9);

    // A referring typed value can't be deep-copied.
    zel::variant_t referring;
    referring.SetTyped(zel::anydescrptr(&s, &g_smallDescriptor));
    EXPECT_THROW(zel::variant_t{referring}, std::bad_alloc);
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
}

}  // namespace
