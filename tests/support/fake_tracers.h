// Tracer fakes for the corners a real host tracer never shows: a prefix
// tracer face whose prefix and underlying tracer the test sets freely (also
// to itself or to null), in front of a tracer that it forwards lines to.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "zel/itracer.h"
#include "zel/trace/iprefix_tracer.h"

namespace testsupport {

class FakePrefixTracer final : public zel::ITracer, public zel::trace::IPrefixTracer {
 public:
  // Lines go to `sink`; GetTracer answers `under` (may be this, or null).
  FakePrefixTracer(std::string prefix, zel::ITracer* sink) : prefix(std::move(prefix)), m_sink(sink) {}
  FakePrefixTracer(const FakePrefixTracer&) = delete;
  FakePrefixTracer& operator=(const FakePrefixTracer&) = delete;

  // Owned by the test; the count is bookkeeping only.
  std::uint32_t AddRef() override { return m_refs.fetch_add(1) + 1; }
  std::uint32_t Release() override { return m_refs.fetch_sub(1) - 1; }
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override {
    if (iid == 0 || iid == zel::ITracer::iid) {
      *out = static_cast<zel::ITracer*>(this);
    } else if (iid == zel::trace::IPrefixTracer::iid) {
      *out = static_cast<zel::trace::IPrefixTracer*>(this);
    } else {
      return zel::result::InterfaceNotSupported;
    }
    AddRef();
    return zel::result::NoError;
  }

  zel::result_t AllocLine(std::uint32_t level, zel::TraceRecord* record, std::uint64_t size) override {
    return m_sink->AllocLine(level, record, size);
  }
  zel::result_t CommitLine(char* buffer, std::uint64_t length) override { return m_sink->CommitLine(buffer, length); }
  const char* GetPrefix() override { return prefix.c_str(); }
  zel::ITracer* GetTracer() override { return under; }

  std::int64_t ExtraRefs() const { return static_cast<std::int64_t>(m_refs.load()) - 1; }

  std::string prefix;
  zel::ITracer* under = nullptr;

 private:
  zel::ITracer* m_sink;
  std::atomic<std::uint32_t> m_refs{1};
};

}  // namespace testsupport
