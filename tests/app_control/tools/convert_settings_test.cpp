// Settings conversion against fake category and user services: which rules
// reach the engine with which category, status and users, and that a lost
// service leaves the caller's rules alone with one check line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <typeinfo>

#include "app_control/tools/convert_settings.h"
#include "host/services/collecting_tracer.h"
#include "host/services/service_locator.h"
#include "tests/support/fake_settings_services.h"

namespace {

using app_ctrl::CategoryId;
using app_ctrl::EngineRule;
using tov::app_control::ConvertSettings;
using tov::app_control::EngineRuleList;
using tov::settings::AppControlRule;
using tov::settings::AppControlSettings;
using ::testing::EndsWith;
using ::testing::StartsWith;

constexpr CategoryId Id(std::uint8_t n) { return CategoryId{{n, 0xA0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, n}}; }

AppControlRule Rule(std::u16string_view name, std::u16string_view category,
                    tov::RuleStatus status = tov::RuleStatus::On) {
  AppControlRule rule;
  rule.ruleName = zel::wstring_t(name);
  rule.categoryName = zel::wstring_t(category);
  rule.status = status;
  return rule;
}

void AddUser(AppControlRule& rule, std::u16string_view name, tov::UserAccess access) {
  auto& user = rule.users.emplace_back();
  user.userName = zel::wstring_t(name);
  user.access = access;
}

// A rule list's names in order, as UTF-8 for readable failures.
std::vector<std::string> Names(const EngineRuleList& rules) {
  std::vector<std::string> names;
  for (const EngineRule& r : rules) names.emplace_back(r.ruleName.begin(), r.ruleName.end());
  return names;
}

class ConvertSettingsTest : public ::testing::Test {
 protected:
  ConvertSettingsTest() {
    locator.Register<zel::ITracer>(&tracer);
    locator.Register<ICategoriesManager>(&categories);
    locator.Register<IPwdb>(&pwdb);
  }
  ~ConvertSettingsTest() override {
    // Only the fixture's locator still holds them.
    EXPECT_EQ(categories.OutstandingRefs(), 1);
    EXPECT_EQ(pwdb.OutstandingRefs(), 1);
  }

  zel::result_t Convert(EngineRuleList& rules) { return ConvertSettings(&locator, settings, rules); }

  // A previous result the caller holds, to see whether it survives.
  static EngineRuleList Previous() {
    EngineRuleList rules;
    rules.emplace_back().ruleName = zel::wstring_t(u"previous");
    return rules;
  }

