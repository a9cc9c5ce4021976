// The services the category fuzz targets need: a malloc allocator and the
// expression descriptors, in one locator that lives for the whole run.
#pragma once

#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "tests/tov_common/categories/category_meta_info.h"

namespace fuzz {

inline zel::IServiceLocator* CategoryServices() {
  struct Services {
    Services() {
      locator.Register<zel::IAllocator>(&allocator);
      locator.Register<zel::IMetaInfoProvider>(&metaInfo);
    }
    host::CountingAllocator allocator;
    category_test::MetaInfo metaInfo;
    host::ServiceLocator locator;
  };
  static Services services;
  return &services.locator;
}

}  // namespace fuzz
