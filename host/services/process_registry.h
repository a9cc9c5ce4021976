// host::ProcessRegistry: the reference host's IProcessRegistry over procfs.
// A process's unique id joins a stamp of its incarnation with its pid, so a
// pid that the kernel hands out again names a different process:
// (stamp << 22) | pid, pids staying below 2^22 on Linux. The stamp is the
// process's pidfd serial where the kernel has one (see pidfd.h): asked of a
// pidfd, it costs no procfs read while a program start is held. Elsewhere,
// and always for a copy of procfs given for tests, it is the start time
// (clock ticks since boot, from <procRoot>/<pid>/stat). Either stamp grows
// with the age of the machine, so a parent's is never above its child's.
// Process objects are snapshots taken when they are asked for.
//
// The last processes given a unique id are remembered with their parent: an
// event about a program start is published after the start was answered,
// often when so short a program has ended, and GetProcess then still gives
// its pid and its parent (with no image, command line or directory). As many
// are kept as a publisher may fall behind (its queue's length), so that a
// burst of starts doesn't push a process out before its event is written.
//
// Nothing here throws: reading a process that ends meanwhile fails quietly.
//
// With pidfd serials, a description and a parent's unique id are reused for
// a second: the parent of a burst of starts (a shell, a build) is described
// once, not for each event. (A parent pid taken by another process within
// that second would go unseen; pids come back far more slowly.)
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "app_control/interfaces/iprocess_registry.h"
#include "host/services/host_object.h"

namespace host {

class ProcessRegistry final : public OwnedObject<ProcessRegistry, IProcessRegistry> {
 public:
  // `procRoot`: where procfs is mounted; a copy of it serves tests.
  explicit ProcessRegistry(std::string procRoot = "/proc");
  ProcessRegistry(const ProcessRegistry&) = delete;
  ProcessRegistry& operator=(const ProcessRegistry&) = delete;

  zel::result_t GetUniqueId(std::uint32_t pid, std::uint64_t* uniqueId) override;
  zel::result_t GetProcessByPid(std::uint32_t pid, IProcessObject** process) override;
  zel::result_t GetProcess(const std::uint64_t* uniqueId, IProcessObject** process) override;

  // GetUniqueId for a caller that has just asked the process's pidfd itself
  // (QueryPidfd): the unique id made of those facts, remembered the same
  // way. 0 when this registry's stamps are not pidfd serials.
  std::uint64_t Adopt(std::uint32_t pid, std::uint32_t parentPid, std::uint64_t pidfdSerial);

  static constexpr unsigned kPidBits = 22;
  static std::uint32_t PidOf(std::uint64_t uniqueId) noexcept {
    return static_cast<std::uint32_t>(uniqueId & ((1u << kPidBits) - 1));
  }
  // Whether stamps are pidfd serials here (else start times).
  bool UsesPidfdSerials() const noexcept { return m_pidfdSerials; }

 private:
  static constexpr std::size_t kRemembered = 8192;
  static constexpr std::size_t kCached = 256;
  static constexpr std::chrono::seconds kCachedFor{1};

  struct Incarnation {
    std::uint32_t parentPid = 0;
    std::uint64_t stamp = 0;
  };
  bool ReadIncarnation(std::uint32_t pid, Incarnation* out) const;
  // The parent's unique id, 0 when it is gone or its pid now names a process
  // younger than the child of stamp `childStamp`.
  std::uint64_t ParentUniqueId(std::uint32_t parentPid, std::uint64_t childStamp) const;
  void Remember(std::uint64_t uniqueId, std::uint32_t parentPid);
  bool Recall(std::uint64_t uniqueId, std::uint32_t* parentPid) const;

  const std::string m_procRoot;
  const bool m_pidfdSerials;
  mutable std::mutex m_rememberedMutex;
  std::array<std::uint64_t, kRemembered> m_order{};  // oldest overwritten first
  std::unordered_map<std::uint64_t, std::uint32_t> m_index;  // unique id -> parent pid
  std::size_t m_nextRemembered = 0;
  mutable std::mutex m_cacheMutex;
  mutable std::unordered_map<std::uint32_t, std::pair<std::uint64_t, std::chrono::steady_clock::time_point>> m_parents;
  std::unordered_map<std::uint64_t, std::pair<ProcessDescription, std::chrono::steady_clock::time_point>> m_described;
};

}  // namespace host