  host::CollectingTracer tracer;
  testsupport::FakeCategoriesManager categories;
  testsupport::FakePwdb pwdb;
  host::ServiceLocator locator;
  AppControlSettings settings;
};

// The mode chooses the list, kept in its order; the status is renumbered and
// the engine's other rule fields stay default.
TEST_F(ConvertSettingsTest, ModeChoosesTheListAndStatusIsRenumbered) {
  categories.Add(Id(1), u"Browsers");
  const std::pair<std::int32_t, std::uint32_t> statuses[] = {{0, 1}, {1, 0}, {2, 2}, {3, 0}, {-5, 0}};
  for (const auto& [product, engine] : statuses)
    settings.allowListRules.push_back(Rule(u"allow", u"Browsers", static_cast<tov::RuleStatus>(product)));
  settings.allowListRules[1].ruleName = zel::wstring_t(u"allow-2");
  settings.denyListRules.push_back(Rule(u"deny-1", u"Browsers"));
  const struct {
    std::int32_t mode;
    std::vector<std::string> names;
  } cases[] = {{0, {"allow", "allow-2", "allow", "allow", "allow"}}, {1, {"deny-1"}}, {2, {}}, {-1, {}}};
  for (const auto& c : cases) {
    settings.mode = static_cast<tov::AppControlMode>(c.mode);
    EngineRuleList rules = Previous();
    ASSERT_EQ(Convert(rules), 0) << c.mode;
    EXPECT_EQ(Names(rules), c.names) << c.mode;
  }
  settings.mode = tov::AppControlMode::AllowList;
  EngineRuleList rules;
  ASSERT_EQ(Convert(rules), 0);
  for (std::size_t i = 0; i < rules.size(); ++i) {
    EXPECT_EQ(rules[i].status, statuses[i].second) << "product status " << statuses[i].first;
    EXPECT_TRUE(rules[i].ruleComment.empty());
    EXPECT_FALSE(rules[i].option1 || rules[i].option2 || rules[i].option3);
    EXPECT_TRUE(rules[i].textList1.empty() && rules[i].textList2.empty());
  }
  EXPECT_TRUE(tracer.Lines().empty());
}

TEST_F(ConvertSettingsTest, CategoryNamesAreExactAndTheFirstOfANameWins) {
  categories.Add(Id(1), u"Office");
  categories.Add(Id(2), u"Office");  // shadowed by the first
  categories.Add(Id(3), u"tools");
  categories.Add(Id(4), u"Office ");
  settings.mode = tov::AppControlMode::DenyList;
  for (const char16_t* name : {u"Office", u"office", u"Tools", u"tools", u"Office ", u"Offic", u""})
    settings.denyListRules.push_back(Rule(name, name));

  EngineRuleList rules;
  ASSERT_EQ(Convert(rules), 0);
  ASSERT_EQ(Names(rules), (std::vector<std::string>{"Office", "tools", "Office "}));
  EXPECT_EQ(rules[0].categoryId, Id(1));
  EXPECT_EQ(rules[1].categoryId, Id(3));
  EXPECT_EQ(rules[2].categoryId, Id(4));
}

TEST_F(ConvertSettingsTest, GoldenImageGoesByItsSoleId) {
  const CategoryId golden = app_ctrl::GoldenImageCategoryId;
  categories.Add(Id(7), u"Known");
  settings.mode = tov::AppControlMode::AllowList;
  auto add = [&](std::u16string_view name, std::u16string_view category, std::vector<CategoryId> ids) {
    AppControlRule rule = Rule(name, category);
    for (const auto& id : ids) rule.categoryIds.push_back(id);
    settings.allowListRules.push_back(std::move(rule));
  };
  add(u"golden-no-name", u"", {golden});
  add(u"golden-over-known-name", u"Known", {golden});
  add(u"golden-and-other-unknown", u"Unknown", {golden, Id(9)});
  add(u"golden-and-other-known", u"Known", {golden, Id(9)});
  add(u"other-id-only", u"Nothing", {Id(7)});

  EngineRuleList rules;
  ASSERT_EQ(Convert(rules), 0);
  ASSERT_EQ(Names(rules),
            (std::vector<std::string>{"golden-no-name", "golden-over-known-name", "golden-and-other-known"}));
  EXPECT_EQ(rules[0].categoryId, golden);
  EXPECT_EQ(rules[1].categoryId, golden);
  EXPECT_EQ(rules[2].categoryId, Id(7));

  // With no categories at all, the GoldenImage rules alone survive.
  categories.categories.clear();
  ASSERT_EQ(Convert(rules), 0);
  EXPECT_EQ(Names(rules), (std::vector<std::string>{"golden-no-name", "golden-over-known-name"}));
}

TEST_F(ConvertSettingsTest, UsersResolveInOrderAndUnresolvedOnesAreDropped) {
  pwdb.users = {{"alice", 1001}, {"", 5}};
  pwdb.groups = {{"staff", 50}};
  categories.Add(Id(1), u"C");
  settings.mode = tov::AppControlMode::AllowList;
  AppControlRule rule = Rule(u"mixed", u"C");
  AddUser(rule, u"alice", tov::UserAccess::Block);
  AddUser(rule, u"nobody", tov::UserAccess::Block);
  AddUser(rule, u"@staff", static_cast<tov::UserAccess>(7));
  AddUser(rule, u"\\Everyone", tov::UserAccess::Allow);
  AddUser(rule, u"\\everyone", tov::UserAccess::Allow);  // an ordinary, unknown user
  AddUser(rule, u"", tov::UserAccess::Block);
  settings.allowListRules.push_back(std::move(rule));
  AppControlRule lost = Rule(u"nobody-left", u"C");
  AddUser(lost, u"ghost", tov::UserAccess::Block);
  AddUser(lost, u"@ghosts", tov::UserAccess::Block);
  settings.allowListRules.push_back(std::move(lost));
  settings.allowListRules.push_back(Rule(u"no-users", u"C"));

  EngineRuleList rules;
  ASSERT_EQ(Convert(rules), 0);
  ASSERT_EQ(Names(rules), (std::vector<std::string>{"mixed", "nobody-left", "no-users"}));
  const struct {
    std::uint32_t type, id, access;
  } expected[] = {{0, 1001, 0}, {1, 50, 1}, {2, 0xFFFFFFFFu, 1}, {0, 5, 0}};
  ASSERT_EQ(rules[0].users.size(), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    const auto& user = rules[0].users[i];
    ASSERT_EQ(user.principals.size(), 1u) << i;
    EXPECT_EQ(user.principals[0].principalType, expected[i].type) << i;
    EXPECT_EQ(user.principals[0].principalId, expected[i].id) << i;
    EXPECT_EQ(user.access, expected[i].access) << i;
  }
  EXPECT_TRUE(rules[1].users.empty());
  EXPECT_TRUE(rules[2].users.empty());
  EXPECT_TRUE(tracer.Lines().empty());  // dropping is not a failure
}

TEST_F(ConvertSettingsTest, UserNamesAreNarrowedInTheCurrentLocale) {
  categories.Add(Id(1), u"C");
  settings.mode = tov::AppControlMode::AllowList;
  AppControlRule rule = Rule(u"r", u"C");
  AddUser(rule, u"j\u00f6rg", tov::UserAccess::Allow);
  AddUser(rule, u"smile\U0001F600", tov::UserAccess::Allow);  // a surrogate pair is one character
  settings.allowListRules.push_back(std::move(rule));
  pwdb.users = {{"j\xc3\xb6rg", 10}, {"smile\xf0\x9f\x98\x80", 11}};

  // The C locale a program starts in can't express the names: the whole
  // conversion ends with bad_cast and the caller's rules stay.
  EngineRuleList previous = Previous();
  EXPECT_THROW(Convert(previous), std::bad_cast);
  EXPECT_EQ(Names(previous), (std::vector<std::string>{"previous"}));

  struct RestoreLocale {
    ~RestoreLocale() { std::setlocale(LC_ALL, "C"); }
  } restore;
  if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
  EngineRuleList rules;
  ASSERT_EQ(Convert(rules), 0);
  ASSERT_EQ(rules.size(), 1u);
  ASSERT_EQ(rules[0].users.size(), 2u);
  EXPECT_EQ(rules[0].users[0].principals[0].principalId, 10u);
  EXPECT_EQ(rules[0].users[1].principals[0].principalId, 11u);
}

// A lost service fails with one check line and leaves the rules; without a
// tracer only the lines go.
TEST_F(ConvertSettingsTest, ALostServiceFailsWithOneCheckLineAndLeavesTheRules) {
  categories.Add(Id(1), u"C");
  settings.mode = tov::AppControlMode::AllowList;
  settings.allowListRules.push_back(Rule(u"r", u"C"));

  enum class Fault { NoCategoriesManager, GetCategoriesFails, NoPwdb };
  const struct {
    Fault fault;
    zel::result_t code;
    const char* tail;
    bool pwdbAsked;
  } cases[] = {
      {Fault::NoCategoriesManager, zel::result::NotFound, "(Not found)Cannot get ICategoriesManager interface", false},
      {Fault::GetCategoriesFails, zel::result::AccessDenied, "(Access denied)Cannot get categories", false},
      {Fault::NoPwdb, zel::result::InterfaceNotSupported, "(Interface not supported)Cannot get IPwdb interface", true},
  };
  for (const auto& c : cases) {
    host::ServiceLocator services;
    services.Register<zel::ITracer>(&tracer);
    if (c.fault != Fault::NoCategoriesManager) services.Register<ICategoriesManager>(&categories);
    if (c.fault != Fault::NoPwdb) services.Register<IPwdb>(&pwdb);
    services.Refuse(c.fault == Fault::NoCategoriesManager ? ICategoriesManager::iid : IPwdb::iid, c.code);
    if (c.fault != Fault::NoPwdb) services.Allow(IPwdb::iid);
    categories.failWith = c.fault == Fault::GetCategoriesFails ? c.code : 0;
    tracer.Clear();

    EngineRuleList rules = Previous();
    EXPECT_EQ(ConvertSettings(&services, settings, rules), c.code);
    EXPECT_EQ(Names(rules), (std::vector<std::string>{"previous"}));
    EXPECT_EQ(services.Requests(IPwdb::iid) != 0, c.pwdbAsked);
    const auto lines = tracer.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 300u);
    EXPECT_THAT(lines[0].text, StartsWith("app_control/tools/convert_settings.cpp:"));
    EXPECT_THAT(lines[0].text, EndsWith(c.tail));
  }

