#include "app_control/directory_enumerator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "tov_utils/file_system.h"

namespace tov::app_control {

namespace {

bool IsDotOrDotDot(const char* name) noexcept {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// lstat or stat of a path of any length.
bool StatAnyLength(const char* path, struct stat& st, int flags) noexcept {
  tools::LongPathCursor cursor;
  if (ZEL_FAILED(tools::OpenLongPath(cursor, path))) return false;
  return ::fstatat(cursor.fd, cursor.Name(), &st, flags) == 0;
}

// Owns a node until the stack does, closing its directory if it never gets there.
struct NodeCloser {
  void operator()(DirNode* node) const noexcept {
    if (node->dir != nullptr) ::closedir(node->dir);
    delete node;
  }
};
using NodeHolder = std::unique_ptr<DirNode, NodeCloser>;

tov::NativePath Join(const tov::NativePath& directory, const char* name) {
  tov::NativePath joined;
  const std::size_t nameLength = std::strlen(name);
  joined.append(directory.data(), directory.size());
  if (!directory.empty() && directory.back() != '/') joined.append("/", 1);
  joined.append(name, nameLength);
  return joined;
}

}  // namespace

DirectoryEnumerator::~DirectoryEnumerator() {
  Close();
  if (m_strategy != nullptr) m_strategy->Release();
}

void DirectoryEnumerator::CloseNode(DirNode* node) noexcept { NodeCloser()(node); }

void DirectoryEnumerator::Close() noexcept {
  while (!m_stack.empty()) {
    CloseNode(m_stack.back().node);
    m_stack.pop_back();
  }
}

zel::result_t DirectoryEnumerator::OpenDirectory(DirNode& node, const tov::NativePath& path) {
  node.path = path.empty() ? tov::NativePath(".") : path;

  {
    tools::LongPathCursor cursor;
    zel::result_t r = tools::OpenLongPath(cursor, node.path.c_str());
    if (ZEL_FAILED(r)) return r;
    // O_DIRECTORY: what changed into something else since it was looked at
    // (a FIFO above all) is refused instead of opened.
    const int fd = ::openat(cursor.fd, cursor.Name(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return zel::ResultFromErrno(static_cast<unsigned>(errno));
    node.dir = ::fdopendir(fd);
    if (node.dir == nullptr) {
      r = zel::ResultFromErrno(static_cast<unsigned>(errno));
      ::close(fd);
      return r;
    }
  }

  // A node on the stack always stands on an entry.
  errno = 0;
  node.entry = ::readdir(node.dir);
  if (node.entry == nullptr) {
    const int error = errno;
    ::closedir(node.dir);
    node.dir = nullptr;
    return error == 0 ? zel::result::NotFound : zel::ResultFromErrno(static_cast<unsigned>(error));
  }
  if (node.path.back() != '/') node.path.append("/", 1);
  return 0;
}

zel::result_t DirectoryEnumerator::Open(const tov::NativePath& path, IPathMatcher* strategy) {
  Close();
  m_filesystems.Clear();
  if (strategy != nullptr) strategy->AddRef();
  if (m_strategy != nullptr) m_strategy->Release();
  m_strategy = strategy;

  NodeHolder node(new DirNode());
  const zel::result_t r = OpenDirectory(*node, path);
  if (ZEL_FAILED(r)) return r;
  m_stack.push_back(StackEntry{node.get(), path});
  node.release();
  while (Examine()) {
  }
  return 0;
}

bool DirectoryEnumerator::Examine() {
  const StackEntry& top = m_stack.back();
  const char* name = top.node->entry->d_name;

  // The directory listing already tells most entries' type. Whatever it
  // calls neither a directory nor a link comes back false from every branch
  // below, so the lstat is spared; the file systems that leave the type
  // unknown still get it.
  const unsigned char type = top.node->entry->d_type;
  if (type != DT_UNKNOWN && type != DT_DIR && type != DT_LNK) return false;
  // "." and ".." end false whatever their lstat says.
  if (IsDotOrDotDot(name)) return false;

  // The node's path already ends in "/". Most paths fit a stack buffer, which
  // spares a heap block per entry.
  struct stat st {};
  const std::size_t nodeLength = top.node->path.size();
  const std::size_t nameLength = std::strlen(name);
  if (nodeLength + nameLength < tools::kLongPathChunk) {
    char full[tools::kLongPathChunk];
    std::memcpy(full, top.node->path.data(), nodeLength);
    std::memcpy(full + nodeLength, name, nameLength + 1);
    if (::fstatat(AT_FDCWD, full, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  } else {
    const tov::NativePath full = Join(top.node->path, name);
    if (!StatAnyLength(full.c_str(), st, AT_SYMLINK_NOFOLLOW)) return false;
  }
  if (!S_ISDIR(st.st_mode) && !S_ISLNK(st.st_mode)) return false;

  tov::NativePath joined = Join(top.path, name);
  if (S_ISLNK(st.st_mode)) {
    // Looked at, never followed: whatever the target is, the link itself is
    // the entry.
    struct stat again {};
    if (StatAnyLength(joined.c_str(), again, AT_SYMLINK_NOFOLLOW) && S_ISLNK(again.st_mode)) {
      StatAnyLength(joined.c_str(), again, 0);
    }
    return false;
  }

  if (m_filesystems.IsScannable(st.st_dev, joined.c_str()) == 0) return false;
  if (m_strategy != nullptr && m_strategy->Match(joined, 1) != 0) return false;

  NodeHolder node(new DirNode());
  if (ZEL_FAILED(OpenDirectory(*node, joined))) return false;
  m_stack.push_back(StackEntry{node.get(), std::move(joined)});
  node.release();
  return true;
}

zel::result_t DirectoryEnumerator::Advance() {
  while (!m_stack.empty()) {
    DirNode* top = m_stack.back().node;
    errno = 0;
    dirent* entry = ::readdir(top->dir);
    if (entry != nullptr) {
      top->entry = entry;
      while (Examine()) {
      }
      return 0;
    }
    if (errno != 0) {
      const zel::result_t r = zel::ResultFromErrno(static_cast<unsigned>(errno));
      if (ZEL_FAILED(r)) {
        Close();
        return r;
      }
    }
    top->entry = nullptr;
    CloseNode(top);
    m_stack.pop_back();
  }
  return 1;
}

}  // namespace tov::app_control
