// zel::TraceStream: builds one trace line straight into the buffer that the
// tracer granted, and the test-then-stream protocol around it (TraceTest,
// TraceFlush, ZEL_TRACE).
//
// A site first asks the tracer for a line with TraceTest; only when a line
// was granted does it make a stream, write, and hand the line back with
// TraceFlush. A disabled level therefore costs one virtual call and no text
// work; through a TraceHandle, which knows the tracer's live level limit, it
// costs a load and a compare. The stream never touches the heap or the standard streams: it writes
// into the tracer's buffer and asks the tracer to grow it when it runs out.
// Tracing never fails its caller: a line that cannot grow loses its text and
// is committed empty.
//
//   ZEL_TRACE(tracer, zel::trace_level::Info) << "Start" << "() ";
//
//   zel::TraceRecord record;                      // check-and-log style
//   if (zel::TraceTest(record, tracer, 300)) {
//     zel::TraceStream s(record);
//     s << "file:" << line << zel::FormatResult(r);
//     zel::TraceFlush(s);
//   }
//
// Format state mirrors std::ios_base, with the same flag values, so the
// usual vocabulary works: zel::trace::hex, showbase, left, internal,
// scientific, boolalpha, setw(n), setfill(c), setprecision(n), or the member
// setters flags()/setf()/unsetf()/width()/fill()/precision(). As with the
// standard streams, width applies to the next item only.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

#include "zel/itracer.h"
#include "zel/result.h"

namespace zel {

namespace detail {
// Integers printed as numbers. `char` is text and bool has its own form;
// the other character types have no narrow meaning and are rejected.
template <class T>
concept TraceInteger = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> &&
                       !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> && !std::same_as<T, char16_t> &&
                       !std::same_as<T, char32_t>;
}  // namespace detail

class TraceStream {
 public:
  // Flag values of std::ios_base in this platform's library.
  static constexpr std::uint32_t boolalpha = 0x1;
  static constexpr std::uint32_t dec = 0x2;
  static constexpr std::uint32_t fixed = 0x4;
  static constexpr std::uint32_t hex = 0x8;
  static constexpr std::uint32_t internal = 0x10;
  static constexpr std::uint32_t left = 0x20;
  static constexpr std::uint32_t oct = 0x40;
  static constexpr std::uint32_t right = 0x80;
  static constexpr std::uint32_t scientific = 0x100;
  static constexpr std::uint32_t showbase = 0x200;
  static constexpr std::uint32_t skipws = 0x1000;
  static constexpr std::uint32_t adjustfield = left | right | internal;  // 0xB0
  static constexpr std::uint32_t basefield = dec | oct | hex;            // 0x4A
  static constexpr std::uint32_t floatfield = scientific | fixed;        // 0x104

  static constexpr std::uint64_t kInitialCapacity = 512;
  static constexpr std::uint32_t kInitialFlags = dec | skipws;  // 0x1002
  // Room for one formatted floating-point value, the widest double in fixed
  // notation included; precision is capped to fit.
  static constexpr std::size_t kFloatBufferSize = 512;

  // Starts writing into the line that `record` holds; TraceTest granted it
  // with kInitialCapacity bytes.
  explicit TraceStream(TraceRecord& record) noexcept : m_record(&record), m_buffer(record.buffer) {}
  TraceStream(const TraceStream&) = delete;
  TraceStream& operator=(const TraceStream&) = delete;

  // ---- state -----------------------------------------------------------------
  TraceRecord& record() const noexcept { return *m_record; }
  char* buffer() const noexcept { return m_buffer; }
  std::uint64_t capacity() const noexcept { return m_capacity; }
  std::uint64_t length() const noexcept { return m_length; }
  // The text written so far.
  std::string_view view() const noexcept {
    return m_buffer == nullptr ? std::string_view() : std::string_view(m_buffer, m_length);
  }

