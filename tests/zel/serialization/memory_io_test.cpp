// Memory streams: the leniencies of Read and Seek, growth by Write and
// SetSize, the read-only refusals, and the module lock each stream holds.
#include <gtest/gtest.h>

#include <limits>

#include "host/services/counting_allocator.h"
#include "zel/module_lock.h"
#include "zel/serialization/memory_io.h"

namespace {

using Traits = zel::memory_io::ExternalStorageTraits;
constexpr zel::result_t kAccessDenied = zel::result::NotSupported;
constexpr zel::result_t kInvalid = zel::result::InvalidArgument;

zel::RefPtr<zel::IIO> ReadWrite(Traits::Vector& v) {
  zel::RefPtr<zel::IIO> io;
  EXPECT_EQ(zel::memory_io::CreateReadWriteIo<Traits>(v, io.Ref()), 0);
  return io;
}

TEST(MemoryIoTest, ReadIsShortAtTheEndNeverAnError) {
  const unsigned char bytes[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
  const Traits::Range range{bytes, bytes + 20};
  zel::RefPtr<zel::IIO> io;
  ASSERT_EQ(zel::memory_io::CreateReadOnlyIo<Traits>(range, io.Ref()), 0);
  unsigned char out[100];
  std::uint32_t n = 77;
  std::uint64_t pos = 0;
  ASSERT_EQ(io->Seek(zel::seek_origin::Begin, 10, &pos), 0);
  EXPECT_EQ(pos, 10u);
  EXPECT_EQ(io->Read(out, 100, &n), 0);
  EXPECT_EQ(n, 10u);
  EXPECT_EQ(out[0], 11);
  EXPECT_EQ(io->Read(out, 100, &n), 0);
  EXPECT_EQ(n, 0u);

  // Read-only refusals.
  EXPECT_EQ(io->Write(bytes, 1, &n), kAccessDenied);
  EXPECT_EQ(io->SetSize(3), kAccessDenied);
  void* other = &n;
  EXPECT_EQ(io->QueryInterface(11, &other), zel::result::InterfaceNotSupported);
  EXPECT_EQ(other, nullptr);
}

TEST(MemoryIoTest, SeekRules) {
  Traits::Vector v;
  v.resize(10);
  auto io = ReadWrite(v);
  std::uint64_t pos = 99;
  struct Case {
    std::uint32_t origin;
    std::int64_t offset;
    zel::result_t result;
    std::uint64_t position;
  } cases[] = {
      {zel::seek_origin::Begin, 3, 0, 3},
      {zel::seek_origin::Current, -5, kInvalid, 3},  // below 0: refused, unchanged
      {zel::seek_origin::Current, -3, 0, 0},
      {zel::seek_origin::End, 5, 0, 15},  // behind the end is allowed
      {7, 4, 0, 0},                       // unknown origin lands at 0
      {zel::seek_origin::Begin, -1, 0, std::numeric_limits<std::uint64_t>::max()},
      {zel::seek_origin::Current, 1, kInvalid, std::numeric_limits<std::uint64_t>::max()},
      {zel::seek_origin::End, std::numeric_limits<std::int64_t>::min(), kInvalid,
       std::numeric_limits<std::uint64_t>::max()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    EXPECT_EQ(io->Seek(c.origin, c.offset, nullptr), c.result);
    ASSERT_EQ(io->Tell(&pos), 0);
    EXPECT_EQ(pos, c.position);
  }
  // Negative absolute offset: the next read gives nothing.
  unsigned char b;
  std::uint32_t n = 5;
  EXPECT_EQ(io->Read(&b, 1, &n), 0);
  EXPECT_EQ(n, 0u);
}

TEST(MemoryIoTest, WriteGrowsAndZeroFillsTheGapOrFailsWithACode) {
  Traits::Vector v;
  auto io = ReadWrite(v);
  std::uint32_t n = 0;
  ASSERT_EQ(io->Seek(zel::seek_origin::Begin, 3, nullptr), 0);
  ASSERT_EQ(io->Write("ab", 2, &n), 0);
  EXPECT_EQ(n, 2u);
  ASSERT_EQ(v.size(), 5u);
  EXPECT_EQ(v[0], 0);
  EXPECT_EQ(v[2], 0);
  EXPECT_EQ(v[3], 'a');
  EXPECT_EQ(v.capacity(), 5u) << "growth beyond the old size takes the new size";

  ASSERT_EQ(io->Write("c", 1, &n), 0);
  EXPECT_EQ(v.capacity(), 10u) << "small growth doubles";
  std::uint64_t size = 0;
  ASSERT_EQ(io->GetSize(&size), 0);
  EXPECT_EQ(size, 6u);

  // SetSize: same, smaller (capacity and position stay), larger in place.
  EXPECT_EQ(io->SetSize(6), 0);
  EXPECT_EQ(io->SetSize(0), 0);
  EXPECT_EQ(v.capacity(), 10u);
  std::uint64_t pos = 0;
  io->Tell(&pos);
  EXPECT_EQ(pos, 6u);
  unsigned char b;
  EXPECT_EQ(io->Read(&b, 1, &n), 0);
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(io->SetSize(8), 0);
  EXPECT_EQ(v.capacity(), 10u);
  EXPECT_EQ(v[3], 0) << "new bytes are zero";

  // Failures of memory are codes and leave the store.
  host::CountingAllocator alloc;
  {
    Traits::Vector refused(&alloc);
    auto refusing = ReadWrite(refused);
    alloc.FailAfter(0);
    n = 9;
    EXPECT_EQ(refusing->Write("abc", 3, &n), zel::result::OutOfMemory);
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(refused.empty());
    EXPECT_EQ(refusing->SetSize(std::numeric_limits<std::uint64_t>::max()), zel::result::InvalidSize);
    alloc.FailAfter(-1);
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
}

TEST(MemoryIoTest, EachStreamHoldsTheModuleLock) {
  const std::uint32_t before = zel::ModuleLockCount.load();
  Traits::Vector v;
  {
    auto a = ReadWrite(v);
    auto b = ReadWrite(v);
    EXPECT_EQ(zel::ModuleLockCount.load(), before + 2);
    void* face = nullptr;
    ASSERT_EQ(a->QueryInterface(0, &face), 0);
    EXPECT_EQ(face, a.Get());
    static_cast<zel::IIO*>(face)->Release();
  }
  EXPECT_EQ(zel::ModuleLockCount.load(), before);
}

}  // namespace
