#include "zel/trace/trace_stream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "zel/strings/conversions.h"

namespace zel {

namespace {
constexpr std::uint32_t kGrowLevel = trace_level::Max;
constexpr char kDigits[] = "0123456789abcdef";
// 1 sign + 309 integer digits + point + precision, or an exponent form, must
// fit kFloatBufferSize with its NUL.
constexpr std::int64_t kMaxFloatPrecision = 160;
static_assert(1 + 309 + 1 + kMaxFloatPrecision < static_cast<std::int64_t>(TraceStream::kFloatBufferSize));
}  // namespace

bool TraceStream::Reserve(std::uint64_t n) noexcept {
  const std::uint64_t need = m_length + n;
  if (need < m_length) {
    // Wrapped past 64 bits: treat as a refused growth.
    m_capacity = 0;
    m_length = 0;
    m_buffer = m_record->buffer;
    return false;
  }
  if (need <= m_capacity) return true;
  // After a loss the capacity is 0 for good: no further requests to the tracer.
  if (m_capacity == 0) return false;

  const std::uint64_t doubled = m_capacity > std::numeric_limits<std::uint64_t>::max() / 2
                                    ? std::numeric_limits<std::uint64_t>::max()
                                    : 2 * m_capacity;
  const std::uint64_t newCapacity = std::max(need, doubled);
  ITracer* tracer = m_record->tracer;
  const result_t r = tracer != nullptr ? tracer->AllocLine(kGrowLevel, m_record, newCapacity)
                                       : result::NotSupported;
  if (r == 0 && m_record->buffer != nullptr) {
    m_capacity = newCapacity;
    m_buffer = m_record->buffer;
    return true;
  }
  // The text so far is gone; whatever buffer the record still holds is
  // committed empty by TraceFlush.
  m_capacity = 0;
  m_length = 0;
  m_buffer = m_record->buffer;
  return false;
}

char* TraceStream::Fill(char* out, std::uint64_t n) const noexcept {
  if (n == 0) return out;  // out may be null once the line is gone
  std::memset(out, static_cast<unsigned char>(m_fill), n);
  return out + n;
}

char* TraceStream::Copy(char* out, std::string_view text) noexcept {
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

TraceStream& TraceStream::write(const char* data, std::size_t n) noexcept {
  if (n == 0 || !Reserve(n)) return *this;
  std::memcpy(m_buffer + m_length, data, n);
  m_length += n;
  return *this;
}

TraceStream& TraceStream::operator<<(const char* text) noexcept {
  return *this << (text == nullptr ? std::string_view("(null)") : std::string_view(text));
}

TraceStream& TraceStream::operator<<(std::string_view text) noexcept {
  return WriteItem({}, text.size(), text.size(), [text](char* out) { return Copy(out, text); });
}

TraceStream& TraceStream::operator<<(std::u16string_view text) noexcept {
  // Two passes over the text, so that the line is asked for room once.
  const std::uint64_t bytes = Utf16ToUtf8Length(text);
  return WriteItem({}, bytes, text.size(), [text](char* out) { return Utf16ToUtf8(text, out); });
}

TraceStream& TraceStream::operator<<(const char16_t* text) noexcept {
  if (text == nullptr) return *this << std::string_view("(null)");
  return *this << std::u16string_view(text);
}

TraceStream& TraceStream::operator<<(bool value) noexcept {
  if ((m_flags & boolalpha) != 0) return *this << (value ? std::string_view("true") : std::string_view("false"));
  return *this << (value ? '1' : '0');
}

TraceStream& TraceStream::WriteInteger(std::uint64_t bits, std::uint64_t magnitude, bool negative) noexcept {
  const std::uint32_t base = m_flags & basefield;
  unsigned radix = 10;
  std::string_view prefix;
  std::uint64_t value = magnitude;
  if (base == hex || base == oct) {
    // Other bases show the bits, never a sign.
    radix = base == hex ? 16 : 8;
    value = bits;
    if ((m_flags & showbase) != 0) prefix = base == hex ? "0x" : "0";
  } else if (negative) {
    prefix = "-";
  }

  char digits[24];  // 22 octal digits for 64 bits
  char* end = digits + sizeof(digits);
  char* begin = end;
  do {
    *--begin = kDigits[value % radix];
    value /= radix;
  } while (value != 0);
  const std::string_view body(begin, static_cast<std::size_t>(end - begin));
  return WriteItem(prefix, body.size(), prefix.size() + body.size(), [body](char* out) { return Copy(out, body); });
}

TraceStream& TraceStream::operator<<(double value) noexcept {
  const bool exponent = (m_flags & floatfield) == scientific;
  // A negative precision means the default, as for printf. The cap keeps the
  // widest value (1e308 in fixed notation) within the local buffer.
  const int precision = static_cast<int>(std::clamp<std::int64_t>(m_precision, -1, kMaxFloatPrecision));
  char text[kFloatBufferSize];
  const int n = std::snprintf(text, sizeof(text), exponent ? "%.*e" : "%.*f", precision, value);
  if (n <= 0 || static_cast<std::size_t>(n) >= sizeof(text)) {
    m_width = 0;
    return *this;
  }
  // The sign is the prefix, so that internal adjustment fills behind it.
  const std::size_t signBytes = text[0] == '-' || text[0] == '+' ? 1 : 0;
  const std::string_view sign(text, signBytes);
  const std::string_view body(text + signBytes, static_cast<std::size_t>(n) - signBytes);
  return WriteItem(sign, body.size(), static_cast<std::uint64_t>(n), [body](char* out) { return Copy(out, body); });
}

TraceStream& TraceStream::operator<<(const ResultFormat& result) noexcept {
  char head[kMaxPrintedResult];
  const std::size_t n = PrintResult(ResultFormat{result.value, nullptr}, head);
  m_width = 0;
  write(head, n);
  if (result.lookup != nullptr) {
    const ResultText text = result.lookup(result.value);
    if (text.length != 0) {
      write(" (", 2);
      write(text.text, text.length);
      write(")", 1);
    }
  }
  return *this;
}

bool TraceTest(TraceRecord& record, ITracer* tracer, std::uint32_t level) noexcept {
  if (tracer == nullptr) return false;
  record.buffer = nullptr;
  if (tracer->AllocLine(level, &record, TraceStream::kInitialCapacity) != 0) return false;
  if (record.buffer == nullptr) return false;
  record.tracer = tracer;
  return true;
}

void TraceFlush(TraceStream& stream) noexcept {
  stream.m_buffer = nullptr;
  stream.m_capacity = 0;  // a write after the flush finds no room
  TraceRecord& record = *stream.m_record;
  if (record.buffer == nullptr) return;
  char* buffer = record.buffer;
  record.buffer = nullptr;
  record.tracer->CommitLine(buffer, stream.m_length);
}

}  // namespace zel
