// Text lookup and errno mapping for result codes.
#include "zel/result.h"

#include <cerrno>

namespace zel {
namespace {

constexpr ResultText Text(std::string_view s) { return {s.data(), s.size()}; }
constexpr ResultText kUnknown = Text("Unknown result code");

}  // namespace

ResultText ResultCodeText(result_t value) noexcept {
  switch (static_cast<std::uint32_t>(value)) {
#define ZEL_RESULT(name, v, text) \
  case v##u:                      \
    return Text(text);
#include "zel/result_codes.def"
#undef ZEL_RESULT
    default:
      return kUnknown;
  }
}

ResultText PlatformResultCodeText(result_t value) noexcept {
  const auto v = static_cast<std::uint32_t>(value);
  switch ((v >> 16) & 0x7FFFu) {
    case 0:
      return ResultCodeText(value);
    case 1:
      // Unsigned distance from the first platform code: a facility-1 value
      // with bit 31 clear lands far outside the range and stays unknown.
      if (v - 0x80010100u <= 0x18u) {
        switch (v) {
#define ZEL_RESULT(name, code, text) \
  case code##u:                      \
    return Text(text);
#include "zel/platform_result_codes.def"
#undef ZEL_RESULT
          default:
            break;
        }
      }
      return kUnknown;
    default:
      return kUnknown;
  }
}

result_t ResultFromErrno(unsigned e) noexcept {
  // Fixed on the Linux numbers; ENOENT/ENOTDIR are the only file/path split
  // and ELOOP reports an invalid state by design.
  switch (e) {
    case 0: return result::NoError;
    case EPERM: return result::AccessDenied;
    case ENOENT: return result::FileNotFound;
    case EIO: return result::MediaError;
    case ENOEXEC: return result::SystemImageBadFormat;
    case EBADF: return result::InvalidHandle;
    case ENOMEM: return result::OutOfMemory;
    case EACCES: return result::AccessDenied;
    case EBUSY: return result::Locked;
    case EEXIST: return result::AlreadyExists;
    case ENOTDIR: return result::PathNotFound;
    case EINVAL: return result::InvalidArgument;
    case ETXTBSY: return result::Locked;
    case EFBIG: return result::FileIsTooBig;
    case ENOSPC: return result::OutOfSpace;
    case ENAMETOOLONG: return result::InvalidSize;
    case ELOOP: return result::InvalidState;
    case EOVERFLOW: return result::BufferTooSmall;
    case 65535: return result::SymbolNotFound;  // missing symbol of a loaded module
    default:
      if (e < 65536) return static_cast<result_t>(result::ErrnoFacilityBase | e);
      return result::UnspecifiedPlatformError;
  }
}

std::size_t PrintResult(const ResultFormat& format, char* out) noexcept {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::size_t n = 0;
  out[n++] = '0';
  out[n++] = 'x';
  auto v = static_cast<std::uint32_t>(format.value);
  for (int shift = 28; shift >= 0; shift -= 4) out[n++] = kDigits[(v >> shift) & 0xFu];
  if (format.lookup != nullptr) {
    const ResultText t = format.lookup(format.value);
    if (t.length != 0) {
      out[n++] = ' ';
      out[n++] = '(';
      for (std::size_t i = 0; i < t.length && n < kMaxPrintedResult - 1; ++i) out[n++] = t.text[i];
      out[n++] = ')';
    }
  }
  return n;
}

}  // namespace zel
