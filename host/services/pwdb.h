// host::Pwdb: the reference host's IPwdb over the system's user and group
// database (getpwnam_r, getpwuid_r, getgrnam_r), so whatever NSS is set up
// to consult answers. Stateless and safe for concurrent calls.
#pragma once

#include <cstdint>

#include "app_control/interfaces/ipwdb.h"
#include "host/services/host_object.h"

namespace host {

class Pwdb final : public OwnedObject<Pwdb, IPwdb> {
 public:
  Pwdb() = default;
  Pwdb(const Pwdb&) = delete;
  Pwdb& operator=(const Pwdb&) = delete;

  zel::result_t GetPrimaryGroupId(std::uint32_t uid, std::uint32_t* gid) override;
  zel::result_t GetUserId(const char* userName, std::uint32_t* uid) override;
  zel::result_t GetUserName(std::uint32_t uid, zel::string_t* userName) override;
  zel::result_t GetGroupId(const char* groupName, std::uint32_t* gid) override;

};

}  // namespace host
