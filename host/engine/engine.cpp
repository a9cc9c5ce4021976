#include "host/engine/engine.h"

#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>
#include <utility>

#include "host/engine/internal/engine_task.h"
#include "host/services/fault_switchboard.h"
#include "host/services/iopen_file.h"
#include "tov_common/categories/category_text.h"
#include "tov_common/inventory/application_info.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/strings/conversions.h"

namespace host::engine {

namespace {

zel::wstring_t Wide(const std::string& text) { return zel::Utf8ToWide(text); }

// One-to-one and well mixed (SplitMix64's finaliser).
std::uint64_t Mix(std::uint64_t x) noexcept {
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

// The stand-in for a content hash when hashing is off: what tells this
// file version apart without reading it, as 64 hex digits. The inode comes
// first because a record's id is read from the leading 16 digits: led by the
// device, every file of a file system would share one id, and the inventory
// would keep one record of them. It comes mixed, so that the ids fall in the
// store's key order at random as real hashes' do: in inode order, a
// hashing-off scan would store its records in an order no real scan has,
// and measure a cheaper store than a real scan meets.
std::string IdentityStamp(const struct stat& st) {
  static constexpr char kHex[] = "0123456789abcdef";
  const std::uint64_t fields[] = {
      Mix(static_cast<std::uint64_t>(st.st_ino)), static_cast<std::uint64_t>(st.st_dev),
      static_cast<std::uint64_t>(st.st_size),
      static_cast<std::uint64_t>(st.st_ctim.tv_sec) * 1000000000ull + static_cast<std::uint64_t>(st.st_ctim.tv_nsec)};
  std::string text(64, '0');
  std::size_t at = 0;
  for (const std::uint64_t field : fields)
    for (int shift = 60; shift >= 0; shift -= 4) text[at++] = kHex[(field >> shift) & 0xF];
  return text;
}

std::string NameOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) ::close(fd);
  }
};

// Longer than the coarsest tick a file system stamps times with.
constexpr std::int64_t kRacyWindowNs = 50'000'000;

bool IsRecentlyChanged(const FileStamp& stamp) {
  struct timespec now {};
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0) return true;
  const std::int64_t nowNs = static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
  return nowNs - std::max(stamp.mtimeNs, stamp.ctimeNs) < kRacyWindowNs;
}

}  // namespace

Engine::Engine(std::string sysRoot, std::size_t hashCacheCapacity)
    : m_sysRoot(std::move(sysRoot)), m_hashCache(hashCacheCapacity), m_thread([this] { Run(); }) {}

Engine::~Engine() {
  {
    std::lock_guard lock(m_mutex);
    m_quit = true;
  }
  m_wake.notify_all();
  m_thread.join();
  detail::EngineTask* active = nullptr;
  std::vector<SinkPtr> sinks;
  {
    std::lock_guard lock(m_mutex);
    active = std::exchange(m_activeTask, nullptr);
    sinks.swap(m_sinks);
  }
  if (active != nullptr) static_cast<app_core::task_manager::task::ITask*>(active)->Release();
}

zel::result_t Engine::Subscribe(app_ctrl::IEnterpriseApplicationControlEvents2* sink) {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineSubscribe)) return fault;
  if (sink == nullptr) return zel::result::InvalidArgument;
  try {
    SinkPtr held(sink);
    std::lock_guard lock(m_mutex);
    m_sinks.push_back(std::move(held));
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

zel::result_t Engine::Unsubscribe(app_ctrl::IEnterpriseApplicationControlEvents2* sink) {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineUnsubscribe)) return fault;
  SinkPtr removed;  // released after the lock is gone: the sink may die here
  {
    std::lock_guard lock(m_mutex);
    for (auto it = m_sinks.begin(); it != m_sinks.end(); ++it) {
      if (it->Get() == sink) {
        removed = std::move(*it);
        m_sinks.erase(it);
        return zel::result::NoError;
      }
    }
  }
  return zel::result::NotFound;
}

void Engine::SetCategories(CategoryList categories) {
  auto shared = std::make_shared<const CategoryList>(std::move(categories));
  std::lock_guard lock(m_mutex);
  m_categories = std::move(shared);
}

