// host::EventPublisher: the reference host's tov::INonRemoteEventPublisher.
// Each event becomes one JSON line (type and severity by number and name,
// subject, time, and every field under its FieldName name, in the event's
// order) written to a stream; without a stream a copy of the event and of the
// line is kept instead, for whoever inspects the host, tests above all. A
// long-running host that writes its events keeps none of them in memory.
// Safe for concurrent calls: engine threads publish while the host reads.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "app_control/interfaces/inon_remote_event_publisher.h"
#include "host/services/host_object.h"

namespace host {

class EventPublisher final : public OwnedObject<EventPublisher, tov::INonRemoteEventPublisher> {
 public:
  // `out` receives the lines (flushed after each); null keeps them in memory
  // only. The stream stays the caller's.
  explicit EventPublisher(std::FILE* out = nullptr) : m_out(out) {}
  EventPublisher(const EventPublisher&) = delete;
  EventPublisher& operator=(const EventPublisher&) = delete;

  zel::result_t PublishEvent(tov::RuntimeEvent* event) override;

  // Fault injection: the next `count` publications fail with `code` and
  // neither write nor keep anything; count < 0 fails until told otherwise.
  void FailWith(zel::result_t code, std::int64_t count = -1);
  void StopFailing() { FailWith(0, 0); }

  // The kept copies (none when writing to a stream).
  std::vector<tov::RuntimeEvent> Events() const;
  std::vector<std::string> Lines() const;
  // Events published since construction or Clear, kept or not.
  std::size_t Count() const;
  void Clear();

 private:
  std::FILE* m_out;
  mutable std::mutex m_mutex;
  std::vector<tov::RuntimeEvent> m_events;
  std::vector<std::string> m_lines;
  std::size_t m_count = 0;
  zel::result_t m_failCode = 0;
  std::int64_t m_failCount = 0;
};

// The one JSON line (no line break) that EventPublisher writes for `event`.
std::string FormatEventJson(const tov::RuntimeEvent& event);

}  // namespace host
