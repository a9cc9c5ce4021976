// Result code texts, the errno mapping and the printed form.
#include <gtest/gtest.h>

#include <string>

#include "zel/result.h"

namespace {

using zel::result_t;

std::string Printed(result_t v, zel::ResultTextLookup lookup = &zel::PlatformResultCodeText) {
  char buf[zel::kMaxPrintedResult];
  return std::string(buf, zel::PrintResult({v, lookup}, buf));
}

TEST(ResultText, FrameworkAndPlatformTables) {
  struct Row {
    std::uint32_t value;
    const char* text;
  } rows[] = {
      {0x00000000, "No error"},
      {0x80000001, "Interface not supported"},
      {0x8000007A, "Trace level prohibited"},
      {0x80000152, "Exception with successful result code"},
      {0x80000313, "DateTime syntax error"},
      {0x80010100, "Unspecified platform error"},
      {0x80010109, "Invalid path name"},
      {0x80010110, "Cannot open an anonymous level security token"},
      {0x80010118, "System shutdown in progress"},
      // holes and codes in use without a text
      {0x80000048, "Unknown result code"},
      {0x8000004E, "Unknown result code"},
      {0x8001010A, "Unknown result code"},
      {0x8001010F, "Unknown result code"},
      {0x80010119, "Unknown result code"},
      {0x00010100, "Unknown result code"},  // facility 1 with bit 31 clear
      {0x800000C2, "Unknown result code"},
      {0xAD280004, "Unknown result code"},
  };
  for (const auto& row : rows) {
    auto t = zel::PlatformResultCodeText(static_cast<result_t>(row.value));
    EXPECT_EQ(t.view(), row.text) << std::hex << row.value;
    EXPECT_EQ(t.length, std::char_traits<char>::length(row.text));
  }
  // The framework's own lookup does not know the platform's codes.
  EXPECT_EQ(zel::ResultCodeText(zel::result::FileNotFound).view(), "Unknown result code");
  EXPECT_EQ(zel::ResultCodeText(zel::result::FileNotFound).length, 19u);
  EXPECT_EQ(zel::ResultCodeText(zel::result::NotFound).view(), "Not found");
}

TEST(ResultFromErrno, WholeTable) {
  struct Row {
    unsigned err;
    std::uint32_t expected;
  } rows[] = {
      {0, 0},           {1, 0x80000045},  {2, 0x80010102},  {5, 0x80000059},  {8, 0x80010117},
      {9, 0x80010101},  {12, 0x80000041}, {13, 0x80000045}, {16, 0x8000004F}, {17, 0x80010105},
      {20, 0x80010103}, {22, 0x80000046}, {26, 0x8000004F}, {27, 0x80000078}, {28, 0x80000062},
      {36, 0x8000005C}, {40, 0x8000006A}, {75, 0x80000044}, {65535, 0x80010107},
      // unmapped values below 65536 keep their number in facility 6
      {3, 0x80060003},  {4, 0x80060004},  {65534, 0x8006FFFE}, {110, 0x8006006E},
      // out of range, including the fixed way of asking for 0x80010100
      {65536, 0x80010100}, {0xFFFFFFFE, 0x80010100}, {0x80000000, 0x80010100},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(static_cast<std::uint32_t>(zel::ResultFromErrno(row.err)), row.expected) << row.err;
  }
}

TEST(ResultFormat, PrintedForm) {
  EXPECT_EQ(Printed(0x1), "0x00000001 (False)");
  EXPECT_EQ(Printed(zel::result::InvalidArgument), "0x80000046 (Invalid argument)");
  EXPECT_EQ(Printed(zel::ResultFromErrno(3)), "0x80060003 (Unknown result code)");
  EXPECT_EQ(Printed(zel::result::InvalidArgument, nullptr), "0x80000046");
  EXPECT_EQ(Printed(zel::result::CannotOpenAnonymousLevelSecurityToken),
            "0x80010110 (Cannot open an anonymous level security token)");
}

}  // namespace
