// IPwdb: the host's user database. Rule users arrive as names; the engine
// wants numeric ids, and this is where names and ids meet. What stands behind
// it (local files, a directory service) is the host's affair.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/types/string.h"

class IPwdb : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0xC781844A;

  // The primary group of a user.
  virtual zel::result_t GetPrimaryGroupId(std::uint32_t uid, std::uint32_t* gid) = 0;
  // 0x8000004C when there is no such user.
  virtual zel::result_t GetUserId(const char* userName, std::uint32_t* uid) = 0;
  // Fills `userName` (replacing what it held); 0x8000004C when there is no such user.
  virtual zel::result_t GetUserName(std::uint32_t uid, zel::string_t* userName) = 0;
  // 0x8000004C when there is no such group.
  virtual zel::result_t GetGroupId(const char* groupName, std::uint32_t* gid) = 0;

 protected:
  ~IPwdb() = default;
};
