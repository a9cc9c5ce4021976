// InventoryFileMatcher: construction against the host's services, the three
// tests in their order, reading of the recogniser's answers, and the
// extension tables row by row.
#include "app_control/inventory_file_matcher.h"

#include <gtest/gtest.h>

#include <algorithm>
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
  void SetUp() override { Wire(locator, tracer, *pathFactory, *formatFactory); }
  static void Wire(host::ServiceLocator& l, host::CollectingTracer& t, FakePathMatcherFactory& p,
                   FakeFormatRecognizerFactory& f) {
    l.Register<zel::ITracer>(&t);
    l.Register<IPathMatcherFactory>(&p);
    l.Register<FormatRecognizerFactory>(&f);
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
  EXPECT_EQ(pathFactory->scanScopeCount, 1u);
  EXPECT_EQ(pathFactory->firstScopePath, "/usr/bin");
  EXPECT_EQ(pathFactory->optionFlags, 0u);
  EXPECT_EQ(pathFactory->optionPatterns, 0u);
  EXPECT_EQ(matcher.GetPathMatcher(), static_cast<IPathMatcher*>(pathFactory->matcher.Get()));
}

struct ConstructionFailure {
  const char* name;
  void (*arrange)(host::ServiceLocator&, FakePathMatcherFactory&, FakeFormatRecognizerFactory&);
  const char16_t* message;  // streamed after "Expression failed": what was missing
};

TEST_F(MatcherTest, EachConstructionStepFailsWithItsOwnMessage) {
  const ConstructionFailure cases[] = {
      {"no tracer", [](auto& l, auto&, auto&) { l.Refuse(zel::ITracer::iid); }, u"Cannot get zel::ITracer interface"},
      {"no path matcher factory", [](auto& l, auto&, auto&) { l.Refuse(IPathMatcherFactory::iid); },
       u"Cannot get IPathMatcherFactory interface"},
      {"path matcher refused",
       [](auto&, auto& p, auto&) { p.createResult = zel::result::AccessDenied; }, u"Cannot create path matcher"},
      {"recogniser refused", [](auto&, auto&, auto& f) { f.createResult = zel::result::AccessDenied; }, u""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    host::CollectingTracer t;
    host::ServiceLocator l;
    auto p = MakeObject<FakePathMatcherFactory>();
    auto f = MakeObject<FakeFormatRecognizerFactory>();
    Wire(l, t, *p, *f);
    c.arrange(l, *p, *f);
    try {
      InventoryFileMatcher m(&l, InventoryFileMatcher::Settings{});
      ADD_FAILURE() << "constructed";
    } catch (const zel::ResultCodeException& e) {
      EXPECT_EQ(e.GetText(), "Expression failed");
      EXPECT_EQ(e.GetMessage().view(), std::u16string_view(c.message));
      EXPECT_LT(zel::GetResult(e), 0);
    }
  }
}

TEST_F(MatcherTest, AMissingRecogniserFactoryOrANullServiceObjectIsRefused) {
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

TEST_F(MatcherTest, OutOfScopeOrAFailingScopeTestStopsBeforeStatAndFormat) {
  InventoryFileMatcher matcher = Make();
  const std::string missing = dir / "not-there.py";
  pathFactory->matcher->rejected.insert(missing);
  for (zel::result_t reject : {zel::result_t{1}, zel::result::UnspecifiedError}) {
    pathFactory->matcher->rejectResult = reject;
    EXPECT_EQ(matcher.Match(tov::NativePath(missing.c_str()), nullptr), 1);
  }
  EXPECT_EQ(pathFactory->matcher->calls.back(), (std::pair<std::string, std::uint32_t>(missing, 0)));
  EXPECT_EQ(Recognizer().calls, 0);
  EXPECT_TRUE(HasLine("Match: skip file " + missing));
}

TEST_F(MatcherTest, StatFailureIsLoggedAndReturned) {
  InventoryFileMatcher matcher = Make();
  const std::string missing = dir / "gone";
  EXPECT_EQ(matcher.Match(tov::NativePath(missing.c_str()), nullptr), zel::result::UnspecifiedError);
  EXPECT_TRUE(HasLine("(::stat(path.c_str(), &st) != -1),(bool) failed: result = falseCannot stat " + missing +
                          ": No such file or directory",
                      true));
  EXPECT_EQ(Recognizer().calls, 0);
}

TEST_F(MatcherTest, ExecutableBitDecidesWithoutTheRecogniserWhenEnabled) {
  for (mode_t mode : {0744, 0654, 0645}) {
    SCOPED_TRACE(mode);
    const std::string path = File("tool.vbs", mode);  // vbs alone would be skipped
    {
      InventoryFileMatcher matcher = Make(false, false, true);
      Recognizer().calls = 0;
      EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), 0);
      EXPECT_EQ(Recognizer().calls, 0);
      EXPECT_TRUE(HasLine("Match: " + path + " has executable bit set"));
    }
    {
      InventoryFileMatcher matcher = Make(false, false, false);
      Recognizer().calls = 0;
      EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), 1);
      EXPECT_EQ(Recognizer().calls, 1);
    }
  }
}

