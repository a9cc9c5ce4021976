#include "host/services/event_publisher.h"

#include <cinttypes>
#include <cmath>
#include <cstring>
#include <string_view>

#include "host/services/fault_switchboard.h"
#include "tov_common/enums/enum_names.h"

namespace host {

namespace {

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

void AppendEscapedUnit(std::string& out, unsigned unit) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "\\u%04x", unit);
  out += buf;
}

// Characters that JSON must escape; everything else is copied.
bool AppendAsciiEscape(std::string& out, unsigned c) {
  switch (c) {
    case '"': out += "\\\""; return true;
    case '\\': out += "\\\\"; return true;
    case '\n': out += "\\n"; return true;
    case '\r': out += "\\r"; return true;
    case '\t': out += "\\t"; return true;
    default:
      if (c < 0x20) {
        AppendEscapedUnit(out, c);
        return true;
      }
      return false;
  }
}

void AppendNarrowString(std::string& out, std::string_view text) {
  out.push_back('"');
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (!AppendAsciiEscape(out, c)) out.push_back(ch);
  }
  out.push_back('"');
}

// UTF-16 to a JSON string. A lone surrogate has no UTF-8 form; it is kept
// as an escape so that the line stays valid UTF-8 and nothing is lost.
void AppendWideString(std::string& out, std::u16string_view text) {
  out.push_back('"');
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned u = text[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      AppendUtf8(out, 0x10000 + ((u - 0xD800) << 10) + (text[i + 1] - 0xDC00u));
      ++i;
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      AppendEscapedUnit(out, u);
    } else if (u >= 0x80 || !AppendAsciiEscape(out, u)) {
      AppendUtf8(out, u);
    }
  }
  out.push_back('"');
}

void AppendSigned(std::string& out, std::int64_t v) { out += std::to_string(v); }
void AppendUnsigned(std::string& out, std::uint64_t v) { out += std::to_string(v); }

void AppendValue(std::string& out, const zel::variant_t& value) {
  namespace vt = zel::vt;
  switch (value.tag()) {
    case vt::Bool: out += value.GetByte() != 0 ? "true" : "false"; return;
    case vt::Char:
    case vt::UInt8: AppendUnsigned(out, value.GetByte()); return;
    case vt::Int8: AppendSigned(out, static_cast<std::int8_t>(value.GetByte())); return;
    case vt::Int16: AppendSigned(out, static_cast<std::int16_t>(value.GetWord16())); return;
    case vt::UInt16: AppendUnsigned(out, value.GetWord16()); return;
    case vt::UInt32: AppendUnsigned(out, value.GetUInt32()); return;
    case vt::Int32: AppendSigned(out, value.GetInt32()); return;
    case vt::Int64:
    case vt::Time: AppendSigned(out, static_cast<std::int64_t>(value.GetWord64())); return;
    case vt::UInt64: AppendUnsigned(out, value.GetUInt64()); return;
    case vt::Double: {
      double d;
      const std::uint64_t bits = value.GetWord64();
      std::memcpy(&d, &bits, sizeof d);
      if (!std::isfinite(d)) {
        out += "null";
        return;
      }
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.17g", d);
      out += buf;
      return;
    }
    case vt::String: AppendNarrowString(out, value.GetString().view()); return;
    case vt::WString: AppendWideString(out, value.GetWString().view()); return;
    case vt::Pair64: {
      const auto w = value.GetWords128();
      out += '[' + std::to_string(w.low) + ',' + std::to_string(w.high) + ']';
      return;
    }
    case vt::Bytes: {
      static constexpr char kHex[] = "0123456789abcdef";
      out.push_back('"');
      for (unsigned char b : value.GetBytes()) {
        out.push_back(kHex[b >> 4]);
        out.push_back(kHex[b & 0xF]);
      }
      out.push_back('"');
      return;
    }
    case vt::Typed: {
      const zel::TypeDescriptor* d = value.GetTyped().descriptor();
      AppendNarrowString(out, d != nullptr && d->name != nullptr ? d->name : "");
      return;
    }
    default: out += "null"; return;  // empty, interfaces and references have no printed value
  }
}

