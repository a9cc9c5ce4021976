// host::Pwdb: the reference host's IPwdb over the system's user and group
// database (getpwnam_r, getpwuid_r, getgrnam_r), so whatever NSS is set up
// to consult answers. Stateless and safe for concurrent calls.
#pragma once

#include <atomic>
#include <cstdint>

#include "app_control/interfaces/ipwdb.h"

namespace host {

class Pwdb final : public IPwdb {
 public:
  Pwdb() = default;
  Pwdb(const Pwdb&) = delete;
  Pwdb& operator=(const Pwdb&) = delete;

  // Owned by its creator; the count is bookkeeping that tests can read.
  std::uint32_t AddRef() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Release() override { return m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override;

  zel::result_t GetPrimaryGroupId(std::uint32_t uid, std::uint32_t* gid) override;
  zel::result_t GetUserId(const char* userName, std::uint32_t* uid) override;
  zel::result_t GetUserName(std::uint32_t uid, zel::string_t* userName) override;
  zel::result_t GetGroupId(const char* groupName, std::uint32_t* gid) override;

  std::int64_t OutstandingRefs() const { return static_cast<std::int64_t>(m_refs.load()) - 1; }

 private:
  std::atomic<std::uint32_t> m_refs{1};
};

}  // namespace host
