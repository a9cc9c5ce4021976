// The module's class table: the bodies of the three entry points.
//
// There is no registration at run time. Adding a class means adding its
// comparison below, in the place its row takes in the table.
#include <exception>
#include <new>

#include "app_control/app_control_task.h"
#include "app_control/app_start_log_events_dispatcher.h"
#include "app_control/inventory_scan_task.h"
#include "app_control/inventory_storage.h"
#include "app_control/module_entry.h"
#include "app_control/type_descriptor_static_registry.h"
#include "zel/module_lock.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/rtl/objbase.h"

namespace tov::app_control {
namespace {

// Global new; the factory's first base raises the module lock count, and the
// count of references starts at 1.
template <class T>
zel::IObjectFactory* NewFactory() {
  return new zel::FactoryFor<T>();
}

// A conversion that claims success for an exception is a fault in the
// conversion itself; returning a non-negative code with a null factory would
// hand the host a crash of its own, so stop right here, loudly.
[[noreturn]] void StopOnNonFailure() noexcept {
  *static_cast<volatile int*>(nullptr) = 0;
  __builtin_trap();
}

}  // namespace

zel::result_t GetObjectFactory(zel::IServiceLocator* serviceLocator, std::uint32_t classId,
                               zel::IObjectFactory** factory) noexcept {
  try {
    // Compared in the order of the table.
    if (classId == kTypeDescriptorStaticRegistryClassId) {
      *factory = NewFactory<AppControlSdMapNamespace::TypeDescriptorStaticRegistry>();
      return zel::result::NoError;
    } else if (classId == kAppStartLogEventsDispatcherClassId) {
      *factory = NewFactory<AppStartLogEventsDispatcher>();
      return zel::result::NoError;
    } else if (classId == kInventoryScanTaskClassId) {
      *factory = NewFactory<InventoryScanTask>();
      return zel::result::NoError;
    } else if (classId == kInventoryStorageClassId) {
      *factory = NewFactory<InventoryStorage>();
      return zel::result::NoError;
    }

    if (classId == kSentinelClassId) std::terminate();
    *factory = nullptr;
    return zel::result::NotImplemented;
  } catch (...) {
    const zel::result_t r = zel::detail::ResultFromConstructionException(serviceLocator);
    if (ZEL_SUCCEEDED(r)) StopOnNonFailure();
    return r;
  }
}

zel::result_t CreateObject(std::uint32_t classId, void** arguments, zel::IObject** object) noexcept {
  try {
    if (classId != kAppControlTaskClassId) {
      if (classId == kSentinelClassId) std::terminate();
      return zel::result::ClassNotFound;
    }
    // AppControlTask: malloc, lock count, constructor with
    // (IServiceLocator*, AppControlSettings*); a throwing constructor gives
    // both back. The ITask face goes out, with reference count 1.
    AppControlTask* task = zel::detail::CreateObjectImplWith<AppControlTask, zel::abi_v2_allocator>(
        static_cast<zel::IServiceLocator*>(arguments[0]),
        static_cast<const tov::settings::AppControlSettings*>(arguments[1]));
    *object = static_cast<app_core::task_manager::task::ITask*>(task);
    return zel::result::NoError;
  } catch (...) {
    auto* serviceLocator = arguments != nullptr ? static_cast<zel::IServiceLocator*>(arguments[0]) : nullptr;
    return zel::ResultFromCurrentExceptionWithLocator(serviceLocator, nullptr);
  }
}

zel::result_t CanUnloadModule() noexcept {
  return zel::ModuleLockCount.load(std::memory_order_acquire) == 0 ? 0 : 1;
}

}  // namespace tov::app_control
