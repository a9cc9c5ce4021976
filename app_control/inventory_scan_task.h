// tov::app_control::InventoryScanTask: the host task that takes stock of the
// applications on the machine. Each run rebuilds the whole inventory on one
// worker thread: clear the storage, walk every enabled scope, let the file
// matcher pick what the engine looks at, store the engine's descriptions,
// publish (or drop) the GoldenImage category, flush, tell the host.
//
// The task owns the thread, the state machine, the pause handshake and the
// task-type lock; what a file is worth is the matcher's and the engine's.
// Objects come from the class table (locator's allocator, FinalConstruct).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "app_control/interfaces/ienterprise_application_controller.h"
#include "app_control/interfaces/iinventory_scan_task_construct.h"
#include "app_control/interfaces/iinventory_scan_task_settings.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/interfaces/itask.h"
#include "app_control/internal/filesystem_verdicts.h"
#include "app_control/internal/pause_gate.h"
#include "app_control/internal/try_lock_task_type_guard.h"
#include "tov_common/categories/category_types.h"
#include "tov_common/inventory/application_info.h"
#include "tov_common/native_path.h"
#include "tov_common/settings/inventory_scan_settings.h"
#include "zel/ifile_factory.h"
#include "zel/noncopyable.h"
#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"

namespace tov::app_control {

class InventoryFileMatcher;

// The task type under which the host's task-type lock serialises scans.
inline constexpr char16_t kInventoryScanTaskType[] = u"InventoryScan";

// The key the scan puts into every record of a GoldenImage run: the category
// id in its lower-case 8-4-4-4-12 text.
const tov::CategoryKey& GoldenImageCategoryKey();

// Lower-cases A to Z of each key's text, sorts by kind and text, drops
// duplicates and, when `dropGoldenImage`, the GoldenImage key.
void NormaliseCategoryKeys(zel::types::vector_t<tov::CategoryKey>& keys, bool dropGoldenImage);

class InventoryScanTask
    : public app_core::task_manager::task::ITask,
      public IInventoryScanTaskConstruct,
      public IInventoryScanTaskSettings,
      public zel::ObjectRootEx<zel::CompositeServiceStrategyHelper<
          zel::AllocatorProvider, zel::ServiceStrategyAdapter<zel::TracerProvider>, zel::ServiceLocatorProvider>>,
      public zel::NonCopyable {
 public:
  static constexpr std::uint32_t clsid = 0x1FB87869;
  using interfaces = zel::InterfaceList<app_core::task_manager::task::ITask, IInventoryScanTaskConstruct,
                                        IInventoryScanTaskSettings>;

  explicit InventoryScanTask(zel::IServiceLocator* serviceLocator);

  // Fetches the engine, the file factory and the inventory storage, in this
  // order; the first failure is returned.
  zel::result_t FinalConstruct();
  // Stops a running worker (parked or not) and joins it.
  void FinalRelease();

  // ---- ITask ----
  // Takes the task-type lock and starts the worker; 0x8000004B when another
  // scan holds the lock, 0x8000006A when this task has not been stopped.
  zel::result_t Start(app_core::task_manager::task::TaskSessionId sessionId,
                      app_core::task_manager::task::ITaskStopEvents* taskStopNotifier) override;
  // Joins the worker; 0x8000006A unless the task is started (a suspended
  // task is resumed first).
  zel::result_t Stop() override;
  // Returns once the worker is parked between two entries.
  zel::result_t Pause() override;
  // Returns once the worker has left the gate.
  zel::result_t Resume() override;

  // ---- IInventoryScanTaskConstruct / IInventoryScanTaskSettings ----
  zel::result_t Construct(const tov::settings::InventoryScanSettings* settings) override;
  zel::result_t SetSettings(const tov::settings::InventoryScanSettings* settings) override;
  zel::result_t GetSettings(tov::settings::InventoryScanSettings* settings) override;

  // The host's task states, as far as this task uses them.
  enum State : std::uint32_t { Started = 1, Pausing = 2, Suspended = 3, Resuming = 4, Stopped = 6 };
  // For whoever inspects the task (tests).
  std::uint32_t CurrentState() const noexcept { return m_state.load(); }
  bool StopRequested() const noexcept { return m_stopRequested.load(); }
  bool PauseRequested() const noexcept { return m_pauseGate.pauseRequested.load(); }

 protected:
  ~InventoryScanTask();

 private:
  // The worker's body; owns the task-type lock until after the stop notice.
  int Run(tov::TryLockTaskTypeGuard&& lockGuard) noexcept;
  // Walks one root; 0, 0x80000051 when stopped, or the root's failure.
  zel::result_t ProcessPath(const tov::NativePath& path);
  // Judges and, if it passes, inventories one entry; all it has to say goes
  // to the trace.
  zel::result_t CategorizeFile(const tov::NativePath& path);
  zel::result_t OpenFile(const tov::NativePath& path, zel::RefPtr<zel::IIO>& io);
  void CopySettings(const tov::settings::InventoryScanSettings& from, tov::settings::InventoryScanSettings& to);

  std::recursive_mutex m_mutex;
  app_core::task_manager::task::ITaskStopEvents* m_taskStopNotifier = nullptr;  // not counted
  app_core::task_manager::task::TaskSessionId m_sessionId = 0;
  std::atomic<std::uint32_t> m_state{Stopped};
  tov::settings::InventoryScanSettings m_settings;
  std::thread m_thread;
  std::atomic<bool> m_stopRequested{false};
  PauseGate m_pauseGate;
  std::unique_ptr<InventoryFileMatcher> m_matcher;
  zel::RefPtr<app_ctrl::IEnterpriseApplicationController> m_appController;
  zel::RefPtr<zel::IFileFactory> m_fileFactory;
  std::optional<app_ctrl::Category> m_goldenImageCategory;
  zel::RefPtr<IInventoryStorage> m_inventory;
  // The worker's: which devices the run's files may be inventoried from.
  FilesystemVerdicts m_filesystems;
};

}  // namespace tov::app_control
