// InventoryFileMatcher: construction against the host's services, the three
// tests in their order, reading of the recogniser's answers, and the
// extension tables row by row.
#include "app_control/inventory_file_matcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "application_control/common/helpers/file_format.h"
#include "application_control/eac/utils.h"
#include "host/services/collecting_tracer.h"
#include "host/services/service_locator.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "support/counting_objects.h"
#include "support/fake_file_services.h"
#include "support/temp_tree.h"

namespace {

using tov::app_control::InventoryFileMatcher;
using testsupport::FakeFormatRecognizerFactory;
using testsupport::FakePathMatcherFactory;
using testsupport::MakeChain;
using testsupport::MakeObject;

constexpr std::uint32_t kCandidates = 1;
constexpr std::uint32_t kSet = 2;

class MatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    locator.Register<zel::ITracer>(&tracer);
    locator.Register<IPathMatcherFactory>(pathFactory.Get());
    locator.Register<FormatRecognizerFactory>(formatFactory.Get());
  }

  InventoryFileMatcher Make(bool first = true, bool second = true, bool executable = true) {
    InventoryFileMatcher::Settings settings;
    settings.firstFormatGroupEnabled = first;
    settings.secondFormatGroupEnabled = second;
    settings.executableBitEnabled = executable;
    tov::settings::ScanScope scope;
    scope.path = "/usr/bin";
    settings.scopes.scanScopes.push_back(scope);
    return InventoryFileMatcher(&locator, settings);
  }

  // A plain (not executable) file of that name in the scratch directory.
  std::string File(const std::string& name, mode_t mode = 0644) {
    const std::string path = dir / name;
    testsupport::WriteFile(path, "content", mode);
    return path;
  }

  testsupport::FakeFormatRecognizer& Recognizer() { return *formatFactory->recognizer; }

  // Matches `path` with the recogniser answering `chain` (its head's GetNext
  // giving `nextResult`) and a fresh trace.
  zel::result_t MatchAnswered(InventoryFileMatcher& matcher, const std::string& path,
                              const std::vector<std::pair<std::uint32_t, FormatId>>& chain,
                              zel::result_t nextResult = 0) {
    Recognizer().recognizeResult = 0;
    Recognizer().answer = MakeChain(chain);
    Recognizer().answer->nextResult = nextResult;
    tracer.Clear();
    return matcher.Match(tov::NativePath(path.c_str()), nullptr);
  }
  // The matcher traced `format` ("unrecognized" or a decimal id) for `path`.
  bool TracedFormat(const std::string& path, const std::string& format) {
    return HasLine("File '" + path + "' : formatId[" + format + "]");
  }

  // A traced line that is `text`, or that holds it when `part`.
  bool HasLine(const std::string& text, bool part = false) {
    const auto texts = tracer.Texts();
    return std::any_of(texts.begin(), texts.end(),
                       [&](const std::string& t) { return part ? t.find(text) != t.npos : t == text; });
  }

  testsupport::TempDir dir;
  host::CollectingTracer tracer;
  zel::RefPtr<FakePathMatcherFactory> pathFactory = MakeObject<FakePathMatcherFactory>();
  zel::RefPtr<FakeFormatRecognizerFactory> formatFactory = MakeObject<FakeFormatRecognizerFactory>();
  host::ServiceLocator locator;
};

// ---- construction ----------------------------------------------------------------

TEST_F(MatcherTest, ConstructionAsksForTheSixFormatsAndHandsTheScopesOver) {
  InventoryFileMatcher matcher = Make();
  EXPECT_EQ(formatFactory->requested,
            (std::vector<FormatId>{0xD716CC51, 0xB731E6B2, 0xEA0395B2, 0x00529C9A, 0x8940E804, 0x58B0B24C}));
  EXPECT_EQ(pathFactory->createCalls, 1);
  ASSERT_EQ(pathFactory->lastScopes.scanScopes.size(), 1u);
  EXPECT_EQ(pathFactory->lastScopes.scanScopes[0].path, "/usr/bin");
  EXPECT_EQ(pathFactory->lastOptions.flags, 0u);
  EXPECT_EQ(pathFactory->lastOptions.patterns.size(), 0u);
  EXPECT_EQ(matcher.GetPathMatcher(), static_cast<IPathMatcher*>(pathFactory->matcher.Get()));
}

