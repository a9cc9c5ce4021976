// The host's path matcher factory: how scan settings become a matcher,
// which arguments it refuses, and the registration of the file services.
#include "host/files/path_matcher.h"

#include <gtest/gtest.h>

#include "host/files/file_services.h"

namespace {

using tov::settings::ScanScope;
using tov::settings::ScanScopeLists;
using tov::settings::SecondaryScope;

ScanScope Scope(const char* path, std::initializer_list<const char*> masks, bool enabled = true,
                std::uint32_t flags = 0) {
  ScanScope scope;
  scope.name = zel::wstring_t(u"scope");
  scope.enabled = enabled;
  scope.path = path;
  for (const char* mask : masks) scope.masks.push_back(zel::string_t(mask));
  scope.matcherFlags = flags;
  return scope;
}

SecondaryScope Secondary(const char* path, std::initializer_list<const char*> masks, std::uint32_t flags = 0) {
  SecondaryScope scope;
  scope.path = path;
  for (const char* mask : masks) scope.masks.push_back(zel::string_t(mask));
  scope.matcherFlags = flags;
  return scope;
}

struct Query {
  const char* path;
  std::uint32_t isDirectory;
  zel::result_t expected;
};

void Check(IPathMatcher* matcher, std::initializer_list<Query> queries) {
  ASSERT_NE(matcher, nullptr);
  for (const Query& q : queries)
    EXPECT_EQ(matcher->Match(tov::NativePath(q.path), q.isDirectory), q.expected) << q.path << " dir=" << q.isDirectory;
}

constexpr zel::result_t In = zel::result::NoError;
constexpr zel::result_t Out = zel::result::False;

TEST(PathMatcherFactory, EnabledScanScopesIncludeAndSecondaryScopesExclude) {
  host::PathMatcherFactory factory;
  ScanScopeLists scopes;
  scopes.scanScopes.push_back(Scope("/usr/bin", {"*"}));
  scopes.scanScopes.push_back(Scope("/opt/tools", {"*.sh", "*.py"}));
  scopes.scanScopes.push_back(Scope("/home", {"*"}, false));
  scopes.secondaryScopes.push_back(Secondary("/usr/bin/private", {"*"}));
  scopes.secondaryScopes.push_back(Secondary("/opt/tools", {"test_*"}));

  zel::RefPtr<IPathMatcher> matcher;
  ASSERT_EQ(factory.CreatePathMatcher(scopes, PathMatcherOptions{}, matcher.Ref()), zel::result::NoError);
  // How far rules reach is the scope rules' test; here, where each list lands.
  Check(matcher.Get(), {
                           {"/usr/bin/ls", 0, In},
                           {"/usr/bin/private/tool", 0, Out},
                           {"/usr", 1, In},
                           {"/usr", 0, Out},
                           {"/opt/tools/deep/x.py", 0, In},
                           {"/opt/tools/readme", 0, Out},
                           {"/opt/tools/test_x.sh", 0, Out},
                           {"/home/user/x", 0, Out},  // a disabled scope reaches nothing
                           {"/home", 1, Out},
                           {"/usr/bin/ls", 2, zel::result::InvalidArgument},
                       });
}

TEST(PathMatcherFactory, TopLevelOnlyScopesAndOptions) {
  host::PathMatcherFactory factory;
  ScanScopeLists scopes;
  scopes.scanScopes.push_back(Scope("/srv", {"*.BIN"}, true, host::path_matcher_flags::kTopLevelOnly));

  zel::RefPtr<IPathMatcher> exact;
  ASSERT_EQ(factory.CreatePathMatcher(scopes, PathMatcherOptions{}, exact.Ref()), zel::result::NoError);
  Check(exact.Get(), {{"/srv/a.bin", 0, Out}, {"/srv/a.BIN", 0, In}, {"/srv/sub", 1, Out}, {"/srv/sub/a.BIN", 0, Out}});

  PathMatcherOptions options;
  options.flags = host::path_matcher_flags::kCaseInsensitive;
  options.patterns.push_back(zel::string_t("skip*"));
  zel::RefPtr<IPathMatcher> folded;
  ASSERT_EQ(factory.CreatePathMatcher(scopes, options, folded.Ref()), zel::result::NoError);
  Check(folded.Get(), {{"/srv/a.bin", 0, In}, {"/srv/SKIP.bin", 0, Out}});
}

TEST(PathMatcherFactory, ScopeAndMaskMatchers) {
  host::PathMatcherFactory factory;
  zel::RefPtr<IPathMatcher> scope;
  // One scope is taken as given, even when disabled.
  ASSERT_EQ(factory.CreateScopeMatcher(Scope("/etc", {"*.conf"}, false), PathMatcherOptions{}, scope.Ref()),
            zel::result::NoError);
  Check(scope.Get(), {{"/etc/a.conf", 0, In}, {"/etc/x/b.conf", 0, In}, {"/etc/a.txt", 0, Out}, {"/var/a.conf", 0, Out}});

  zel::RefPtr<IPathMatcher> masks;
  ASSERT_EQ(factory.CreateMaskMatcher({zel::string_t("*.so*"), zel::string_t("/usr/bin/*")}, PathMatcherOptions{},
                                      masks.Ref()),
            zel::result::NoError);
  Check(masks.Get(), {{"/lib/libc.so.6", 0, In}, {"/usr/bin/ls", 0, In}, {"/usr/sbin/ls", 0, Out}, {"/lib", 1, In}});

  zel::RefPtr<IPathMatcher> none;
  ASSERT_EQ(factory.CreateMaskMatcher({}, PathMatcherOptions{}, none.Ref()), zel::result::NoError);
  Check(none.Get(), {{"/lib/libc.so.6", 0, Out}, {"/lib", 1, Out}});
}

TEST(PathMatcherFactory, RefusesWhatItDoesNotUnderstand) {
  host::PathMatcherFactory factory;
  const auto refused = [&](const ScanScopeLists& scopes, const PathMatcherOptions& options) {
    IPathMatcher* out = reinterpret_cast<IPathMatcher*>(0x1);
    const zel::result_t r = factory.CreatePathMatcher(scopes, options, &out);
    EXPECT_EQ(out, nullptr);
    return r;
  };
  // An unknown scope flag, an empty scope path, an empty secondary path, unknown options.
  for (int fault = 0; fault < 4; ++fault) {
    ScanScopeLists scopes;
    scopes.scanScopes.push_back(Scope(fault == 1 ? "" : "/usr", {"*"}, true, fault == 0 ? 0x10 : 0));
    if (fault == 2) scopes.secondaryScopes.push_back(Secondary("", {"*"}));
    PathMatcherOptions options;
    options.flags = fault == 3 ? 0x8 : 0;
    EXPECT_EQ(refused(scopes, options), zel::result::InvalidArgument) << "fault " << fault;
  }

  // A disabled scope is not looked at, whatever it holds.
  ScanScopeLists disabledOdd;
  disabledOdd.scanScopes.push_back(Scope("", {"*"}, false, 0x10));
  zel::RefPtr<IPathMatcher> matcher;
  EXPECT_EQ(factory.CreatePathMatcher(disabledOdd, {}, matcher.Ref()), zel::result::NoError);
  Check(matcher.Get(), {{"/usr/bin/ls", 0, Out}});

  EXPECT_EQ(factory.CreatePathMatcher(disabledOdd, {}, nullptr), zel::result::InvalidArgument);
}

TEST(FileServices, RegisteredUnderTheirIdsAndGoneAfterUnregistering) {
  host::ServiceLocator locator;
  host::FileServices services;
  host::RegisterFileServices(locator, services);
  {
    zel::RefPtr<zel::IFileFactory> files;
    EXPECT_EQ(zel::GetInterface(&locator, files.Ref(), qurn::CLSID_FileFactories), zel::result::NoError);
    EXPECT_EQ(files.Get(), static_cast<zel::IFileFactory*>(&services.files));
    zel::RefPtr<IPathMatcherFactory> matchers;
    EXPECT_EQ(zel::GetInterface(&locator, matchers.Ref()), zel::result::NoError);
    EXPECT_EQ(matchers.Get(), static_cast<IPathMatcherFactory*>(&services.pathMatchers));
    zel::RefPtr<FormatRecognizerFactory> formats;
    EXPECT_EQ(zel::GetInterface(&locator, formats.Ref()), zel::result::NoError);
    EXPECT_EQ(formats.Get(), static_cast<FormatRecognizerFactory*>(&services.formats));
  }
  host::UnregisterFileServices(locator);
  EXPECT_EQ(services.files.OutstandingRefs(), 0);
  EXPECT_EQ(services.pathMatchers.OutstandingRefs(), 0);
  EXPECT_EQ(services.formats.OutstandingRefs(), 0);
  zel::RefPtr<zel::IFileFactory> files;
  EXPECT_EQ(zel::GetInterface(&locator, files.Ref(), qurn::CLSID_FileFactories), zel::result::InterfaceNotSupported);
}

}  // namespace
