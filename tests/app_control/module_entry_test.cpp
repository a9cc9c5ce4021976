#include "app_control/module_entry.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "app_control/module_fixture.h"
#include "support/counting_objects.h"
#include "zel/rtl/objbase.h"
#include "zel/types/allocator.h"

namespace {

namespace ac = tov::app_control;
using app_ctrl::IApplicationStartLogEvents;
using app_ctrl::IApplicationStartLogEventsSubscription;
using testsupport::IBar;
using testsupport::IFoo;
using testsupport::LifeCounters;

constexpr zel::result_t kNoInterface = static_cast<zel::result_t>(0x80000001u);
constexpr zel::result_t kNotImplemented = static_cast<zel::result_t>(0x80000043u);
constexpr zel::result_t kClassNotFound = static_cast<zel::result_t>(0x80000100u);

using EntryTest = testsupport::ModuleFixture;

TEST_F(EntryTest, UnknownClassesGetTheirEntryPointsOwnCodes) {
  // zelGetObjectFactory knows only its own table (the task is made by
  // zelCreateObject alone); rows not built yet are answered like any unknown id.
  for (std::uint32_t id : {0u, 1u, 0x46DFCF43u, ac::kInventoryScanTaskClassId}) {
    SCOPED_TRACE(id);
    auto* factory = reinterpret_cast<zel::IObjectFactory*>(0x1);
    EXPECT_EQ(ac::GetObjectFactory(&locator, id, &factory), kNotImplemented);
    EXPECT_EQ(factory, nullptr);
  }
  for (std::uint32_t id : {0u, ac::kAppStartLogEventsDispatcherClassId, ac::kInventoryStorageClassId, 0xDEADBEEFu}) {
    SCOPED_TRACE(id);
    auto* object = reinterpret_cast<zel::IObject*>(0x1);
    void* arguments[2] = {&locator, nullptr};
    EXPECT_EQ(ac::CreateObject(id, arguments, &object), kClassNotFound);
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

TEST_F(EntryTest, FactoryAnswersOnlyForItself) {
  auto factory = Factory(ac::kAppStartLogEventsDispatcherClassId);
  for (zel::iid_t iid : {0u, zel::IObjectFactory::iid}) {
    void* out = nullptr;
    ASSERT_EQ(factory->QueryInterface(iid, &out), 0);
    EXPECT_EQ(out, factory.Get());
    EXPECT_EQ(static_cast<zel::IObject*>(out)->Release(), 1u);
  }
  void* out = &out;
  EXPECT_EQ(factory->QueryInterface(IApplicationStartLogEvents::iid, &out), kNoInterface);
  EXPECT_EQ(out, nullptr);
}

TEST_F(EntryTest, CreateInstanceWithAnInterfaceTheClassLacksLeavesNothingBehind) {
  auto factory = Factory(ac::kAppStartLogEventsDispatcherClassId);
  const auto lockWithFactory = zel::ModuleLockCount.load();
  void* out = &out;
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

TEST_F(EntryTest, MissingAllocatorIsReturnedAsItIs) {
  auto factory = Factory(ac::kAppStartLogEventsDispatcherClassId);
  const auto refused = static_cast<zel::result_t>(0x80000061u);
  locator.Refuse(zel::IAllocator::iid, refused);
  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(&locator, 0, &out), refused);
  EXPECT_EQ(out, &out);
  EXPECT_TRUE(tracer.Lines().empty());
  factory.Reset();
  ExpectAllReturned();
}

TEST_F(EntryTest, AllocatorRefusingTheBlockIsOutOfMemory) {
  auto factory = Factory(ac::kAppStartLogEventsDispatcherClassId);
  allocator.FailAfter(0);
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(&locator, 0, &out), static_cast<zel::result_t>(0x80000041u));
  factory.Reset();
  ExpectAllReturned();
}

// ---- object flavours, with classes of the test's own ------------------------------

// First flavour: malloc/free, QueryInterface leaves *out alone on a miss.
class PlainThing : public zel::object::Ifaces<IFoo, IBar> {
 public:
  explicit PlainThing(LifeCounters& counters) : m_counters(counters) { ++m_counters.constructed; }
  ~PlainThing() { ++m_counters.destroyed; }
  int Foo() override { return 1; }
  int Bar() override { return 2; }

 private:
  LifeCounters& m_counters;
};

// Second flavour, made through a factory; its constructor can be told to throw.
class LocatedThing : public IFoo, public IBar, public zel::ObjectRootEx<zel::DirectServiceStrategy> {
 public:
  using interfaces = zel::InterfaceList<IFoo, IBar>;
  static inline LifeCounters counters;
  static inline bool throwInConstructor = false;
  static inline zel::result_t finalConstructResult = 0;

  explicit LocatedThing(zel::IServiceLocator* sl) : ObjectRootEx(sl) {
    if (throwInConstructor) throw std::invalid_argument("no room for the thing");
    ++counters.constructed;
  }
  ~LocatedThing() { ++counters.destroyed; }
  zel::result_t FinalConstruct() {
    ++counters.finalConstructs;
    return finalConstructResult;
  }
  void FinalRelease() { ++counters.finalReleases; }
  int Foo() override { return 3; }
  int Bar() override { return 4; }
};

class FlavourTest : public testsupport::ModuleFixture {
 protected:
  void SetUp() override {
    ModuleFixture::SetUp();
    LocatedThing::counters.Reset();
    LocatedThing::throwInConstructor = false;
    LocatedThing::finalConstructResult = 0;
  }
  void TearDown() override { ExpectAllReturned(); }

  zel::result_t CreateLocated(zel::iid_t iid, void** out) {
    zel::RefPtr<zel::IObjectFactory> factory = zel::RefPtr<zel::IObjectFactory>::Adopt(new zel::FactoryFor<LocatedThing>());
    return factory->CreateInstance(&locator, iid, out);
  }
};

TEST_F(FlavourTest, QueryInterfaceMissTouchesTheOutputOnlyInTheCountedFlavours) {
  LifeCounters plainCounters;
  IFoo* plain = zel::detail::CreateObjectImplWith<PlainThing, zel::abi_v2_allocator>(plainCounters);
  void* out = &out;
  EXPECT_EQ(plain->QueryInterface(0x12345678, &out), kNoInterface);
  EXPECT_EQ(out, &out);
  EXPECT_EQ(testsupport::RefCountOf(plain), 1u);

  void* bar = nullptr;
  ASSERT_EQ(plain->QueryInterface(IBar::iid, &bar), 0);
  EXPECT_EQ(static_cast<IBar*>(bar)->Bar(), 2);
  EXPECT_EQ(plain->Release(), 1u);
  EXPECT_EQ(plainCounters.Alive(), 1);
  EXPECT_EQ(static_cast<IBar*>(bar)->Release(), 0u);
  EXPECT_EQ(plainCounters.destroyed.load(), 1);

  void* foo = nullptr;
  ASSERT_EQ(CreateLocated(0, &foo), 0);
  out = &out;
  EXPECT_EQ(static_cast<IFoo*>(foo)->QueryInterface(0x12345678, &out), kNoInterface);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(static_cast<IFoo*>(foo)->Foo(), 3);
  EXPECT_EQ(static_cast<IFoo*>(foo)->Release(), 0u);
  EXPECT_EQ(LocatedThing::counters.destroyed.load(), 1);
  EXPECT_EQ(LocatedThing::counters.finalReleases.load(), 1);
}

TEST_F(FlavourTest, ThrowingConstructorIsTracedOnceWithThePrefixAndLeavesNothing) {
  LocatedThing::throwInConstructor = true;
  void* out = &out;
  EXPECT_EQ(CreateLocated(IFoo::iid, &out), static_cast<zel::result_t>(0x80000046u));
  EXPECT_EQ(out, &out);
  EXPECT_EQ(LocatedThing::counters.constructed.load(), 0);
  const auto lines = tracer.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 300u);
  EXPECT_EQ(lines[0].text, "Exception during object construction:  no room for the thing");
}

TEST_F(FlavourTest, FailedFinalConstructDestroysTheObjectAndGivesItsCode) {
  LocatedThing::finalConstructResult = static_cast<zel::result_t>(0x8000006Au);
  void* out = &out;
  EXPECT_EQ(CreateLocated(0, &out), LocatedThing::finalConstructResult);
  EXPECT_EQ(out, &out);
  EXPECT_EQ(LocatedThing::counters.finalConstructs.load(), 1);
  EXPECT_EQ(LocatedThing::counters.finalReleases.load(), 1);
  EXPECT_EQ(LocatedThing::counters.Alive(), 0);
}

// ---- the ends of the process ------------------------------------------------------

using EntryDeathTest = testsupport::ModuleFixture;

TEST_F(EntryDeathTest, SentinelClassEndsTheProcessInBothEntryPoints) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  zel::IObjectFactory* factory = nullptr;
  EXPECT_DEATH(ac::GetObjectFactory(&locator, ac::kSentinelClassId, &factory), "");
  zel::IObject* object = nullptr;
  void* arguments[2] = {&locator, nullptr};
  EXPECT_DEATH(ac::CreateObject(ac::kSentinelClassId, arguments, &object), "");
}

TEST_F(EntryDeathTest, ReleaseThatCannotReachTheAllocatorEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto dispatcher = Create<IApplicationStartLogEventsSubscription>(ac::kAppStartLogEventsDispatcherClassId);
        locator.Refuse(zel::IAllocator::iid);
        dispatcher.Reset();
      },
      "RuntimeError");
}

}  // namespace
