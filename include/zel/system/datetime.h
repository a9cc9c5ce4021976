// Wall-clock time as the product stores it: a 64-bit count of 100-nanosecond
// units since 1 January 1601 UTC, and the exception raised when the system
// clock cannot be read.
#pragma once

#include <cstdint>
#include <ctime>

#include "zel/rtl/error_handling/exceptions.h"

namespace zel::datetime {

// 100-ns units between 1601-01-01 and the Unix epoch.
inline constexpr std::uint64_t kUnixEpochIn1601Units = 0x019DB1DED53E8000ull;

// "Cannot get system time", with "zel.result" mapped from `errnoValue`.
class TimeSystemError : public SystemException {
 public:
  TimeSystemError(const char* file, int line, int errnoValue);
};

// A CLOCK_REALTIME reading in 100-ns units since 1601.
constexpr std::uint64_t FromTimespec(const timespec& ts) noexcept {
  return static_cast<std::uint64_t>(ts.tv_sec) * 10000000u + static_cast<std::uint64_t>(ts.tv_nsec) / 100u +
         kUnixEpochIn1601Units;
}

// The current time; throws TimeSystemError when the clock fails.
std::uint64_t now();

}  // namespace zel::datetime