  tracer.Clear();
  host::ServiceLocator services;
  services.Register<IPwdb>(&pwdb);
  EngineRuleList rules = Previous();
  EXPECT_EQ(ConvertSettings(&services, settings, rules), zel::result::InterfaceNotSupported);
  EXPECT_EQ(rules.size(), 1u);
  services.Register<ICategoriesManager>(&categories);
  EXPECT_EQ(ConvertSettings(&services, settings, rules), 0);
  EXPECT_EQ(Names(rules), (std::vector<std::string>{"r"}));
  EXPECT_TRUE(tracer.Lines().empty());
}

TEST(ComposeEngineSettings, ModeAndEnforcementAndTheFixedValues) {
  const struct {
    std::int32_t mode, enforcement;
    bool allowListMode;
    std::uint32_t testMode;
  } cases[] = {{0, 0, true, 1}, {0, 1, true, 0}, {1, 0, false, 1}, {2, 1, false, 0}, {0, 7, true, 0}};
  for (const auto& c : cases) {
    AppControlSettings settings;
    settings.mode = static_cast<tov::AppControlMode>(c.mode);
    settings.enforcement = static_cast<tov::AppControlEnforcement>(c.enforcement);
    EngineRuleList rules;
    rules.emplace_back();
    rules.emplace_back();
    const auto engine = tov::app_control::ComposeEngineSettings(settings, std::move(rules));
    EXPECT_EQ(engine.rules.size(), 2u);
    EXPECT_EQ(engine.allowListMode, c.allowListMode) << c.mode << "/" << c.enforcement;
    EXPECT_EQ(engine.testMode, c.testMode) << c.mode << "/" << c.enforcement;
    EXPECT_EQ(std::tie(engine.value3, engine.flag4, engine.flag5, engine.value6, engine.value8, engine.flag9,
                       engine.value10, engine.flag11, engine.flag12, engine.value13, engine.flag14),
              std::make_tuple(0u, true, true, 0u, 0u, false, 0u, true, false, 3u, false));
    EXPECT_TRUE(engine.text7.empty());
  }
}

}  // namespace
