// The engine's decision: criterion operations, category
// composition, and the verdict over rules, principals, modes and test mode.
#include <gtest/gtest.h>

#include "engine_test_support.h"
#include "host/engine/decision.h"

namespace {

using namespace engine_test;
using app_ctrl::CategoryFileInfoField;
using app_ctrl::CategoryStringOperation;
using app_ctrl::EnginePrincipal;
using host::engine::FileFacts;

constexpr char kHelloSha256[] = "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824";

TEST(CategoryMatcher, StringOperationsTable) {
  const FileFacts facts{"/opt/app/bin/tool", "tool", kHelloSha256, false};
  const FileFacts unhashed{"/x/tool", "tool", "", false};  // the file could not be read
  struct Case {
    CategoryFileInfoField field;
    CategoryStringOperation op;
    const char* value;
    bool match;
    const FileFacts* of = nullptr;  // else `facts`
  };
  const Case cases[] = {
      {CategoryFileInfoField::FileHash, CategoryStringOperation::Equal, kHelloSha256, true},
      {CategoryFileInfoField::FileHash, CategoryStringOperation::Equal,
       "2CF24DBA5FB0A30E26E83B2AC5B9E29E1B161E5C1FA7425E73043362938B9824", true},  // hex case is not significant
      {CategoryFileInfoField::FileSha256Hash, CategoryStringOperation::NotEqual, kHelloSha256, false},
      {CategoryFileInfoField::FileHash, CategoryStringOperation::NotEqual, "00", true},
      {CategoryFileInfoField::FileName, CategoryStringOperation::Equal, "tool", true},
      {CategoryFileInfoField::FileName, CategoryStringOperation::Equal, "Tool", false},
      {CategoryFileInfoField::FileName, CategoryStringOperation::Like, "t?o*", true},
      {CategoryFileInfoField::FileName, CategoryStringOperation::Like, "*.sh", false},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::Like, "/opt/*", true},  // "*" crosses "/"
      {CategoryFileInfoField::FilePath, CategoryStringOperation::Contains, "/bin/", true},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::Contains, "/sbin/", false},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::StartsWith, "/opt/app/", true},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::StartsWith, "/usr/", false},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::EndsWith, "bin/tool", true},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::EndsWith, "tool.sh", false},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::RegExp, "/opt/[a-z]+/bin/.*", true},
      {CategoryFileInfoField::FilePath, CategoryStringOperation::RegExp, "([", false},  // invalid pattern
      {CategoryFileInfoField::FilePath, CategoryStringOperation::RegExp, "/opt/[a-z]+", false},  // whole text only
      {CategoryFileInfoField::FilePath, CategoryStringOperation::RegExp, "x|/opt/app/bin/tool", true},  // both sides anchored
      {CategoryFileInfoField::CertificateIssuer, CategoryStringOperation::NotEqual, "x", false},  // not observed
      // Without a readable file no hash criterion matches, not even "!=".
      {CategoryFileInfoField::FileHash, CategoryStringOperation::NotEqual, "0", false, &unhashed},
  };
  for (const Case& c : cases) {
    host::engine::CategoryList all;
    all.push_back(MakeCategory(1, "c", {FileInfo(c.field, c.op, c.value)}));
    EXPECT_EQ(host::engine::CategoryMatches(all[0], all, c.of != nullptr ? *c.of : facts), c.match)
        << "field " << static_cast<int>(c.field) << " op " << static_cast<int>(c.op) << " value " << c.value;
  }
}

TEST(CategoryMatcher, ExcludeLinksAndStorage) {
  FileFacts tool{"/opt/app/bin/tool", "tool", kHelloSha256, false};
  FileFacts script{"/opt/app/bin/run.sh", "run.sh", kHelloSha256, true};

  host::engine::CategoryList all;
  all.push_back(MakeCategory(1, "app", {FileInfo(CategoryFileInfoField::FilePath, CategoryStringOperation::StartsWith, "/opt/app/")},
                             {FileInfo(CategoryFileInfoField::FileName, CategoryStringOperation::EndsWith, ".sh")}));
  all.push_back(MakeCategory(2, "linked", {Owning(app_ctrl::CategoryLinkedCategoryExpression(Id(1)))}));
  all.push_back(MakeCategory(3, "removable", {Owning(app_ctrl::CategoryStorageTypeExpression(
                                                 app_ctrl::CategoryStorageTypeExpression::RemovableDrive))}));
  // 4 and 5 link each other: a cycle matches nothing.
  all.push_back(MakeCategory(4, "cycleA", {Owning(app_ctrl::CategoryLinkedCategoryExpression(Id(5)))}));
  all.push_back(MakeCategory(5, "cycleB", {Owning(app_ctrl::CategoryLinkedCategoryExpression(Id(4)))}));
  app_ctrl::CategoryAndExpression both;
  both.left = FileInfo(CategoryFileInfoField::FileName, CategoryStringOperation::StartsWith, "run");
  both.right = Owning(app_ctrl::CategoryStorageTypeExpression(app_ctrl::CategoryStorageTypeExpression::RemovableDrive));
  all.push_back(MakeCategory(6, "and", {Owning(both)}));

  const auto ids = [](const std::vector<app_ctrl::CategoryId>& v) {
    std::vector<int> out;
    for (const auto& id : v) out.push_back(id.bytes[0]);
    return out;
  };
  EXPECT_EQ(ids(host::engine::MatchCategories(all, tool)), (std::vector<int>{1, 2}));
  EXPECT_EQ(ids(host::engine::MatchCategories(all, script)), (std::vector<int>{3, 6}));
}

