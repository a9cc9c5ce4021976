// A small IMetaInfoProvider serving the product's category expression
// descriptors, for the tests, fuzz targets and benchmarks of the category
// code that don't want the host's whole serialisation stack.
#pragma once

#include <cstdint>
#include <map>

#include "host/services/host_object.h"
#include "tov_common/categories/category_descriptors.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/ser_obj_descriptor.h"
#include "zel/serialization/type_descriptor.h"

namespace category_test {

template <class T>
struct Described {
  static const zel::TypeDescriptor* Get() { return tov::tools::CategoryExpressionDescriptor(T::SerId); }
};

// Serves the descriptors of the expression classes; counted for bookkeeping only.
class MetaInfo final : public host::OwnedObject<MetaInfo, zel::IMetaInfoProvider> {
 public:
  MetaInfo() {
    for (const zel::TypeDescriptor* d : tov::tools::CategoryExpressionDescriptors()) m_known[d->serId] = d;
  }
  zel::result_t FindDescriptor(std::uint32_t serId, const zel::TypeDescriptor** descriptor) override {
    const auto it = m_known.find(serId);
    if (it == m_known.end()) return zel::result::NotFound;
    *descriptor = it->second;
    return 0;
  }
  zel::result_t FindDescriptorByName(const char*, const zel::TypeDescriptor**) override {
    return zel::result::NotImplemented;
  }
  zel::result_t GetDescriptorCount(std::uint32_t*) override { return zel::result::NotImplemented; }

  void Forget(std::uint32_t serId) { m_known.erase(serId); }

 private:
  std::map<std::uint32_t, const zel::TypeDescriptor*> m_known;
};

}  // namespace category_test
