// host::engine::EnforceCounters: what live enforcement has done so far,
// counted by the threads that do it and read at any time, as one line of
// text for people or one JSON object for machines. Every start read is
// accounted for: starts = decided + timed out + undecided, and once
// publishing is over, decided = published + dropped + publish failed.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace host::engine {

struct EnforceCountersSnapshot {
  std::uint64_t decided = 0;    // answered by a decision of the rules, in time
  std::uint64_t allowed = 0;    // answered "allow", whoever answered
  std::uint64_t blocked = 0;    // answered "deny"
  std::uint64_t testMode = 0;   // decisions reached in test mode
  std::uint64_t timedOut = 0;   // answered by the time-out policy: too late, or at shutdown
  std::uint64_t undecided = 0;  // answered without a decision: acctl's own starts, no task started
  std::uint64_t dropped = 0;    // decisions not published: the publishing queue was full
  std::uint64_t hashCacheHits = 0;
  std::uint64_t starts = 0;         // program starts read from the kernel
  std::uint64_t published = 0;      // decisions every subscriber took
  std::uint64_t publishFailed = 0;  // decisions a subscriber refused or threw on
  std::uint64_t memfdExec = 0;      // 1 while this kernel lets a memfd be executed (vm.memfd_noexec below 2)
  friend bool operator==(const EnforceCountersSnapshot&, const EnforceCountersSnapshot&) = default;
};

struct EnforceCounters {
  std::atomic<std::uint64_t> decided{0};
  std::atomic<std::uint64_t> allowed{0};
  std::atomic<std::uint64_t> blocked{0};
  std::atomic<std::uint64_t> testMode{0};
  std::atomic<std::uint64_t> timedOut{0};
  std::atomic<std::uint64_t> undecided{0};
  std::atomic<std::uint64_t> starts{0};
  std::atomic<std::uint64_t> published{0};
  std::atomic<std::uint64_t> publishFailed{0};
};

// "decided 3, allowed 2, blocked 1, test-mode 0, timed out 0, undecided 0,
// events dropped 0, hash-cache hits 2, starts 3, published 3, publish failed 0,
// memfd exec 1"
std::string FormatCountersText(const EnforceCountersSnapshot& counters);
// {"decided":3,"allowed":2,...,"hashCacheHits":2} on one line.
std::string FormatCountersJson(const EnforceCountersSnapshot& counters);

}  // namespace host::engine
