// Tracer fakes for the corners a real host tracer never shows: a prefix
// tracer face whose prefix and underlying tracer the test sets freely (also
// to itself or to null), in front of a tracer that it forwards lines to.
#pragma once

#include <cstdint>
#include <string>

#include "host/services/host_object.h"
#include "zel/itracer.h"
#include "zel/trace/iprefix_tracer.h"

namespace testsupport {

class FakePrefixTracer final
    : public host::OwnedObject<FakePrefixTracer, zel::ITracer, zel::trace::IPrefixTracer> {
 public:
  // Lines go to `sink`; GetTracer answers `under` (may be this, or null).
  FakePrefixTracer(std::string prefix, zel::ITracer* sink) : prefix(std::move(prefix)), m_sink(sink) {}
  FakePrefixTracer(const FakePrefixTracer&) = delete;
  FakePrefixTracer& operator=(const FakePrefixTracer&) = delete;

  zel::result_t AllocLine(std::uint32_t level, zel::TraceRecord* record, std::uint64_t size) override {
    return m_sink->AllocLine(level, record, size);
  }
  zel::result_t CommitLine(char* buffer, std::uint64_t length) override { return m_sink->CommitLine(buffer, length); }
  const char* GetPrefix() override { return prefix.c_str(); }
  zel::ITracer* GetTracer() override { return under; }

  // Owned by the test: references held beyond its own.
  std::int64_t ExtraRefs() const { return OutstandingRefs(); }

  std::string prefix;
  zel::ITracer* under = nullptr;

 private:
  zel::ITracer* m_sink;
};

}  // namespace testsupport
