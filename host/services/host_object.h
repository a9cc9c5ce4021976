// Reference counting and QueryInterface for the reference host's own objects,
// written once. A class names itself and its interfaces and picks who ends it:
//
//   class Pwdb final : public host::OwnedObject<Pwdb, IPwdb> { ... };
//   class Codec final : public host::HeapObject<Codec, IFoo, IBar> { ... };
//
// HeapObject ends itself when the last reference goes; make it with
// host::MakeHeapObject. OwnedObject lives as long as its C++ owner (a stack or
// member object): Release only counts, and OutstandingRefs tells tests how
// many references others still hold.
//
// QueryInterface answers 0 (the first interface) and each listed id through
// the framework's shared table lookup. A null `out` gives InvalidArgument; a
// miss writes null and gives InterfaceNotSupported.
//
// Unlike the module's object flavours these never raise zel::ModuleLockCount:
// host objects are not the module's, and tests compare that count.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "zel/noncopyable.h"
#include "zel/result.h"
#include "zel/rtl/interface_table.h"
#include "zel/rtl/objclient.h"

namespace host {

namespace detail {

// One object's reference count, starting at the creator's reference.
class RefCount : zel::NonCopyable {
 public:
  // The caller already holds a reference, so nothing needs ordering.
  std::uint32_t Increment() noexcept { return m_count.fetch_add(1, std::memory_order_relaxed) + 1; }
  // Release publishes this thread's writes to the object; acquire lets the
  // thread that reaches 0 see all of them before it destroys the object.
  std::uint32_t Decrement() noexcept { return m_count.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  // A snapshot for tests; acquire so that it is not older than the releases
  // the reading thread already waited for.
  std::uint32_t Load() const noexcept { return m_count.load(std::memory_order_acquire); }

 private:
  std::atomic<std::uint32_t> m_count{1};
};

// The interfaces and the QueryInterface shared by both lifetimes.
template <class Derived, class... I>
class ObjectFaces : public I... {
 public:
  using interfaces = zel::InterfaceList<I...>;

  zel::result_t QueryInterface(zel::iid_t iid, void** out) override {
    if (out == nullptr) return zel::result::InvalidArgument;
    zel::IObject* face = zel::detail::InterfaceTable<Derived, interfaces>::Find(static_cast<Derived*>(this), iid);
    if (face == nullptr) {
      *out = nullptr;
      return zel::result::InterfaceNotSupported;
    }
    face->AddRef();
    *out = face;
    return zel::result::NoError;
  }

 protected:
  ObjectFaces() = default;
  ~ObjectFaces() = default;
};

}  // namespace detail

// Befriended by heap classes whose constructor and destructor are private:
// only MakeHeapObject creates them and only the last Release ends them.
class HeapAccess {
  template <class T, class... A>
  static T* New(A&&... args) {
    return new T(std::forward<A>(args)...);
  }
  template <class T>
  static void Delete(T* object) noexcept {
    delete object;
  }

  template <class, class...>
  friend class HeapObject;
  template <class T, class... A>
  friend zel::RefPtr<T> MakeHeapObject(A&&... args);
};

template <class Derived, class... I>
class HeapObject : public detail::ObjectFaces<Derived, I...> {
 public:
  std::uint32_t AddRef() override { return m_refs.Increment(); }
  std::uint32_t Release() override {
    const std::uint32_t n = m_refs.Decrement();
    if (n == 0) HeapAccess::Delete(static_cast<Derived*>(this));
    return n;
  }

 protected:
  HeapObject() = default;
  ~HeapObject() = default;

 private:
  detail::RefCount m_refs;
};

template <class Derived, class... I>
class OwnedObject : public detail::ObjectFaces<Derived, I...> {
 public:
  std::uint32_t AddRef() override { return m_refs.Increment(); }
  // Never ends the object: its owner does.
  std::uint32_t Release() override { return m_refs.Decrement(); }

  // References held beyond the owner's own; 0 once every borrower released.
  std::int64_t OutstandingRefs() const noexcept { return static_cast<std::int64_t>(m_refs.Load()) - 1; }

 protected:
  OwnedObject() = default;
  ~OwnedObject() = default;

 private:
  detail::RefCount m_refs;
};

// A new heap object holding the one reference the caller gets.
template <class T, class... A>
zel::RefPtr<T> MakeHeapObject(A&&... args) {
  return zel::RefPtr<T>::Adopt(HeapAccess::New<T>(std::forward<A>(args)...));
}

}  // namespace host
