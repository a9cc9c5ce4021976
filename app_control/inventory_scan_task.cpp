#include "app_control/inventory_scan_task.h"

#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string_view>
#include <utility>

#include "app_control/directory_enumerator.h"
#include "app_control/interfaces/icategories_manager.h"
#include "app_control/interfaces/icgroups_manager.h"
#include "app_control/interfaces/itask_info_provider.h"
#include "app_control/interfaces/itask_try_mutex.h"
#include "app_control/inventory_file_matcher.h"
#include "zel/rtl/error_handling/checks.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/strings/conversions.h"
#include "zel/trace/trace_stream.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace tov::app_control {
namespace {

using app_core::task_manager::task::ITaskStopEvents;
using app_core::task_manager::task::TaskSessionId;
using app_core::task_manager::task::TaskStopInfo;
using tov::settings::GoldenImageAction;
using zel::trace_level::Error;
using zel::trace_level::Info;
using zel::trace_level::Notice;

constexpr char16_t kGoldenImageName[] = u"GoldenImage";

// The text of errno `error`, for the stat failure lines.
std::string_view ErrorText(int error, char (&buffer)[256]) noexcept {
  return std::string_view(::strerror_r(error, buffer, sizeof(buffer)));
}

// Runs `action` when the scope ends, whatever way; its exceptions go nowhere.
template <class F>
class ExitAction {
 public:
  explicit ExitAction(F action) : m_action(std::move(action)) {}
  ExitAction(const ExitAction&) = delete;
  ExitAction& operator=(const ExitAction&) = delete;
  ~ExitAction() {
    try {
      m_action();
    } catch (...) {
    }
  }

 private:
  F m_action;
};

// The open file of one entry: owned like any counted reference, and handed
// to the matcher and the engine as the plain stream pointer they take.
struct IoRef : zel::RefPtr<zel::IIO> {
  operator zel::IIO*() const noexcept { return Get(); }  // NOLINT: used as the stream itself
};

struct CategoryKeyLess {
  bool operator()(const tov::CategoryKey& a, const tov::CategoryKey& b) const noexcept {
    if (a.kind != b.kind) return a.kind < b.kind;
    return a.text.view() < b.text.view();
  }
};

}  // namespace

const tov::CategoryKey& GoldenImageCategoryKey() {
  static const tov::CategoryKey key{tov::kScanCategoryKind, zel::wstring_t(u"eac00500-0000-0000-0000-000000000000")};
  return key;
}

void NormaliseCategoryKeys(zel::types::vector_t<tov::CategoryKey>& keys, bool dropGoldenImage) {
  std::set<tov::CategoryKey, CategoryKeyLess> ordered;
  for (const tov::CategoryKey& key : keys) {
    tov::CategoryKey folded{key.kind, key.text};
    // Only ASCII letters: the ids are hex text, and names are compared by
    // their code units elsewhere.
    for (std::size_t i = 0; i < folded.text.size(); ++i) {
      const char16_t c = folded.text[i];
      if (c >= u'A' && c <= u'Z') folded.text[i] = static_cast<char16_t>(c - u'A' + u'a');
    }
    ordered.insert(std::move(folded));
  }
  if (dropGoldenImage) ordered.erase(GoldenImageCategoryKey());
  zel::types::vector_t<tov::CategoryKey> result;
  result.reserve(ordered.size());
  for (const tov::CategoryKey& key : ordered) result.push_back(key);
  keys = std::move(result);
}

InventoryScanTask::InventoryScanTask(zel::IServiceLocator* serviceLocator) : ObjectRootEx(serviceLocator) {}

InventoryScanTask::~InventoryScanTask() = default;

zel::result_t InventoryScanTask::FinalConstruct() {
  ZEL_TRACE(GetTracer(), Info) << "result_t tov::app_control::InventoryScanTask::FinalConstruct()";
  zel::IServiceLocator* sl = GetServiceLocator();
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), zel::GetInterface(sl, m_appController.Ref()),
                              "Cannot get app_ctrl::IEnterpriseApplicationController interface");
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), zel::GetInterface(sl, qurn::CLSID_FileFactories, m_fileFactory.Ref()),
                              "Cannot get zel::IFileFactory interface");
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), zel::GetInterface(sl, m_inventory.Ref()),
                              "Cannot get IInventoryStorage interface");
  return zel::result::NoError;
}