void Engine::UseCategoriesManager(ICategoriesManager* manager) {
  zel::RefPtr<ICategoriesManager> held(manager);
  std::lock_guard lock(m_mutex);
  std::swap(m_categoriesManager, held);
  m_hostCategories = dynamic_cast<CategoriesManager*>(manager);
}

void Engine::SetProcessRegistry(IProcessRegistry* registry) {
  zel::RefPtr<IProcessRegistry> held(registry);
  std::lock_guard lock(m_mutex);
  std::swap(m_processRegistry, held);
  m_hostRegistry = dynamic_cast<ProcessRegistry*>(registry);
}

void Engine::Enqueue(WorkItem item) {
  {
    std::lock_guard lock(m_mutex);
    m_queue.push_back(std::move(item));
  }
  m_wake.notify_one();
}

zel::result_t Engine::SubmitProgramStart(ProgramStart start) {
  {
    std::lock_guard lock(m_mutex);
    if (m_activeTask == nullptr || m_paused) return zel::result::NotReady;
  }
  try {
    Enqueue({WorkKind::ProgramStart, std::move(start)});
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

void Engine::SubmitFailSafeModeBoot() { Enqueue({WorkKind::FailSafeModeBoot, {}}); }
void Engine::SubmitOfflineHistoryLost() { Enqueue({WorkKind::OfflineHistoryLost, {}}); }

void Engine::WaitIdle() {
  std::unique_lock lock(m_mutex);
  m_idle.wait(lock, [this] { return (m_queue.empty() && !m_busy) || m_quit; });
}

bool Engine::WaitIdleFor(std::chrono::milliseconds timeout) {
  std::unique_lock lock(m_mutex);
  return m_idle.wait_for(lock, timeout, [this] { return (m_queue.empty() && !m_busy) || m_quit; });
}

std::shared_ptr<const CategoryList> Engine::CurrentCategories() const {
  zel::RefPtr<ICategoriesManager> manager;
  CategoriesManager* hostManager = nullptr;
  {
    std::lock_guard lock(m_mutex);
    manager = m_categoriesManager;
    hostManager = m_hostCategories;
  }
  if (hostManager != nullptr) {
    // Every decision reads the categories: the host's manager shares one
    // list instead of copying each category for each start.
    std::shared_ptr<const CategoryList> snapshot;
    if (ZEL_SUCCEEDED(hostManager->Snapshot(&snapshot))) return snapshot;
  } else if (manager) {
    std::uint32_t counter = 0;
    CategoryList fetched;
    if (ZEL_SUCCEEDED(manager->GetCategories(counter, fetched)))
      return std::make_shared<const CategoryList>(std::move(fetched));
  }
  std::lock_guard lock(m_mutex);
  return m_categories;
}

ProgramDecision Engine::DecideNow(const ProgramStart& start, const EacSettings& settings) const {
  return DecideWithFacts(start, FactsForPath(start.path), settings);
}

ProgramDecision Engine::DecideOpenFile(int fd, const ProgramStart& start, const EacSettings& settings) const {
  return DecideWithFacts(start, FactsForDescriptor(fd, start.path), settings);
}

std::shared_ptr<const EacSettings> Engine::ActiveSettings() const {
  std::lock_guard lock(m_mutex);
  if (m_activeTask == nullptr || m_paused) return nullptr;
  return m_activeTask->Settings();
}

ProgramDecision Engine::DecideWithFacts(const ProgramStart& start, FileFacts facts,
                                        const EacSettings& settings) const {
  ProgramDecision pd;
  pd.facts = std::move(facts);
  const UserPrincipals user = PrincipalsOf(start.uid);
  pd.decision = Decide(settings, *CurrentCategories(), pd.facts, user);

  const std::string uidText = std::to_string(start.uid);
  app_ctrl::ApplicationStartInfo& info = pd.info;
  info.moduleId = IdFromSha256(pd.facts.sha256);
  info.userName = Wide(user.userName.empty() ? uidText : user.userName);
  info.fileHash = Wide(pd.facts.sha256);
  info.fileName = Wide(pd.facts.name);
  info.filePath = Wide(pd.facts.path);
  info.userId = Wide(uidText);
  if (start.pid != 0 && !start.uniqueIdLater)
    info.processUniqueId = ProcessUniqueId(start.pid, start.ppid, start.pidfdSerial);
  if (pd.decision.ruleIndex >= 0) {
    pd.category.productCategoryName = settings.rules[static_cast<std::size_t>(pd.decision.ruleIndex)].ruleName;
  }
  pd.category.categoryName = pd.decision.categoryName;
  return pd;
}

std::uint64_t Engine::ProcessUniqueId(std::uint32_t pid, std::uint32_t ppid, std::uint64_t pidfdSerial) const {
  zel::RefPtr<IProcessRegistry> registry;
  ProcessRegistry* hostRegistry = nullptr;
  {
    std::lock_guard lock(m_mutex);
    registry = m_processRegistry;
    hostRegistry = m_hostRegistry;
  }
  if (!registry) return 0;
  // The facts the start came with spare the registry its own pidfd.
  std::uint64_t uniqueId = 0;
  if (hostRegistry != nullptr && pidfdSerial != 0) uniqueId = hostRegistry->Adopt(pid, ppid, pidfdSerial);
  if (uniqueId != 0 || ZEL_SUCCEEDED(registry->GetUniqueId(pid, &uniqueId))) return uniqueId;
  return 0;
}

template <class Hash, class Restat>
zel::result_t Engine::CachedHash(const struct stat& before, bool cacheable, Hash hash, Restat restat,
                                 std::string* hex) const {
  const FileStamp stamp = FileStamp::FromStat(before);
  if (!cacheable) {
    m_hashesComputed.fetch_add(1);
    return hash(hex);
  }
  if (std::optional<std::string> cached = m_hashCache.Find(stamp)) {
    *hex = std::move(*cached);
    return zel::result::NoError;
  }
  m_hashesComputed.fetch_add(1);
  if (const zel::result_t r = hash(hex); ZEL_FAILED(r)) return r;
  // A file written while it was read has a hash of no particular content:
  // it is given to this caller, but not remembered. Nor is one changed a
  // moment ago: file times advance in clock ticks, so a second write within
  // the tick of the first one could leave the stamps as they are.
  struct stat after {};
  if (restat(after) && FileStamp::FromStat(after) == stamp && !IsRecentlyChanged(stamp))
    m_hashCache.Insert(stamp, *hex);
  return zel::result::NoError;
}

bool Engine::DeviceRemovable(dev_t device) const {
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard lock(m_removableMutex);
    const auto it = m_removable.find(device);
    if (it != m_removable.end() && now - it->second.second < kRemovableTtl) return it->second.first;
  }
  const bool removable = IsDeviceRemovable(device, m_sysRoot);
  std::lock_guard lock(m_removableMutex);
  m_removable[device] = {removable, now};
  return removable;
}

template <class FsType>
bool Engine::StampsTrusted(dev_t device, FsType fsType) const {
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard lock(m_removableMutex);
    const auto it = m_trusted.find(device);
    if (it != m_trusted.end() && now - it->second.second < kRemovableTtl) return it->second.first;
  }
  struct statfs fs {};
  const bool trusted = fsType(fs) && StampsTrustedOn(static_cast<std::int64_t>(fs.f_type));
  std::lock_guard lock(m_removableMutex);
  m_trusted[device] = {trusted, now};
  return trusted;
}