  std::uint32_t flags() const noexcept { return m_flags; }
  std::uint32_t flags(std::uint32_t f) noexcept { return Exchange(m_flags, f); }
  std::uint32_t setf(std::uint32_t f) noexcept { return Exchange(m_flags, m_flags | f); }
  std::uint32_t setf(std::uint32_t f, std::uint32_t mask) noexcept {
    return Exchange(m_flags, (m_flags & ~mask) | (f & mask));
  }
  void unsetf(std::uint32_t f) noexcept { m_flags &= ~f; }
  std::int64_t precision() const noexcept { return m_precision; }
  std::int64_t precision(std::int64_t p) noexcept { return Exchange(m_precision, p); }
  std::int64_t width() const noexcept { return m_width; }
  std::int64_t width(std::int64_t w) noexcept { return Exchange(m_width, w); }
  char fill() const noexcept { return m_fill; }
  char fill(char c) noexcept { return Exchange(m_fill, c); }

  // ---- writing -----------------------------------------------------------------
  // Appends raw bytes: no width, no fill, and the pending width stays.
  TraceStream& write(const char* data, std::size_t n) noexcept;

  // A null pointer writes "(null)".
  TraceStream& operator<<(const char* text) noexcept;
  TraceStream& operator<<(std::string_view text) noexcept;
  TraceStream& operator<<(char c) noexcept { return *this << std::string_view(&c, 1); }
  // Wide text (UTF-16, also zel::basic_string_t<char16_t> and std::u16string)
  // is written as UTF-8; width counts its UTF-16 units. A null pointer writes
  // "(null)".
  TraceStream& operator<<(std::u16string_view text) noexcept;
  TraceStream& operator<<(const char16_t* text) noexcept;
  // "1"/"0", or "true"/"false" under boolalpha, as the standard streams do.
  TraceStream& operator<<(bool value) noexcept;
  // %.*e under scientific alone, else %.*f; the sign counts as prefix for
  // internal adjustment, and width and fill apply as for numbers.
  TraceStream& operator<<(double value) noexcept;
  // "0x" and eight hex digits, then " (text)"; width, fill and base are ignored.
  TraceStream& operator<<(const ResultFormat& result) noexcept;

  // Any integer width; the base comes from flags. Signed values get "-" in
  // decimal only; other bases show the two's complement bits of the type.
  template <detail::TraceInteger T>
  TraceStream& operator<<(T value) noexcept {
    using U = std::make_unsigned_t<T>;
    const auto bits = static_cast<std::uint64_t>(static_cast<U>(value));
    if constexpr (std::is_signed_v<T>) {
      if (value < 0) return WriteInteger(bits, 0 - static_cast<std::uint64_t>(static_cast<std::int64_t>(value)), true);
    }
    return WriteInteger(bits, bits, false);
  }

  // Manipulators: zel::trace::hex and the like.
  TraceStream& operator<<(TraceStream& (*manipulator)(TraceStream&)) noexcept { return manipulator(*this); }

  // Text without a terminating NUL must not be mistaken for a C string, and
  // single wide units have no narrow meaning.
  TraceStream& operator<<(const char8_t*) = delete;
  // Other pointers would silently print as bool.
  TraceStream& operator<<(const void*) = delete;
  TraceStream& operator<<(wchar_t) = delete;
  TraceStream& operator<<(char8_t) = delete;
  TraceStream& operator<<(char16_t) = delete;
  TraceStream& operator<<(char32_t) = delete;

  // Hands the buffer back; TraceFlush is the only caller.
  friend void TraceFlush(TraceStream& stream) noexcept;