TEST_F(MatcherTest, RecogniserGetsTheExtensionAndTheStream) {
  InventoryFileMatcher matcher = Make();
  const std::string path = File("script.PY");
  auto io = reinterpret_cast<zel::IIO*>(0x1000);  // handed through, never touched by the matcher
  EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), io), 0);
  EXPECT_EQ(Recognizer().lastIo, io);
  EXPECT_TRUE(Recognizer().hadWorkArea);
  EXPECT_EQ(Recognizer().propertyCount, 1u);
  EXPECT_EQ(Recognizer().lastPropertyId, 1u);
  EXPECT_EQ(Recognizer().lastPropertyTag, zel::vt::WString);
  EXPECT_EQ(Recognizer().lastExtension, u"PY");
  // Upper case stands in no table: unrecognised, and so inventoried.
  EXPECT_TRUE(HasLine("File '" + path + "' : formatId[unrecognized]"));
}

// ---- extension of a path -------------------------------------------------------------

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

// ---- fallback on the extension alone ---------------------------------------------------

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
    EXPECT_TRUE(HasLine("File '" + path + "' : formatId[" + std::to_string(row.format) + "]"));
  }
  for (const char* other : {"exe", "txt", "", "Py", "bat"}) {
    SCOPED_TRACE(other);
    EXPECT_EQ(app_ctrl::formats::FormatFromExtension(std::u16string(other, other + std::char_traits<char>::length(other))),
              0xFFFFFFFFu);
  }
}

// ---- candidates confirmed by the extension --------------------------------------------------

TEST_F(MatcherTest, EveryConfirmingRowConfirmsAndNothingElseDoes) {
  InventoryFileMatcher matcher = Make(true, true, false);
  int checked = 0;
  for (const auto& row : app_ctrl::formats::kConfirmingExtensions) {
    for (std::u16string_view ext : row.extensions) {
      const std::string narrow(ext.begin(), ext.end());
      SCOPED_TRACE(narrow + " " + std::to_string(row.format));
      const std::string path = File("c." + narrow);
      Recognizer().recognizeResult = 0;
      Recognizer().answer = MakeChain({{kCandidates, row.format}});
      tracer.Clear();
      matcher.Match(tov::NativePath(path.c_str()), nullptr);
      EXPECT_TRUE(HasLine("File '" + path + "' : formatId[" + std::to_string(row.format) + "]"));
      ++checked;
    }
    // The same candidate under an extension outside its row stays unconfirmed.
    const std::string other = File("c.zz");
    Recognizer().answer = MakeChain({{kCandidates, row.format}});
    tracer.Clear();
    EXPECT_EQ(matcher.Match(tov::NativePath(other.c_str()), nullptr), 0);
    EXPECT_TRUE(HasLine("File '" + other + "' : formatId[unrecognized]"));
  }
  EXPECT_EQ(checked, 47);
}

