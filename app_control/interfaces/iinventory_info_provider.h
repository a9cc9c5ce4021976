// tov::IInventoryInfoProvider: the reading side of the application
// inventory, for any component of the product.
//
// Contract: GetApplicationList replaces `list` with every record, each with
// its categories also by name, or leaves it alone on failure.
// GetApplicationInfo reads one record. GetApplicationIdList appends up to
// `count` ids from position `from` to `list` and answers 0, or 1 with `list`
// untouched once `from` is at or past the end.
#pragma once

#include <cstdint>

#include "tov_common/inventory/application_info.h"
#include "zel/iobject.h"
#include "zel/result.h"

namespace tov {

class IInventoryInfoProvider : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0xF6C789EB;

  virtual zel::result_t GetApplicationList(tov::ApplicationList& list) const = 0;
  virtual zel::result_t GetApplicationInfo(const ApplicationId& id, tov::ApplicationInfo& info) const = 0;
  virtual zel::result_t GetApplicationIdList(std::uint64_t from, std::uint64_t count,
                                             tov::ApplicationIdList& list) const = 0;

 protected:
  ~IInventoryInfoProvider() = default;
};

}  // namespace tov
