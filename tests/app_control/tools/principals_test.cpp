// Principal names, their resolution through IPwdb, and the coverage test,
// against a recording database for the exact calls and against the host's
// real one for the system's accounts.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "app_control/tools/principals.h"
#include "host/services/host_object.h"
#include "host/services/pwdb.h"

namespace {

using tov::app_control::ClassifyPrincipal;
using tov::app_control::IsPrincipalCovered;
using tov::app_control::Principal;
using tov::app_control::PrincipalKind;
using tov::app_control::ResolvePrincipal;

// Records every call; answers from its settings.
class RecordingPwdb final : public host::OwnedObject<RecordingPwdb, IPwdb> {
 public:
  zel::result_t GetPrimaryGroupId(std::uint32_t, std::uint32_t*) override {
    calls.push_back("GetPrimaryGroupId");
    return zel::result::NotImplemented;
  }
  zel::result_t GetUserId(const char* name, std::uint32_t* uid) override {
    calls.push_back(std::string("GetUserId:") + name);
    *uid = 1234;
    return answer;
  }
  zel::result_t GetUserName(std::uint32_t uid, zel::string_t* name) override {
    calls.push_back("GetUserName:" + std::to_string(uid));
    if (ZEL_SUCCEEDED(answer)) name->assign(userName);
    return answer;
  }
  zel::result_t GetGroupId(const char* name, std::uint32_t* gid) override {
    calls.push_back(std::string("GetGroupId:") + name);
    *gid = 4321;
    return answer;
  }

