// basic_string_t, CompactString and basic_fixed_string: inline/heap
// boundaries, growth, length errors and allocator accounting.
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

#include "host/services/counting_allocator.h"
#include "zel/types/compact_string.h"
#include "zel/types/fixed_string.h"
#include "zel/types/string.h"

namespace {

using zel::string_t;
using zel::wstring_t;

TEST(String, LayoutAndInlineBoundary) {
  static_assert(sizeof(string_t) == 48 && sizeof(wstring_t) == 48);
  string_t empty;
  EXPECT_EQ(empty.capacity(), 15u);
  EXPECT_TRUE(empty.is_inline());
  EXPECT_EQ(empty.c_str()[0], '\0');
  EXPECT_EQ(wstring_t().capacity(), 7u);

  const string_t fifteen(std::string(15, 'a').c_str());
  EXPECT_TRUE(fifteen.is_inline());
  EXPECT_EQ(fifteen.capacity(), 15u);

  const string_t sixteen(std::string(16, 'b').c_str());
  EXPECT_FALSE(sixteen.is_inline());
  EXPECT_EQ(sixteen.capacity(), 30u);
  EXPECT_EQ(sixteen.view(), std::string(16, 'b'));
  EXPECT_EQ(sixteen.c_str()[16], '\0');

  wstring_t w(u"1234567");
  EXPECT_TRUE(w.is_inline());
  w.push_back(u'8');
  EXPECT_EQ(w.capacity(), 14u);
  EXPECT_EQ(w, u"12345678");
}

TEST(String, GrowthDoublesOrTakesWhatIsNeeded) {
  string_t s;
  s.append(std::string(31, 'x'));  // more than twice the inline room
  EXPECT_EQ(s.capacity(), 31u);
  s.push_back('y');
  EXPECT_EQ(s.capacity(), 62u);
  s.append(s.view());  // appending ourselves across a growth
  EXPECT_EQ(s.size(), 64u);
  EXPECT_EQ(s.view().substr(32), std::string(31, 'x') + "y");
}

TEST(String, EditingOperations) {
  string_t s("hello");
  s.insert(0, ">> ");
  s.insert(100, "!");  // clamped to the end
  s.insert(3, s.view().substr(3, 5));
  EXPECT_EQ(s, ">> hellohello!");
  s.erase(3, 5);
  EXPECT_EQ(s, ">> hello!");
  s.resize(3);
  s.resize(5, '-');
  EXPECT_EQ(s, ">> --");
  s += 'x';
  s += std::string_view("yz");
  EXPECT_EQ(s.view(), ">> --xyz");
  EXPECT_LT(s, std::string_view(">> --xz"));
  EXPECT_GT(s, string_t(">"));
  EXPECT_NE(s, ">> --xy");
  s.assign(std::string_view(s).substr(3));  // overlapping source
  EXPECT_EQ(s, "--xyz");
  s.clear();
  EXPECT_TRUE(s.empty());
  EXPECT_EQ(s.c_str()[0], '\0');
}

// Hides a huge count from the optimiser, which would otherwise warn about
// the copy that the length check makes unreachable.
std::size_t Opaque(std::size_t v) {
  volatile std::size_t hidden = v;
  return hidden;
}

TEST(String, LengthErrorTexts) {
  static const char one[] = "a";
  struct Case {
    const char* what;
    void (*op)();
  } cases[] = {
      {"zel::basic_string_t constructor", [] { string_t s(one, Opaque(string_t::max_size() + 1)); }},
      {"zel::basic_string_t::reserve_extra()",
       [] {
         string_t s("ab");
         s.append(one, Opaque(string_t::max_size() - 1));
       }},
      {"zel::basic_string_t::resize_extra_at",
       [] {
         wstring_t s(u"ab");
         static const char16_t w[] = u"w";
         s.insert(1, std::u16string_view(w, Opaque(wstring_t::max_size())));
       }},
  };
  for (const auto& c : cases) {
    try {
      c.op();
      ADD_FAILURE() << "no throw for " << c.what;
    } catch (const std::length_error& e) {
      EXPECT_STREQ(e.what(), c.what);
    }
  }
}

TEST(String, AllocatorRule) {
  host::CountingAllocator a;
  host::CountingAllocator b;
  {
    string_t s(&a);
    s.append(std::string(40, 'a'));
    EXPECT_EQ(a.LiveBlocks(), 1);
    EXPECT_EQ(s.allocator(), &a);

    string_t copy(s);  // takes a reference on the source's allocator
    EXPECT_EQ(copy.allocator(), &a);
    EXPECT_EQ(a.LiveBlocks(), 2);
    EXPECT_EQ(a.OutstandingRefs(), 2);

    string_t other(&b);
    other.append(std::string(20, 'b'));
    other = s;  // the old block goes back to b
    EXPECT_EQ(b.LiveBlocks(), 0);
    EXPECT_EQ(b.OutstandingRefs(), 0);
    EXPECT_EQ(other, s);

    string_t moved(std::move(copy));  // block changes hands, no allocation
    EXPECT_EQ(a.LiveBlocks(), 3);
    EXPECT_TRUE(copy.empty());
    EXPECT_TRUE(copy.is_inline());

    string_t shortText(&b);
    shortText.append("tiny");
    string_t movedShort(std::move(shortText));
    EXPECT_TRUE(movedShort.is_inline());
    EXPECT_EQ(movedShort, "tiny");
    movedShort.swap(moved);
    EXPECT_EQ(movedShort.allocator(), &a);
    EXPECT_EQ(moved, "tiny");
    EXPECT_EQ(moved.allocator(), &b);

    a.FailAfter(0);
    string_t refused(&a);
    EXPECT_THROW(refused.append(std::string(16, 'z')), std::bad_alloc);
    EXPECT_TRUE(refused.empty());
    a.FailAfter(-1);
  }
  EXPECT_EQ(a.LiveBlocks(), 0);
  EXPECT_EQ(a.OutstandingRefs(), 0);
  EXPECT_EQ(b.OutstandingRefs(), 0);
}

TEST(CompactString, ShortAndLongFormsAssignAndAppend) {
  auto lastByte = [](const zel::CompactString& s) {
    return reinterpret_cast<const signed char*>(&s)[23];
  };
  struct Case {
    std::size_t length;
    bool isLong;
  } cases[] = {{0, false}, {1, false}, {22, false}, {23, false}, {24, true}, {100, true}};
  for (const auto& c : cases) {
    const std::string text(c.length, 'k');
    zel::CompactString s(text);
    SCOPED_TRACE(c.length);
    EXPECT_EQ(s.view(), text);
    EXPECT_EQ(s.c_str()[c.length], '\0');
    EXPECT_EQ(s.is_long(), c.isLong);
    if (c.isLong) {
      EXPECT_LT(lastByte(s), 0);
      EXPECT_EQ(s.capacity() % 2, 1u);
      EXPECT_GE(s.capacity(), c.length);
    } else {
      EXPECT_EQ(lastByte(s), static_cast<signed char>(23 - c.length));
    }
    zel::CompactString copy(s);
    zel::CompactString moved(std::move(s));
    EXPECT_EQ(copy, moved);
    EXPECT_TRUE(s.empty());
  }

  // Append from our own block, then an assignment that fits keeps the block.
  zel::CompactString s("short");
  s.append(std::string(30, '+'));
  EXPECT_TRUE(s.is_long());
  EXPECT_EQ(s.size(), 35u);
  s.append(s.view());  // text from our own block
  EXPECT_EQ(s.view(), "short" + std::string(30, '+') + "short" + std::string(30, '+'));
  const std::size_t cap = s.capacity();
  s.assign("again");  // fits: the block stays
  EXPECT_EQ(s.view(), "again");
  EXPECT_EQ(s.capacity(), cap);
  zel::CompactString t;
  t = s;
  EXPECT_EQ(t, std::string_view("again"));
}

TEST(FixedString, RoomLeftInLastByte) {
  static_assert(sizeof(zel::basic_fixed_string<32>) == 32);
  zel::basic_fixed_string<32> f;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&f);
  EXPECT_TRUE(f.empty());
  EXPECT_EQ(bytes[31], 31);

  EXPECT_TRUE(f.assign("zel.result"));
  EXPECT_EQ(f.view(), "zel.result");
  EXPECT_EQ(bytes[31], 31 - 10);

  const std::string max(31, 'n');
  EXPECT_TRUE(f.assign(max));
  EXPECT_EQ(f.view(), max);
  EXPECT_EQ(bytes[31], 0);  // NUL and count at once
  EXPECT_STREQ(f.c_str(), max.c_str());

  EXPECT_FALSE(f.assign(std::string(32, 'o')));
  EXPECT_EQ(f.view(), max);

  zel::basic_fixed_string<256> big;
  EXPECT_TRUE(big.assign(std::string(255, 'm')));
  EXPECT_EQ(big.size(), 255u);
}

}  // namespace
