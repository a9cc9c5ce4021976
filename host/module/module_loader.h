// host::LoadedModule: loads the module's shared object with dlopen and
// resolves its three entry points, as the production host does. The
// module is unloaded only once it says it may go.
#pragma once

#include <string>

#include "app_control/module_entry.h"

namespace host {

class LoadedModule {
 public:
  // Throws std::runtime_error with the loader's message when the file or an
  // entry point cannot be found.
  explicit LoadedModule(const std::string& path);
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;
  ~LoadedModule();

  zel::result_t GetObjectFactory(zel::IServiceLocator* sl, std::uint32_t classId, zel::IObjectFactory** f) const {
    return m_getObjectFactory(sl, classId, f);
  }
  zel::result_t CreateObject(std::uint32_t classId, void** arguments, zel::IObject** object) const {
    return m_createObject(classId, arguments, object);
  }
  zel::result_t CanUnload() const { return m_canUnload(); }

  // dlclose when the module allows it; false (and still loaded) otherwise.
  bool Unload();
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
  void* m_handle = nullptr;
  zelGetObjectFactory_t m_getObjectFactory = nullptr;
  zelCreateObject_t m_createObject = nullptr;
  zelCanUnloadModule_t m_canUnload = nullptr;
};

}  // namespace host