// A name of the table, or the number when the table has none worth printing
// (no row, or a placeholder row).
template <class E>
void AppendKeyName(std::string& out, std::int32_t value) {
  const std::string_view name = tov::EnumToString(static_cast<E>(value));
  if (name.empty() || name.front() == '_') {
    AppendNarrowString(out, std::to_string(value));
  } else {
    AppendNarrowString(out, name);
  }
}

template <class E>
void AppendEnumName(std::string& out, std::int32_t value) {
  const std::string_view name = tov::EnumToString(static_cast<E>(value));
  if (name.empty()) {
    out += "null";
  } else {
    AppendNarrowString(out, name);
  }
}

}  // namespace

std::string FormatEventJson(const tov::RuntimeEvent& event) {
  std::string out;
  out.reserve(256 + 64 * event.runtimeFields.size());
  out += "{\"type\":";
  AppendSigned(out, event.eventType);
  out += ",\"typeName\":";
  AppendEnumName<tov::EventType>(out, event.eventType);
  out += ",\"severity\":";
  AppendSigned(out, event.severity);
  out += ",\"severityName\":";
  AppendEnumName<tov::Severity>(out, event.severity);
  out += ",\"time\":";
  AppendSigned(out, event.time);
  out += ",\"subject\":{\"kind\":";
  AppendSigned(out, event.subject.kind);
  if (event.subject.user) {
    out += ",\"userId\":";
    AppendSigned(out, event.subject.user->userId);
    out += ",\"userName\":";
    AppendWideString(out, event.subject.user->userName.view());
  }
  out += "},\"fields\":{";
  bool first = true;
  for (const tov::RuntimeField& field : event.runtimeFields) {
    if (!first) out.push_back(',');
    first = false;
    AppendKeyName<tov::FieldName>(out, field.name);
    out.push_back(':');
    AppendValue(out, field.data);
  }
  out += '}';
  if (!event.additionalFields.empty()) {
    out += ",\"additionalFields\":{";
    first = true;
    for (const tov::AdditionalField& field : event.additionalFields) {
      if (!first) out.push_back(',');
      first = false;
      AppendNarrowString(out, std::to_string(field.name));
      out.push_back(':');
      AppendValue(out, field.data);
    }
    out += '}';
  }
  out += '}';
  return out;
}

zel::result_t EventPublisher::PublishEvent(tov::RuntimeEvent* event) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PublisherPublish)) return fault;
  if (event == nullptr) return zel::result::InvalidArgument;
  try {
    std::lock_guard lock(m_mutex);
    if (m_failCount != 0) {
      if (m_failCount > 0) --m_failCount;
      return m_failCode;
    }
    std::string line = FormatEventJson(*event);
    if (m_out != nullptr) {
      std::fwrite(line.data(), 1, line.size(), m_out);
      std::fputc('\n', m_out);
      std::fflush(m_out);
    } else {
      m_events.push_back(*event);
      m_lines.push_back(std::move(line));
    }
    ++m_count;
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  } catch (...) {
    return zel::result::Unexpected;
  }
}

void EventPublisher::FailWith(zel::result_t code, std::int64_t count) {
  std::lock_guard lock(m_mutex);
  m_failCode = code;
  m_failCount = count;
}

std::vector<tov::RuntimeEvent> EventPublisher::Events() const {
  std::lock_guard lock(m_mutex);
  return m_events;
}

std::vector<std::string> EventPublisher::Lines() const {
  std::lock_guard lock(m_mutex);
  return m_lines;
}

std::size_t EventPublisher::Count() const {
  std::lock_guard lock(m_mutex);
  return m_count;
}

void EventPublisher::Clear() {
  std::lock_guard lock(m_mutex);
  m_events.clear();
  m_lines.clear();
  m_count = 0;
}

}  // namespace host
