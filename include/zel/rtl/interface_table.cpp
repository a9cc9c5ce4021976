#include "zel/rtl/interface_table.h"

namespace zel::detail {

const InterfaceEntry* FindInterface(const InterfaceEntry* table, std::size_t count, iid_t iid) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    if (table[i].iid == iid) return &table[i];
  }
  return nullptr;
}

}  // namespace zel::detail
