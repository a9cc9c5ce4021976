// zel::IObject: the head of every interface. Lifetime is by reference count;
// an interface is asked for by a 32-bit id, and id 0 always names the first
// interface of the object.
//
// Interfaces are abstract classes whose virtual operations stand in a fixed
// order that a host built elsewhere calls by position: no virtual destructor,
// nothing inserted. The destructor is protected so that nobody deletes
// through an interface.
#pragma once

#include <cstdint>

#include "zel/result.h"

namespace zel {

using iid_t = std::uint32_t;

class IObject {
 public:
  static constexpr iid_t iid = 0;

  // Gives the new count.
  virtual std::uint32_t AddRef() = 0;
  // Gives the new count; at 0 the object destroys itself.
  virtual std::uint32_t Release() = 0;
  // On success *out carries a new reference the caller owns.
  // 0x80000001 when the object has no such interface.
  virtual result_t QueryInterface(iid_t iid, void** out) = 0;

 protected:
  ~IObject() = default;
};

// Event sink base: nothing beyond IObject; event interfaces derive from it.
class IEvents : public IObject {
 protected:
  ~IEvents() = default;
};

}  // namespace zel
