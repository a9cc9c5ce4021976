// A start-log sink for dispatcher tests: appends "<name>:<op>:<arg>" to a
// shared journal, counts its references, and can run a test's action inside
// a delivery (to subscribe or unsubscribe while the dispatcher delivers).
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "host/services/host_object.h"

namespace testsupport {

struct Journal {
  std::mutex mutex;
  std::vector<std::string> entries;
  void Add(std::string e) {
    std::lock_guard lock(mutex);
    entries.push_back(std::move(e));
  }
};

class RecordingSink final : public host::OwnedObject<RecordingSink, app_ctrl::IApplicationStartLogEvents> {
 public:
  RecordingSink(std::string name, Journal& journal) : m_name(std::move(name)), m_journal(journal) {}
  RecordingSink(const RecordingSink&) = delete;
  RecordingSink& operator=(const RecordingSink&) = delete;

  zel::result_t OnApplicationStartLogged(const void* event) override { return Record("logged", event); }
  zel::result_t OnApplicationStartBacklog(const void* events) override { return Record("backlog", events); }
  zel::result_t OnApplicationStartLogLost(const void* info) override { return Record("lost", info); }

  // Held beyond the test's own reference.
  std::int64_t ExtraRefs() const { return OutstandingRefs(); }

  std::function<void()> onEvent;   // runs inside each delivery, after recording
  zel::result_t answer = 0;        // what the sink returns
  bool throwOnEvent = false;

 private:
  zel::result_t Record(const char* op, const void* arg) {
    m_journal.Add(m_name + ":" + op + ":" + std::to_string(reinterpret_cast<std::uintptr_t>(arg)));
    if (onEvent) onEvent();
    if (throwOnEvent) throw std::runtime_error("sink failed");
    return answer;
  }

  std::string m_name;
  Journal& m_journal;
};

}  // namespace testsupport
