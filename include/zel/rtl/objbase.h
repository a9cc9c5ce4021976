// Server side of the object model: the three object flavours that wrap a
// class and give it reference counting and QueryInterface, the service
// strategies through which a class keeps its services, and the generic
// factory that zelGetObjectFactory hands out.
//
//  flavour                               memory                 AddRef / Release
//  detail::ObjectImpl<T, abi_v2_allocator, detail::ObjectLifetimeBase>
//                                        malloc / free          relaxed / release + acquire fence
//  Object<T, LocatorObjectFactory>       locator's IAllocator   seq_cst / seq_cst
//  Object<T, SimpleObjectFactory>        global new / delete    seq_cst / seq_cst
//
// QueryInterface of the first flavour leaves *out alone on a miss; the other
// two write null. Both behaviours are part of the binary contract.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

#include "zel/iallocator.h"
#include "zel/iobject_factory.h"
#include "zel/itracer.h"
#include "zel/module_lock.h"
#include "zel/noncopyable.h"
#include "zel/rtl/interface_table.h"
#include "zel/rtl/objclient.h"

namespace zel {

namespace mpl_v2 {
// Inherits every listed base; lets a lifetime base put the module lock first.
template <class... B>
struct mpl_inherit : B... {};
}  // namespace mpl_v2

namespace detail {

// Reference counters. Non-copyable: a count belongs to one object.
template <unsigned Kind>
class RefCounterT;

// First flavour. AddRef needs no ordering (the caller already holds a
// reference). Release publishes this thread's writes (release) and the
// thread that reaches 0 synchronises with all of them (acquire) before it
// destroys the object.
template <>
class RefCounterT<1u> : NonCopyable {
 public:
  std::uint32_t IncrementRef() noexcept { return m_count.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t DecrementRef() noexcept {
#if defined(__SANITIZE_THREAD__)
    // The sanitizer does not model a standalone fence; acq_rel is equivalent.
    return m_count.fetch_sub(1, std::memory_order_acq_rel) - 1;
#else
    const std::uint32_t n = m_count.fetch_sub(1, std::memory_order_release) - 1;
    if (n == 0) std::atomic_thread_fence(std::memory_order_acquire);
    return n;
#endif
  }

 protected:
  RefCounterT() = default;
  ~RefCounterT() = default;

 private:
  std::atomic<std::uint32_t> m_count{1};
};
using RefCounter = RefCounterT<1u>;

// Second and third flavour: sequentially consistent both ways.
class SeqCstRefCounter : NonCopyable {
 public:
  std::uint32_t IncrementRef() noexcept { return m_count.fetch_add(1, std::memory_order_seq_cst) + 1; }
  std::uint32_t DecrementRef() noexcept { return m_count.fetch_sub(1, std::memory_order_seq_cst) - 1; }
  // A snapshot, for diagnostics and tests only.
  std::uint32_t Count() const noexcept { return m_count.load(std::memory_order_seq_cst); }

 private:
  std::atomic<std::uint32_t> m_count{1};
};

template <class T>
using InterfacesOf = typename T::interfaces;

}  // namespace detail

// A plain block shared by its holders through RefPtr<T>: no interfaces and
// no module lock, just the sequentially consistent count of the last two
// flavours, and the block deleted with the last reference.
template <class T>
class RefCountedBlock {
 public:
  std::uint32_t AddRef() noexcept { return m_refCount.IncrementRef(); }
  std::uint32_t Release() noexcept {
    const std::uint32_t n = m_refCount.DecrementRef();
    if (n == 0) delete static_cast<T*>(this);
    return n;
  }
  // A snapshot of the holders' count, for tests.
  std::uint32_t UseCount() const noexcept { return m_refCount.Count(); }

 protected:
  RefCountedBlock() = default;
  ~RefCountedBlock() = default;

 private:
  detail::SeqCstRefCounter m_refCount;
};

namespace object {

// Lists the interfaces a class implements; QueryInterface answers 0 and each
// listed id. The using-declarations make AddRef & co. callable on the class
// itself; the call still goes to the wrapper's final overrider.
template <class First, class... Rest>
class Ifaces : public First, public Rest... {
 public:
  using interfaces = InterfaceList<First, Rest...>;
  using First::AddRef;
  using First::QueryInterface;
  using First::Release;

