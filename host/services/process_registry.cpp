#include "host/services/process_registry.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <fstream>
#include <iterator>
#include <new>
#include <optional>

#include "host/services/fault_switchboard.h"
#include "host/services/pidfd.h"
#include "zel/strings/conversions.h"

namespace host {

namespace {

struct StatLine {
  std::uint32_t parentPid = 0;
  std::uint64_t startTime = 0;
};

// Reads pid's parent and start time. The command name sits between the first
// "(" and the last ")" and may hold blanks and parentheses of its own.
bool ReadStat(const std::string& procRoot, std::uint32_t pid, StatLine* out) {
  // Plain calls into a buffer on the stack: the engine asks this for every
  // program start it decides.
  char path[256];
  const int pathLength = std::snprintf(path, sizeof path, "%s/%u/stat", procRoot.c_str(), pid);
  if (pathLength <= 0 || static_cast<std::size_t>(pathLength) >= sizeof path) return false;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[1024];
  std::size_t length = 0;
  for (;;) {
    const ssize_t n = ::read(fd, buffer + length, sizeof buffer - 1 - length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    length += static_cast<std::size_t>(n);
    if (length == sizeof buffer - 1 || buffer[length - 1] == '\n') break;  // the one line is whole
  }
  ::close(fd);
  const std::string_view line(buffer, length);
  const std::size_t close = line.rfind(')');
  if (close == std::string_view::npos) return false;
  // After the name: the state (field 3), the parent (4), ... the start time (22).
  std::string_view rest = line.substr(close + 1);
  const auto number = [](std::string_view token, std::uint64_t* value) {
    const auto [end, error] = std::from_chars(token.data(), token.data() + token.size(), *value);
    return error == std::errc() && end == token.data() + token.size();
  };
  std::uint64_t ppid = 0, start = 0;
  for (int field = 3; field <= 22; ++field) {
    while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\n')) rest.remove_prefix(1);
    const std::size_t end = std::min(rest.find_first_of(" \n"), rest.size());
    if (end == 0) return false;
    const std::string_view token = rest.substr(0, end);
    if (field == 4 && !number(token, &ppid)) return false;
    if (field == 22 && !number(token, &start)) return false;
    rest.remove_prefix(end);
  }
  out->parentPid = static_cast<std::uint32_t>(ppid);
  out->startTime = start;
  return true;
}

std::uint64_t MakeUniqueId(std::uint32_t pid, std::uint64_t startTime) noexcept {
  return (startTime << ProcessRegistry::kPidBits) | pid;
}

std::string ReadLink(const std::string& path) {
  std::string buffer(4096, '\0');
  for (;;) {
    const ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0) return std::string();
    if (static_cast<std::size_t>(n) < buffer.size()) {
      buffer.resize(static_cast<std::size_t>(n));
      return buffer;
    }
    buffer.resize(buffer.size() * 2);
  }
}

// Plain reads, never a stream: a stream that meets a read error (ESRCH from a
// process that ended since it was opened) throws, and nothing here may.
std::string ReadCommandLine(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string();
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  while (!text.empty() && text.back() == '\0') text.pop_back();
  for (char& c : text)
    if (c == '\0') c = ' ';
  return text;
}

// A snapshot of one process, counted; it dies with its last reference.
class ProcessObject final : public HeapObject<ProcessObject, IProcessObject> {
 public:


  zel::result_t GetDescription(ProcessDescription* description) override {
    if (const zel::result_t fault = FaultAt(FaultPoint::ProcessGetDescription)) return fault;
    if (description == nullptr) return zel::result::InvalidArgument;
    try {
      // Filled in place, so that the caller's strings keep their allocator
      // (the module gives an event's own memory).
      description->processId = m_description.processId;
      description->parentUniqueId = m_description.parentUniqueId;
      description->imagePath.assign(m_description.imagePath.view());
      description->commandLine.assign(m_description.commandLine.view());
      description->currentDirectory.assign(m_description.currentDirectory.view());
      return zel::result::NoError;
    } catch (const std::bad_alloc&) {
      return zel::result::OutOfMemory;
    }
  }

 private:
  friend class host::HeapAccess;
  explicit ProcessObject(ProcessDescription description) : m_description(std::move(description)) {}
  ~ProcessObject() = default;

