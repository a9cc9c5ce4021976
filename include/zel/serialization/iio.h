// IIO: a seekable byte stream (interface id 10). The structured serialisers
// read and write their documents through it; the module offers memory
// streams over byte vectors and byte ranges (tov_common/memory_io.h).
//
// Contract: every operation gives result_t; counts are 32-bit, positions and
// sizes unsigned 64-bit. Reading past the end is a short count, not an error.
#pragma once

#include <cstdint>

#include "zel/iobject.h"

namespace zel {

namespace seek_origin {
inline constexpr std::uint32_t Begin = 0;
inline constexpr std::uint32_t Current = 1;
inline constexpr std::uint32_t End = 2;
}  // namespace seek_origin

class IIO : public IObject {
 public:
  static constexpr iid_t iid = 10;

  virtual result_t Read(void* buffer, std::uint32_t count, std::uint32_t* read) = 0;
  virtual result_t Write(const void* buffer, std::uint32_t count, std::uint32_t* written) = 0;
  // `position` may be null.
  virtual result_t Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* position) = 0;
  virtual result_t Tell(std::uint64_t* position) = 0;
  virtual result_t GetSize(std::uint64_t* size) = 0;
  virtual result_t SetSize(std::uint64_t size) = 0;
  virtual result_t Flush() = 0;

 protected:
  ~IIO() = default;
};

}  // namespace zel
