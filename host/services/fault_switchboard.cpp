#include "host/services/fault_switchboard.h"

#include <array>

namespace host {

namespace {

constexpr std::array<std::string_view, static_cast<std::size_t>(FaultPoint::Count)> kNames{
    "alloc",
    "locator.GetInterface",
    "kv.GetValue",
    "kv.SetValue",
    "kv.RemoveValue",
    "kv.Commit",
    "settings.GetServiceSettings2",
    "settings.UpdateServiceSettings2",
    "settings.FlushSettings",
    "categories.GetCategories",
    "categories.PutCategories",
    "engine.CreateObject",
    "engine.Subscribe",
    "engine.Unsubscribe",
    "engine.InventoryModule",
    "engineTask.Start",
    "engineTask.Stop",
    "engineTask.Pause",
    "engineTask.Resume",
    "engineTask.SetSettings",
    "publisher.PublishEvent",
    "taskRegistry.GetTaskDescription",
    "taskInfo.GetTaskInfo",
    "processes.GetProcess",
    "process.GetDescription",
    "pwdb.Lookup",
    "taskLock.TryLock",
    "taskLock.Unlock",
    "cgroups.AddToCgroup",
    "taskStops.OnTaskStopped",
    "files.CreateFile",
    "pathMatcher.Create",
    "formatRecognizer.Create",
    "metaInfo.Find",
    "xmlStorage.Create",
    "storageSerializer.Serialize",
};

}  // namespace

std::string_view FaultPointName(FaultPoint point) noexcept {
  const auto i = static_cast<std::size_t>(point);
  return i < kNames.size() ? kNames[i] : std::string_view("unknown");
}

FaultSwitchboard& FaultSwitchboard::Instance() noexcept {
  static FaultSwitchboard board;
  return board;
}

void FaultSwitchboard::FailNth(std::uint64_t nth, zel::result_t code, std::optional<FaultPoint> only) {
  std::lock_guard lock(m_mutex);
  m_nth = nth;
  m_code = code;
  m_only = only;
  m_fired.reset();
  m_calls.store(0, std::memory_order_relaxed);
  for (auto& c : m_perPoint) c.store(0, std::memory_order_relaxed);
  m_armed.store(true, std::memory_order_release);
}

void FaultSwitchboard::Disarm() {
  std::lock_guard lock(m_mutex);
  m_armed.store(false, std::memory_order_release);
  m_nth = 0;
  m_fired.reset();
}

std::uint64_t FaultSwitchboard::CallsOf(FaultPoint point) const noexcept {
  return m_perPoint[static_cast<std::size_t>(point)].load(std::memory_order_acquire);
}

std::optional<FaultPoint> FaultSwitchboard::Fired() const {
  std::lock_guard lock(m_mutex);
  return m_fired;
}

zel::result_t FaultSwitchboard::CheckArmed(FaultPoint point) noexcept {
  m_perPoint[static_cast<std::size_t>(point)].fetch_add(1, std::memory_order_acq_rel);
  std::lock_guard lock(m_mutex);
  if (!m_armed.load(std::memory_order_relaxed)) return 0;
  if (m_only && *m_only != point) return 0;
  const std::uint64_t n = m_calls.fetch_add(1, std::memory_order_acq_rel) + 1;
  if (m_nth == 0 || n != m_nth || m_fired) return 0;
  m_fired = point;
  return m_code;
}

}  // namespace host
