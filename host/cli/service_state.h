// What a running `acctl enforce` tells the rest of the machine: the service
// manager hears READY=1 (a datagram to $NOTIFY_SOCKET) once every mark is
// placed; `acctl status` finds its pid in a locked pid file and its marks
// and counters in a status file it rewrites on SIGUSR1. Both files live in
// the run-time directory: $RUNTIME_DIRECTORY (set by the service manager,
// and by tests), else /run/acctl.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

namespace host::cli {

std::string EnforceRunDir();

// Sends `state` (e.g. "READY=1") to the service manager; false when there is
// none ($NOTIFY_SOCKET unset) or the datagram could not be sent.
bool NotifyServiceManager(const std::string& state);

// The pid file and status file of one running `acctl enforce`, removed when
// it ends. The pid file is held by a write lock for the process's life, so a
// reader tells a live enforcer from a stale file. A second enforcer on the
// machine runs without them (the first one keeps them).
class EnforceServiceState {
 public:
  EnforceServiceState();
  EnforceServiceState(const EnforceServiceState&) = delete;
  EnforceServiceState& operator=(const EnforceServiceState&) = delete;
  ~EnforceServiceState();

  bool Owned() const { return m_pidFd >= 0; }
  // Replaces the status file: marks, counters (a JSON object) and when.
  void Publish(std::size_t marks, const std::string& countersJson);

 private:
  std::string m_dir;
  int m_pidFd = -1;
};

// What `acctl status` reads of a running enforcer.
struct EnforceStatus {
  pid_t pid = 0;
  std::string statusJson;  // the status file as written, empty when absent
};
// The enforcer holding the pid file's lock, if any.
std::optional<EnforceStatus> FindEnforcer();

}  // namespace host::cli
