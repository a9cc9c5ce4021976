#include "host/engine/enforce_counters.h"

#include <utility>

namespace host::engine {

namespace {

struct Named {
  const char* text;
  const char* json;
  std::uint64_t value;
};

template <std::size_t N>
void Fill(const EnforceCountersSnapshot& c, Named (&out)[N]) {
  const Named all[] = {
      {"decided", "decided", c.decided},
      {"allowed", "allowed", c.allowed},
      {"blocked", "blocked", c.blocked},
      {"test-mode", "testMode", c.testMode},
      {"timed out", "timedOut", c.timedOut},
      {"undecided", "undecided", c.undecided},
      {"events dropped", "eventsDropped", c.dropped},
      {"hash-cache hits", "hashCacheHits", c.hashCacheHits},
      {"starts", "starts", c.starts},
      {"published", "published", c.published},
      {"publish failed", "publishFailed", c.publishFailed},
      {"memfd exec", "memfdExec", c.memfdExec},
  };
  static_assert(N == std::size(all));
  for (std::size_t i = 0; i < N; ++i) out[i] = all[i];
}

}  // namespace

std::string FormatCountersText(const EnforceCountersSnapshot& counters) {
  Named named[12];
  Fill(counters, named);
  std::string text;
  for (const Named& n : named) {
    if (!text.empty()) text += ", ";
    text += n.text;
    text += ' ';
    text += std::to_string(n.value);
  }
  return text;
}

std::string FormatCountersJson(const EnforceCountersSnapshot& counters) {
  Named named[12];
  Fill(counters, named);
  std::string text = "{";
  for (const Named& n : named) {
    if (text.size() > 1) text += ',';
    text += '"';
    text += n.json;
    text += "\":";
    text += std::to_string(n.value);
  }
  text += '}';
  return text;
}

}  // namespace host::engine
