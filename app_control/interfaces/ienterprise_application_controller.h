// app_ctrl::IEnterpriseApplicationController: the engine's controller, the
// side of the engine that answers questions about files rather than about
// program starts. The inventory scan hands it each file it keeps and stores
// the description that comes back.
#pragma once

#include <cstdint>

#include "tov_common/categories/category_types.h"
#include "zel/iobject.h"
#include "zel/serialization/iio.h"
#include "zel/types/vector.h"

namespace tov {
struct ApplicationInfo;
}

namespace app_ctrl {

class IEnterpriseApplicationController : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x300B2CB0;

  // Replaces `categories` with copies of the categories the engine judges
  // files against now, in its own order. `categories` is untouched on failure.
  virtual zel::result_t GetCategories(zel::types::vector_t<Category>& categories) = 0;
  // Describes the file open in `io` (all of it, from its start, wherever the
  // stream stood; the stream stays the caller's): its id, name, path, content
  // hash and the keys of the categories it belongs to. `flags` must be 0. Negative when the
  // file could not be read; `info` is then left as it was.
  virtual zel::result_t InventoryModule(zel::IIO* io, std::uint32_t flags, tov::ApplicationInfo& info) = 0;

 protected:
  ~IEnterpriseApplicationController() = default;
};

}  // namespace app_ctrl
