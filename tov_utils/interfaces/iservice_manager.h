// app_core::facade::IServiceManager: the host's store of the settings of its
// services, one record per service key, guarded by a revision so that
// several writers can share a record without losing each other's changes.
//
// A record crosses the interface as a SettingsHolder: the caller's object and
// its serialisation id; the host turns it into bytes and back. The operations
// stand in a fixed order that hosts call by position.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/result.h"

namespace app_core::facade {

// Three words: the record, its serialisation id, and a descriptor reference
// that callers leave null (a non-null one is the caller's to release after
// the call). The record stays the caller's.
struct SettingsHolder {
  void* object = nullptr;
  std::uint32_t serId = 0;
  zel::IObject* descriptor = nullptr;
};

// The stored revision moved on since the caller read it: read again.
inline constexpr zel::result_t kSettingsRevisionChanged = zel::result::SettingsRevisionChanged;

class IServiceManager : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x36D8AA31;

  // Reads the record of `serviceKey` into `settings` without its revision.
  // 1 when nothing is stored (the record is left as given).
  virtual zel::result_t GetServiceSettings(std::uint32_t serviceKey, SettingsHolder* settings) = 0;
  // Writes unconditionally, whatever the stored revision is.
  virtual zel::result_t SetServiceSettings(std::uint32_t serviceKey, std::uint32_t sync,
                                           const SettingsHolder* settings) = 0;
  // The current revision alone; 0 when nothing is stored.
  virtual zel::result_t GetServiceSettingsRevision(std::uint32_t serviceKey, std::uint32_t* revision) = 0;
  // Reads the record and the revision that a later UpdateServiceSettings2
  // must give back. 1 and revision 0 when nothing is stored.
  virtual zel::result_t GetServiceSettings2(std::uint32_t serviceKey, SettingsHolder* settings,
                                            std::uint32_t* revision) = 0;
  // Tells whether a record is stored: 0 yes, 1 no.
  virtual zel::result_t HasServiceSettings(std::uint32_t serviceKey) = 0;
  // Writes the record if the stored revision still is `revision`, else
  // kSettingsRevisionChanged. `sync` 1 asks for the write to be committed
  // before the call returns.
  virtual zel::result_t UpdateServiceSettings2(std::uint32_t serviceKey, std::uint32_t sync,
                                               const SettingsHolder* settings, std::uint32_t revision) = 0;
  // Forgets the record; 1 when there was none.
  virtual zel::result_t RemoveServiceSettings(std::uint32_t serviceKey) = 0;
  // Makes every committed change durable.
  virtual zel::result_t FlushSettings() = 0;

 protected:
  ~IServiceManager() = default;
};

}  // namespace app_core::facade
