// The one QueryInterface lookup shared by all object classes: a constant
// table of (interface id, offset from the object's start) per class, built
// once from the class's interface list. Id 0 names the first interface.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "zel/iobject.h"

namespace zel {

template <class... I>
struct InterfaceList {
  static constexpr std::size_t size = sizeof...(I);
};

namespace detail {

struct InterfaceEntry {
  iid_t iid;
  std::ptrdiff_t offset;
};

// Front-to-back search; null when the id is not in the table.
const InterfaceEntry* FindInterface(const InterfaceEntry* table, std::size_t count, iid_t iid) noexcept;

template <class C, class List>
struct InterfaceTable;

template <class C, class First, class... Rest>
struct InterfaceTable<C, InterfaceList<First, Rest...>> {
  static constexpr std::size_t size = 2 + sizeof...(Rest);

  template <class I>
  static std::ptrdiff_t OffsetOf(C* self) noexcept {
    return reinterpret_cast<char*>(static_cast<I*>(self)) - reinterpret_cast<char*>(self);
  }

  // Offsets are the same for every object of C; they are taken from the
  // first object that asks, since only a real object may be converted.
  static const std::array<InterfaceEntry, size>& Get(C* self) noexcept {
    static const std::array<InterfaceEntry, size> table{{
        {0, OffsetOf<First>(self)},
        {First::iid, OffsetOf<First>(self)},
        {Rest::iid, OffsetOf<Rest>(self)}...,
    }};
    return table;
  }

  // Gives the interface pointer for `iid`, or null.
  static IObject* Find(C* self, iid_t iid) noexcept {
    const auto& table = Get(self);
    const InterfaceEntry* e = FindInterface(table.data(), table.size(), iid);
    if (e == nullptr) return nullptr;
    // Every interface begins with IObject at its own start.
    return reinterpret_cast<IObject*>(reinterpret_cast<char*>(self) + e->offset);
  }
};

}  // namespace detail
}  // namespace zel
