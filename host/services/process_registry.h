// host::ProcessRegistry: the reference host's IProcessRegistry over procfs.
// A process's unique id joins its start time (clock ticks since boot, from
// /proc/<pid>/stat) with its pid, so a pid that the kernel hands out again
// names a different process: (starttime << 22) | pid, pids staying below
// 2^22 on Linux. Process objects are snapshots taken when they are asked for.
//
// The last processes given a unique id are remembered with their parent: an
// event about a program start is published after the start was answered,
// often when so short a program has ended, and GetProcess then still gives
// its pid and its parent (with no image, command line or directory).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "app_control/interfaces/iprocess_registry.h"
#include "host/services/host_object.h"

namespace host {

class ProcessRegistry final : public OwnedObject<ProcessRegistry, IProcessRegistry> {
 public:
  // `procRoot`: where procfs is mounted; a copy of it serves tests.
  explicit ProcessRegistry(std::string procRoot = "/proc") : m_procRoot(std::move(procRoot)) {}
  ProcessRegistry(const ProcessRegistry&) = delete;
  ProcessRegistry& operator=(const ProcessRegistry&) = delete;

  zel::result_t GetUniqueId(std::uint32_t pid, std::uint64_t* uniqueId) override;
  zel::result_t GetProcessByPid(std::uint32_t pid, IProcessObject** process) override;
  zel::result_t GetProcess(const std::uint64_t* uniqueId, IProcessObject** process) override;

  static constexpr unsigned kPidBits = 22;
  static std::uint32_t PidOf(std::uint64_t uniqueId) noexcept {
    return static_cast<std::uint32_t>(uniqueId & ((1u << kPidBits) - 1));
  }

 private:
  struct Remembered {
    std::uint64_t uniqueId = 0;
    std::uint32_t parentPid = 0;
  };
  static constexpr std::size_t kRemembered = 256;

  void Remember(std::uint64_t uniqueId, std::uint32_t parentPid);
  bool Recall(std::uint64_t uniqueId, std::uint32_t* parentPid) const;

  const std::string m_procRoot;
  mutable std::mutex m_rememberedMutex;
  std::array<Remembered, kRemembered> m_remembered{};
  std::size_t m_nextRemembered = 0;
};

}  // namespace host