TEST_F(MatcherTest, EachConstructionStepFailsWithItsOwnMessage) {
  const struct {
    const char* name;
    std::function<void()> arrange;
    const char16_t* message;  // streamed after "Expression failed": what was missing
  } cases[] = {
      {"no tracer", [&] { locator.Refuse(zel::ITracer::iid); }, u"Cannot get zel::ITracer interface"},
      {"no path matcher factory", [&] { locator.Refuse(IPathMatcherFactory::iid); },
       u"Cannot get IPathMatcherFactory interface"},
      {"path matcher refused", [&] { pathFactory->createResult = zel::result::AccessDenied; },
       u"Cannot create path matcher"},
      {"recogniser refused", [&] { formatFactory->createResult = zel::result::AccessDenied; }, u""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.arrange();
    try {
      Make();
      ADD_FAILURE() << "constructed";
    } catch (const zel::ResultCodeException& e) {
      EXPECT_EQ(e.GetText(), "Expression failed");
      EXPECT_EQ(e.GetMessage().view(), std::u16string_view(c.message));
      EXPECT_LT(zel::GetResult(e), 0);
    }
    locator.Allow(zel::ITracer::iid);
    locator.Allow(IPathMatcherFactory::iid);
    pathFactory->createResult = formatFactory->createResult = 0;
  }
  // A service that hands out null, or a missing recogniser factory.
  formatFactory->handOutNull = true;
  EXPECT_THROW(Make(), zel::CheckFailedException);
  formatFactory->handOutNull = false;
  pathFactory->handOutNull = true;
  EXPECT_THROW(Make(), zel::CheckFailedException);
  pathFactory->handOutNull = false;
  locator.Refuse(FormatRecognizerFactory::iid);
  EXPECT_THROW(Make(), zel::GetInterfaceException);
}

// ---- the three tests in order ------------------------------------------------------

// Out of scope (or a failing scope test) skips; a file that cannot be
// stat'ed fails; neither reaches the recogniser.
TEST_F(MatcherTest, ScopeAndStatComeBeforeTheRecogniser) {
  InventoryFileMatcher matcher = Make();
  const std::string missing = dir / "not-there.py";
  pathFactory->matcher->rejected.insert(missing);
  for (zel::result_t reject : {zel::result_t{1}, zel::result::UnspecifiedError}) {
    pathFactory->matcher->rejectResult = reject;
    EXPECT_EQ(matcher.Match(tov::NativePath(missing.c_str()), nullptr), 1);
  }
  EXPECT_EQ(pathFactory->matcher->calls.back(), (std::pair<std::string, std::uint32_t>(missing, 0)));
  EXPECT_TRUE(HasLine("Match: skip file " + missing));

  const std::string gone = dir / "gone";
  EXPECT_EQ(matcher.Match(tov::NativePath(gone.c_str()), nullptr), zel::result::UnspecifiedError);
  EXPECT_TRUE(HasLine("(::stat(path.c_str(), &st) != -1),(bool) failed: result = falseCannot stat " + gone +
                          ": No such file or directory",
                      true));
  EXPECT_EQ(Recognizer().calls, 0);
}

TEST_F(MatcherTest, ExecutableBitDecidesWithoutTheRecogniserWhenEnabled) {
  const std::string path = dir / "tool.vbs";  // vbs alone would be skipped
  for (mode_t mode : {0744, 0654, 0645}) {
    for (bool enabled : {true, false}) {
      SCOPED_TRACE(testing::Message() << std::oct << mode << (enabled ? " enabled" : " disabled"));
      File("tool.vbs", mode);
      InventoryFileMatcher matcher = Make(false, false, enabled);
      Recognizer().calls = 0;
      EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), enabled ? 0 : 1);
      EXPECT_EQ(Recognizer().calls, enabled ? 0 : 1);
    }
  }
  EXPECT_TRUE(HasLine("Match: " + path + " has executable bit set"));
}

TEST_F(MatcherTest, RecogniserGetsTheExtensionAndTheStream) {
  InventoryFileMatcher matcher = Make();
  const std::string path = File("script.PY");
  auto io = reinterpret_cast<zel::IIO*>(0x1000);  // handed through, never touched by the matcher
  EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), io), 0);
  EXPECT_EQ(Recognizer().lastIo, io);
  EXPECT_TRUE(Recognizer().hadWorkArea);
  ASSERT_EQ(Recognizer().lastProperties.size(), 1u);
  EXPECT_EQ(Recognizer().lastProperties[0].id, 1u);
  EXPECT_EQ(Recognizer().lastProperties[0].value.tag(), zel::vt::WString);
  EXPECT_EQ(Recognizer().lastProperties[0].value.GetWString().view(), u"PY");
  // Upper case stands in no table: unrecognised, and so inventoried.
  EXPECT_TRUE(TracedFormat(path, "unrecognized"));
}