 protected:
  Ifaces() = default;
  ~Ifaces() = default;
};

}  // namespace object

// ---- first flavour -----------------------------------------------------------

namespace detail {

template <class Impl, class T>
class ObjectLifetimeBase : public mpl_v2::mpl_inherit<ObjectModuleAutoLockTyped<T>>, public T, public RefCounter {
 protected:
  template <class... A>
  explicit ObjectLifetimeBase(A&&... args) : T(std::forward<A>(args)...) {}
  ~ObjectLifetimeBase() = default;
};

template <class T, class Allocator, template <class, class> class Lifetime>
class ObjectImpl final : public Lifetime<ObjectImpl<T, Allocator, Lifetime>, T>, public Allocator {
  using Table = InterfaceTable<ObjectImpl, InterfacesOf<T>>;

 public:
  template <class... A>
  explicit ObjectImpl(A&&... args) : Lifetime<ObjectImpl, T>(std::forward<A>(args)...) {}

  std::uint32_t AddRef() override { return this->IncrementRef(); }

  std::uint32_t Release() override {
    const std::uint32_t n = this->DecrementRef();
    if (n == 0) {
      // T's destructor, then the module lock base, then the memory.
      this->~ObjectImpl();
      std::free(this);
    }
    return n;
  }

  result_t QueryInterface(iid_t iid, void** out) override {
    IObject* face = Table::Find(this, iid);
    if (face == nullptr) return result::InterfaceNotSupported;  // *out stays as it was
    this->IncrementRef();
    *out = face;
    return 0;
  }
};

// Creates T in the first flavour with reference count 1: malloc, module lock
// raised by the first base, constructor. A throwing constructor lowers the
// lock again (base destructor) and the memory is freed before rethrowing.
template <class T, class Allocator, class... A>
T* CreateObjectImplWith(A&&... args) {
  using Obj = ObjectImpl<T, Allocator, ObjectLifetimeBase>;
  void* memory = std::malloc(sizeof(Obj));
  if (memory == nullptr) throw std::bad_alloc();
  try {
    return new (memory) Obj(std::forward<A>(args)...);
  } catch (...) {
    std::free(memory);
    throw;
  }
}

}  // namespace detail

// ---- service strategies --------------------------------------------------------

struct NoServiceStrategy {
  NoServiceStrategy() = default;
  explicit NoServiceStrategy(IServiceLocator*) {}
};

// Holds the service locator; the allocator is fetched anew at release.
class DirectServiceStrategy {
 public:
  explicit DirectServiceStrategy(IServiceLocator* serviceLocator) : m_serviceLocator(serviceLocator) {}
  IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }
  // Called when the object is released; a failure is fatal there.
  RefPtr<IAllocator> AcquireReleaseAllocator() const;

 private:
  RefPtr<IServiceLocator> m_serviceLocator;
};

class AllocatorProvider {
 public:
  explicit AllocatorProvider(IServiceLocator* serviceLocator) : m_allocator(serviceLocator) {}
  IAllocator* GetAllocator() const noexcept { return m_allocator.Get(); }
  RefPtr<IAllocator> AcquireReleaseAllocator() const noexcept { return RefPtr<IAllocator>(m_allocator.Get()); }

 private:
  detail::RequiredInterfaceHolder<IAllocator> m_allocator;
};

class ServiceLocatorProvider {
 public:
  explicit ServiceLocatorProvider(IServiceLocator* serviceLocator) : m_serviceLocator(serviceLocator) {}
  IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }

 private:
  detail::RequiredInterfaceHolder<IServiceLocator> m_serviceLocator;
};

// The host's tracer, held directly (no prefix) by classes that trace through
// their strategy.
class HostTracerProvider {
 public:
  explicit HostTracerProvider(IServiceLocator* serviceLocator) : m_tracer(serviceLocator) {}
  ITracer* GetTracer() const noexcept { return m_tracer.Get(); }

 private:
  detail::RequiredInterfaceHolder<ITracer> m_tracer;
};

class TracerProvider;

template <class Provider>
struct ServiceStrategyAdapterTraits {
  using type = Provider;
};
template <>
struct ServiceStrategyAdapterTraits<TracerProvider> {
  using type = HostTracerProvider;
};

template <class Provider>
class ServiceStrategyAdapter : public ServiceStrategyAdapterTraits<Provider>::type {
 public:
  explicit ServiceStrategyAdapter(IServiceLocator* serviceLocator)
      : ServiceStrategyAdapterTraits<Provider>::type(serviceLocator) {}
};

template <class A, class B>
class CompositeServiceStrategy : public A, public B {
 public:
  explicit CompositeServiceStrategy(IServiceLocator* serviceLocator) : A(serviceLocator), B(serviceLocator) {}
};

