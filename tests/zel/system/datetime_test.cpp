// Time stamps in 100 ns units since 1601-01-01, and the system-time error.
#include "zel/system/datetime.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(DateTime, EpochAndClock) {
  EXPECT_EQ(zel::datetime::FromTimespec({0, 0}), 0x019DB1DED53E8000ull);
  EXPECT_EQ(zel::datetime::FromTimespec({946684800, 999}), 125911584000000009ull);  // 2000-01-01
  const std::uint64_t now = zel::datetime::now();
  EXPECT_GT(now, zel::datetime::FromTimespec({1700000000, 0}));

  const zel::datetime::TimeSystemError e("f", 1, 22);
  EXPECT_TRUE(e.GetDescription().view() == u"Cannot get system time: 0x80000046 (Invalid argument)");
}

}  // namespace