void InventoryScanTask::FinalRelease() {
  ZEL_TRACE(GetTracer(), Info) << "void tov::app_control::InventoryScanTask::FinalRelease()";
  m_stopRequested.store(true);
  m_pauseGate.ReleasePause();
  if (m_thread.joinable()) m_thread.join();
}

// ==== ITask =========================================================================

zel::result_t InventoryScanTask::Start(TaskSessionId sessionId, ITaskStopEvents* taskStopNotifier) {
  try {
    ZEL_TRACE(GetTracer(), Info) << "virtual result_t tov::app_control::InventoryScanTask::Start("
                                    "app_core::task_manager::task::TaskSessionId, "
                                    "app_core::task_manager::task::ITaskStopEvents*)";
    tov::TryLockTaskTypeGuard guard{zel::wstring_t(kInventoryScanTaskType)};
    ITaskTryMutex* mutex = nullptr;
    const zel::result_t got = zel::GetInterface(GetServiceLocator(), &mutex);
    bool locked = false;
    if (ZEL_FAILED(got)) {
      zel::RefPtr<zel::ITracer> tracer;
      if (ZEL_SUCCEEDED(zel::GetInterface(GetServiceLocator(), tracer.Ref()))) {
        ZEL_TRACE(tracer.Get(), Error) << "Cannot get service for ITaskTryMutex.";
      }
    } else if (ZEL_FAILED(mutex->TryLock(guard.Type()))) {
      mutex->Release();
      zel::RefPtr<zel::ITracer> tracer;
      if (ZEL_SUCCEEDED(zel::GetInterface(GetServiceLocator(), tracer.Ref()))) {
        ZEL_TRACE(tracer.Get(), Notice) << "Task with type '" << guard.Type().view() << "' already runs.";
      }
    } else {
      guard.Adopt(mutex);
      locked = true;
    }
    if (!locked) {
      zel::RefPtr<zel::ITracer> tracer;
      if (ZEL_SUCCEEDED(zel::GetInterface(GetServiceLocator(), tracer.Ref()))) {
        ZEL_TRACE(tracer.Get(), Error) << "Task start is locked by another concurrent action";
      }
      return zel::result::UnspecifiedError;
    }

    std::lock_guard lock(m_mutex);
    if (m_state.load() != Stopped) {
      ZEL_TRACE(GetTracer(), Info) << "Task is not stopped, session id: " << sessionId;
      return zel::result::InvalidState;  // the guard gives the type back
    }
    m_taskStopNotifier = taskStopNotifier;
    m_sessionId = sessionId;
    m_state.store(Started);
    m_thread = std::thread(&InventoryScanTask::Run, this, std::move(guard));
    ZEL_TRACE(GetTracer(), Info) << "Task started, session id: " << sessionId;
    return zel::result::NoError;
  } catch (...) {
    return zel::result::UnspecifiedError;
  }
}

zel::result_t InventoryScanTask::Stop() {
  try {
    ZEL_TRACE(GetTracer(), Info) << "virtual result_t tov::app_control::InventoryScanTask::Stop()";
    std::lock_guard lock(m_mutex);
    if (m_state.load() != Started) {
      ZEL_TRACE(GetTracer(), Error) << "Task is not started, session id: " << m_sessionId;
      return zel::result::InvalidState;
    }
    m_stopRequested.store(true);
    if (m_thread.joinable()) m_thread.join();
    m_state.store(Stopped);
    m_taskStopNotifier = nullptr;
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(GetTracer(), "virtual result_t tov::app_control::InventoryScanTask::Stop()");
  }
}

zel::result_t InventoryScanTask::Pause() {
  try {
    ZEL_TRACE(GetTracer(), Info) << "virtual result_t tov::app_control::InventoryScanTask::Pause()";
    std::uint32_t expected = Started;
    if (!m_state.compare_exchange_strong(expected, Pausing)) {
      ZEL_TRACE(GetTracer(), Info) << "Task is not started";
      return zel::result::InvalidState;
    }
    ZEL_TRACE(GetTracer(), Info) << "Request pause and wait";
    m_pauseGate.RequestPause();
    ZEL_TRACE(GetTracer(), Info) << "Thread suspended";
    m_state.store(Suspended);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(GetTracer(), "virtual result_t tov::app_control::InventoryScanTask::Pause()");
  }
}

