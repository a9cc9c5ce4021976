// The module's three entry points. The exported C functions in
// module_exports.cpp forward to the functions here, which unit tests call
// directly; a real host resolves the exported names with dlsym.
#pragma once

#include <cstdint>

#include "zel/iobject_factory.h"

namespace tov::app_control {

// Class ids of zelGetObjectFactory's table, in the order they are compared.
inline constexpr std::uint32_t kTypeDescriptorStaticRegistryClassId = 0x3C705D66;
inline constexpr std::uint32_t kAppStartLogEventsDispatcherClassId = 0xA17CCC95;
inline constexpr std::uint32_t kInventoryScanTaskClassId = 0x1FB87869;
inline constexpr std::uint32_t kInventoryStorageClassId = 0x56932657;
// The one class of zelCreateObject.
inline constexpr std::uint32_t kAppControlTaskClassId = 0x46DFCF43;
// Recognised by both entry points; ends the process.
inline constexpr std::uint32_t kSentinelClassId = 0xBAD1BAD1;

// A new factory (reference count 1) for a known class; 0x80000043 with
// *factory null otherwise. `serviceLocator` only serves to trace a failure.
zel::result_t GetObjectFactory(zel::IServiceLocator* serviceLocator, std::uint32_t classId,
                               zel::IObjectFactory** factory) noexcept;
// arguments[0]: IServiceLocator*, arguments[1]: the task's first settings.
// 0x80000100 for a class it does not make; *object untouched on failure.
zel::result_t CreateObject(std::uint32_t classId, void** arguments, zel::IObject** object) noexcept;
// 0 when no module object lives (the module may go), 1 otherwise.
zel::result_t CanUnloadModule() noexcept;

}  // namespace tov::app_control

// Exported names and signatures, as the host resolves them.
extern "C" {
using zelGetObjectFactory_t = zel::result_t (*)(zel::IServiceLocator*, std::uint32_t, zel::IObjectFactory**);
using zelCreateObject_t = zel::result_t (*)(std::uint32_t, void**, zel::IObject**);
using zelCanUnloadModule_t = zel::result_t (*)();
}