TEST(ExtensionOf, DotsSlashesAndCase) {
  using app_ctrl::formats::ExtensionOf;
  EXPECT_EQ(ExtensionOf(u"/a/b.tar.gz"), u"gz");
  EXPECT_EQ(ExtensionOf(u"/a/name."), u"");
  EXPECT_EQ(ExtensionOf(u"/home/u/.profile"), u"profile");
  EXPECT_EQ(ExtensionOf(u"/opt/dir.d/file"), u"");
  EXPECT_EQ(ExtensionOf(u"noslash"), u"");
  EXPECT_EQ(ExtensionOf(u"x.JS"), u"JS");
  EXPECT_EQ(ExtensionOf(u""), u"");
}

TEST_F(MatcherTest, EveryFallbackRowGivesItsFormat) {
  struct Row {
    const char* extension;
    FormatId format;
  };
  const Row rows[] = {
      {"com", 0x0F43104B}, {"vbs", 0x5A0F32FE}, {"hta", 0x5A0F32FE}, {"js", 0x8940E804},  {"reg", 0x58B0B24C},
      {"py", 0x58B0B24C},  {"rb", 0x58B0B24C},  {"sh", 0x58B0B24C},  {"pl", 0x58B0B24C},  {"pm", 0x58B0B24C},
      {"t", 0x58B0B24C},   {"cmd", 0xF469FF32}, {"ps1", 0xF469FF32}, {"msc", 0x3B516E84}, {"jar", 0x00529C9A},
      {"pyc", 0xEA0395B2}, {"pyo", 0xEA0395B2}, {"pyd", 0xEA0395B2},
  };
  InventoryFileMatcher matcher = Make(true, true, false);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.extension);
    const std::string path = File(std::string("f.") + row.extension);
    tracer.Clear();
    const bool inGroup = app_ctrl::formats::Contains(app_ctrl::formats::kFirstGroup, row.format) ||
                         app_ctrl::formats::Contains(app_ctrl::formats::kSecondGroup, row.format);
    EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), inGroup ? 0 : 1);
    EXPECT_TRUE(TracedFormat(path, std::to_string(row.format)));
  }
  for (const char* other : {"exe", "txt", "", "Py", "bat"}) {
    SCOPED_TRACE(other);
    EXPECT_EQ(app_ctrl::formats::FormatFromExtension(std::u16string(other, other + std::char_traits<char>::length(other))),
              0xFFFFFFFFu);
  }
}

TEST_F(MatcherTest, EveryConfirmingRowConfirmsAndNothingElseDoes) {
  InventoryFileMatcher matcher = Make(true, true, false);
  int checked = 0;
  for (const auto& row : app_ctrl::formats::kConfirmingExtensions) {
    for (std::u16string_view ext : row.extensions) {
      const std::string narrow(ext.begin(), ext.end());
      SCOPED_TRACE(narrow + " " + std::to_string(row.format));
      const std::string path = File("c." + narrow);
      MatchAnswered(matcher, path, {{kCandidates, row.format}});
      EXPECT_TRUE(TracedFormat(path, std::to_string(row.format)));
      ++checked;
    }
    // The same candidate under an extension outside its row stays unconfirmed.
    const std::string other = File("c.zz");
    EXPECT_EQ(MatchAnswered(matcher, other, {{kCandidates, row.format}}), 0);
    EXPECT_TRUE(TracedFormat(other, "unrecognized"));
  }
  EXPECT_EQ(checked, 47);
}

// A chain is read element by element: a candidate counts when its extension
// confirms it, a set takes its earliest priority entry, else its first id.
TEST_F(MatcherTest, ChainsAndSetsAreReadElementByElement) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::uint32_t, FormatId>> chain;
    zel::result_t nextResult;  // of the head's GetNext
    std::uint32_t format;      // 0: unrecognised
  };
  const Case cases[] = {
      {"candidate without a row", {{kCandidates, 0xD716CC51}}, 0, 0},
      {"unconfirmed, chain ends", {{kCandidates, 0x721343EB}}, 0, 0},
      {"next element confirmed", {{kCandidates, 0x721343EB}, {kCandidates, 0xEF620987}}, 0, 0xEF620987},
      {"next element a set", {{kCandidates, 0x721343EB}, {kSet, 0xEA0395B2}, {kSet, 0x11111111}}, 0, 0xEA0395B2},
      {"failing GetNext ends it", {{kCandidates, 0x721343EB}, {kCandidates, 0xEF620987}},
       zel::result::UnspecifiedError, 0},
      {"kind 0", {{0, 0x58B0B24C}}, 0, 0},
      {"kind 3", {{3, 0x58B0B24C}}, 0, 0},
      {"set: best in the middle", {{kSet, 0x4FFB30F3}, {kSet, 0xBB78EADE}, {kSet, 0x24A3462D}}, 0, 0xBB78EADE},
      {"set: best last", {{kSet, 0x721343EB}, {kSet, 0xE0242A0C}, {kSet, 0x42A68202}}, 0, 0x42A68202},
      {"set: a later, worse entry does not displace", {{kSet, 0x87771839}, {kSet, 0x4FFB30F3}}, 0, 0x87771839},
      {"set: none ranked, the first", {{kSet, 0x58B0B24C}, {kSet, 0x12345678}}, 0, 0x58B0B24C},
      {"set: ranked beats unranked first", {{kSet, 0x58B0B24C}, {kSet, 0x4FFB30F3}}, 0, 0x4FFB30F3},
      {"set: single", {{kSet, 0xD716CC51}}, 0, 0xD716CC51},
  };
  // Only the second group is on: unrecognised files pass, other formats not.
  InventoryFileMatcher matcher = Make(false, true, false);
  const std::string path = File("prog.bin");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const bool pass = c.format == 0 || app_ctrl::formats::Contains(app_ctrl::formats::kSecondGroup, c.format);
    EXPECT_EQ(MatchAnswered(matcher, path, c.chain, c.nextResult), pass ? 0 : 1);
    EXPECT_TRUE(TracedFormat(path, c.format == 0 ? "unrecognized" : std::to_string(c.format)));
  }
}

