// The decision behind the host's path matcher: which paths the configured
// scopes reach, written over plain strings so that it can be tested as a
// table.
//
// A rule is a path and a list of masks, shell globs matched with fnmatch and
// no flags (so "*" also matches a leading dot and crosses "/"). A mask
// without "/" is matched against the last component of a path, one that
// starts with "/" against the whole path, any other against the part below
// the rule's path. A rule without masks matches everything.
//
//   file       in scope when some include rule holds it (it is the rule's
//              path or lies below it) and one of that rule's masks matches
//              it, and no exclude rule excludes it.
//   directory  in scope when it lies on the way to some include rule's path,
//              is that path, or lies below it, and no exclude rule excludes
//              it. Include masks do not restrict directories: a file of a
//              wanted name may lie at any depth.
//   excluded   an exclude rule excludes a path that it holds when one of its
//              masks matches the path or any of the path's directories from
//              the rule's path down: a directory that is excluded takes its
//              whole tree with it, so the walk can leave it unread.
//
// A shallow rule holds its path and the entries directly in it, nothing
// deeper. A rule with an empty path holds every path. Masks may be matched
// without regard to case (FNM_CASEFOLD).
//
// Paths are compared as text, after doubled and trailing slashes are
// dropped; nothing is resolved on disk.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace host::files::detail {

struct ScopeRule {
  std::string path;
  std::vector<std::string> masks;
  bool shallow = false;
};

class ScopeRules {
 public:
  ScopeRules(std::vector<ScopeRule> includes, std::vector<ScopeRule> excludes, bool caseFold = false);

  bool FileInScope(std::string_view path) const;
  bool DirectoryInScope(std::string_view path) const;

  // `path` without doubled or trailing slashes ("/" stays "/").
  static std::string Normalize(std::string_view path);

 private:
  bool Excluded(std::string_view path) const;

  std::vector<ScopeRule> m_includes;
  std::vector<ScopeRule> m_excludes;
  int m_fnmatchFlags;
};

}  // namespace host::files::detail
