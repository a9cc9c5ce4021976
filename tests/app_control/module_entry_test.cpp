#include "app_control/module_entry.h"

#include <gtest/gtest.h>

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "app_control/module_fixture.h"
#include "support/counting_objects.h"
#include "zel/rtl/objbase.h"

namespace {

namespace ac = tov::app_control;
using app_ctrl::IApplicationStartLogEvents;
using app_ctrl::IApplicationStartLogEventsSubscription;
using testsupport::IFoo;

constexpr zel::result_t kNoInterface = zel::result::InterfaceNotSupported;

using EntryTest = testsupport::ModuleFixture;

TEST_F(EntryTest, UnknownClassesGetTheirEntryPointsOwnCodes) {
  // zelGetObjectFactory knows only its own table (the task is made by
  // zelCreateObject alone).
  for (std::uint32_t id : {0u, 1u, 0x46DFCF43u}) {
    SCOPED_TRACE(id);
    auto* factory = reinterpret_cast<zel::IObjectFactory*>(0x1);
    EXPECT_EQ(ac::GetObjectFactory(&locator, id, &factory), zel::result::NotImplemented);
    EXPECT_EQ(factory, nullptr);
  }
  for (std::uint32_t id : {0u, ac::kAppStartLogEventsDispatcherClassId, ac::kInventoryStorageClassId, 0xDEADBEEFu}) {
    SCOPED_TRACE(id);
    auto* object = reinterpret_cast<zel::IObject*>(0x1);
    void* arguments[2] = {&locator, nullptr};
    EXPECT_EQ(ac::CreateObject(id, arguments, &object), zel::result::ClassNotFound);
    EXPECT_EQ(object, reinterpret_cast<zel::IObject*>(0x1));
  }
  ExpectAllReturned();
}

TEST_F(EntryTest, EachCallMakesANewFactoryThatHoldsTheModule) {
  ASSERT_EQ(ac::CanUnloadModule(), 0);
  auto first = Factory(ac::kAppStartLogEventsDispatcherClassId);
  auto second = Factory(ac::kAppStartLogEventsDispatcherClassId);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first.Get(), second.Get());
  EXPECT_EQ(testsupport::RefCountOf(first.Get()), 1u);
  EXPECT_EQ(zel::ModuleLockCount.load(), lockCountBefore + 2);
  EXPECT_EQ(ac::CanUnloadModule(), 1);
  first.Reset();
  EXPECT_EQ(ac::CanUnloadModule(), 1);
  second.Reset();
  EXPECT_EQ(ac::CanUnloadModule(), 0);
  ExpectAllReturned();
}

// The factory answers only for itself; asked for an interface its class
// lacks, it leaves nothing behind.
TEST_F(EntryTest, FactoryAnswersOnlyForItselfAndCreatesOnlyWhatTheClassHas) {
  auto factory = Factory(ac::kAppStartLogEventsDispatcherClassId);
  const auto lockWithFactory = zel::ModuleLockCount.load();
  for (zel::iid_t iid : {0u, zel::IObjectFactory::iid}) {
    void* out = nullptr;
    ASSERT_EQ(factory->QueryInterface(iid, &out), 0);
    EXPECT_EQ(out, factory.Get());
    EXPECT_EQ(static_cast<zel::IObject*>(out)->Release(), 1u);
  }
  void* out = &out;
  EXPECT_EQ(factory->QueryInterface(IApplicationStartLogEvents::iid, &out), kNoInterface);
  EXPECT_EQ(out, nullptr);
  out = &out;
  EXPECT_EQ(factory->CreateInstance(&locator, IFoo::iid, &out), kNoInterface);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(zel::ModuleLockCount.load(), lockWithFactory);
  EXPECT_EQ(allocator.LiveBlocks(), 0);
  EXPECT_EQ(allocator.TotalAllocations(), 1u);
}

TEST_F(EntryTest, InterfaceZeroIsTheFirstInterfaceAndFacesShareOneCount) {
  auto factory = Factory(ac::kAppStartLogEventsDispatcherClassId);
  void* first = nullptr;
  ASSERT_EQ(factory->CreateInstance(&locator, 0, &first), 0);
  auto* subscription = static_cast<IApplicationStartLogEventsSubscription*>(first);

  void* viaId = nullptr;
  void* events = nullptr;
  ASSERT_EQ(subscription->QueryInterface(IApplicationStartLogEventsSubscription::iid, &viaId), 0);
  ASSERT_EQ(subscription->QueryInterface(IApplicationStartLogEvents::iid, &events), 0);
  EXPECT_EQ(viaId, first);
  EXPECT_NE(events, first);
  void* back = nullptr;
  ASSERT_EQ(static_cast<IApplicationStartLogEvents*>(events)->QueryInterface(0, &back), 0);
  EXPECT_EQ(back, first);
  EXPECT_EQ(testsupport::RefCountOf(static_cast<IApplicationStartLogEvents*>(events)), 4u);

  // Whichever face drops the last reference destroys the object once.
  static_cast<zel::IObject*>(back)->Release();
  static_cast<zel::IObject*>(viaId)->Release();
  subscription->Release();
  EXPECT_EQ(allocator.LiveBlocks(), 1);
  EXPECT_EQ(static_cast<IApplicationStartLogEvents*>(events)->Release(), 0u);
  factory.Reset();
  ExpectAllReturned();
}

// The allocator refused by the locator comes back as the locator gave it,
// untraced; refusing the block is OutOfMemory. Nothing is kept.
TEST_F(EntryTest, CreationWithoutMemory) {
  auto factory = Factory(ac::kAppStartLogEventsDispatcherClassId);
  locator.Refuse(zel::IAllocator::iid, zel::result::AccessDenied);
  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(&locator, 0, &out), zel::result::AccessDenied);
  EXPECT_EQ(out, &out);
  EXPECT_TRUE(tracer.Lines().empty());
  locator.Allow(zel::IAllocator::iid);
  allocator.FailAfter(0);
  EXPECT_EQ(factory->CreateInstance(&locator, 0, &out), zel::result::OutOfMemory);
  factory.Reset();
  ExpectAllReturned();
}

// ---- the ends of the process ------------------------------------------------------

using EntryDeathTest = testsupport::ModuleFixture;

// The sentinel class in either entry point, and a release that cannot reach
// the allocator.
TEST_F(EntryDeathTest, EndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  zel::IObjectFactory* factory = nullptr;
  EXPECT_DEATH(ac::GetObjectFactory(&locator, ac::kSentinelClassId, &factory), "");
  zel::IObject* object = nullptr;
  void* arguments[2] = {&locator, nullptr};
  EXPECT_DEATH(ac::CreateObject(ac::kSentinelClassId, arguments, &object), "");
  EXPECT_DEATH(
      {
        auto dispatcher = Create<IApplicationStartLogEventsSubscription>(ac::kAppStartLogEventsDispatcherClassId);
        locator.Refuse(zel::IAllocator::iid);
        dispatcher.Reset();
      },
      "RuntimeError");
}

}  // namespace
