// Memory streams: IIO over bytes that somebody else owns. The structured
// serialisers write their documents into a byte vector and read them from a
// byte range through these.
//
// Contract:
//  - The stream keeps a pointer to the store, never a copy: the store must
//    outlive the stream. Position starts at 0, the count of references at 1,
//    and each living stream holds one count of the module lock.
//  - Read past the end is a short count, at the end a count of 0, never an
//    error. Seek with an unknown origin lands at 0 and succeeds; positions
//    behind the end are allowed; a sum outside the unsigned 64-bit range is
//    0x80000046 and changes nothing.
//  - The read-only stream refuses Write and SetSize with 0x80000042. The
//    read-write stream grows its vector on Write (zero-filling any gap) and
//    on SetSize; failures of memory come back as codes.
//  - QueryInterface answers 0 and 10; anything else gives null and 0x80000001.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

#include "zel/rtl/error_handling/exceptions.h"
#include "zel/rtl/objbase.h"
#include "zel/serialization/iio.h"
#include "zel/types/range.h"
#include "zel/types/vector.h"

namespace zel::memory_io {

// Stores that the caller owns.
struct ExternalStorageTraits {
  using Vector = types::vector_t<unsigned char>;
  using Range = types::range_t<const unsigned char*>;
};

namespace detail {

template <class Store>
class MemoryIOStorageReadOnly {
 public:
  explicit MemoryIOStorageReadOnly(Store* store) noexcept : m_store(store) {}

  result_t Read(void* buffer, std::uint32_t count, std::uint32_t* read) noexcept {
    if (read != nullptr) *read = 0;
    const std::uint64_t size = Size();
    if (m_position >= size) return 0;
    const std::uint64_t remaining = size - m_position;
    const std::uint32_t n = remaining < count ? static_cast<std::uint32_t>(remaining) : count;
    if (n == 0) return 0;
    if (buffer == nullptr) return result::InvalidArgument;
    std::memcpy(buffer, Data() + m_position, n);
    m_position += n;
    if (read != nullptr) *read = n;
    return 0;
  }

  result_t Write(const void*, std::uint32_t, std::uint32_t* written) noexcept {
    if (written != nullptr) *written = 0;
    return result::NotSupported;
  }

  result_t Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* position) noexcept {
    std::uint64_t base = 0;
    switch (origin) {
      case seek_origin::Begin: m_position = static_cast<std::uint64_t>(offset); break;
      case seek_origin::Current:
      case seek_origin::End: {
        base = origin == seek_origin::Current ? m_position : Size();
        std::uint64_t target = 0;
        if (!AddOffset(base, offset, target)) return result::InvalidArgument;
        m_position = target;
        break;
      }
      default: m_position = 0; break;  // unknown origin: deliberately lenient
    }
    if (position != nullptr) *position = m_position;
    return 0;
  }

  result_t Tell(std::uint64_t* position) noexcept {
    if (position == nullptr) return result::InvalidArgument;
    *position = m_position;
    return 0;
  }

  result_t GetSize(std::uint64_t* size) noexcept {
    if (size == nullptr) return result::InvalidArgument;
    *size = Size();
    return 0;
  }

  result_t SetSize(std::uint64_t) noexcept { return result::NotSupported; }

  result_t Flush() noexcept { return 0; }

 protected:
  std::uint64_t Size() const noexcept { return m_store->size(); }
  const unsigned char* Data() const noexcept { return m_store->begin(); }

  // base + offset within the unsigned 64-bit range.
  static bool AddOffset(std::uint64_t base, std::int64_t offset, std::uint64_t& out) noexcept {
    if (offset < 0) {
      const std::uint64_t back = static_cast<std::uint64_t>(-(offset + 1)) + 1;
      if (back > base) return false;
      out = base - back;
    } else {
      const auto forward = static_cast<std::uint64_t>(offset);
      if (forward > std::numeric_limits<std::uint64_t>::max() - base) return false;
      out = base + forward;
    }
    return true;
  }

  Store* m_store;
  std::uint64_t m_position = 0;
};

// Write within the store's present size.
template <class Store>
class MemoryIOStorageWritable : public MemoryIOStorageReadOnly<Store> {
 public:
  using MemoryIOStorageReadOnly<Store>::MemoryIOStorageReadOnly;

