// Fakes of the services around the inventory scan task: the engine's
// controller, a file factory whose streams only carry their path, the
// inventory storage, the task layer (try-mutex, task info, cgroups) and a
// category store that keeps what it was given. All are owned by the test
// (reference counts are bookkeeping only) and are safe to call from the
// scan's worker while the test thread looks.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include "app_control/interfaces/icategories_manager.h"
#include "app_control/interfaces/icgroups_manager.h"
#include "app_control/interfaces/ienterprise_application_controller.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/interfaces/itask_info_provider.h"
#include "app_control/interfaces/itask_stop_events.h"
#include "app_control/interfaces/itask_try_mutex.h"
#include "host/services/host_object.h"
#include "tov_common/inventory/application_info.h"
#include "zel/ifile_factory.h"
#include "zel/result.h"
#include "zel/strings/conversions.h"

namespace testsupport {

// A stream that only knows the path it was opened for; heap-allocated and
// deleted on its last Release, since the task releases it.
class PathIo final : public host::HeapObject<PathIo, zel::IIO> {
 public:
  explicit PathIo(std::string path) : path(std::move(path)) {}
  zel::result_t Read(void*, std::uint32_t, std::uint32_t* read) override {
    if (read != nullptr) *read = 0;
    return zel::result::NoError;
  }
  zel::result_t Write(const void*, std::uint32_t, std::uint32_t*) override { return zel::result::NotImplemented; }
  zel::result_t Seek(std::uint32_t, std::int64_t, std::uint64_t*) override { return zel::result::NoError; }
  zel::result_t Tell(std::uint64_t* position) override {
    *position = 0;
    return zel::result::NoError;
  }
  zel::result_t GetSize(std::uint64_t* size) override {
    *size = 0;
    return zel::result::NoError;
  }
  zel::result_t SetSize(std::uint64_t) override { return zel::result::NotImplemented; }
  zel::result_t Flush() override { return zel::result::NoError; }

  const std::string path;
};

class FakeFileFactory final : public host::OwnedObject<FakeFileFactory, zel::IFileFactory> {
 public:
  zel::result_t CreateFile(const char16_t* widePath, std::uint32_t accessMask, std::uint32_t shareMode,
                           std::uint32_t disposition, std::uint32_t flags, zel::IIO** out) override {
    std::string path;
    for (const char16_t* p = widePath; *p != 0; ++p) path += static_cast<char>(*p);  // ASCII test paths
    {
      std::lock_guard lock(mutex);
      arguments = {accessMask, shareMode, disposition, flags};
      if (refused.count(path) != 0) {
        *out = nullptr;
        return zel::result::AccessDenied;
      }
    }
    *out = new PathIo(path);
    return zel::result::NoError;
  }

  std::mutex mutex;
  std::vector<std::uint32_t> arguments;
  std::set<std::string> refused;
};

// Answers from the path behind the stream: path, hash "h:<path>", and the
// keys a test sets per path. A test may hold the engine inside a call.
class FakeAppController final
    : public host::OwnedObject<FakeAppController, app_ctrl::IEnterpriseApplicationController> {
 public:
  struct Answer {
    bool emptyHash = false;
    bool emptyName = false;
    bool fail = false;
    std::vector<tov::CategoryKey> keys;
  };

  zel::result_t GetCategories(zel::types::vector_t<app_ctrl::Category>&) override {
    return zel::result::NotImplemented;
  }
  zel::result_t InventoryModule(zel::IIO* io, std::uint32_t flags, tov::ApplicationInfo& info) override {
    const std::string path = static_cast<PathIo*>(io)->path;
    Answer answer;
    {
      std::unique_lock lock(mutex);
      seen.push_back(path);
      lastFlags = flags;
      if (answers.count(path) != 0) answer = answers[path];
      if (!holdAt.empty() && path.find(holdAt) != std::string::npos) {
        held = true;
        changed.notify_all();
        changed.wait(lock, [this] { return !holdAt.size(); });
        held = false;
      }
    }
    if (const int micros = delayMicros.load()) ::usleep(static_cast<useconds_t>(micros));
    callCount.fetch_add(1);
    if (answer.fail) return zel::result::AccessDenied;
    const std::size_t slash = path.rfind('/');
    info.id = static_cast<tov::ApplicationId>(std::hash<std::string>{}(path));
    info.filePath = zel::Utf8ToWide(path);
    if (!answer.emptyName) info.fileName = zel::Utf8ToWide(path.substr(slash + 1));
    if (!answer.emptyHash) info.fileHash = zel::Utf8ToWide("h:" + path);
    for (const auto& key : answer.keys) info.categoryKeys.push_back(key);
    return zel::result::NoError;
  }

  // Holds the worker inside the engine on the first path containing `part`.
  void HoldAt(std::string part) {
    std::lock_guard lock(mutex);
    holdAt = std::move(part);
  }
  void WaitHeld() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return held; });
  }
  void Let() {
    std::lock_guard lock(mutex);
    holdAt.clear();
    changed.notify_all();
  }
  std::vector<std::string> Seen() {
    std::lock_guard lock(mutex);
    return seen;
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, Answer> answers;
  std::vector<std::string> seen;
  std::string holdAt;
  bool held = false;
  std::uint32_t lastFlags = 99;
  std::atomic<int> callCount{0};
  std::atomic<int> delayMicros{0};  // a slow engine, per file
};

