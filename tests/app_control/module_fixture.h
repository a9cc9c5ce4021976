// A host's services for tests that create module objects: a counting
// allocator and a collecting tracer behind a service locator, and helpers
// that make an object through its class's factory.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "app_control/module_entry.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "zel/module_lock.h"
#include "zel/rtl/objclient.h"

namespace testsupport {

class ModuleFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::ITracer>(&tracer);
    lockCountBefore = zel::ModuleLockCount.load();
  }

  // Every object made by the test is gone and every block went back.
  void ExpectAllReturned() {
    EXPECT_EQ(zel::ModuleLockCount.load(), lockCountBefore);
    EXPECT_EQ(allocator.LiveBlocks(), 0);
    EXPECT_EQ(allocator.OutstandingRefs(), 1) << "the locator's own reference";
    EXPECT_EQ(locator.OutstandingRefs(), 0);
  }

  zel::RefPtr<zel::IObjectFactory> Factory(std::uint32_t classId) {
    zel::IObjectFactory* f = nullptr;
    EXPECT_EQ(tov::app_control::GetObjectFactory(&locator, classId, &f), 0);
    return zel::RefPtr<zel::IObjectFactory>::Adopt(f);
  }

  template <class I>
  zel::RefPtr<I> Create(std::uint32_t classId) {
    void* out = nullptr;
    auto factory = Factory(classId);
    if (!factory) return nullptr;
    EXPECT_EQ(factory->CreateInstance(&locator, I::iid, &out), 0);
    return zel::RefPtr<I>::Adopt(static_cast<I*>(out));
  }

  host::CountingAllocator allocator;
  host::CollectingTracer tracer;
  host::ServiceLocator locator;  // last: released first, it holds the others
  std::uint32_t lockCountBefore = 0;
};

}  // namespace testsupport