struct VerdictCase {
  const char* what;
  bool allowList;
  std::uint32_t testMode;
  std::vector<app_ctrl::EngineRule> rules;
  std::int32_t verdict;
  std::int32_t ruleIndex;
};

TEST(Decide, VerdictTable) {
  constexpr std::uint32_t kOn = app_ctrl::engine_rule_status::On, kOff = app_ctrl::engine_rule_status::Off,
                          kTest = app_ctrl::engine_rule_status::Test;
  constexpr std::uint32_t kAllow = app_ctrl::engine_access::Allow, kBlock = app_ctrl::engine_access::Block;
  const Entry everyoneAllow{EnginePrincipal::kEveryone, EnginePrincipal::kEveryoneId, kAllow};
  const Entry everyoneBlock{EnginePrincipal::kEveryone, EnginePrincipal::kEveryoneId, kBlock};
  const Entry userAllow{EnginePrincipal::kUser, 1000, kAllow};
  const Entry userBlock{EnginePrincipal::kUser, 1000, kBlock};
  const Entry otherUserBlock{EnginePrincipal::kUser, 1001, kBlock};
  const Entry groupBlock{EnginePrincipal::kGroup, 27, kBlock};
  const Entry groupAllow{EnginePrincipal::kGroup, 100, kAllow};

  const std::vector<VerdictCase> cases = {
      {"deny list, no rule", false, 0, {}, 1, -1},
      {"allow list, no rule", true, 0, {}, 2, -1},
      {"deny list, everyone blocked", false, 0, {Rule(1, kOn, {everyoneBlock})}, 2, 0},
      {"allow list, user allowed", true, 0, {Rule(1, kOn, {userAllow})}, 1, 0},
      {"allow list, other category only", true, 0, {Rule(2, kOn, {everyoneAllow})}, 2, -1},
      {"allow list, user more specific than everyone", true, 0, {Rule(1, kOn, {everyoneAllow, userBlock})}, 2, 0},
      {"deny list, user exempt from everyone", false, 0, {Rule(1, kOn, {everyoneBlock, userAllow})}, 1, 0},
      {"deny list, another user blocked", false, 0, {Rule(1, kOn, {otherUserBlock})}, 1, -1},
      {"deny list, supplementary group blocked", false, 0, {Rule(1, kOn, {groupBlock})}, 2, 0},
      {"equal specificity: block wins", true, 0, {Rule(1, kOn, {groupAllow, groupBlock})}, 2, 0},
      {"across rules: block wins", true, 0, {Rule(1, kOn, {userAllow}), Rule(1, kOn, {everyoneBlock})}, 2, 1},
      {"two blocking rules: the first is named", false, 0, {Rule(1, kOn, {everyoneBlock}), Rule(1, kOn, {userBlock})}, 2, 0},
      {"rule off", false, 0, {Rule(1, kOff, {everyoneBlock})}, 1, -1},
      {"test mode block", false, 1, {Rule(1, kOn, {everyoneBlock})}, static_cast<std::int32_t>(0x80000002u), 0},
      {"test mode allow", true, 1, {Rule(1, kOn, {userAllow})}, static_cast<std::int32_t>(0x80000001u), 0},
      {"test mode, allow list default", true, 1, {}, static_cast<std::int32_t>(0x80000002u), -1},
      {"test rule would block", false, 0, {Rule(1, kTest, {everyoneBlock})}, static_cast<std::int32_t>(0x80000002u), 0},
      {"enforced block beats test rule", false, 0, {Rule(1, kTest, {userAllow}), Rule(1, kOn, {everyoneBlock})}, 2, 1},
      {"test rule counts in test mode", true, 1, {Rule(1, kTest, {userAllow})}, static_cast<std::int32_t>(0x80000001u), 0},
  };

  FileFacts facts{"/opt/app/bin/tool", "tool", kHelloSha256, false};
  host::engine::CategoryList categories;
  categories.push_back(MakeCategory(1, "Tools", {FileInfo(CategoryFileInfoField::FileName, CategoryStringOperation::Equal, "tool")}));
  categories.push_back(MakeCategory(2, "Scripts", {FileInfo(CategoryFileInfoField::FileName, CategoryStringOperation::Like, "*.sh")}));
  host::engine::UserPrincipals user{1000, {100, 27}, "alice"};

  for (const VerdictCase& c : cases) {
    app_ctrl::EnterpriseApplicationControlSettings settings;
    settings.allowListMode = c.allowList;
    settings.testMode = c.testMode;
    for (const auto& r : c.rules) settings.rules.push_back(r);
    const host::engine::Decision d = host::engine::Decide(settings, categories, facts, user);
    EXPECT_EQ(d.verdict, c.verdict) << c.what;
    EXPECT_EQ(d.ruleIndex, c.ruleIndex) << c.what;
    EXPECT_EQ(d.categoryName.view(), c.ruleIndex >= 0 ? std::u16string_view(u"Tools") : std::u16string_view()) << c.what;
  }
}

TEST(Decide, ResolvesRootFromUserDatabase) {
  const host::engine::UserPrincipals root = host::engine::ResolveUserPrincipals(0);
  EXPECT_EQ(root.userName, "root");
  ASSERT_FALSE(root.gids.empty());
  EXPECT_EQ(root.gids.front(), 0u);
  const host::engine::UserPrincipals nobody = host::engine::ResolveUserPrincipals(0x7FFFFFF0u);
  EXPECT_TRUE(nobody.userName.empty());
  EXPECT_TRUE(nobody.gids.empty());
}

}  // namespace