namespace detail {
template <class... S>
struct CompositeNesting;
template <>
struct CompositeNesting<> {
  using type = NoServiceStrategy;
};
template <class... Rest>
struct CompositeNesting<NoServiceStrategy, Rest...> {
  using type = typename CompositeNesting<Rest...>::type;
};
template <class First, class... Rest>
struct CompositeNesting<First, Rest...> {
  using Tail = typename CompositeNesting<Rest...>::type;
  using type = std::conditional_t<std::is_same_v<Tail, NoServiceStrategy>, First, CompositeServiceStrategy<First, Tail>>;
};
}  // namespace detail

// Nests CompositeServiceStrategy one level per argument; NoServiceStrategy
// arguments add nothing.
template <class A, class B = NoServiceStrategy, class C = NoServiceStrategy, class D = NoServiceStrategy,
          class E = NoServiceStrategy>
using CompositeServiceStrategyHelper = typename detail::CompositeNesting<A, B, C, D, E>::type;

template <class Strategy>
class ObjectRootEx : public Strategy {
 public:
  ObjectRootEx() = default;
  explicit ObjectRootEx(IServiceLocator* serviceLocator) : Strategy(serviceLocator) {}
};

// ---- second and third flavour --------------------------------------------------

// Memory from the locator's IAllocator; see CreateInstance for creation.
struct LocatorObjectFactory {
  template <class Obj>
  static void Destroy(Obj* object) noexcept {
    // Reach the allocator before anything is torn down; a failure here has no
    // way back and ends the process (noexcept).
    RefPtr<IAllocator> allocator = object->AcquireReleaseAllocator();
    if constexpr (requires { object->FinalRelease(); }) object->FinalRelease();
    object->~Obj();  // members, T, then the module lock base
    allocator->Free(object);
  }
};

// Memory from the global operator new/delete.
struct SimpleObjectFactory {
  template <class Obj>
  static void Destroy(Obj* object) noexcept {
    delete object;
  }
};

template <class T, class Factory>
class Object final : public ObjectModuleAutoLockTyped<T>, public T {
  using Table = detail::InterfaceTable<Object, detail::InterfacesOf<T>>;

 public:
  template <class... A>
  explicit Object(A&&... args) : T(std::forward<A>(args)...) {}

  std::uint32_t AddRef() override { return m_refCount.IncrementRef(); }

  std::uint32_t Release() override {
    const std::uint32_t n = m_refCount.DecrementRef();
    if (n == 0) Factory::Destroy(this);
    return n;
  }

  result_t QueryInterface(iid_t iid, void** out) override {
    IObject* face = Table::Find(this, iid);
    *out = face;
    if (face == nullptr) return result::InterfaceNotSupported;
    face->AddRef();
    return 0;
  }

 private:
  detail::SeqCstRefCounter m_refCount;
};

// ---- factories ------------------------------------------------------------------

namespace detail {
// Converts the exception in flight at a factory boundary, tracing through the
// locator's tracer when there is one.
result_t ResultFromConstructionException(IServiceLocator* serviceLocator) noexcept;
}  // namespace detail

template <class T, class Creator>
class GenericObjectFactory : public ObjectRootEx<NoServiceStrategy>, public IObjectFactory {
 public:
  using interfaces = InterfaceList<IObjectFactory>;

  result_t CreateInstance(IServiceLocator* serviceLocator, iid_t iid, void** out) override {
    if (serviceLocator == nullptr) return result::InvalidArgument;
    try {
      RefPtr<IAllocator> allocator;
      const result_t r = GetInterface(serviceLocator, allocator.Ref());
      if (ZEL_FAILED(r)) return r;

      void* memory = allocator->Alloc(sizeof(Creator));
      if (memory == nullptr) throw std::bad_alloc();
      Creator* object;
      try {
        object = new (memory) Creator(serviceLocator);
      } catch (...) {
        allocator->Free(memory);
        throw;
      }
      allocator.Reset();  // the object keeps its own through its strategy

      if constexpr (requires { object->FinalConstruct(); }) {
        const result_t fc = object->FinalConstruct();
        if (ZEL_FAILED(fc)) {
          object->Release();
          return fc;
        }
      }
      const result_t q = object->QueryInterface(iid, out);
      object->Release();  // the creation reference; an unsupported iid destroys the object here
      return q;
    } catch (...) {
      return detail::ResultFromConstructionException(serviceLocator);
    }
  }
};

template <class T>
using FactoryFor = Object<GenericObjectFactory<T, Object<T, LocatorObjectFactory>>, SimpleObjectFactory>;

}  // namespace zel