UserPrincipals Engine::PrincipalsOf(std::uint32_t uid) const {
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard lock(m_principalsMutex);
    const auto it = m_principals.find(uid);
    if (it != m_principals.end() && now - it->second.second < kPrincipalsTtl) return it->second.first;
  }
  UserPrincipals user = ResolveUserPrincipals(uid);
  std::lock_guard lock(m_principalsMutex);
  if (m_principals.size() >= kPrincipalsKept) m_principals.clear();
  m_principals[uid] = {user, now};
  return user;
}

FileFacts Engine::FactsForPath(const std::string& path) const {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  FdCloser closer{fd};
  return FactsForDescriptor(fd, path);
}

FileFacts Engine::FactsForDescriptor(int fd, const std::string& path) const {
  FileFacts facts;
  facts.path = path;
  facts.name = NameOf(path);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    // Not readable: the criteria over path, name and drive still work.
    facts.removable = IsOnRemovableDrive(path, m_sysRoot);
    return facts;
  }
  facts.removable = DeviceRemovable(st.st_dev);
  const bool cacheable = StampsTrusted(st.st_dev, [fd](struct statfs& fs) { return ::fstatfs(fd, &fs) == 0; });
  const zel::result_t r = CachedHash(
      st, cacheable, [fd](std::string* hex) { return Sha256Descriptor(fd, hex); },
      [fd](struct stat& again) { return ::fstat(fd, &again) == 0; }, &facts.sha256);
  if (ZEL_FAILED(r)) facts.sha256.clear();
  return facts;
}

