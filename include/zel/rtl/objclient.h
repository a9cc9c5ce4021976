// Client side of the object model: the counted holder RefPtr<I> and the two
// forms of GetInterface (plain: returns the locator's result; throwing:
// raises zel::GetInterfaceException), plus the service holders that classes
// inherit to keep their required services for their whole life.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "zel/iservice_locator.h"
#include "zel/noncopyable.h"

namespace zel {

// Owns one reference on an interface pointer; Release at destruction.
template <class I>
class RefPtr {
 public:
  RefPtr() noexcept = default;
  RefPtr(std::nullptr_t) noexcept {}  // NOLINT: null is a RefPtr
  // Takes a new reference on `p`.
  explicit RefPtr(I* p) noexcept : m_p(p) {
    if (m_p != nullptr) m_p->AddRef();
  }
  RefPtr(const RefPtr& other) noexcept : RefPtr(other.m_p) {}
  RefPtr(RefPtr&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
  RefPtr& operator=(RefPtr other) noexcept {
    std::swap(m_p, other.m_p);
    return *this;
  }
  ~RefPtr() { Reset(); }

  // Adopts a reference the caller already owns.
  static RefPtr Adopt(I* p) noexcept {
    RefPtr r;
    r.m_p = p;
    return r;
  }

  I* Get() const noexcept { return m_p; }
  I* operator->() const noexcept { return m_p; }
  I& operator*() const noexcept { return *m_p; }
  explicit operator bool() const noexcept { return m_p != nullptr; }

  // Releases what is held and gives the slot, for an out parameter.
  I** Ref() noexcept {
    Reset();
    return &m_p;
  }
  I* Detach() noexcept { return std::exchange(m_p, nullptr); }
  void Attach(I* p) noexcept {
    Reset();
    m_p = p;
  }
  void Reset() noexcept {
    if (I* p = std::exchange(m_p, nullptr)) p->Release();
  }

 private:
  I* m_p = nullptr;
};

// Plain form: asks the locator for I and gives its result; the caller logs
// and decides. *out is written in every case (null on failure).
template <class I>
result_t GetInterface(IServiceLocator* serviceLocator, I** out, std::uint32_t serviceKey = 0) {
  void* p = nullptr;
  const result_t r = serviceLocator->GetInterface(I::iid, serviceKey, &p);
  *out = ZEL_SUCCEEDED(r) ? static_cast<I*>(p) : nullptr;
  if (ZEL_FAILED(r) && p != nullptr) {
    // A locator that fails must not hand out a reference; don't leak one if it does.
    static_cast<I*>(p)->Release();
  }
  return r;
}

// The same with the service key first, the order used where a service is
// registered under a class key (file factories, for instance).
template <class I>
result_t GetInterface(IServiceLocator* serviceLocator, std::uint32_t serviceKey, I** out) {
  return GetInterface(serviceLocator, out, serviceKey);
}

// Asks `from` for I into a holder's slot (RefPtr::Ref()); *out is null on
// failure. The result is the object's own.
template <class From, class I>
result_t QueryInterface(const RefPtr<From>& from, I** out) {
  void* p = nullptr;
  const result_t r = from->QueryInterface(I::iid, &p);
  *out = ZEL_SUCCEEDED(r) ? static_cast<I*>(p) : nullptr;
  return r;
}

namespace detail {
[[noreturn]] void ThrowGetInterfaceException(const char* file, int line, iid_t iid, std::uint32_t serviceKey,
                                             result_t result);
}  // namespace detail

// Throwing form, used by constructors and service holders: a failure raises
// zel::GetInterfaceException carrying the iid, the key and the result.
template <class I>
void GetInterface(IServiceLocator* serviceLocator, RefPtr<I>& holder, std::uint32_t serviceKey = 0) {
  const result_t r = GetInterface(serviceLocator, holder.Ref(), serviceKey);
  if (ZEL_FAILED(r)) detail::ThrowGetInterfaceException(__FILE__, __LINE__, I::iid, serviceKey, r);
}

namespace detail {

// Keeps one reference on a service for the life of its owner; never null
// once constructed. The locator itself is held as its own "service".
template <class Y>
class RequiredInterfaceHolder : NonCopyable {
 public:
  explicit RequiredInterfaceHolder(IServiceLocator* serviceLocator) {
    if constexpr (std::is_same_v<Y, IServiceLocator>) {
      if (serviceLocator == nullptr) {
        ThrowGetInterfaceException(__FILE__, __LINE__, 0, 0, result::InvalidArgument);
      }
      m_ptr = RefPtr<Y>(serviceLocator);
    } else {
      GetInterface(serviceLocator, m_ptr);
    }
  }
  Y* Get() const noexcept { return m_ptr.Get(); }

 private:
  RefPtr<Y> m_ptr;
};

}  // namespace detail

template <class Y, class Holder>
class InterfaceProvider {
 public:
  explicit InterfaceProvider(IServiceLocator* serviceLocator) : m_holder(serviceLocator) {}
  Y* GetProvided() const noexcept { return m_holder.Get(); }

 private:
  Holder m_holder;
};

// One holder per service, filled in the order of the arguments; a service
// the locator refuses makes the constructor throw GetInterfaceException.
template <class... Y>
class ServiceProvider : public InterfaceProvider<Y, detail::RequiredInterfaceHolder<Y>>... {
 public:
  explicit ServiceProvider(IServiceLocator* serviceLocator)
      : InterfaceProvider<Y, detail::RequiredInterfaceHolder<Y>>(serviceLocator)... {}

  template <class Z>
  Z* Get() const noexcept {
    return static_cast<const InterfaceProvider<Z, detail::RequiredInterfaceHolder<Z>>&>(*this).GetProvided();
  }
};

}  // namespace zel
