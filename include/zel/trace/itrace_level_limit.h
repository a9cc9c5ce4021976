// zel::trace::ITraceLevelLimit: offered by a host tracer that has a
// configurable level ceiling. A prefix tracer keeps the pointer and reads the
// number at every new line, so a change by the host takes effect at once
// without telling anyone.
#pragma once

#include <cstdint>

#include "zel/iobject.h"

namespace zel::trace {

class ITraceLevelLimit : public IObject {
 public:
  static constexpr iid_t iid = 0x9397B017;

  // The live limit: lines above it are not wanted. The pointer stays valid
  // for the life of the tracer; the host may change the number at any moment,
  // so readers load it atomically.
  virtual const std::uint32_t* GetLevelLimit() = 0;

 protected:
  ~ITraceLevelLimit() = default;
};

}  // namespace zel::trace
