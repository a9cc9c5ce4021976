// host::engine::Engine: the reference host's application-control engine. It
// makes the engine task (through EngineObjectCreator), keeps the subscribers
// of its application-control events, and decides program starts on its own
// thread: a start submitted by the host is decided with the settings of the
// started engine task and the current categories, and every subscriber is
// told on that thread through OnApplicationControl.
//
// The engine is also the host's app_ctrl::IEnterpriseApplicationController:
// it describes files for the inventory with the same facts and the same
// category matcher that decide program starts. Content hashes, for both,
// go through one bounded HashCache keyed by the file's identity and change
// stamps, so an unchanged file is hashed once.
//
// One engine task runs at a time. The engine must outlive every task it
// made. Fault injection: creation, Start, Stop and SetSettings can be made
// to fail with a chosen code.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app_control/interfaces/icategories_manager.h"
#include "app_control/interfaces/ienterprise_application_control_events2_subscription.h"
#include "app_control/interfaces/ienterprise_application_controller.h"
#include "app_control/interfaces/iprocess_registry.h"
#include "app_control/interfaces/itask.h"
#include "host/engine/decision.h"
#include "host/engine/hash_cache.h"
#include "host/services/categories_manager.h"
#include "host/services/host_object.h"
#include "host/services/process_registry.h"
#include "zel/rtl/objclient.h"