  const ProcessDescription m_description;
};

// `kept`, when given, receives a copy of the description.
zel::result_t MakeProcessObject(const std::string& procRoot, std::uint32_t pid, std::uint64_t parentUniqueId,
                                IProcessObject** process, ProcessDescription* kept = nullptr) {
  try {
    ProcessDescription d;
    d.processId = pid;
    d.parentUniqueId = parentUniqueId;
    const std::string base = procRoot + "/" + std::to_string(pid);
    d.imagePath = zel::Utf8ToWide(ReadLink(base + "/exe"));
    d.commandLine = zel::Utf8ToWide(ReadCommandLine(base + "/cmdline"));
    d.currentDirectory = zel::Utf8ToWide(ReadLink(base + "/cwd"));
    if (kept != nullptr) *kept = d;
    *process = MakeHeapObject<ProcessObject>(std::move(d)).Detach();
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  } catch (...) {
    return zel::result::Unexpected;
  }
}

// Pidfd serials tell processes apart only with the real procfs: a copy of
// it given for tests describes processes that pidfd_open would not find.
bool UsePidfdSerials(const std::string& procRoot) {
  if (procRoot != "/proc") return false;
  bool unsupported = false;
  const std::optional<PidfdFacts> self = QueryPidfd(static_cast<std::uint32_t>(::getpid()), &unsupported);
  return self && self->serial != 0;
}

}  // namespace

ProcessRegistry::ProcessRegistry(std::string procRoot)
    : m_procRoot(std::move(procRoot)), m_pidfdSerials(UsePidfdSerials(m_procRoot)) {}

bool ProcessRegistry::ReadIncarnation(std::uint32_t pid, Incarnation* out) const {
  if (m_pidfdSerials) {
    bool unsupported = false;
    const std::optional<PidfdFacts> facts = QueryPidfd(pid, &unsupported);
    if (!facts || facts->serial == 0) return false;
    *out = {facts->ppid, facts->serial};
    return true;
  }
  StatLine stat;
  if (!ReadStat(m_procRoot, pid, &stat)) return false;
  *out = {stat.parentPid, stat.startTime};
  return true;
}

std::uint64_t ProcessRegistry::ParentUniqueId(std::uint32_t parentPid, std::uint64_t childStamp) const {
  if (parentPid == 0) return 0;
  const auto now = std::chrono::steady_clock::now();
  if (m_pidfdSerials) {
    std::lock_guard lock(m_cacheMutex);
    const auto it = m_parents.find(parentPid);
    if (it != m_parents.end() && now - it->second.second < kCachedFor && (it->second.first >> kPidBits) <= childStamp)
      return it->second.first;
  }
  Incarnation parent;
  // A parent younger than its child is another process that took the pid.
  if (!ReadIncarnation(parentPid, &parent) || parent.stamp > childStamp) return 0;
  const std::uint64_t uniqueId = MakeUniqueId(parentPid, parent.stamp);
  if (m_pidfdSerials) {
    try {
      std::lock_guard lock(m_cacheMutex);
      if (m_parents.size() >= kCached) m_parents.clear();
      m_parents[parentPid] = {uniqueId, now};
    } catch (const std::bad_alloc&) {
    }
  }
  return uniqueId;
}

zel::result_t ProcessRegistry::GetUniqueId(std::uint32_t pid, std::uint64_t* uniqueId) {
  if (const zel::result_t fault = FaultAt(FaultPoint::ProcessRegistryGet)) return fault;
  if (uniqueId == nullptr || pid == 0 || pid >= (1u << kPidBits)) return zel::result::InvalidArgument;
  Incarnation incarnation;
  if (!ReadIncarnation(pid, &incarnation)) return zel::result::NotFound;
  *uniqueId = MakeUniqueId(pid, incarnation.stamp);
  Remember(*uniqueId, incarnation.parentPid);
  return zel::result::NoError;
}

std::uint64_t ProcessRegistry::Adopt(std::uint32_t pid, std::uint32_t parentPid, std::uint64_t pidfdSerial) {
  if (!m_pidfdSerials || pidfdSerial == 0 || pid == 0 || pid >= (1u << kPidBits)) return 0;
  const std::uint64_t uniqueId = MakeUniqueId(pid, pidfdSerial);
  Remember(uniqueId, parentPid);
  return uniqueId;
}

void ProcessRegistry::Remember(std::uint64_t uniqueId, std::uint32_t parentPid) {
  std::lock_guard lock(m_rememberedMutex);
  if (const auto it = m_index.find(uniqueId); it != m_index.end()) {
    it->second = parentPid;
    return;
  }
  try {
    if (m_index.bucket_count() < kRemembered) m_index.reserve(kRemembered);
    m_index.emplace(uniqueId, parentPid);
  } catch (const std::bad_alloc&) {
    return;  // not remembered: its event, should it end first, names no process
  }
  std::uint64_t& slot = m_order[m_nextRemembered];
  if (slot != 0) m_index.erase(slot);
  slot = uniqueId;
  m_nextRemembered = (m_nextRemembered + 1) % kRemembered;
}

bool ProcessRegistry::Recall(std::uint64_t uniqueId, std::uint32_t* parentPid) const {
  std::lock_guard lock(m_rememberedMutex);
  const auto it = m_index.find(uniqueId);
  if (it == m_index.end() || uniqueId == 0) return false;
  *parentPid = it->second;
  return true;
}

zel::result_t ProcessRegistry::GetProcessByPid(std::uint32_t pid, IProcessObject** process) {
  if (const zel::result_t fault = FaultAt(FaultPoint::ProcessRegistryGet)) return fault;
  if (process == nullptr || pid == 0 || pid >= (1u << kPidBits)) return zel::result::InvalidArgument;
  *process = nullptr;
  Incarnation incarnation;
  if (!ReadIncarnation(pid, &incarnation)) return zel::result::NotFound;
  return MakeProcessObject(m_procRoot, pid, ParentUniqueId(incarnation.parentPid, incarnation.stamp), process);
}

zel::result_t ProcessRegistry::GetProcess(const std::uint64_t* uniqueId, IProcessObject** process) {
  if (const zel::result_t fault = FaultAt(FaultPoint::ProcessRegistryGet)) return fault;
  if (uniqueId == nullptr || process == nullptr) return zel::result::InvalidArgument;
  *process = nullptr;
  const std::uint32_t pid = PidOf(*uniqueId);
  if (pid == 0) return zel::result::NotFound;
  const std::uint64_t stamp = *uniqueId >> kPidBits;
  const auto now = std::chrono::steady_clock::now();
  if (m_pidfdSerials) {
    // A unique id is never another process's: a description taken a moment
    // ago is still this one's.
    std::lock_guard lock(m_cacheMutex);
    const auto it = m_described.find(*uniqueId);
    if (it != m_described.end() && now - it->second.second < kCachedFor) {
      try {
        *process = MakeHeapObject<ProcessObject>(it->second.first).Detach();
        return zel::result::NoError;
      } catch (const std::bad_alloc&) {
        return zel::result::OutOfMemory;
      }
    }
  }
  Incarnation incarnation;
  // A pid that now belongs to a younger process is not the one asked for.
  if (ReadIncarnation(pid, &incarnation) && incarnation.stamp == stamp) {
    ProcessDescription kept;
    const zel::result_t r =
        MakeProcessObject(m_procRoot, pid, ParentUniqueId(incarnation.parentPid, stamp), process, &kept);
    if (ZEL_SUCCEEDED(r) && m_pidfdSerials) {
      try {
        std::lock_guard lock(m_cacheMutex);
        if (m_described.size() >= kCached) m_described.clear();
        m_described[*uniqueId] = {std::move(kept), now};
      } catch (const std::bad_alloc&) {
      }
    }
    return r;
  }
  std::uint32_t parentPid = 0;
  if (!Recall(*uniqueId, &parentPid)) return zel::result::NotFound;
  // Ended since: its pid, and its parent when that one is still the process
  // that was there before it.
  try {
    ProcessDescription d;
    d.processId = pid;
    d.parentUniqueId = ParentUniqueId(parentPid, stamp);
    *process = MakeHeapObject<ProcessObject>(std::move(d)).Detach();
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

}  // namespace host