  // ---- building blocks for other insertions --------------------------------------
  // Writes one item: `prefix` (sign or base) then `body`, padded to the
  // pending width counted in `units` (the displayed size of prefix + body,
  // which differs from the byte size only for converted text). The body is
  // produced by `produce(char* out)`, which must write exactly `bodyBytes`.
  // Resets the width.
  template <class Producer>
  TraceStream& WriteItem(std::string_view prefix, std::uint64_t bodyBytes, std::uint64_t units,
                         Producer&& produce) noexcept {
    const std::uint64_t pad = PadFor(units);
    m_width = 0;
    const std::uint64_t head = pad + prefix.size();  // pad <= width < 2^63: no wrap
    const std::uint64_t total = head + bodyBytes;
    if (total < head || !Reserve(total)) return *this;  // a wrapped sum is no room
    char* out = m_buffer + m_length;
    const std::uint32_t adjust = m_flags & adjustfield;
    if (adjust != left && adjust != internal) out = Fill(out, pad);
    out = Copy(out, prefix);
    if (adjust == internal) out = Fill(out, pad);
    out = produce(out);
    if (adjust == left) out = Fill(out, pad);
    m_length = static_cast<std::uint64_t>(out - m_buffer);
    return *this;
  }

  // Makes room for `n` more bytes, growing the line through the tracer when
  // needed. false when there is no room: the text is then lost for good.
  bool Reserve(std::uint64_t n) noexcept;

 private:
  template <class V>
  static V Exchange(V& slot, V value) noexcept {
    V old = slot;
    slot = value;
    return old;
  }
  std::uint64_t PadFor(std::uint64_t units) const noexcept {
    return m_width > 0 && static_cast<std::uint64_t>(m_width) > units ? static_cast<std::uint64_t>(m_width) - units
                                                                        : 0;
  }
  char* Fill(char* out, std::uint64_t n) const noexcept;
  static char* Copy(char* out, std::string_view text) noexcept;
  TraceStream& WriteInteger(std::uint64_t bits, std::uint64_t magnitude, bool negative) noexcept;

  TraceRecord* m_record;
  char* m_buffer;
  std::uint64_t m_capacity = kInitialCapacity;
  std::uint64_t m_length = 0;
  std::uint32_t m_flags = kInitialFlags;
  std::int64_t m_precision = 6;
  std::int64_t m_width = 0;
  char m_fill = ' ';
};

// An absent value prints as "null".
template <class T>
TraceStream& operator<<(TraceStream& stream, const std::optional<T>& value) noexcept(
    noexcept(stream << *value)) {
  if (!value.has_value()) return stream << std::string_view("null");
  return stream << *value;
}

// Asks `tracer` for a line at `level`. On yes `record` holds a buffer of 512
// bytes and the tracer; the caller must then stream and TraceFlush. A null
// tracer answers no.
bool TraceTest(TraceRecord& record, ITracer* tracer, std::uint32_t level) noexcept;

// A tracer together with the live level limit it offers (ITraceLevelLimit),
// or the ceiling when it offers none. A site that traces through a handle
// tests the level inline against that number, so a level that is off costs a
// load and a compare: no call, no reference count. The handle holds no
// reference; whoever made it keeps the tracer, and with it the limit, alive.
class TraceHandle {
 public:
  constexpr TraceHandle() noexcept = default;
  // `levelLimit` must stay valid while `tracer` lives; null means no limit.
  constexpr TraceHandle(ITracer* tracer, const std::uint32_t* levelLimit) noexcept
      : m_tracer(tracer), m_levelLimit(levelLimit != nullptr ? levelLimit : &kNoLevelLimit) {}

  ITracer* Get() const noexcept { return m_tracer; }
  operator ITracer*() const noexcept { return m_tracer; }  // NOLINT: hands on to plain tracer parameters
  // The host may change the number at any moment; a relaxed load suffices,
  // as the tracer itself decides again for every line it grants.
  bool Wants(std::uint32_t level) const noexcept { return level <= __atomic_load_n(m_levelLimit, __ATOMIC_RELAXED); }

 private:
  static constexpr std::uint32_t kNoLevelLimit = trace_level::Max;

