// The framework's object flavours seen from a test: QueryInterface misses,
// a throwing constructor and a failing FinalConstruct of an object made
// through its factory.
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/counting_objects.h"
#include "support/services_fixture.h"
#include "zel/rtl/objbase.h"
#include "zel/types/allocator.h"

namespace {

using testsupport::IBar;
using testsupport::IFoo;
using testsupport::LifeCounters;

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

class FlavourTest : public testsupport::ServicesFixture {
 protected:
  void SetUp() override {
    ServicesFixture::SetUp();
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
  EXPECT_EQ(plain->QueryInterface(0x12345678, &out), zel::result::InterfaceNotSupported);
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
  EXPECT_EQ(static_cast<IFoo*>(foo)->QueryInterface(0x12345678, &out), zel::result::InterfaceNotSupported);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(static_cast<IFoo*>(foo)->Foo(), 3);
  EXPECT_EQ(static_cast<IFoo*>(foo)->Release(), 0u);
  EXPECT_EQ(LocatedThing::counters.destroyed.load(), 1);
  EXPECT_EQ(LocatedThing::counters.finalReleases.load(), 1);
}

TEST_F(FlavourTest, FailedConstructionLeavesNothing) {
  LocatedThing::throwInConstructor = true;
  void* out = &out;
  EXPECT_EQ(CreateLocated(IFoo::iid, &out), zel::result::InvalidArgument);
  EXPECT_EQ(out, &out);
  EXPECT_EQ(LocatedThing::counters.constructed.load(), 0);
  const auto lines = tracer.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 300u);
  EXPECT_EQ(lines[0].text, "Exception during object construction:  no room for the thing");
  EXPECT_EQ(tracer.OutstandingRefs(), 1);  // the conversion let go of the tracer it asked for

  // A failed FinalConstruct destroys the object and gives its code.
  LocatedThing::throwInConstructor = false;
  LocatedThing::finalConstructResult = zel::result::InvalidState;
  EXPECT_EQ(CreateLocated(0, &out), LocatedThing::finalConstructResult);
  EXPECT_EQ(out, &out);
  EXPECT_EQ(LocatedThing::counters.finalConstructs.load(), 1);
  EXPECT_EQ(LocatedThing::counters.finalReleases.load(), 1);
  EXPECT_EQ(LocatedThing::counters.Alive(), 0);
}

}  // namespace