zel::result_t InventoryScanTask::Resume() {
  try {
    ZEL_TRACE(GetTracer(), Info) << "virtual result_t tov::app_control::InventoryScanTask::Resume()";
    std::uint32_t expected = Suspended;
    if (!m_state.compare_exchange_strong(expected, Resuming)) {
      ZEL_TRACE(GetTracer(), Info) << "Task is not suspended";
      return zel::result::InvalidState;
    }
    ZEL_TRACE(GetTracer(), Info) << "Resuming thread";
    m_pauseGate.ReleasePause();
    ZEL_TRACE(GetTracer(), Info) << "Resumed";
    m_state.store(Started);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(GetTracer(),
                                           "virtual result_t tov::app_control::InventoryScanTask::Resume()");
  }
}

// ==== settings ======================================================================

void InventoryScanTask::CopySettings(const tov::settings::InventoryScanSettings& from,
                                     tov::settings::InventoryScanSettings& to) {
  std::lock_guard lock(m_mutex);
  // The flags and the action as one block, then the lists.
  to.firstFormatGroupEnabled = from.firstFormatGroupEnabled;
  to.secondFormatGroupEnabled = from.secondFormatGroupEnabled;
  to.executableBitEnabled = from.executableBitEnabled;
  to.goldenImageAction = from.goldenImageAction;
  to.scanScopes = from.scanScopes;
  to.secondaryScopes = from.secondaryScopes;
}

zel::result_t InventoryScanTask::Construct(const tov::settings::InventoryScanSettings* settings) {
  try {
    ZEL_TRACE(GetTracer(), Info) << "virtual result_t tov::app_control::InventoryScanTask::Construct("
                                    "const tov::settings::InventoryScanSettings*)";
    if (settings == nullptr) return zel::result::InvalidArgument;
    CopySettings(*settings, m_settings);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "virtual result_t tov::app_control::InventoryScanTask::Construct(const tov::settings::InventoryScanSettings*)");
  }
}

zel::result_t InventoryScanTask::SetSettings(const tov::settings::InventoryScanSettings* settings) {
  try {
    ZEL_TRACE(GetTracer(), Info) << "virtual result_t tov::app_control::InventoryScanTask::SetSettings("
                                    "const tov::settings::InventoryScanSettings*)";
    if (settings == nullptr) return zel::result::InvalidArgument;
    CopySettings(*settings, m_settings);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "virtual result_t tov::app_control::InventoryScanTask::SetSettings(const tov::settings::InventoryScanSettings*)");
  }
}

zel::result_t InventoryScanTask::GetSettings(tov::settings::InventoryScanSettings* settings) {
  try {
    ZEL_TRACE(GetTracer(), Info)
        << "virtual result_t tov::app_control::InventoryScanTask::GetSettings(tov::settings::InventoryScanSettings*)";
    if (settings == nullptr) return zel::result::InvalidArgument;
    CopySettings(m_settings, *settings);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(),
        "virtual result_t tov::app_control::InventoryScanTask::GetSettings(tov::settings::InventoryScanSettings*)");
  }
}

// ==== the worker ====================================================================