  ITracer* m_tracer = nullptr;
  const std::uint32_t* m_levelLimit = &kNoLevelLimit;
};

// TraceTest through a handle: a level above the limit is refused before the
// tracer is asked.
inline bool TraceTest(TraceRecord& record, const TraceHandle& handle, std::uint32_t level) noexcept {
  if (!handle.Wants(level)) return false;
  return TraceTest(record, handle.Get(), level);
}

// Commits the line, also an empty one, and leaves the stream without a
// buffer. Does nothing when the record no longer holds a line.
void TraceFlush(TraceStream& stream) noexcept;

namespace trace {

// Stream manipulators, named and behaving like their standard namesakes.
inline TraceStream& dec(TraceStream& s) noexcept { return s.setf(TraceStream::dec, TraceStream::basefield), s; }
inline TraceStream& hex(TraceStream& s) noexcept { return s.setf(TraceStream::hex, TraceStream::basefield), s; }
inline TraceStream& oct(TraceStream& s) noexcept { return s.setf(TraceStream::oct, TraceStream::basefield), s; }
inline TraceStream& showbase(TraceStream& s) noexcept { return s.setf(TraceStream::showbase), s; }
inline TraceStream& noshowbase(TraceStream& s) noexcept { return s.unsetf(TraceStream::showbase), s; }
inline TraceStream& boolalpha(TraceStream& s) noexcept { return s.setf(TraceStream::boolalpha), s; }
inline TraceStream& noboolalpha(TraceStream& s) noexcept { return s.unsetf(TraceStream::boolalpha), s; }
inline TraceStream& left(TraceStream& s) noexcept { return s.setf(TraceStream::left, TraceStream::adjustfield), s; }
inline TraceStream& right(TraceStream& s) noexcept {
  return s.setf(TraceStream::right, TraceStream::adjustfield), s;
}
inline TraceStream& internal(TraceStream& s) noexcept {
  return s.setf(TraceStream::internal, TraceStream::adjustfield), s;
}
inline TraceStream& fixed(TraceStream& s) noexcept { return s.setf(TraceStream::fixed, TraceStream::floatfield), s; }
inline TraceStream& scientific(TraceStream& s) noexcept {
  return s.setf(TraceStream::scientific, TraceStream::floatfield), s;
}

struct SetWidth {
  std::int64_t value;
};
struct SetFill {
  char value;
};
struct SetPrecision {
  std::int64_t value;
};
constexpr SetWidth setw(std::int64_t n) noexcept { return {n}; }
constexpr SetFill setfill(char c) noexcept { return {c}; }
constexpr SetPrecision setprecision(std::int64_t n) noexcept { return {n}; }

inline TraceStream& operator<<(TraceStream& s, SetWidth m) noexcept { return s.width(m.value), s; }
inline TraceStream& operator<<(TraceStream& s, SetFill m) noexcept { return s.fill(m.value), s; }
inline TraceStream& operator<<(TraceStream& s, SetPrecision m) noexcept { return s.precision(m.value), s; }

}  // namespace trace

namespace detail {

// Owns one granted line for the length of a ZEL_TRACE statement and commits
// it at the end, also when building the text throws.
class TraceLineScope {
 public:
  explicit TraceLineScope(TraceRecord& record) noexcept : m_stream(record) {}
  TraceLineScope(const TraceLineScope&) = delete;
  TraceLineScope& operator=(const TraceLineScope&) = delete;
  ~TraceLineScope() { TraceFlush(m_stream); }
  TraceStream& Stream() noexcept { return m_stream; }

 private:
  TraceStream m_stream;
};

}  // namespace detail
}  // namespace zel

// One trace line: `ZEL_TRACE(tracer, level) << "text" << value;`. The level
// is tested first and nothing to the right of the macro is evaluated when the
// line isn't wanted; the line is committed at the end of the statement. The
// if/else shape keeps a following `else` bound to the caller's own `if`.
#define ZEL_TRACE(tracer, level)                                                   \
  if (::zel::TraceRecord zel_trace_record_;                                        \
      !::zel::TraceTest(zel_trace_record_, (tracer), static_cast<std::uint32_t>(level))) { \
  } else                                                                           \
    ::zel::detail::TraceLineScope(zel_trace_record_).Stream()
