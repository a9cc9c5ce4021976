#include "host/files/file_services.h"

namespace host {

void RegisterFileServices(ServiceLocator& locator, FileServices& services) {
  locator.Register<zel::IFileFactory>(&services.files, qurn::CLSID_FileFactories);
  locator.Register<zel::IFileFactory>(&services.files);
  locator.Register<IPathMatcherFactory>(&services.pathMatchers);
  locator.Register<FormatRecognizerFactory>(&services.formats);
}

void UnregisterFileServices(ServiceLocator& locator) {
  locator.Remove(zel::IFileFactory::iid, qurn::CLSID_FileFactories);
  locator.Remove(zel::IFileFactory::iid);
  locator.Remove(IPathMatcherFactory::iid);
  locator.Remove(FormatRecognizerFactory::iid);
}

}  // namespace host