namespace host::engine {

namespace detail {
class EngineTask;
}

using EacSettings = app_ctrl::EnterpriseApplicationControlSettings;

// A program that is about to start.
struct ProgramStart {
  std::string path;
  std::uint32_t uid = 0;
  std::uint32_t pid = 0;  // 0 when there is no process yet
  // What the caller already asked the process's pidfd, so that the process
  // registry need not ask again: its parent and pidfd serial (0: not known).
  std::uint32_t ppid = 0;
  std::uint64_t pidfdSerial = 0;
  // The caller makes the process's unique id itself, after the start is
  // answered (ProcessUniqueId); the decision leaves it 0.
  bool uniqueIdLater = false;
};

// Everything the engine concluded about one start, as it was reported.
struct ProgramDecision {
  Decision decision;
  FileFacts facts;
  app_ctrl::ApplicationStartInfo info;
  app_ctrl::ApplicationCategoryInfo category;
};

class Engine final : public OwnedObject<Engine, app_ctrl::IEnterpriseApplicationControlEvents2Subscription,
                                         app_ctrl::IEnterpriseApplicationController> {
 public:
  // `sysRoot`: where sysfs is mounted, for the removable-drive fact.
  // `hashCacheCapacity`: how many file hashes are remembered.
  explicit Engine(std::string sysRoot = "/sys", std::size_t hashCacheCapacity = HashCache::kDefaultCapacity);
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  // Joins the engine thread and lets go of the subscribers.
  ~Engine();

  zel::result_t Subscribe(app_ctrl::IEnterpriseApplicationControlEvents2* sink) override;
  zel::result_t Unsubscribe(app_ctrl::IEnterpriseApplicationControlEvents2* sink) override;

  // ---- the controller ----
  // The categories that decisions use now (see UseCategoriesManager).
  zel::result_t GetCategories(zel::types::vector_t<app_ctrl::Category>& categories) override;
  // Reads the whole stream from its start. When the stream is one the host
  // opened (it answers host::IOpenFile) the engine also knows the file's
  // path and identity: it fills filePath and fileName (the part behind the
  // last "/") and asks the hash cache first; a bare stream is hashed and
  // gets no path and no name. In both cases: fileHash is the SHA-256 as
  // lower-case hex, id is IdForFile of it and the path (so copies of one
  // content at two paths are two records, and the id of an unchanged file
  // stays the same from scan to scan; a bare stream's is IdFromSha256), and
  // categoryKeys holds, in the categories' order, one key of kind
  // tov::kScanCategoryKind per matching category with the category id as
  // tov::tools::CategoryIdToText writes it. Nothing else of `info` is
  // touched, nor is `info` on failure.
  zel::result_t InventoryModule(zel::IIO* io, std::uint32_t flags, tov::ApplicationInfo& info) override;

  // ---- what the host tells the engine ----
  void SetCategories(CategoryList categories);
  // Categories are then read from `manager` at each decision; the list of
  // SetCategories serves when it fails. Null goes back to that list alone.
  void UseCategoriesManager(ICategoriesManager* manager);
  // Gives the reported starts their process unique id; null for none. The
  // host's own registry is also told the facts a start came with.
  void SetProcessRegistry(IProcessRegistry* registry);

  // Queues a start for the engine thread. 0x80000063 (not ready) while no
  // engine task is started or it is paused.
  zel::result_t SubmitProgramStart(ProgramStart start);
  // Queue the two notices for the engine thread.
  void SubmitFailSafeModeBoot();
  void SubmitOfflineHistoryLost();
  // Returns when the queue is empty and no delivery is under way.
  void WaitIdle();
  // As WaitIdle, giving up after `timeout`: false when still busy then, so
  // that a test of a stuck engine fails instead of hanging.
  bool WaitIdleFor(std::chrono::milliseconds timeout);

  // Decides on the caller's thread with `settings`; reports nothing.
  ProgramDecision DecideNow(const ProgramStart& start, const EacSettings& settings) const;
  // The same for a program already open as `fd` (a start caught in the
  // kernel): its content is hashed through that descriptor, never reopened
  // by path, and `start.path` is taken as its name.
  ProgramDecision DecideOpenFile(int fd, const ProgramStart& start, const EacSettings& settings) const;
  // The unique id of process `pid` for the reports: from its parent and
  // pidfd serial when known (nothing is read then), else as the process
  // registry finds it; 0 without a registry or when the process is unknown.
  std::uint64_t ProcessUniqueId(std::uint32_t pid, std::uint32_t ppid, std::uint64_t pidfdSerial) const;
  // The settings of the started engine task; null while none is started or
  // it is paused, when nothing is enforced.
  std::shared_ptr<const EacSettings> ActiveSettings() const;
  // Tells every subscriber about a decision taken with DecideNow or
  // DecideOpenFile, on the caller's thread. A sink that fails or throws
  // doesn't stop the others: the result is the first failure (an exception
  // counts as zel::result::Unexpected, and in SinkExceptions), 0 when every
  // sink took it.
  zel::result_t Report(const ProgramDecision& decision);

  // ---- engine tasks ----
  // Makes a task holding a copy of `settings` and gives its `iid` face.
  zel::result_t CreateTask(const EacSettings& settings, zel::iid_t iid, void** out);
  // The settings a task of this engine holds now; null for any other object.
  std::shared_ptr<const EacSettings> SettingsOf(zel::IObject* task) const;
  bool IsStarted() const;
  std::size_t LiveTasks() const;
  std::uint64_t TasksCreated() const { return m_tasksCreated.load(); }

  // ---- fault injection; 0 clears ----
  void FailCreate(zel::result_t code) { m_failCreate.store(code); }
  void FailStart(zel::result_t code) { m_failStart.store(code); }
  void FailStop(zel::result_t code) { m_failStop.store(code); }
  void FailSetSettings(zel::result_t code) { m_failSetSettings.store(code); }

  // ---- inspection ----
  // The cache is the engine's; tests and benchmarks read or clear it.
  HashCache& Hashes() noexcept { return m_hashCache; }
  // How many file contents were actually hashed (cache misses and streams
  // without identity).
  std::uint64_t HashesComputed() const noexcept { return m_hashesComputed.load(); }
  // Off: InventoryModule reads no content for a file the host opened and
  // gives, in place of the SHA-256, 64 hex digits of the file's identity
  // (inode, device, size, change time). For measuring the walk without the
  // hashing, and for a quick stock-taking; GoldenImage criteria built from
  // such a run match no program start. Bare streams are still hashed.
  void SetContentHashing(bool on) noexcept { m_contentHashing.store(on); }
  std::vector<ProgramDecision> Decisions() const;
  std::thread::id ThreadId() const { return m_thread.get_id(); }
  std::size_t Subscribers() const;
  // Exceptions that sinks let out of a delivery; the engine goes on.
  std::uint64_t SinkExceptions() const { return m_sinkExceptions.load(); }

 private:
  friend class detail::EngineTask;

  enum class WorkKind { ProgramStart, FailSafeModeBoot, OfflineHistoryLost };
  struct WorkItem {
    WorkKind kind;
    ProgramStart start;
  };
  using SinkPtr = zel::RefPtr<app_ctrl::IEnterpriseApplicationControlEvents2>;

  // Called by the tasks.
  void TaskBorn(detail::EngineTask* task);
  void TaskDied(detail::EngineTask* task);
  zel::result_t StartTask(detail::EngineTask* task);
  zel::result_t StopTask(detail::EngineTask* task);
  zel::result_t PauseTask(detail::EngineTask* task, bool pause);

  void Run();
  void Process(const WorkItem& item);
  void Enqueue(WorkItem item);
  std::vector<SinkPtr> SnapshotSinks() const;
  // The categories a decision uses: the host manager's snapshot, another
  // manager's copy, or the engine's own list when no manager answers.
  std::shared_ptr<const CategoryList> CurrentCategories() const;
  // IsDeviceRemovable, remembered for a moment: a scan asks it for every
  // file of a tree, and sysfs lookups cost more than hashing a small file.
  // Short-lived, because a device number may come back for another drive.
  bool DeviceRemovable(dev_t device) const;
  // StampsTrustedOn for the file system of `device`, remembered like
  // DeviceRemovable; `fsType` answers statfs's f_type, false when unknown.
  template <class FsType>
  bool StampsTrusted(dev_t device, FsType fsType) const;
  // ResolveUserPrincipals, remembered for a few seconds: reading the user
  // and group databases costs more than the rest of a decision, and live
  // enforcement decides every program start. A change of groups is seen
  // within kPrincipalsTtl.
  UserPrincipals PrincipalsOf(std::uint32_t uid) const;
  // The facts of a program about to start: opened once, hashed through the cache.
  FileFacts FactsForPath(const std::string& path) const;
  FileFacts FactsForDescriptor(int fd, const std::string& path) const;
  ProgramDecision DecideWithFacts(const ProgramStart& start, FileFacts facts, const EacSettings& settings) const;
  // Hash of an open file through the cache: `stamp` is its fstat before
  // reading, `restat` gives it again afterwards; the result is cached only
  // when the file did not change while it was read.
  template <class Hash, class Restat>
  // `cacheable` false: the file is hashed and nothing is looked up or kept.
  zel::result_t CachedHash(const struct stat& before, bool cacheable, Hash hash, Restat restat,
                           std::string* hex) const;

  const std::string m_sysRoot;
  mutable std::mutex m_mutex;
  std::condition_variable m_wake;
  std::condition_variable m_idle;
  std::deque<WorkItem> m_queue;
  bool m_busy = false;
  bool m_quit = false;
  std::vector<SinkPtr> m_sinks;
  std::set<detail::EngineTask*> m_tasks;
  detail::EngineTask* m_activeTask = nullptr;  // holds a reference while set
  bool m_paused = false;
  std::shared_ptr<const CategoryList> m_categories = std::make_shared<const CategoryList>();
  zel::RefPtr<ICategoriesManager> m_categoriesManager;
  CategoriesManager* m_hostCategories = nullptr;  // the same object, when it is the host's
  zel::RefPtr<IProcessRegistry> m_processRegistry;
  ProcessRegistry* m_hostRegistry = nullptr;  // the same object, when it is the host's
  std::vector<ProgramDecision> m_decisions;

  std::atomic<zel::result_t> m_failCreate{0};
  std::atomic<zel::result_t> m_failStart{0};
  std::atomic<zel::result_t> m_failStop{0};
  std::atomic<zel::result_t> m_failSetSettings{0};
  std::atomic<std::uint64_t> m_tasksCreated{0};
  std::atomic<std::uint64_t> m_sinkExceptions{0};
  mutable HashCache m_hashCache;
  static constexpr std::chrono::seconds kRemovableTtl{2};
  mutable std::mutex m_removableMutex;
  mutable std::map<dev_t, std::pair<bool, std::chrono::steady_clock::time_point>> m_removable;
  mutable std::map<dev_t, std::pair<bool, std::chrono::steady_clock::time_point>> m_trusted;  // m_removableMutex
  mutable std::atomic<std::uint64_t> m_hashesComputed{0};
  static constexpr std::chrono::seconds kPrincipalsTtl{5};
  static constexpr std::size_t kPrincipalsKept = 1024;
  mutable std::mutex m_principalsMutex;
  mutable std::map<std::uint32_t, std::pair<UserPrincipals, std::chrono::steady_clock::time_point>> m_principals;
  std::atomic<bool> m_contentHashing{true};
  std::thread m_thread;  // last: starts once everything above exists
};

}  // namespace host::engine