  result_t Write(const void* buffer, std::uint32_t count, std::uint32_t* written) noexcept {
    return WriteWith(buffer, count, written, [](std::uint64_t) noexcept { return result::NotSupported; });
  }

 protected:
  // `setSize` is asked to make room when the write runs past the end; where
  // it refuses with 0x80000042 the write is clipped to what is there.
  template <class SetSizeFn>
  result_t WriteWith(const void* buffer, std::uint32_t count, std::uint32_t* written, SetSizeFn setSize) noexcept {
    if (written != nullptr) *written = 0;
    std::uint64_t end = 0;
    if (!this->AddOffset(this->m_position, count, end)) return result::InvalidArgument;
    const std::uint64_t size = this->Size();
    if (end > size) {
      result_t r;
      try {
        r = setSize(end);
      } catch (...) {
        return ResultFromCurrentException(nullptr, nullptr);
      }
      if (r == result::NotSupported) {
        if (this->m_position >= size) return r;
        count = static_cast<std::uint32_t>(size - this->m_position);
      } else if (ZEL_FAILED(r)) {
        return r;
      }
    }
    if (count == 0) return 0;
    if (buffer == nullptr) return result::InvalidArgument;
    std::memcpy(this->m_store->begin() + this->m_position, buffer, count);
    this->m_position += count;
    if (written != nullptr) *written = count;
    return 0;
  }
};

// SetSize, and Write that grows.
template <class Store>
class MemoryIOStorageSizeable : public MemoryIOStorageWritable<Store> {
 public:
  using MemoryIOStorageWritable<Store>::MemoryIOStorageWritable;

  result_t Write(const void* buffer, std::uint32_t count, std::uint32_t* written) noexcept {
    return this->WriteWith(buffer, count, written, [this](std::uint64_t size) { return SetSize(size); });
  }

  result_t SetSize(std::uint64_t size) noexcept {
    const std::uint64_t old = this->Size();
    if (size == old) return 0;
    try {
      if (size > std::numeric_limits<typename Store::size_type>::max()) throw std::length_error("vector::append");
      // Trimming keeps the capacity; growing zero-fills, in place while the
      // capacity does, else into a block of max(2 * old, new), at least 4.
      this->m_store->resize(static_cast<typename Store::size_type>(size));
      return 0;
    } catch (...) {
      return ResultFromCurrentException(nullptr, nullptr);
    }
  }
};

template <class Storage>
class MemoryIO : public IIO, public Storage {
 public:
  using interfaces = InterfaceList<IIO>;

  template <class Store>
  explicit MemoryIO(Store* store) noexcept : Storage(store) {}

  result_t Read(void* buffer, std::uint32_t count, std::uint32_t* read) override {
    return Storage::Read(buffer, count, read);
  }
  result_t Write(const void* buffer, std::uint32_t count, std::uint32_t* written) override {
    return Storage::Write(buffer, count, written);
  }
  result_t Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* position) override {
    return Storage::Seek(origin, offset, position);
  }
  result_t Tell(std::uint64_t* position) override { return Storage::Tell(position); }
  result_t GetSize(std::uint64_t* size) override { return Storage::GetSize(size); }
  result_t SetSize(std::uint64_t size) override { return Storage::SetSize(size); }
  result_t Flush() override { return Storage::Flush(); }

 protected:
  ~MemoryIO() = default;
};

template <class Storage, class Store>
result_t CreateIo(Store* store, IIO** io) {
  if (io == nullptr) return result::InvalidArgument;
  *io = nullptr;
  try {
    *io = new Object<MemoryIO<Storage>, SimpleObjectFactory>(store);
    return 0;
  } catch (...) {
    return ResultFromCurrentException(nullptr, "Exception during object construction: ");
  }
}

}  // namespace detail

// A read-write stream over `buffer`, which it grows as it is written.
template <class Traits>
result_t CreateReadWriteIo(typename Traits::Vector& buffer, IIO** io) {
  return detail::CreateIo<detail::MemoryIOStorageSizeable<typename Traits::Vector>>(&buffer, io);
}

// A read-only stream over `blob`.
template <class Traits>
result_t CreateReadOnlyIo(const typename Traits::Range& blob, IIO** io) {
  return detail::CreateIo<detail::MemoryIOStorageReadOnly<const typename Traits::Range>>(&blob, io);
}

}  // namespace zel::memory_io