class FakeInventoryStorage final
    : public host::OwnedObject<FakeInventoryStorage, tov::app_control::IInventoryStorage> {
 public:
  zel::result_t AddInfo(const tov::ApplicationInfo& info) override {
    std::lock_guard lock(mutex);
    journal.push_back("AddInfo");
    records.push_back(info);
    return zel::result::NoError;
  }
  zel::result_t Clear() override {
    std::lock_guard lock(mutex);
    journal.push_back("Clear");
    records.clear();
    return clearResult;
  }
  zel::result_t Flush() override {
    std::lock_guard lock(mutex);
    journal.push_back("Flush");
    return zel::result::NoError;
  }

  std::mutex mutex;
  std::vector<std::string> journal;
  std::vector<tov::ApplicationInfo> records;
  zel::result_t clearResult = zel::result::NoError;
};

// The host's per-type lock, shared by every task object of one test.
class FakeTaskTryMutex final : public host::OwnedObject<FakeTaskTryMutex, ITaskTryMutex> {
 public:
  zel::result_t TryLock(const zel::wstring_t& type) override {
    std::lock_guard lock(mutex);
    return held.insert(std::u16string(type.view())).second ? zel::result::NoError : zel::result::Locked;
  }
  zel::result_t IsLocked(const zel::wstring_t& type, bool& locked) override {
    std::lock_guard lock(mutex);
    locked = held.count(std::u16string(type.view())) != 0;
    return zel::result::NoError;
  }
  zel::result_t Unlock(const zel::wstring_t& type) override {
    std::lock_guard lock(mutex);
    return held.erase(std::u16string(type.view())) != 0 ? zel::result::NoError : zel::result::NotLocked;
  }
  bool Held(std::u16string_view type) {
    std::lock_guard lock(mutex);
    return held.count(std::u16string(type)) != 0;
  }

  std::mutex mutex;
  std::set<std::u16string> held;
};

class FakeTaskInfoProvider final : public host::OwnedObject<FakeTaskInfoProvider, ITaskInfoProvider> {
 public:
  zel::result_t GetTaskInfoByTaskId(std::uint64_t, TaskInfo&) override { return zel::result::NotImplemented; }
  zel::result_t GetTaskInfoByTaskSessionId(std::uint32_t sessionId, TaskInfo& taskInfo) override {
    askedSession = sessionId;
    if (ZEL_FAILED(result)) return result;
    taskInfo.taskName = zel::wstring_t(u"Inventory scan");
    taskInfo.cgroupName = zel::string_t(cgroupName.c_str());
    return zel::result::NoError;
  }
  std::atomic<std::uint32_t> askedSession{0};
  std::string cgroupName;
  zel::result_t result = zel::result::NoError;
};

class FakeCgroupsManager final : public host::OwnedObject<FakeCgroupsManager, ICgroupsManager> {
 public:
  zel::result_t AddToCgroup(const zel::wstring_t&, const zel::string_t& cgroupName, std::int32_t tid) override {
    lastGroup = std::string(cgroupName.view());
    lastTid = tid;
    return result;
  }
  std::string lastGroup;
  std::int32_t lastTid = 0;
  zel::result_t result = zel::result::NoError;
};

// Keeps every PutCategories call whole.
class RecordingCategoriesManager final : public host::OwnedObject<RecordingCategoriesManager, ICategoriesManager> {
 public:
  struct Put {
    CategoryList categories;
    NameList removeNames;
    tov::types::CategoriesAction action;
  };
  zel::result_t PutCategories(const CategoryIdList&, const CategoryList& categories, const NameList& removeNames,
                              tov::types::CategoriesAction action) override {
    std::lock_guard lock(mutex);
    puts.push_back(Put{categories, removeNames, action});
    return result;
  }
  zel::result_t GetCategories(std::uint32_t&, CategoryList&) override { return zel::result::NotImplemented; }

  std::mutex mutex;
  std::vector<Put> puts;
  zel::result_t result = zel::result::NoError;
};

// Counts the stop notices and keeps the last.
class RecordingStopEvents final
    : public host::OwnedObject<RecordingStopEvents, app_core::task_manager::task::ITaskStopEvents> {
 public:
  zel::result_t OnTaskStopped(const app_core::task_manager::task::TaskStopInfo& info) override {
    std::lock_guard lock(mutex);
    ++count;
    lastResult = info.result;
    lastMessage = std::u16string(info.message.view());
    changed.notify_all();
    return zel::result::NoError;
  }
  // Waits (without limit; the test's own time-out catches a hang) for `n` notices.
  void WaitFor(int n) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return count >= n; });
  }
  std::mutex mutex;
  std::condition_variable changed;
  int count = 0;
  zel::result_t lastResult = 0;
  std::u16string lastMessage;
};

}  // namespace testsupport
