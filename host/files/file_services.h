// The host services the inventory scan reaches files through, as one
// bundle: the file factory, the path matcher factory and the format
// recogniser factory. RegisterFileServices puts them into a
// host::ServiceLocator:
//
//   zel::IFileFactory         under qurn::CLSID_FileFactories, and under key 0
//   IPathMatcherFactory       key 0
//   FormatRecognizerFactory   key 0
//
// The locator holds references on services that live in the bundle:
// unregister them, or let the locator die first.
#pragma once

#include "host/files/file_factory.h"
#include "host/files/format_recognizer.h"
#include "host/files/path_matcher.h"
#include "host/services/service_locator.h"

namespace host {

struct FileServices {
  FileFactory files;
  PathMatcherFactory pathMatchers;
  FormatRecognizerService formats;
};

void RegisterFileServices(ServiceLocator& locator, FileServices& services);
void UnregisterFileServices(ServiceLocator& locator);

}  // namespace host
