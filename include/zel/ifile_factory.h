// zel::IFileFactory: opens files of the host's file system as IIO streams.
// The module never opens a file it hands to the engine by itself, so that
// the host decides how files are reached (and can stand in for them in tests).
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/serialization/iio.h"

namespace qurn {
// Service key under which the host registers its file factories.
inline constexpr std::uint32_t CLSID_FileFactories = 0x0B98A35F;
}  // namespace qurn

namespace zel {

// The factory's own numbering of the CreateFile arguments.
namespace file_access {
inline constexpr std::uint32_t Read = 1;
inline constexpr std::uint32_t Write = 2;
}  // namespace file_access

namespace file_share {
inline constexpr std::uint32_t None = 0;
inline constexpr std::uint32_t Read = 1;
inline constexpr std::uint32_t Write = 2;
inline constexpr std::uint32_t Delete = 4;
}  // namespace file_share

namespace file_disposition {
inline constexpr std::uint32_t CreateNew = 1;      // fails if the file exists
inline constexpr std::uint32_t CreateAlways = 2;   // creates or truncates
inline constexpr std::uint32_t OpenAlways = 3;     // opens or creates
inline constexpr std::uint32_t OpenExisting = 4;   // fails if the file is missing
inline constexpr std::uint32_t TruncateExisting = 5;
}  // namespace file_disposition

class IFileFactory : public IObject {
 public:
  static constexpr iid_t iid = 0x5E5D84C0;

  // `widePath` is a zero-terminated UTF-16 path. `flagsAndAttributes` 0
  // means plain defaults. On success *out holds a reference the caller owns;
  // on failure it is null and the result says why (0x8000004C for a missing
  // file, the errno mapping otherwise).
  virtual result_t CreateFile(const char16_t* widePath, std::uint32_t accessMask, std::uint32_t shareMode,
                              std::uint32_t disposition, std::uint32_t flagsAndAttributes, IIO** out) = 0;

 protected:
  ~IFileFactory() = default;
};

}  // namespace zel
