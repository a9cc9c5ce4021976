// acctl's document readers: every text they can't take comes back as a
// UserError naming the source, never as another exception; what they take
// arrives whole.
#include <gtest/gtest.h>

#include <string>

#include "host/cli/category_document.h"
#include "host/cli/cli.h"
#include "host/cli/scan_settings_json.h"
#include "host/cli/settings_json.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "tests/tov_common/categories/category_meta_info.h"

namespace {

std::string Repeat(const std::string& text, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += text;
  return out;
}

// "ok <allow rules>/<deny rules>", "ok <scan scopes>/<secondary scopes>"
// or "error <message>".
std::string Read(bool scan, const std::string& json) {
  try {
    if (scan) {
      const tov::settings::InventoryScanSettings s = host::cli::ScanSettingsFromJson(json, "scan.json");
      return "ok " + std::to_string(s.scanScopes.size()) + "/" + std::to_string(s.secondaryScopes.size());
    }
    const tov::settings::AppControlSettings s = host::cli::SettingsFromJson(json, "s.json");
    return "ok " + std::to_string(s.allowListRules.size()) + "/" + std::to_string(s.denyListRules.size());
  } catch (const host::cli::UserError& e) {
    return std::string("error ") + e.what();
  }
}

TEST(SettingsDocuments, RefuseWithUserErrors) {
  const std::string head = R"({"mode":"AllowList","enforcement":"TestRules")";
  const bool kRun = false, kScan = true;
  const struct {
    bool scan;
    std::string json;
    std::string outcome;  // a prefix of the outcome
  } cases[] = {
      {kRun, head + "}", "ok 0/0"},
      {kRun, head + R"(,"denyListRules":[{"ruleName":"r","categoryName":"c","users":[]}]})", "ok 0/1"},
      {kRun, head + R"(,"colour":1})", R"(error s.json: document: unknown key "colour")"},
      // Nesting beyond the parser's stack limit: refused like any bad text.
      {kRun, Repeat("[", 1200), "error s.json: not a JSON document: "},
      {kRun, head + R"(,"allowListRules":)" + Repeat("[", 1200), "error s.json: not a JSON document: "},
      {kScan, R"({"scanScopes":[{"path":"/opt"},{"path":"/srv"}],"secondaryScopes":[{"path":"/opt/x"}]})", "ok 2/1"},
      {kScan, R"({"goldenImageAction":"add"})", R"(error scan.json: document.goldenImageAction: unknown value "add")"},
      {kScan, R"({"scanScopes":{}})", "error scan.json: scanScopes: expected an array"},
      {kScan, R"({"scanScopes":[{"masks":["*"]}]})", R"(error scan.json: scanScopes[0]: missing key "path")"},
      {kScan, R"({"executableBitEnabled":1})", "error scan.json: document.executableBitEnabled: expected true or false"},
      {kScan, R"({"a":1,"a":2})", "error scan.json: not a JSON document: "},
      // A path or mask the scope would keep cut at its NUL.
      {kScan, R"({"secondaryScopes":[{"path":"\u0000/usr/bin"}]})", "error scan.json: secondaryScopes[0].path: a NUL"},
      {kScan, R"({"scanScopes":[{"path":"/opt","masks":["a\u0000b"]}]})",
       "error scan.json: scanScopes[0].masks[0]: a NUL"},
      {kScan, R"({"scanScopes":)" + Repeat("[", 1200), "error scan.json: not a JSON document: "},
  };
  for (const auto& c : cases) {
    const std::string outcome = Read(c.scan, c.json);
    EXPECT_EQ(outcome.substr(0, c.outcome.size()), c.outcome) << c.json.substr(0, 80);
  }
}

TEST(ImportCategories, RefusesWithUserErrorsAndStoresWhatReads) {
  host::CountingAllocator allocator;
  category_test::MetaInfo metaInfo;
  host::ServiceLocator locator;
  locator.Register<zel::IAllocator>(&allocator);
  locator.Register<zel::IMetaInfoProvider>(&metaInfo);
  host::CategoriesManager store(&locator);
  ASSERT_EQ(store.Open(":memory:"), 0);

  const std::string good =
      R"x([{"Name":"n","GUID":"00112233445566778899aabbccddeeff","Include":["(FileName == a)"]}])x";
  EXPECT_EQ(host::cli::ImportCategories(store, &locator, good, "c.json"), 1u);
  const std::string exported = host::cli::ExportCategories(store);
  EXPECT_NE(exported.find("00112233445566778899aabbccddeeff"), std::string::npos) << exported;

  for (const std::string& bad : {std::string("{}"), std::string("[1]"), Repeat("[", 1200),
                                 "[" + Repeat(R"({"Name":)", 1200)}) {
    try {
      host::cli::ImportCategories(store, &locator, bad, "c.json");
      ADD_FAILURE() << "accepted " << bad.substr(0, 40);
    } catch (const host::cli::UserError& e) {
      EXPECT_EQ(std::string(e.what()).rfind("c.json: ", 0), 0u) << e.what();
    }
    // A refused document leaves the store as it was.
    EXPECT_EQ(host::cli::ExportCategories(store), exported);
  }

  // A GUID given twice is stored once, as its later occurrence, and counted once.
  const std::string twice = R"x([{"Name":"first","GUID":"00112233445566778899aabbccddeeff","Include":[]},
      {"Name":"other","GUID":"ffeeddccbbaa99887766554433221100","Include":[]},
      {"Name":"second","GUID":"00112233445566778899aabbccddeeff","Include":[]}])x";
  EXPECT_EQ(host::cli::ImportCategories(store, &locator, twice, "c.json"), 2u);
  const std::string stored = host::cli::ExportCategories(store);
  EXPECT_EQ(stored.find("first"), std::string::npos) << stored;
  EXPECT_NE(stored.find("second"), std::string::npos) << stored;
  EXPECT_EQ(host::cli::ImportCategories(store, &locator, stored, "again.json"), 2u);
}

}  // namespace
