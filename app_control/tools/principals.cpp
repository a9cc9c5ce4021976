#include "app_control/tools/principals.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "zel/types/string.h"

namespace tov::app_control {

namespace {

constexpr std::string_view kEveryone = "\\Everyone";

struct FreeDeleter {
  void operator()(void* p) const noexcept { std::free(p); }
};

// Both limits are read once per process; -1 ("indeterminate") gets a
// generous default.
std::size_t PasswdBufferSize() {
  static const std::size_t size = [] {
    const long n = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    return n == -1 ? std::size_t{1024} : static_cast<std::size_t>(n);
  }();
  return size;
}

std::size_t GroupCapacity() {
  static const std::size_t capacity = [] {
    const long n = ::sysconf(_SC_NGROUPS_MAX);
    return n == -1 ? std::size_t{0x10000} : static_cast<std::size_t>(n);
  }();
  return capacity;
}

}  // namespace

PrincipalKind ClassifyPrincipal(std::string_view name) noexcept {
  if (name == kEveryone) return PrincipalKind::Everyone;
  if (!name.empty() && name.front() == '@') return PrincipalKind::Group;
  return PrincipalKind::User;
}

zel::result_t ResolvePrincipal(IPwdb* pwdb, std::string_view name, Principal& principal) {
  const PrincipalKind kind = ClassifyPrincipal(name);
  std::uint32_t id = 0;
  switch (kind) {
    case PrincipalKind::Everyone:
      principal.kind = kind;
      return zel::result::NoError;
    case PrincipalKind::User: {
      const zel::string_t userName(name);
      if (ZEL_FAILED(pwdb->GetUserId(userName.c_str(), &id))) return zel::result::NotFound;
      break;
    }
    case PrincipalKind::Group: {
      const zel::string_t groupName(name.substr(1));  // never with the "@"
      if (ZEL_FAILED(pwdb->GetGroupId(groupName.c_str(), &id))) return zel::result::NotFound;
      break;
    }
    default:
      return zel::result::InvalidArgument;
  }
  principal.kind = kind;
  principal.id = id;
  return zel::result::NoError;
}

zel::result_t IsPrincipalCovered(IPwdb* pwdb, Principal subject, Principal ruleSubject) {
  if (ruleSubject.kind == PrincipalKind::Everyone) return zel::result::NoError;
  if (subject.kind == ruleSubject.kind) return subject.id == ruleSubject.id ? zel::result::NoError : zel::result::False;

  // Kinds differ: the subject's id is taken for the user's.
  zel::string_t userName;
  const zel::result_t r = pwdb->GetUserName(subject.id, &userName);
  if (ZEL_FAILED(r)) return r;

  const std::size_t bufferSize = PasswdBufferSize();
  std::unique_ptr<char, FreeDeleter> buffer;
  if (bufferSize != 0) {
    buffer.reset(static_cast<char*>(std::calloc(bufferSize, 1)));
    if (!buffer) return zel::result::OutOfMemory;
  }
  passwd entry{};
  passwd* found = nullptr;
  const int rc = ::getpwnam_r(userName.c_str(), &entry, buffer.get(), bufferSize, &found);
  if (rc != 0) return zel::ResultFromErrno(static_cast<unsigned>(rc));
  if (found == nullptr) return zel::result::NotFound;

  const std::size_t capacity = GroupCapacity();
  std::unique_ptr<gid_t, FreeDeleter> groups(static_cast<gid_t*>(std::calloc(capacity, sizeof(gid_t))));
  if (!groups && capacity != 0) return zel::result::OutOfMemory;
  int count = static_cast<int>(capacity);
  // The primary gid is passed in, so a user is covered by its primary group
  // even where the group file doesn't list it as a member.
  if (::getgrouplist(userName.c_str(), entry.pw_gid, groups.get(), &count) == -1) return zel::result::OutOfMemory;

  for (int i = 0; i < count; ++i)
    if (groups.get()[i] == ruleSubject.id) return zel::result::NoError;
  return zel::result::False;
}

app_ctrl::EnginePrincipal ToEnginePrincipal(const Principal& principal) noexcept {
  switch (principal.kind) {
    case PrincipalKind::User:
      return {app_ctrl::EnginePrincipal::kUser, principal.id};
    case PrincipalKind::Group:
      return {app_ctrl::EnginePrincipal::kGroup, principal.id};
    case PrincipalKind::Everyone:
      return {app_ctrl::EnginePrincipal::kEveryone, app_ctrl::EnginePrincipal::kEveryoneId};
    default:
      return {app_ctrl::EnginePrincipal::kUser, 0};
  }
}

}  // namespace tov::app_control