int InventoryScanTask::Run(tov::TryLockTaskTypeGuard&& lockGuard) noexcept {
  ::prctl(PR_SET_NAME, "vornInvScan");
  ZEL_TRACE(GetTracer(), Info) << "result_t tov::app_control::InventoryScanTask::Run(tov::TryLockTaskTypeGuard&&)";

  // Declared first, so destroyed last: the type stays locked while the host
  // hears of the stop.
  tov::TryLockTaskTypeGuard guard(std::move(lockGuard));
  zel::result_t result = zel::result::UnspecifiedError;
  ExitAction notify([this, &result] {
    if (m_taskStopNotifier != nullptr) m_taskStopNotifier->OnTaskStopped(TaskStopInfo{result, zel::wstring_t(u"Task stopped")});
  });

  try {
    zel::IServiceLocator* sl = GetServiceLocator();
    zel::RefPtr<ICgroupsManager> cgroupsManager;
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), zel::GetInterface(GetServiceLocator(), cgroupsManager.Ref()),
                                "Cannot get ICgroupsManager");
    zel::RefPtr<ITaskInfoProvider> tm;
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), zel::GetInterface(GetServiceLocator(), tm.Ref()),
                                "Cannot get ITaskInfoProvider interface");
    TaskInfo taskInfo;
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), tm->GetTaskInfoByTaskSessionId(m_sessionId, taskInfo),
                                "Cannot get task info by session id");
    if (!taskInfo.cgroupName.empty()) {
      const auto tid = static_cast<std::int32_t>(::syscall(SYS_gettid));
      ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(),
                                  cgroupsManager->AddToCgroup(taskInfo.taskName, taskInfo.cgroupName, tid),
                                  "Cannot add " << tid << " to cgroup " << taskInfo.cgroupName.view());
    }

    zel::types::vector_t<tov::NativePath> roots;
    GoldenImageAction action = GoldenImageAction::None;
    try {
      std::lock_guard lock(m_mutex);
      m_matcher = std::make_unique<InventoryFileMatcher>(sl, m_settings);
      for (const tov::settings::ScanScope& scope : m_settings.scanScopes)
        if (scope.enabled) roots.push_back(scope.path);
      action = m_settings.goldenImageAction;
      m_goldenImageCategory.reset();
      if (action == GoldenImageAction::Add) {
        app_ctrl::Category category;
        category.GUID = app_ctrl::GoldenImageCategoryId;
        category.Name = zel::wstring_t(kGoldenImageName);
        m_goldenImageCategory.emplace(std::move(category));
      }
    } catch (...) {
      ZEL_TRACE(GetTracer(), Error) << "Cannot create matcher";
      return zel::ResultFromCurrentException(
          GetTracer(), "result_t tov::app_control::InventoryScanTask::Run(tov::TryLockTaskTypeGuard&&)");
    }

    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), m_inventory->Clear());

    m_filesystems.Clear();

    bool cancelled = false;
    for (const tov::NativePath& root : roots) {
      result = ProcessPath(root);
      if (result == zel::result::OperationCancelled) {
        cancelled = true;
        break;
      }
    }
    if (cancelled) {
      // A stopped scan leaves an empty inventory and reports success.
      m_goldenImageCategory.reset();
      static_cast<void>(m_inventory->Clear());
      result = zel::result::NoError;
    }

    ICategoriesManager::CategoryList categories;
    ICategoriesManager::NameList remove;
    if (m_goldenImageCategory.has_value()) {
      categories.reserve(4);
      categories.push_back(std::move(*m_goldenImageCategory));
      m_goldenImageCategory.reset();
    } else if (m_settings.goldenImageAction == GoldenImageAction::Remove) {
      remove.push_back(zel::wstring_t(kGoldenImageName));
    }
    zel::RefPtr<ICategoriesManager> manager;
    ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), zel::GetInterface(sl, manager.Ref()),
                                "Cannot get ICategoriesManager interface");
    ZEL_CHECK_RESULT_LOG_RETURN(
        GetTracer(), manager->PutCategories({}, categories, remove, types::CategoriesAction::AddInvScan),
        "Cannot change GoldenImage category");

    static_cast<void>(m_inventory->Flush());
    ZEL_TRACE(GetTracer(), Info) << "Task has been stopped with result " << "0x" << zel::trace::hex
                                 << zel::trace::setw(8) << zel::trace::setfill('0')
                                 << static_cast<std::uint32_t>(result);
    return 0;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(), "result_t tov::app_control::InventoryScanTask::Run(tov::TryLockTaskTypeGuard&&)");
  }
}

zel::result_t InventoryScanTask::ProcessPath(const tov::NativePath& path) {
  try {
    ZEL_TRACE(GetTracer(), Info) << "result_t tov::app_control::InventoryScanTask::ProcessPath(const tov::NativePath&)"
                                 << ", " << path.view();
    m_pauseGate.CheckPoint();

    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
      const int error = errno;
      char buffer[256];
      ZEL_TRACE(GetTracer(), Error) << "Cannot stat " << path.view() << ": " << ErrorText(error, buffer);
      return zel::result::UnspecifiedError;
    }

    if (!S_ISDIR(st.st_mode)) {
      if (S_ISREG(st.st_mode)) {
        static_cast<void>(CategorizeFile(path));
      } else {
        ZEL_TRACE(GetTracer(), Info) << "skip " << path.view();
      }
    } else {
      // Our own reference for the walk; the enumerator takes one too.
      const zel::RefPtr<IPathMatcher> strategyRef(m_matcher->GetPathMatcher());
      IPathMatcher* strategy = strategyRef.Get();
      DirectoryEnumerator enumerator;
      ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), enumerator.Open(path, strategy), "Cannot open '" << path.view() << "'");
      // One buffer for every entry's path: it grows to the longest and is
      // then only rewritten.
      tov::NativePath joined;
      for (;;) {
        const std::string_view name = enumerator.CurrentName();
        if (name != "." && name != "..") {
          const std::string_view directory = enumerator.CurrentDirectory().view();
          joined.assign(directory);
          if (!directory.empty() && directory.back() != '/') joined += '/';
          joined += name;
          static_cast<void>(CategorizeFile(joined));
        }
        m_pauseGate.CheckPoint();
        if (m_stopRequested.load()) break;
        // A read error ends the root silently, like its end.
        if (enumerator.Advance() != 0) break;
      }
      enumerator.Close();
    }
    return m_stopRequested.load() ? zel::result::OperationCancelled : zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(
        GetTracer(), "result_t tov::app_control::InventoryScanTask::ProcessPath(const tov::NativePath&)");
  }
}

