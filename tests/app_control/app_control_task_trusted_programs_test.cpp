// The product's trusted programs: records made from paths that resolve, the
// append-only merge into the exclusion list, and the path conversion.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app_control/tools/trusted_programs.h"
#include "support/temp_tree.h"

namespace {
// Set by a test: realpath fails without naming a cause, after writing part
// of a path, as no libc here does on its own.
bool g_realpathFailsSilently = false;
}  // namespace

extern "C" char* realpath(const char* name, char* resolved) noexcept {
  if (g_realpathFailsSilently) {
    std::strcpy(resolved, "/partial");
    errno = 0;
    return nullptr;
  }
  using Fn = char* (*)(const char*, char*);
  static const Fn next = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, "realpath"));
  return next(name, resolved);
}

namespace {

namespace tools = tov::app_control::tools;
using exclude::applications::ExclusionList;
using exclude::applications::ExclusionRecord;

ExclusionRecord Record(std::u16string_view path, std::uint32_t mask, bool enabled = true) {
  ExclusionRecord r;
  r.enabled = enabled;
  r.path = zel::wstring_t(path);
  r.mask = mask;
  return r;
}

TEST(TrustedProgramsTest, RecordsAreMadeForResolvablePathsOnly) {
  testsupport::TempDir dir;
  const std::string agent = dir / "agent", link = dir / "link", gone = dir / "gone";
  testsupport::WriteFile(agent);
  ASSERT_EQ(::symlink(agent.c_str(), link.c_str()), 0);
  const char* paths[] = {agent.c_str(), gone.c_str(), link.c_str()};

  const ExclusionList records = tools::MakeTrustedProgramRecords(paths);

  ASSERT_EQ(records.size(), 2u);
  const zel::wstring_t resolved = tools::Utf8ToWideOrQuestionMark(agent);
  for (const auto& r : records) {
    EXPECT_TRUE(r.enabled);
    EXPECT_EQ(r.path.view(), resolved.view());
    EXPECT_EQ(r.mask, 0x40000u);
    EXPECT_TRUE(r.comment.empty());
    EXPECT_FALSE(r.hash.has_value());
    EXPECT_EQ(r.origin, 0u);
    EXPECT_EQ(r.version, 1u);
  }
  EXPECT_EQ(records[1].listedPath.view(), tools::Utf8ToWideOrQuestionMark(link).view());
}

TEST(TrustedProgramsTest, FailureWithoutErrnoKeepsTheProgramWithAnEmptyPath) {
  const char* paths[] = {"/opt/a/program"};
  g_realpathFailsSilently = true;
  const ExclusionList records = tools::MakeTrustedProgramRecords(paths);
  g_realpathFailsSilently = false;
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(records[0].path.empty());
  EXPECT_EQ(records[0].listedPath.view(), u"/opt/a/program");
}

TEST(TrustedProgramsTest, MergeAppendsWhatThePathAndMaskDontFindInTheListAsRead) {
  ExclusionList list;
  list.push_back(Record(u"/opt/a", 0x1));                // same path, other mask: not present
  list.push_back(Record(u"/opt/b", 0x40000, false));     // disabled still counts as present
  list.push_back(Record(u"/other", 0x40000));
  ExclusionList programs;
  programs.push_back(Record(u"/opt/a", 0x40000));
  programs.push_back(Record(u"/opt/b", 0x40000));
  programs.push_back(Record(u"/opt/a", 0x40000));  // a second program resolving to the same file
  programs.push_back(Record(u"/OPT/B", 0x40000));  // case counts

  EXPECT_TRUE(tools::MergeTrustedPrograms(list, programs));
  ASSERT_EQ(list.size(), 6u);
  EXPECT_EQ(list[0].mask, 0x1u) << "unknown records stay where they are";
  EXPECT_FALSE(list[1].enabled);
  EXPECT_EQ(list[3].path.view(), u"/opt/a");
  EXPECT_EQ(list[4].path.view(), u"/opt/a");
  EXPECT_EQ(list[5].path.view(), u"/OPT/B");

  const ExclusionList before = list;
  EXPECT_FALSE(tools::MergeTrustedPrograms(list, programs)) << "a second run finds everything";
  EXPECT_EQ(list.size(), before.size());
  EXPECT_FALSE(tools::MergeTrustedPrograms(list, ExclusionList{}));
}

TEST(TrustedProgramsTest, PathsConvertWithQuestionMarksForBrokenSequences) {
  const std::pair<std::string_view, std::u16string_view> cases[] = {
      {"/opt/x", u"/opt/x"},
      {"\xC3\xA9", u"\u00e9"},
      {"\xF0\x9F\x98\x80", u"\U0001F600"},
      {"\xFF" "a", u"?a"},
      {"\xE2\x82", u"??"},
      {"\xC3(", u"?("},
      {"\xF7\xBF\xBF\xBF", u"?"},  // beyond U+10FFFF: one unit for the sequence
      {"", u""},
  };
  for (const auto& [in, out] : cases) {
    SCOPED_TRACE(in);
    EXPECT_EQ(tools::Utf8ToWideOrQuestionMark(in).view(), out);
  }
}

}  // namespace