zel::result_t Engine::GetCategories(zel::types::vector_t<app_ctrl::Category>& categories) {
  try {
    categories = *CurrentCategories();
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t Engine::InventoryModule(zel::IIO* io, std::uint32_t flags, tov::ApplicationInfo& info) {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineInventoryModule)) return fault;
  if (io == nullptr || flags != 0) return zel::result::InvalidArgument;
  try {
    FileFacts facts;
    zel::RefPtr<host::IOpenFile> file;
    struct stat st {};
    bool known = false;
    if (ZEL_SUCCEEDED(io->QueryInterface(host::IOpenFile::iid, reinterpret_cast<void**>(file.Ref())))) {
      zel::string_t path;
      if (const zel::result_t r = file->GetPath(path); ZEL_FAILED(r)) return r;
      facts.path.assign(path.view());
      facts.name = NameOf(facts.path);
      known = ZEL_SUCCEEDED(file->Stat(st));
    }
    const auto hash = [io](std::string* hex) { return Sha256Stream(io, hex); };
    zel::result_t r = zel::result::NoError;
    if (known && !m_contentHashing.load()) {
      facts.sha256 = IdentityStamp(st);
    } else if (known) {
      const bool cacheable =
          StampsTrusted(st.st_dev, [&facts](struct statfs& fs) { return ::statfs(facts.path.c_str(), &fs) == 0; });
      r = CachedHash(st, cacheable, hash, [&file](struct stat& again) { return ZEL_SUCCEEDED(file->Stat(again)); },
                     &facts.sha256);
    } else {
      // Without an identity there is nothing to remember the hash by.
      m_hashesComputed.fetch_add(1);
      r = hash(&facts.sha256);
    }
    if (ZEL_FAILED(r)) return r;
    if (known) facts.removable = DeviceRemovable(st.st_dev);

    const std::shared_ptr<const CategoryList> categories = CurrentCategories();
    zel::types::vector_t<tov::CategoryKey> keys;
    for (const app_ctrl::CategoryId& id : MatchCategories(*categories, facts)) {
      tov::CategoryKey key;
      key.kind = tov::kScanCategoryKind;
      key.text = tov::tools::CategoryIdToText(id);
      keys.push_back(std::move(key));
    }
    zel::wstring_t fileName = Wide(facts.name);
    zel::wstring_t filePath = Wide(facts.path);
    zel::wstring_t fileHash = Wide(facts.sha256);
    // Everything that can fail is done: only now is the caller's record changed.
    info.id = IdForFile(facts.sha256, facts.path);
    info.fileName = std::move(fileName);
    info.filePath = std::move(filePath);
    info.fileHash = std::move(fileHash);
    info.categoryKeys = std::move(keys);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

std::vector<Engine::SinkPtr> Engine::SnapshotSinks() const {
  std::lock_guard lock(m_mutex);
  return m_sinks;
}

void Engine::Run() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    m_wake.wait(lock, [this] { return m_quit || !m_queue.empty(); });
    if (m_quit) break;
    WorkItem item = std::move(m_queue.front());
    m_queue.pop_front();
    m_busy = true;
    lock.unlock();
    try {
      Process(item);
    } catch (...) {
      // A start that could not be decided (out of memory) is dropped; the
      // engine keeps serving the next ones.
    }
    lock.lock();
    m_busy = false;
    m_idle.notify_all();
  }
  m_idle.notify_all();
}

void Engine::Process(const WorkItem& item) {
  if (item.kind != WorkKind::ProgramStart) {
    for (const SinkPtr& sink : SnapshotSinks()) {
      try {
        if (item.kind == WorkKind::FailSafeModeBoot) {
          sink->OnFailSafeModeBoot();
        } else {
          sink->OnUnknownModulesOfflineHistoryLost();
        }
      } catch (...) {
        m_sinkExceptions.fetch_add(1);
      }
    }
    return;
  }

  zel::RefPtr<app_core::task_manager::task::ITask> hold;
  detail::EngineTask* task = nullptr;
  {
    std::lock_guard lock(m_mutex);
    if (m_activeTask == nullptr || m_paused) return;
    task = m_activeTask;
    hold = zel::RefPtr<app_core::task_manager::task::ITask>(task);
  }
  const std::shared_ptr<const EacSettings> settings = task->Settings();
  ProgramDecision pd = DecideNow(item.start, *settings);
  {
    std::lock_guard lock(m_mutex);
    m_decisions.push_back(pd);
  }
  static_cast<void>(Report(pd));  // counted by the engine where it matters: SinkExceptions
}