TEST_F(MatcherTest, RecogniserFailuresBecomeTheResult) {
  InventoryFileMatcher matcher = Make();
  const std::string path = File("x.py");
  Recognizer().recognizeResult = zel::result::MediaError;
  EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), zel::result::MediaError);
  EXPECT_TRUE(HasLine("InventoryFileMatcher::Match", true));

  Recognizer().recognizeResult = 0;
  Recognizer().answer = MakeChain({{kSet, 0x58B0B24C}, {kSet, 0x4FFB30F3}});
  Recognizer().answer->next_->recordResult = zel::result::InvalidSize;
  EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), zel::result::InvalidSize);

  EXPECT_EQ(MatchAnswered(matcher, path, {{kSet, 0x58B0B24C}, {kSet, 0x4FFB30F3}}, zel::result::InvalidType),
            zel::result::InvalidType);

  Recognizer().answer = MakeChain({{kCandidates, 0x58B0B24C}});
  Recognizer().answer->kindResult = zel::result::OutOfRange;
  EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), zel::result::OutOfRange);

  // Success with no answer at all is a broken service, not a crash.
  Recognizer().answer = nullptr;
  EXPECT_LT(matcher.Match(tov::NativePath(path.c_str()), nullptr), 0);
}

TEST_F(MatcherTest, ReleasesEverythingItHeldAndEveryChainElement) {
  auto chain = MakeChain({{kSet, 0x58B0B24C}, {kSet, 0x4FFB30F3}});
  {
    InventoryFileMatcher matcher = Make();
    Recognizer().recognizeResult = 0;
    Recognizer().answer = chain;
    matcher.Match(tov::NativePath(File("x.sh").c_str()), nullptr);
    Recognizer().answer = nullptr;
  }
  EXPECT_EQ(testsupport::RefCountOf(chain.Get()), 1u);
  EXPECT_EQ(testsupport::RefCountOf(chain->next_.Get()), 1u);
  EXPECT_EQ(testsupport::RefCountOf(pathFactory->matcher.Get()), 1u);  // the factory's own
  EXPECT_EQ(testsupport::RefCountOf(formatFactory->recognizer.Get()), 1u);
}

TEST_F(MatcherTest, GroupSwitchesDecideRecognisedFormats) {
  struct File_ {
    const char* name;
    FormatId id;  // answered as a confirmed candidate or a set
    int group;    // 1, 2, or 0 for neither
  };
  const File_ files[] = {
      {"a.jar", 0x00529C9A, 1}, {"a.js", 0x8940E804, 1},  {"a.sh", 0x58B0B24C, 1},
      {"a.x", 0xD716CC51, 2},   {"a.y", 0xB731E6B2, 2},   {"a.pyc", 0xEA0395B2, 2},
      {"a.exe", 0x721343EB, 0}, {"a.vbs", 0x5A0F32FE, 0},
  };
  for (bool first : {false, true}) {
    for (bool second : {false, true}) {
      InventoryFileMatcher matcher = Make(first, second, true);
      for (const File_& f : files) {
        SCOPED_TRACE(std::string(f.name) + " first=" + std::to_string(first) + " second=" + std::to_string(second));
        const bool pass = (f.group == 1 && first) || (f.group == 2 && second);
        EXPECT_EQ(MatchAnswered(matcher, File(f.name), {{kSet, f.id}}), pass ? 0 : 1);
      }
      // Nobody knows it: always inventoried.
      const std::string unknown = File("a.unknownext");
      Recognizer().recognizeResult = 1;
      EXPECT_EQ(matcher.Match(tov::NativePath(unknown.c_str()), nullptr), 0);
    }
  }
}

}  // namespace
