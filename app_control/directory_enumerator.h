// DirectoryEnumerator: the depth-first walk of one scan root, one entry at a
// time, without recursion and without a list of entries. It keeps a stack of
// open directories, one descriptor per level, and reads only the top one. The
// strategy (the host's path matcher) decides which subdirectories are
// entered; a directory that is not entered, for whatever reason, is handed
// out like a file, and one that is entered is not handed out at all.
//
// Usage:
//   DirectoryEnumerator e;
//   if (FAILED(e.Open(root, matcher))) ...;
//   do { use e.CurrentDirectory() / e.CurrentName(); } while (e.Advance() == 0);
//
// Links below the root are looked at and never followed, so a cycle through
// a link cannot trap the walk. Paths are taken as given: nothing is
// canonicalised, and paths of any length are reached through descriptors.
#pragma once

#include <dirent.h>

#include <deque>

#include "app_control/interfaces/ipath_matcher.h"
#include "app_control/internal/filesystem_verdicts.h"
#include "tov_common/native_path.h"
#include "zel/noncopyable.h"
#include "zel/result.h"

namespace tov::app_control {

// One open directory.
struct DirNode {
  DIR* dir = nullptr;
  dirent* entry = nullptr;  // the current entry; null when exhausted
  tov::NativePath path;     // ends in "/" once the directory is open
};

class DirectoryEnumerator : zel::NonCopyable {
 public:
  DirectoryEnumerator() = default;
  ~DirectoryEnumerator();

  // Opens `path` (an empty path is ".") and stands on its first entry to
  // hand out. `strategy` is kept with a reference; null enters every
  // directory. 0x8000004C for a directory that gives no entry at all, the
  // errno mapping when it cannot be opened.
  zel::result_t Open(const tov::NativePath& path, IPathMatcher* strategy);

  // Moves to the next entry to hand out: 0 on one, 1 at the end of the walk,
  // negative when a directory could not be read, which ends the whole walk.
  zel::result_t Advance();

  // Looks at the current entry and enters it when it is a directory to be
  // walked; true when it did (then the new top stands on its first entry and
  // has to be examined in turn).
  bool Examine();

  bool AtEnd() const noexcept { return m_stack.empty(); }
  // The current entry: its name and the path of the directory that holds it,
  // as given to Open or composed by the walk (not forced to end in "/").
  const char* CurrentName() const noexcept { return m_stack.back().node->entry->d_name; }
  const tov::NativePath& CurrentDirectory() const noexcept { return m_stack.back().path; }

  // Closes every directory still open; the strategy is kept until destruction.
  void Close() noexcept;

 private:
  struct StackEntry {
    DirNode* node;
    tov::NativePath path;
  };

  static zel::result_t OpenDirectory(DirNode& node, const tov::NativePath& path);
  static void CloseNode(DirNode* node) noexcept;

  IPathMatcher* m_strategy = nullptr;
  std::deque<StackEntry> m_stack;
  // Which devices below the root may be entered, asked once per device.
  FilesystemVerdicts m_filesystems;
};

}  // namespace tov::app_control
