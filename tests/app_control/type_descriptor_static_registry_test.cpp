// The module's type registry, made through its factory as the host makes it.
#include <gtest/gtest.h>

#include "app_control/application_ids.h"
#include "app_control/module_entry.h"
#include "app_control/type_descriptor_static_registry.h"
#include "host/services/counting_allocator.h"
#include "host/services/host_object.h"
#include "host/services/service_locator.h"
#include "zel/module_lock.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/rtl/objclient.h"

namespace {

using tov::app_control::ApplicationIds;
constexpr zel::result_t kNotFound = zel::result::NotFound;

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    locator.Register(&alloc);
    ASSERT_EQ(tov::app_control::GetObjectFactory(&locator, 0x3C705D66, factory.Ref()), 0);
  }
  void TearDown() override {
    factory.Reset();
    locator.Remove(zel::IAllocator::iid);
    EXPECT_EQ(alloc.LiveBlocks(), 0);
  }
  zel::RefPtr<zel::IStructMetaInfoRegistry> Create() {
    zel::RefPtr<zel::IStructMetaInfoRegistry> r;
    EXPECT_EQ(factory->CreateInstance(&locator, 0, reinterpret_cast<void**>(r.Ref())), 0);
    return r;
  }

  host::ServiceLocator locator;
  host::CountingAllocator alloc;
  zel::RefPtr<zel::IObjectFactory> factory;
};

TEST_F(RegistryTest, AnswersBothInterfacesAsTabled) {
  const std::uint32_t lockBefore = zel::ModuleLockCount.load();
  auto registry = Create();
  ASSERT_TRUE(registry);
  EXPECT_EQ(alloc.LiveBlocks(), 1) << "made from the locator's allocator";

  void* p = nullptr;
  ASSERT_EQ(registry->QueryInterface(0xA53230CB, &p), 0);
  EXPECT_EQ(p, registry.Get());
  static_cast<zel::IObject*>(p)->Release();
  zel::RefPtr<zel::IMetaInfoProvider> provider;
  ASSERT_EQ(registry->QueryInterface(0xFE7DA4E6, reinterpret_cast<void**>(provider.Ref())), 0);
  p = &p;
  EXPECT_EQ(registry->QueryInterface(0x12345678, &p), zel::result::InterfaceNotSupported);
  EXPECT_EQ(p, nullptr);

  const zel::TypeDescriptor* d = nullptr;
  const zel::TypeDescriptor* sentinel = reinterpret_cast<const zel::TypeDescriptor*>(&p);
  const zel::TypeDescriptor* untouched = sentinel;
  EXPECT_EQ(registry->FindDescriptor(ApplicationIds::SerId, &d), 0);
  EXPECT_EQ(d, zel::StaticTypeDescriptor<ApplicationIds>::Get());
  d = nullptr;
  EXPECT_EQ(registry->FindStructDescriptor(ApplicationIds::SerId, &d), 0);
  EXPECT_EQ(d, zel::StaticTypeDescriptor<ApplicationIds>::Get());
  EXPECT_EQ(registry->FindDescriptor(0xD1345CF5, &untouched), kNotFound);
  EXPECT_EQ(registry->FindStructDescriptor(0xD1345CF5, &untouched), kNotFound);
  EXPECT_EQ(untouched, sentinel);
  d = nullptr;
  EXPECT_EQ(provider->FindDescriptor(ApplicationIds::SerId, &d), 0);
  EXPECT_EQ(d, zel::StaticTypeDescriptor<ApplicationIds>::Get());

  provider.Reset();
  registry.Reset();
  EXPECT_EQ(zel::ModuleLockCount.load(), lockBefore);
}

TEST_F(RegistryTest, RegisteredIds) {
  auto registry = Create();
  zel::types::vector_t<std::uint32_t> ids;
  ASSERT_EQ(registry->GetRegisteredIds(&ids), 0);
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_EQ(ids.capacity(), 1u) << "an empty vector gets room for exactly one";
  EXPECT_EQ(ids[0], 0xD6BFA3A7u);
  ASSERT_EQ(registry->GetRegisteredIds(&ids), 0);
  EXPECT_EQ(ids.size(), 2u) << "appends";

  host::CountingAllocator refusing;
  zel::types::vector_t<std::uint32_t> none(&refusing);
  refusing.FailAfter(0);
  EXPECT_EQ(registry->GetRegisteredIds(&none), zel::result::OutOfMemory);
}

TEST_F(RegistryTest, ConstructorNeedsTheAllocatorASecondTime) {
  // The factory's own request succeeds; the constructor's is refused.
  struct OnceAllocatorLocator final : host::OwnedObject<OnceAllocatorLocator, zel::IServiceLocator> {
    zel::IAllocator* alloc;
    int served = 0;
    zel::result_t GetInterface(zel::iid_t iid, std::uint32_t, void** out) override {
      *out = nullptr;
      if (iid != zel::IAllocator::iid || served++ > 0) return zel::result::InterfaceNotSupported;
      alloc->AddRef();
      *out = alloc;
      return 0;
    }
  } once;
  once.alloc = &alloc;
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(&once, 0, &out), zel::result::InterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(once.served, 2);
  EXPECT_EQ(alloc.LiveBlocks(), 0);
}

// The id list's wire form; moving it is the framework's generic helper.
TEST(ApplicationIdsTest, Descriptor) {
  const zel::TypeDescriptor* d = zel::StaticTypeDescriptor<ApplicationIds>::Get();
  EXPECT_STREQ(d->name, "ApplicationIds");
  ASSERT_EQ(zel::FieldCount(d->fields), 1u);
  EXPECT_STREQ(d->fields[0].name, "list");
  EXPECT_EQ(d->fields[0].type, 19u);
  EXPECT_EQ(d->fields[0].flags, 0x2000u);
  EXPECT_NE(d->fields[0].vectorHelper, nullptr);
}

}  // namespace
