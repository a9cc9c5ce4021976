// A counted interface holder that also converts to the raw pointer, so that
// a held service reads at a call site like the pointer it is.
#pragma once

#include "zel/rtl/objclient.h"

namespace tools::detail {

template <class I>
class InterfacePtr : public zel::RefPtr<I> {
 public:
  using zel::RefPtr<I>::RefPtr;
  operator I*() const noexcept { return this->Get(); }  // NOLINT: implicit by design
};

}  // namespace tools::detail
