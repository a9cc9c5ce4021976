// vector_t: growth policy, length errors, element lifetimes and the rule
// that every block goes back to the allocator that gave it.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "host/services/counting_allocator.h"
#include "zel/types/vector.h"

namespace {

using zel::types::vector_t;

TEST(Vector, GrowsToFourThenDoubles) {
  vector_t<int> v;
  EXPECT_EQ(v.capacity(), 0u);
  std::vector<std::size_t> seen;
  for (int i = 0; i < 17; ++i) {
    v.push_back(i);
    if (seen.empty() || seen.back() != v.capacity()) seen.push_back(v.capacity());
  }
  EXPECT_EQ(seen, (std::vector<std::size_t>{4, 8, 16, 32}));
  for (int i = 0; i < 17; ++i) EXPECT_EQ(v[static_cast<std::size_t>(i)], i);

  // Doubling follows the size, not an earlier reservation's rounding.
  vector_t<int> r;
  r.reserve(5);
  for (int i = 0; i < 6; ++i) r.push_back(i);
  EXPECT_EQ(r.capacity(), 10u);

  // Beyond max_size: a length error named after the step that refused.
  const auto lengthError = [](auto op) -> std::string {
    try {
      op();
    } catch (const std::length_error& e) {
      return e.what();
    }
    return "no throw";
  };
  EXPECT_EQ(lengthError([&] { r.reserve(r.max_size() + 1); }), "vector::reserve");
  EXPECT_EQ(lengthError([&] { r.resize(r.max_size() + 1); }), "vector::append");
  EXPECT_EQ(r.size(), 6u);
}

TEST(Vector, InsertEraseKeepOrderAndLifetimes) {
  host::CountingAllocator alloc;
  {
    vector_t<std::string> v(&alloc);
    for (const char* s : {"a", "b", "c", "d"}) v.push_back(std::string(s) + std::string(20, '.'));
    v.insert(v.begin() + 1, std::string("x"));  // grows: 4 -> 8
    v.insert(v.begin() + 3, v[0]);               // source lives in the vector
    v.insert(v.end(), std::string("z"));
    ASSERT_EQ(v.size(), 7u);
    EXPECT_EQ(v[1], "x");
    EXPECT_EQ(v[3], v[0]);
    EXPECT_EQ(v.back(), "z");
    v.erase(v.begin() + 1);
    v.erase(v.begin(), v.begin() + 2);
    std::string firsts;
    for (const auto& s : v) firsts += s.substr(0, 1);
    EXPECT_EQ(firsts, "acdz");  // from a x b a c d z
    v.emplace_back(3, 'q');
    EXPECT_EQ(v.back(), "qqq");
    v.pop_back();
    v.resize(6);
    EXPECT_EQ(v[5], "");
    v.resize(2);
    EXPECT_EQ(v.size(), 2u);
    EXPECT_EQ(alloc.LiveBlocks(), 1);
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
  EXPECT_EQ(alloc.OutstandingRefs(), 0);
}

TEST(Vector, CopiesShareTheAllocatorAndBlocksGoBack) {
  host::CountingAllocator a;
  host::CountingAllocator b;
  {
    vector_t<int> x(&a);
    x.push_back(1);
    vector_t<int> y(&b);
    y.push_back(2);
    vector_t<int> copy(x);
    EXPECT_EQ(copy.get_allocator().get(), &a);
    EXPECT_EQ(a.LiveBlocks(), 2);
    y = x;  // y's block goes back to b, the new one comes from a
    EXPECT_EQ(b.LiveBlocks(), 0);
    EXPECT_EQ(a.LiveBlocks(), 3);
    vector_t<int> moved(std::move(x));
    EXPECT_EQ(a.LiveBlocks(), 3);
    EXPECT_EQ(moved[0], 1);
    moved.swap(y);
    EXPECT_EQ(a.OutstandingRefs(), 3);
  }
  EXPECT_EQ(a.LiveBlocks(), 0);
  EXPECT_EQ(a.OutstandingRefs(), 0);
  EXPECT_EQ(b.OutstandingRefs(), 0);
}

TEST(Vector, RefusedAllocationLeavesContentsIntact) {
  host::CountingAllocator alloc;
  {
    vector_t<std::string> v(&alloc);
    for (int i = 0; i < 4; ++i) v.push_back(std::to_string(i));
    alloc.FailAfter(0);
    EXPECT_THROW(v.push_back("four"), std::bad_alloc);
    EXPECT_THROW(v.insert(v.begin(), "x"), std::bad_alloc);
    EXPECT_THROW(v.reserve(100), std::bad_alloc);
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(v[0], "0");
    EXPECT_EQ(v[3], "3");
    alloc.FailAfter(-1);
  }
  EXPECT_EQ(alloc.LiveBlocks(), 0);
}

// Copying may throw; growth then must leave the old elements in place.
struct Fragile {
  static inline int copiesLeft = 1000;
  static inline int alive = 0;
  int value;
  explicit Fragile(int v) : value(v) { ++alive; }
  Fragile(const Fragile& o) : value(o.value) {
    if (--copiesLeft < 0) throw std::runtime_error("copy");
    ++alive;
  }
  Fragile& operator=(const Fragile&) = default;
  ~Fragile() { --alive; }
};

TEST(Vector, ThrowingRelocationRollsBack) {
  {
    vector_t<Fragile, zel::abi_v2_allocator> v;
    for (int i = 0; i < 4; ++i) v.emplace_back(i);
    Fragile::copiesLeft = 2;  // the new element and one relocation succeed
    EXPECT_THROW(v.emplace_back(9), std::runtime_error);
    Fragile::copiesLeft = 1000;
    EXPECT_EQ(v.size(), 4u);
    EXPECT_EQ(v.capacity(), 4u);
    EXPECT_EQ(Fragile::alive, 4);
    EXPECT_EQ(v[3].value, 3);
  }
  EXPECT_EQ(Fragile::alive, 0);
}

}  // namespace
