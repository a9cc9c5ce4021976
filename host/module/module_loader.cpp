#include "host/module/module_loader.h"

#include <dlfcn.h>

#include <stdexcept>

namespace host {
namespace {

void* Resolve(void* handle, const char* name, const std::string& path) {
  dlerror();
  void* symbol = dlsym(handle, name);
  if (symbol == nullptr) {
    const char* err = dlerror();
    throw std::runtime_error(path + ": entry point " + name + " not found" + (err ? std::string(": ") + err : ""));
  }
  return symbol;
}

}  // namespace

LoadedModule::LoadedModule(const std::string& path) : m_path(path) {
  m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_handle == nullptr) {
    const char* err = dlerror();
    throw std::runtime_error("cannot load module " + path + ": " + (err ? err : "unknown error"));
  }
  try {
    m_getObjectFactory = reinterpret_cast<zelGetObjectFactory_t>(Resolve(m_handle, "zelGetObjectFactory", path));
    m_createObject = reinterpret_cast<zelCreateObject_t>(Resolve(m_handle, "zelCreateObject", path));
    m_canUnload = reinterpret_cast<zelCanUnloadModule_t>(Resolve(m_handle, "zelCanUnloadModule", path));
  } catch (...) {
    dlclose(m_handle);
    throw;
  }
}

LoadedModule::~LoadedModule() { Unload(); }

bool LoadedModule::Unload() {
  if (m_handle == nullptr) return true;
  if (m_canUnload() != 0) return false;
  dlclose(m_handle);
  m_handle = nullptr;
  return true;
}

}  // namespace host
