// A host's services for tests that create objects of the framework's
// flavours: a counting allocator and a collecting tracer behind a service
// locator, and the check that everything went back.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "zel/module_lock.h"

namespace testsupport {

class ServicesFixture : public ::testing::Test {
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

  host::CountingAllocator allocator;
  host::CollectingTracer tracer;
  host::ServiceLocator locator;  // last: released first, it holds the others
  std::uint32_t lockCountBefore = 0;
};

}  // namespace testsupport
