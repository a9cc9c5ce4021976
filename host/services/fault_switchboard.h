// host::FaultSwitchboard: one process-wide place that makes any host service
// operation the module calls fail, and the counting allocator refuse a block.
// Each such operation asks at its entry:
//
//   if (const zel::result_t f = host::FaultAt(host::FaultPoint::KvSetValue)) return f;
//
// which costs one relaxed atomic load while nothing is armed. Armed, every
// asking operation counts as one fault-point call; the Nth call overall (or
// the Nth of one point) fails with the chosen code, once, and the
// switchboard remembers which point it was. Calls go on being counted after
// the fault, so a run that never reached its fault says how many calls it
// made. Safe for calls from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>

#include "zel/result.h"

namespace host {

enum class FaultPoint : std::uint8_t {
  Alloc,                     // CountingAllocator::Alloc and Realloc: null
  LocatorGetInterface,       // ServiceLocator::GetInterface
  KvGetValue,
  KvSetValue,
  KvRemoveValue,
  KvCommit,
  SettingsGet,               // ServiceManager::GetServiceSettings and GetServiceSettings2
  SettingsUpdate,            // ServiceManager::SetServiceSettings and UpdateServiceSettings2
  SettingsFlush,
  CategoriesGet,
  CategoriesPut,
  EngineCreateObject,        // IEngineObjectCreator::CreateObject
  EngineSubscribe,
  EngineUnsubscribe,
  EngineInventoryModule,
  EngineTaskStart,
  EngineTaskStop,
  EngineTaskPause,
  EngineTaskResume,
  EngineTaskSetSettings,
  PublisherPublish,
  TaskRegistryGetDescription,
  TaskInfoGet,               // ITaskInfoProvider lookups
  ProcessRegistryGet,        // IProcessRegistry lookups
  ProcessGetDescription,     // IProcessObject::GetDescription
  PwdbLookup,                // every IPwdb operation
  TaskLockTry,
  TaskLockUnlock,
  CgroupsAdd,
  TaskStopped,               // ITaskStopEvents::OnTaskStopped
  FilesCreate,               // IFileFactory::CreateFile
  PathMatcherCreate,
  FormatRecognizerCreate,
  MetaInfoFind,              // IMetaInfoProvider / IStructMetaInfoRegistry lookups
  XmlStorageCreate,          // IXmlStorageFactory::CreateStorage and OpenStorage
  StorageSerialize,          // IStorageSerializer2 Serialize and Deserialize
  Count
};

// A stable name for each point, as "kv.SetValue".
std::string_view FaultPointName(FaultPoint point) noexcept;

class FaultSwitchboard {
 public:
  static FaultSwitchboard& Instance() noexcept;

  // Counts fault-point calls from 0 and fails the `nth` (1 = the next one)
  // with `code`; with `only` set, only calls of that point are counted.
  void FailNth(std::uint64_t nth, zel::result_t code, std::optional<FaultPoint> only = std::nullopt);
  // Counts calls without ever failing one.
  void CountOnly() { FailNth(0, 0); }
  // Stops counting and failing, and forgets the fault.
  void Disarm();

  // The code the calling operation fails with, or 0 to go on.
  zel::result_t Check(FaultPoint point) noexcept {
    if (!m_armed.load(std::memory_order_relaxed)) return 0;
    return CheckArmed(point);
  }

  // Calls counted since the last FailNth (of the one point, when set).
  std::uint64_t Calls() const noexcept { return m_calls.load(std::memory_order_acquire); }
  // Calls of each point since the last FailNth, counted or not.
  std::uint64_t CallsOf(FaultPoint point) const noexcept;
  // The point that failed since the last FailNth, if one did; nothing once disarmed.
  std::optional<FaultPoint> Fired() const;

 private:
  FaultSwitchboard() = default;
  zel::result_t CheckArmed(FaultPoint point) noexcept;

  std::atomic<bool> m_armed{false};
  std::atomic<std::uint64_t> m_calls{0};
  std::atomic<std::uint64_t> m_perPoint[static_cast<std::size_t>(FaultPoint::Count)]{};
  mutable std::mutex m_mutex;  // guards the arming below against a firing
  std::uint64_t m_nth = 0;
  zel::result_t m_code = 0;
  std::optional<FaultPoint> m_only;
  std::optional<FaultPoint> m_fired;
};

// The entry check of a host operation: 0, or the code to fail with.
inline zel::result_t FaultAt(FaultPoint point) noexcept { return FaultSwitchboard::Instance().Check(point); }

}  // namespace host
