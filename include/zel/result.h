// Result codes: the signed 32-bit outcome of every operation that crosses an
// interface, their texts, the errno mapping and the printable ResultFormat.
// Negative is failure; 0 is success and 1 ("False") is success that changed
// nothing, so callers test the sign, never equality with 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zel {

using result_t = std::int32_t;

constexpr bool Succeeded(result_t r) noexcept { return r >= 0; }
constexpr bool Failed(result_t r) noexcept { return r < 0; }

namespace result {
#define ZEL_RESULT(name, value, text) inline constexpr result_t name = static_cast<result_t>(value##u);
#include "zel/result_codes.def"
#include "zel/platform_result_codes.def"
#undef ZEL_RESULT
// Codes in use that deliberately have no text of their own.
inline constexpr result_t EmptyMemoryChunkOperation = static_cast<result_t>(0x800000C2u);
inline constexpr result_t LinkTargetTooLong = static_cast<result_t>(0xAD280004u);
// The service manager's: the stored revision moved on since the caller read it.
inline constexpr result_t SettingsRevisionChanged = static_cast<result_t>(0xA6430004u);
// Facility 6 carries a raw errno in its low 16 bits.
inline constexpr std::uint32_t ErrnoFacilityBase = 0x80060000u;
}  // namespace result

// A static text and its length, so a failing path never measures a string.
struct ResultText {
  const char* text;
  std::size_t length;
  constexpr std::string_view view() const noexcept { return {text, length}; }
};

// Text of a framework (facility 0) code; anything else is "Unknown result code".
ResultText ResultCodeText(result_t value) noexcept;
// Text of any code; the lookup that all trace output uses.
ResultText PlatformResultCodeText(result_t value) noexcept;
// POSIX errno (exact Linux numbers) to a result code.
result_t ResultFromErrno(unsigned errnoValue) noexcept;

using ResultTextLookup = ResultText (*)(result_t) noexcept;

// A code handed to a trace stream: prints "0x" and eight lower-case hex digits,
// then " (text)" when the lookup is set and gives a non-empty text.
struct ResultFormat {
  result_t value;
  ResultTextLookup lookup;
};

inline ResultFormat FormatResult(result_t value) noexcept { return {value, &PlatformResultCodeText}; }

// Longest printed ResultFormat: "0x" + 8 digits + " (" + longest text + ")".
inline constexpr std::size_t kMaxPrintedResult = 64;

// Writes the printed form of `format` into `out` and returns its length.
// `out` must hold kMaxPrintedResult bytes; nothing is NUL-terminated.
std::size_t PrintResult(const ResultFormat& format, char* out) noexcept;

}  // namespace zel

#define ZEL_SUCCEEDED(x) ((x) >= 0)
#define ZEL_FAILED(x) ((x) < 0)