  zel::result_t answer = zel::result::NoError;
  std::string userName = "root";
  std::vector<std::string> calls;
};

TEST(Principals, NamesAreClassifiedByExactBytes) {
  const struct {
    std::string_view name;
    PrincipalKind kind;
  } cases[] = {
      {"\\Everyone", PrincipalKind::Everyone}, {"\\everyone", PrincipalKind::User},
      {"\\Everyone ", PrincipalKind::User},    {"Everyone", PrincipalKind::User},
      {"@wheel", PrincipalKind::Group},        {"a@b", PrincipalKind::User},
      {std::string_view("\\Everyone\0", 10), PrincipalKind::User},
  };
  for (const auto& c : cases) EXPECT_EQ(ClassifyPrincipal(c.name), c.kind) << c.name;
}

// A failed lookup is NotFound whatever the reason and leaves the principal
// as it was.
TEST(Principals, ResolutionCallsTheDatabaseWithTheRightName) {
  constexpr auto kUnset = static_cast<PrincipalKind>(9);
  const struct {
    std::string_view name;
    zel::result_t answer;
    std::vector<std::string> calls;
    zel::result_t result;
    PrincipalKind kind;
    std::uint32_t id;
  } cases[] = {
      {"\\Everyone", 0, {}, 0, PrincipalKind::Everyone, 77},  // id left as it was
      {"alice", 0, {"GetUserId:alice"}, 0, PrincipalKind::User, 1234},
      {"", 0, {"GetUserId:"}, 0, PrincipalKind::User, 1234},
      {"@staff", 0, {"GetGroupId:staff"}, 0, PrincipalKind::Group, 4321},
      {"@", 0, {"GetGroupId:"}, 0, PrincipalKind::Group, 4321},
      {"bob", zel::result::AccessDenied, {"GetUserId:bob"}, zel::result::NotFound, kUnset, 77},
      {"@nobody", zel::result::AccessDenied, {"GetGroupId:nobody"}, zel::result::NotFound, kUnset, 77},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingPwdb pwdb;
    pwdb.answer = c.answer;
    Principal p{kUnset, 77};
    EXPECT_EQ(ResolvePrincipal(&pwdb, c.name, p), c.result);
    EXPECT_EQ(pwdb.calls, c.calls);
    EXPECT_EQ(p.kind, c.kind);
    EXPECT_EQ(p.id, c.id);
  }
}

TEST(Principals, CoverageWithoutTheSystem) {
  RecordingPwdb pwdb;
  const Principal everyone{PrincipalKind::Everyone, 0};
  EXPECT_EQ(IsPrincipalCovered(&pwdb, {PrincipalKind::Group, 5}, everyone), 0);
  EXPECT_EQ(IsPrincipalCovered(&pwdb, {PrincipalKind::User, 5}, {PrincipalKind::User, 5}), 0);
  EXPECT_EQ(IsPrincipalCovered(&pwdb, {PrincipalKind::User, 5}, {PrincipalKind::User, 6}), 1);
  EXPECT_EQ(IsPrincipalCovered(&pwdb, {PrincipalKind::Group, 5}, {PrincipalKind::Group, 6}), 1);
  EXPECT_TRUE(pwdb.calls.empty());

  pwdb.answer = zel::result::AccessDenied;  // GetUserName's own code comes back
  EXPECT_EQ(IsPrincipalCovered(&pwdb, {PrincipalKind::User, 5}, {PrincipalKind::Group, 6}), zel::result::AccessDenied);
  pwdb.answer = 0;
  pwdb.userName = "no-such-user-for-principals-test";
  EXPECT_EQ(IsPrincipalCovered(&pwdb, {PrincipalKind::User, 5}, {PrincipalKind::Group, 6}), zel::result::NotFound);
}

// ---- against the system's accounts ---------------------------------------------------

// Real accounts' resolution and coverage are the scratch accounts' test below.
TEST(PrincipalsSystem, UnknownNamesAndTheHostDatabasesAnswers) {
  host::Pwdb pwdb;
  Principal missing{};
  EXPECT_EQ(ResolvePrincipal(&pwdb, "no-such-user-for-principals-test", missing), zel::result::NotFound);
  EXPECT_EQ(ResolvePrincipal(&pwdb, "@no-such-group-for-principals-test", missing), zel::result::NotFound);
  EXPECT_EQ(pwdb.OutstandingRefs(), 0);

  // The host's database answers both ways and leaves the name on failure.
  zel::string_t name("previous");
  ASSERT_EQ(pwdb.GetUserName(0, &name), 0);
  EXPECT_EQ(name.view(), "root");
  std::uint32_t gid = 99;
  ASSERT_EQ(pwdb.GetPrimaryGroupId(0, &gid), 0);
  EXPECT_EQ(gid, 0u);
  EXPECT_EQ(pwdb.GetUserName(0xFFFFFFF0u, &name), zel::result::NotFound);
  EXPECT_EQ(name.view(), "root");
}

// Creates a user with its own primary group and one supplementary group, and
// removes them again; only possible as root.
class ScratchAccounts : public ::testing::Test {
 protected:
  static constexpr const char* kUser = "zel_pr_test_user";
  static constexpr const char* kExtra = "zel_pr_test_extra";
  static constexpr const char* kOther = "zel_pr_test_other";

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create accounts";
    TearDown();
    if (Run(std::string("groupadd ") + kExtra) != 0 || Run(std::string("groupadd ") + kOther) != 0 ||
        Run(std::string("useradd -U -M -G ") + kExtra + " " + kUser) != 0)
      GTEST_SKIP() << "useradd/groupadd unavailable";
  }
  void TearDown() override {
    if (::geteuid() != 0) return;
    Run(std::string("userdel ") + kUser);
    Run(std::string("groupdel ") + kUser);
    Run(std::string("groupdel ") + kExtra);
    Run(std::string("groupdel ") + kOther);
  }
  static int Run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()); }
};

TEST_F(ScratchAccounts, UserIsCoveredByPrimaryAndSupplementaryGroupsOnly) {
  host::Pwdb pwdb;
  Principal user{}, primary{}, extra{}, other{};
  ASSERT_EQ(ResolvePrincipal(&pwdb, kUser, user), 0);
  ASSERT_EQ(ResolvePrincipal(&pwdb, std::string("@") + kUser, primary), 0);
  ASSERT_EQ(ResolvePrincipal(&pwdb, std::string("@") + kExtra, extra), 0);
  ASSERT_EQ(ResolvePrincipal(&pwdb, std::string("@") + kOther, other), 0);
  EXPECT_NE(user.id, 0u);

  EXPECT_EQ(IsPrincipalCovered(&pwdb, user, primary), 0);
  EXPECT_EQ(IsPrincipalCovered(&pwdb, user, extra), 0);
  EXPECT_EQ(IsPrincipalCovered(&pwdb, user, other), 1);
  // A group is covered only by itself, never by a user.
  EXPECT_EQ(IsPrincipalCovered(&pwdb, extra, primary), 1);
}

}  // namespace