zel::result_t InventoryScanTask::CategorizeFile(const tov::NativePath& path) {
  ZEL_TRACE(GetTracer(), Info) << "result_t tov::app_control::InventoryScanTask::CategorizeFile(const tov::NativePath&)"
                               << ", " << path.view();
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    const int error = errno;
    char buffer[256];
    ZEL_TRACE(GetTracer(), Error) << "Cannot lstat " << path.view() << ": " << ErrorText(error, buffer);
    return zel::result::UnspecifiedError;
  }
  if (!S_ISREG(st.st_mode)) {
    ZEL_TRACE(GetTracer(), Info) << "skip (not a regular file)";
    return zel::result::False;
  }
  if (m_filesystems.IsScannable(st.st_dev, path.c_str()) == 0) {
    ZEL_TRACE(GetTracer(), Info) << "skip magic";
    return zel::result::False;
  }

  IoRef io;
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), OpenFile(path, io));
  // The lstat above found a regular file, not a link: the matcher's stat of
  // the same path would find the same.
  const zel::result_t matched = m_matcher->Match(path, io, &st);
  if (matched != 0) return matched;

  tov::ApplicationInfo info;
  const std::uint32_t flags = 0;
  ZEL_CHECK_RESULT_LOG_RETURN(GetTracer(), m_appController->InventoryModule(io, flags, info),
                              "Cannot inventory " << path.view());
  if (info.filePath.empty() || info.fileHash.empty()) {
    ZEL_TRACE(GetTracer(), Info) << "Skip " << path.view();
    return zel::result::False;
  }
  if (info.fileName.empty()) {
    const std::u16string_view full = info.filePath.view();
    const std::size_t slash = full.rfind(u'/');
    info.fileName = zel::wstring_t(slash == std::u16string_view::npos ? full : full.substr(slash + 1));
  }

  if (m_goldenImageCategory.has_value()) {
    const app_ctrl::CategoryFileInfoOperationExpression expression(
        app_ctrl::CategoryFileInfoField::FileHash, app_ctrl::CategoryStringOperation::Equal, info.fileHash);
    app_ctrl::CategoryCriterion criterion;
    criterion.criterionName = zel::Utf8ToWide(path.view());
    criterion.expression = zel::make_owning_anydescrptr(GetServiceLocator(), expression);
    m_goldenImageCategory->Include.push_back(std::move(criterion));
    info.categoryKeys.push_back(GoldenImageCategoryKey());
  }

  NormaliseCategoryKeys(info.categoryKeys, m_settings.goldenImageAction == GoldenImageAction::Remove);

  ZEL_CHECK_RESULT_LOG(GetTracer(), m_inventory->AddInfo(info));
  return zel::result::NoError;
}

zel::result_t InventoryScanTask::OpenFile(const tov::NativePath& path, zel::RefPtr<zel::IIO>& io) {
  ZEL_TRACE(GetTracer(), Info)
      << "result_t tov::app_control::InventoryScanTask::OpenFile(const tov::NativePath&, zel::RefPtr<zel::IIO>&)"
      << ", " << path.view();
  const zel::wstring_t wPath = zel::Utf8ToWide(path.view());
  const std::uint32_t accessMask = zel::file_access::Read;
  const std::uint32_t shareMode = zel::file_share::Read;
  const std::uint32_t disposition = zel::file_disposition::OpenExisting;
  const std::uint32_t flagsAndAttributes = 0;
  ZEL_CHECK_RESULT_LOG_RETURN(
      GetTracer(),
      m_fileFactory->CreateFile(wPath.c_str(), accessMask, shareMode, disposition, flagsAndAttributes, io.Ref()),
      "Cannot open file '" << path.view() << "'");
  return zel::result::NoError;
}

}  // namespace tov::app_control
