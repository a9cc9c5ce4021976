// host::EventPublisher: the reference host's tov::INonRemoteEventPublisher.
// Each event becomes one JSON line (type and severity by number and name,
// subject, time, and every field under its FieldName name, in the event's
// order) written to a stream, and a copy of the event and of the line is kept
// for whoever inspects the host, tests above all. Safe for concurrent calls:
// engine threads publish while the host reads.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "app_control/interfaces/inon_remote_event_publisher.h"

namespace host {

class EventPublisher final : public tov::INonRemoteEventPublisher {
 public:
  // `out` receives the lines (flushed after each); null keeps them in memory
  // only. The stream stays the caller's.
  explicit EventPublisher(std::FILE* out = nullptr) : m_out(out) {}
  EventPublisher(const EventPublisher&) = delete;
  EventPublisher& operator=(const EventPublisher&) = delete;

  // Owned by its creator; the count is bookkeeping that tests can read.
  std::uint32_t AddRef() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Release() override { return m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override;

  zel::result_t PublishEvent(tov::RuntimeEvent* event) override;

  // Fault injection: the next `count` publications fail with `code` and
  // neither write nor keep anything; count < 0 fails until told otherwise.
  void FailWith(zel::result_t code, std::int64_t count = -1);
  void StopFailing() { FailWith(0, 0); }

  std::vector<tov::RuntimeEvent> Events() const;
  std::vector<std::string> Lines() const;
  std::size_t Count() const;
  void Clear();

  std::int64_t OutstandingRefs() const { return static_cast<std::int64_t>(m_refs.load()) - 1; }

 private:
  std::FILE* m_out;
  mutable std::mutex m_mutex;
  std::vector<tov::RuntimeEvent> m_events;
  std::vector<std::string> m_lines;
  zel::result_t m_failCode = 0;
  std::int64_t m_failCount = 0;
  std::atomic<std::uint32_t> m_refs{1};
};

// The one JSON line (no line break) that EventPublisher writes for `event`.
std::string FormatEventJson(const tov::RuntimeEvent& event);

}  // namespace host
