#include "host/files/internal/scope_rules.h"

#include <fnmatch.h>

#include <algorithm>

namespace host::files::detail {

namespace {

// `path` is `base` or lies below it, at any depth.
bool Under(std::string_view base, std::string_view path) noexcept {
  if (path == base) return true;
  if (base == "/") return path.size() > 1 && path.front() == '/';
  return path.size() > base.size() && path.substr(0, base.size()) == base && path[base.size()] == '/';
}

// `path` lies on the way to `base`: a proper ancestor directory of it.
bool LeadsTo(std::string_view path, std::string_view base) noexcept { return path != base && Under(path, base); }

bool Holds(const ScopeRule& rule, std::string_view path) noexcept {
  if (rule.path.empty()) return true;
  if (!Under(rule.path, path)) return false;
  if (!rule.shallow || path.size() == rule.path.size()) return true;
  const std::size_t rest = rule.path == "/" ? 1 : rule.path.size() + 1;
  return path.find('/', rest) == std::string_view::npos;
}

const char* Name(const std::string& path) noexcept {
  const std::size_t slash = path.rfind('/');
  return path.c_str() + (slash == std::string::npos || path.size() == 1 ? 0 : slash + 1);
}

// `path` below `base` as a relative path; the name when they are equal, the
// whole path when there is no base.
const char* Below(const std::string& path, std::string_view base) noexcept {
  if (base.empty()) return path.c_str();
  if (path.size() == base.size()) return Name(path);
  return path.c_str() + (base == "/" ? 1 : base.size() + 1);
}

// `path` is held by `rule`.
bool MasksMatch(const ScopeRule& rule, const std::string& path, int flags) {
  if (rule.masks.empty()) return true;
  return std::any_of(rule.masks.begin(), rule.masks.end(), [&](const std::string& mask) {
    const char* subject = mask.find('/') == std::string::npos ? Name(path)
                          : mask.front() == '/'              ? path.c_str()
                                                             : Below(path, rule.path);
    return ::fnmatch(mask.c_str(), subject, flags) == 0;
  });
}

std::vector<ScopeRule> Normalized(std::vector<ScopeRule> rules) {
  for (ScopeRule& rule : rules) rule.path = ScopeRules::Normalize(rule.path);
  return rules;
}

}  // namespace

ScopeRules::ScopeRules(std::vector<ScopeRule> includes, std::vector<ScopeRule> excludes, bool caseFold)
    : m_includes(Normalized(std::move(includes))),
      m_excludes(Normalized(std::move(excludes))),
      m_fnmatchFlags(caseFold ? FNM_CASEFOLD : 0) {}

std::string ScopeRules::Normalize(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

bool ScopeRules::Excluded(std::string_view pathView) const {
  std::string prefix;
  for (const ScopeRule& rule : m_excludes) {
    if (!rule.path.empty() && !Under(rule.path, pathView)) continue;
    // The rule's own path, then each directory below it that the rule
    // holds, then the path itself: an excluded directory takes its tree.
    std::size_t end = rule.path.empty() ? pathView.find('/', 1) : rule.path.size();
    if (end == std::string_view::npos) end = pathView.size();
    for (;;) {
      prefix.assign(pathView.substr(0, end));
      if (!Holds(rule, prefix)) break;
      if (MasksMatch(rule, prefix, m_fnmatchFlags)) return true;
      if (end >= pathView.size()) break;
      const std::size_t next = pathView.find('/', end + 1);
      end = next == std::string_view::npos ? pathView.size() : next;
    }
  }
  return false;
}

bool ScopeRules::FileInScope(std::string_view raw) const {
  const std::string path = Normalize(raw);
  const bool included = std::any_of(m_includes.begin(), m_includes.end(), [&](const ScopeRule& rule) {
    return Holds(rule, path) && MasksMatch(rule, path, m_fnmatchFlags);
  });
  return included && !Excluded(path);
}

bool ScopeRules::DirectoryInScope(std::string_view raw) const {
  const std::string path = Normalize(raw);
  const bool reaches = std::any_of(m_includes.begin(), m_includes.end(), [&](const ScopeRule& rule) {
    if (rule.path.empty() || LeadsTo(path, rule.path)) return true;
    // A shallow rule wants the files in its directory, none below.
    return rule.shallow ? path == rule.path : Under(rule.path, path);
  });
  return reaches && !Excluded(path);
}

}  // namespace host::files::detail