TEST_F(MatcherTest, ChainsAreReadElementByElement) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::uint32_t, FormatId>> chain;
    zel::result_t nextResult;  // of the head's GetNext
    const char* format;        // as traced
  };
  const std::string set = std::to_string(0xEA0395B2u), confirmed = std::to_string(0xEF620987u);
  const Case cases[] = {
      {"candidate without a row", {{kCandidates, 0xD716CC51}}, 0, "unrecognized"},
      {"unconfirmed, chain ends", {{kCandidates, 0x721343EB}}, 0, "unrecognized"},
      {"next element confirmed", {{kCandidates, 0x721343EB}, {kCandidates, 0xEF620987}}, 0, confirmed.c_str()},
      {"next element a set", {{kCandidates, 0x721343EB}, {kSet, 0xEA0395B2}, {kSet, 0x11111111}}, 0, set.c_str()},
      {"failing GetNext ends it", {{kCandidates, 0x721343EB}, {kCandidates, 0xEF620987}},
       zel::result::UnspecifiedError, "unrecognized"},
      {"kind 0", {{0, 0x58B0B24C}}, 0, "unrecognized"},
      {"kind 3", {{3, 0x58B0B24C}}, 0, "unrecognized"},
  };
  InventoryFileMatcher matcher = Make(false, true, false);
  const std::string path = File("prog.bin");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Recognizer().recognizeResult = 0;
    Recognizer().answer = MakeChain(c.chain);
    Recognizer().answer->nextResult = c.nextResult;
    tracer.Clear();
    // Only the second group is on: 0xEF620987 is in neither, unrecognised passes.
    EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), c.format == confirmed ? 1 : 0);
    EXPECT_TRUE(HasLine("File '" + path + "' : formatId[" + c.format + "]"));
  }
}

// ---- sets ranked by priority ----------------------------------------------------------

TEST_F(MatcherTest, SetTakesTheEarliestPriorityEntryElseTheFirstId) {
  struct Case {
    const char* name;
    std::vector<FormatId> ids;
    FormatId expected;
  };
  const Case cases[] = {
      {"best in the middle", {0x4FFB30F3, 0xBB78EADE, 0x24A3462D}, 0xBB78EADE},
      {"best last", {0x721343EB, 0xE0242A0C, 0x42A68202}, 0x42A68202},
      {"a later, worse entry does not displace", {0x87771839, 0x4FFB30F3}, 0x87771839},
      {"none ranked: the first", {0x58B0B24C, 0x12345678}, 0x58B0B24C},
      {"ranked beats unranked first", {0x58B0B24C, 0x4FFB30F3}, 0x4FFB30F3},
      {"single", {0xD716CC51}, 0xD716CC51},
  };
  InventoryFileMatcher matcher = Make();
  const std::string path = File("x.bin");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::pair<std::uint32_t, FormatId>> chain;
    for (FormatId id : c.ids) chain.emplace_back(kSet, id);
    Recognizer().recognizeResult = 0;
    Recognizer().answer = MakeChain(chain);
    tracer.Clear();
    matcher.Match(tov::NativePath(path.c_str()), nullptr);
    EXPECT_TRUE(HasLine("File '" + path + "' : formatId[" + std::to_string(c.expected) + "]"));
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

  Recognizer().answer = MakeChain({{kSet, 0x58B0B24C}, {kSet, 0x4FFB30F3}});
  Recognizer().answer->nextResult = zel::result::InvalidType;
  EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), zel::result::InvalidType);

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

// ---- group switches ------------------------------------------------------------------

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
        const std::string path = File(f.name);
        Recognizer().recognizeResult = 0;
        Recognizer().answer = MakeChain({{kSet, f.id}});
        const bool pass = (f.group == 1 && first) || (f.group == 2 && second);
        EXPECT_EQ(matcher.Match(tov::NativePath(path.c_str()), nullptr), pass ? 0 : 1);
      }
      // Nobody knows it: always inventoried.
      const std::string unknown = File("a.unknownext");
      Recognizer().recognizeResult = 1;
      EXPECT_EQ(matcher.Match(tov::NativePath(unknown.c_str()), nullptr), 0);
    }
  }
}

}  // namespace
