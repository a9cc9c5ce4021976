#include "host/services/pwdb.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "host/services/fault_switchboard.h"

namespace host {

namespace {

// Runs a *_r lookup, growing `buffer` while the system says ERANGE. The
// entry's strings point into `buffer`, so the caller keeps it while reading.
// `lookup(entry, buffer, size, &found)` returns the function's error number.
template <class Entry, class Lookup>
zel::result_t RunLookup(Lookup&& lookup, Entry& entry, std::vector<char>& buffer) {
  const long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  buffer.resize(hint > 0 ? static_cast<std::size_t>(hint) : 1024);
  for (;;) {
    Entry* found = nullptr;
    const int rc = lookup(&entry, buffer.data(), buffer.size(), &found);
    if (rc == ERANGE && buffer.size() < (std::size_t{1} << 24)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (rc != 0) return zel::ResultFromErrno(static_cast<unsigned>(rc));
    return found != nullptr ? zel::result::NoError : zel::result::NotFound;
  }
}

}  // namespace

zel::result_t Pwdb::GetPrimaryGroupId(std::uint32_t uid, std::uint32_t* gid) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PwdbLookup)) return fault;
  if (gid == nullptr) return zel::result::InvalidArgument;
  passwd entry{};
  std::vector<char> buffer;
  const zel::result_t r = RunLookup(
      [uid](passwd* e, char* b, std::size_t n, passwd** f) { return ::getpwuid_r(uid, e, b, n, f); }, entry, buffer);
  if (ZEL_SUCCEEDED(r)) *gid = entry.pw_gid;
  return r;
}

zel::result_t Pwdb::GetUserId(const char* userName, std::uint32_t* uid) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PwdbLookup)) return fault;
  if (userName == nullptr || uid == nullptr) return zel::result::InvalidArgument;
  passwd entry{};
  std::vector<char> buffer;
  const zel::result_t r = RunLookup(
      [userName](passwd* e, char* b, std::size_t n, passwd** f) { return ::getpwnam_r(userName, e, b, n, f); },
      entry, buffer);
  if (ZEL_SUCCEEDED(r)) *uid = entry.pw_uid;
  return r;
}

zel::result_t Pwdb::GetUserName(std::uint32_t uid, zel::string_t* userName) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PwdbLookup)) return fault;
  if (userName == nullptr) return zel::result::InvalidArgument;
  try {
    passwd entry{};
    std::vector<char> buffer;
    const zel::result_t r = RunLookup(
        [uid](passwd* e, char* b, std::size_t n, passwd** f) { return ::getpwuid_r(uid, e, b, n, f); }, entry, buffer);
    if (ZEL_SUCCEEDED(r)) userName->assign(entry.pw_name);
    return r;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

zel::result_t Pwdb::GetGroupId(const char* groupName, std::uint32_t* gid) {
  if (const zel::result_t fault = FaultAt(FaultPoint::PwdbLookup)) return fault;
  if (groupName == nullptr || gid == nullptr) return zel::result::InvalidArgument;
  group entry{};
  std::vector<char> buffer;
  const zel::result_t r = RunLookup(
      [groupName](group* e, char* b, std::size_t n, group** f) { return ::getgrnam_r(groupName, e, b, n, f); },
      entry, buffer);
  if (ZEL_SUCCEEDED(r)) *gid = entry.gr_gid;
  return r;
}

}  // namespace host