zel::result_t Engine::Report(const ProgramDecision& pd) {
  zel::result_t first = zel::result::NoError;
  for (const SinkPtr& sink : SnapshotSinks()) {
    zel::result_t r = zel::result::NoError;
    try {
      r = sink->OnApplicationControl(&pd.info, &pd.category, &pd.decision.verdict);
    } catch (...) {
      // The verdict stands whatever a sink does; a sink that throws is
      // counted and the others are still told.
      m_sinkExceptions.fetch_add(1);
      r = zel::result::Unexpected;
    }
    if (ZEL_FAILED(r) && ZEL_SUCCEEDED(first)) first = r;
  }
  return first;
}

zel::result_t Engine::CreateTask(const EacSettings& settings, zel::iid_t iid, void** out) {
  if (out == nullptr) return zel::result::InvalidArgument;
  *out = nullptr;
  if (const zel::result_t fault = m_failCreate.load(); fault != 0) return fault;
  try {
    auto* object = new detail::EngineTaskObject(this, settings);
    m_tasksCreated.fetch_add(1);
    const zel::result_t r = object->QueryInterface(iid, out);
    object->Release();  // the creation reference; an unknown iid ends the task here
    if (ZEL_FAILED(r)) *out = nullptr;
    return r;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

std::shared_ptr<const EacSettings> Engine::SettingsOf(zel::IObject* task) const {
  std::lock_guard lock(m_mutex);
  for (detail::EngineTask* t : m_tasks)
    if (t->Is(task)) return t->Settings();
  return nullptr;
}

bool Engine::IsStarted() const {
  std::lock_guard lock(m_mutex);
  return m_activeTask != nullptr;
}

std::size_t Engine::LiveTasks() const {
  std::lock_guard lock(m_mutex);
  return m_tasks.size();
}

std::vector<ProgramDecision> Engine::Decisions() const {
  std::lock_guard lock(m_mutex);
  return m_decisions;
}

std::size_t Engine::Subscribers() const {
  std::lock_guard lock(m_mutex);
  return m_sinks.size();
}

void Engine::TaskBorn(detail::EngineTask* task) {
  std::lock_guard lock(m_mutex);
  m_tasks.insert(task);
}

void Engine::TaskDied(detail::EngineTask* task) {
  std::lock_guard lock(m_mutex);
  m_tasks.erase(task);
}

zel::result_t Engine::StartTask(detail::EngineTask* task) {
  if (const zel::result_t fault = m_failStart.load(); fault != 0) return fault;
  std::lock_guard lock(m_mutex);
  if (m_activeTask == task) return zel::result::False;  // already running
  if (m_activeTask != nullptr) return zel::result::InvalidState;
  static_cast<app_core::task_manager::task::ITask*>(task)->AddRef();
  m_activeTask = task;
  m_paused = false;
  return zel::result::NoError;
}

zel::result_t Engine::StopTask(detail::EngineTask* task) {
  if (const zel::result_t fault = m_failStop.load(); fault != 0) return fault;
  {
    std::unique_lock lock(m_mutex);
    if (m_activeTask != task) return zel::result::False;  // not running
    m_activeTask = nullptr;
    m_paused = false;
    // No event of this task may follow a successful Stop: wait for a
    // delivery under way, unless it is that delivery which stops the task.
    if (std::this_thread::get_id() != m_thread.get_id()) {
      m_idle.wait(lock, [this] { return !m_busy || m_quit; });
    }
  }
  static_cast<app_core::task_manager::task::ITask*>(task)->Release();
  return zel::result::NoError;
}

zel::result_t Engine::PauseTask(detail::EngineTask* task, bool pause) {
  std::lock_guard lock(m_mutex);
  if (m_activeTask != task) return zel::result::InvalidState;
  m_paused = pause;
  return zel::result::NoError;
}

}  // namespace host::engine
