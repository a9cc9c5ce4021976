// Which files and directories a set of include and exclude rules reaches.
#include "host/files/internal/scope_rules.h"

#include <gtest/gtest.h>

namespace {

using host::files::detail::ScopeRule;
using host::files::detail::ScopeRules;

struct Query {
  const char* path;
  bool file;     // in scope as a file
  bool directory;  // in scope as a directory
};

void Check(const ScopeRules& rules, std::initializer_list<Query> queries, const char* what) {
  for (const Query& q : queries) {
    EXPECT_EQ(rules.FileInScope(q.path), q.file) << what << ": file " << q.path;
    EXPECT_EQ(rules.DirectoryInScope(q.path), q.directory) << what << ": directory " << q.path;
  }
}

TEST(ScopeRules, IncludeWithEverythingMaskTakesItsTreeAndTheWayToIt) {
  const ScopeRules rules({{"/usr/bin", {"*"}}}, {});
  Check(rules,
        {
            {"/usr/bin", true, true},
            {"/usr/bin/ls", true, true},
            {"/usr/bin/.hidden", true, true},
            {"/usr/bin/sub/deep/x", true, true},
            {"/usr", false, true},  // on the way: entered, its files are not wanted
            {"/", false, true},
            {"/usr/lib/x", false, false},
            {"/usr/binary", false, false},  // a name that merely starts like the scope
        },
        "everything");
}

TEST(ScopeRules, MasksSelectFilesByNameRelativePathOrWholePath) {
  const ScopeRules byName({{"/opt", {"*.sh", "run"}}}, {});
  Check(byName,
        {
            {"/opt/a.sh", true, true},
            {"/opt/x/y/b.sh", true, true},
            {"/opt/x/run", true, true},
            {"/opt/a.py", false, true},  // masks never keep the walk out of a directory
            {"/opt/A.SH", false, true},
            {"/opt/x.sh/readme", false, true},
        },
        "by name");

  const ScopeRules relative({{"/opt", {"bin/*"}}}, {});
  Check(relative,
        {
            {"/opt/bin/tool", true, true},
            {"/opt/bin/x/tool", true, true},  // "*" crosses "/"
            {"/opt/lib/bin/tool", false, true},
        },
        "relative");

  const ScopeRules whole({{"/opt", {"/opt/*/bin/*"}}}, {});
  Check(whole,
        {
            {"/opt/app/bin/tool", true, true},
            {"/opt/bin/tool", false, true},
        },
        "whole path");

  const ScopeRules noMasks({{"/opt", {}}}, {});
  Check(noMasks, {{"/opt/anything", true, true}}, "no masks");

  const ScopeRules emptyMask({{"/opt", {""}}}, {});
  Check(emptyMask, {{"/opt/anything", false, true}}, "empty mask");
}

TEST(ScopeRules, ExcludesPruneWholeTreesOrSingleNames) {
  const ScopeRules rules({{"/usr", {"*"}}},
                         {{"/usr/lib/debug", {"*"}}, {"/usr/share", {"*.txt", "cache"}}, {"/usr/bin/sudo", {}}});
  Check(rules,
        {
            {"/usr/lib/x.so", true, true},
            {"/usr/lib/debug", false, false},
            {"/usr/lib/debug/x.debug", false, false},
            {"/usr/lib/debugger", true, true},
            {"/usr/share/readme.txt", false, false},
            {"/usr/share/doc/readme.txt", false, false},
            {"/usr/share/doc/readme.md", true, true},
            {"/usr/share/cache", false, false},  // an excluded name takes its tree with it
            {"/usr/share/a/cache/x.bin", false, false},
            {"/usr/bin/sudo", false, false},
            {"/usr/bin/sudoedit", true, true},
            {"/usr", true, true},
        },
        "excludes");

  // An exclude above the include wins.
  const ScopeRules shadowed({{"/usr/bin", {"*"}}}, {{"/usr", {"*"}}});
  Check(shadowed, {{"/usr/bin/ls", false, false}, {"/usr", false, false}}, "shadowed");

  // Exclude masks with a "/" look at the path below the rule.
  const ScopeRules relative({{"/srv", {"*"}}}, {{"/srv", {"tmp/*"}}});
  Check(relative,
        {
            {"/srv/tmp", true, true},
            {"/srv/tmp/x", false, false},
            {"/srv/a/tmp/x", true, true},
        },
        "relative exclude");
}

TEST(ScopeRules, SeveralIncludesAndTheRootScope) {
  const ScopeRules rules({{"/usr/bin", {"*"}}, {"/opt/app", {"*.py"}}}, {});
  Check(rules,
        {
            {"/opt", false, true},
            {"/opt/other", false, false},
            {"/opt/app/main.py", true, true},
            {"/opt/app/main.c", false, true},
            {"/usr/bin/ls", true, true},
        },
        "several");

  const ScopeRules root({{"/", {"*"}}}, {{"/proc", {"*"}}});
  Check(root,
        {
            {"/", true, true},
            {"/a", true, true},  // the shortest path below the root
            {"/etc/passwd", true, true},
            {"/proc", false, false},
            {"/proc/self/exe", false, false},
            {"/process", true, true},
        },
        "root");

  const ScopeRules none({}, {});
  Check(none, {{"/usr/bin/ls", false, false}, {"/", false, false}}, "none");
}

TEST(ScopeRules, DoubledAndTrailingSlashesDoNotChangeTheAnswer) {
  const ScopeRules rules({{"/usr//bin/", {"*"}}}, {{"/usr/bin/x//", {}}});
  Check(rules,
        {
            {"/usr/bin//ls", true, true},
            {"/usr/bin/sub/", true, true},
            {"/usr//bin/x/y", false, false},
            {"/usr/", false, true},
        },
        "slashes");
  EXPECT_EQ(ScopeRules::Normalize("//a///b//"), "/a/b");
  EXPECT_EQ(ScopeRules::Normalize("/"), "/");
  EXPECT_EQ(ScopeRules::Normalize("rel/dir/"), "rel/dir");
}

TEST(ScopeRules, ShallowRulesStopAtTheirOwnDirectory) {
  const ScopeRules rules({{"/opt", {"*"}, true}}, {{"/opt/skip", {"*"}, true}});
  Check(rules,
        {
            {"/opt/tool", true, false},  // as a directory it would only lead deeper
            {"/opt", true, true},
            {"/opt/sub/tool", false, false},
            {"/", false, true},
            {"/opt/skip", false, false},
        },
        "shallow include");

  // A shallow exclude still takes the tree of a directory it excludes.
  const ScopeRules exclude({{"/srv", {"*"}}}, {{"/srv", {"cache"}, true}});
  Check(exclude,
        {
            {"/srv/cache/x", false, false},
            {"/srv/a/cache", true, true},
            {"/srv/a/cache/x", true, true},
        },
        "shallow exclude");
}

TEST(ScopeRules, RulesWithoutPathHoldEverythingRelativeOnesCompareAsTextAndCaseCanBeFolded) {
  const ScopeRules anywhere({{"", {"*.so"}}}, {{"", {"debug"}}});
  Check(anywhere,
        {
            {"/usr/lib/libc.so", true, true},
            {"relative/x.so", true, true},
            {"/usr/lib/debug/libc.so", false, false},
            {"/usr/lib/x.a", false, true},
        },
        "no path");

  const ScopeRules folded({{"/opt", {"*.SH"}}}, {{"/opt", {"TMP"}}}, true);
  Check(folded,
        {
            {"/opt/run.sh", true, true},
            {"/opt/tmp/run.sh", false, false},
        },
        "case folded");
  const ScopeRules exact({{"/opt", {"*.SH"}}}, {}, false);
  Check(exact, {{"/opt/run.sh", false, true}}, "case kept");

  // Relative scope paths compare as text.
  const ScopeRules relative({{"build/out", {"*"}}}, {});
  Check(relative,
        {
            {"build/out/x", true, true},
            {"build", false, true},
            {"/build/out/x", false, false},
        },
        "relative");
}

}  // namespace
