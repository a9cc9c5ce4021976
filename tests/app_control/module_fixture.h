// A host's services for tests that create module objects (see
// support/services_fixture.h), and helpers that make an object through its
// class's factory.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "app_control/module_entry.h"
#include "support/services_fixture.h"
#include "zel/rtl/objclient.h"

namespace testsupport {

class ModuleFixture : public ServicesFixture {
 protected:
  zel::RefPtr<zel::IObjectFactory> Factory(std::uint32_t classId) {
    zel::IObjectFactory* f = nullptr;
    EXPECT_EQ(tov::app_control::GetObjectFactory(&locator, classId, &f), 0);
    return zel::RefPtr<zel::IObjectFactory>::Adopt(f);
  }

  template <class I>
  zel::RefPtr<I> Create(std::uint32_t classId) {
    void* out = nullptr;
    auto factory = Factory(classId);
    if (!factory) return nullptr;
    EXPECT_EQ(factory->CreateInstance(&locator, I::iid, &out), 0);
    return zel::RefPtr<I>::Adopt(static_cast<I*>(out));
  }

  // Some traced line holds `text`.
  bool Traced(const std::string& text) {
    const auto texts = tracer.Texts();
    return std::any_of(texts.begin(), texts.end(), [&](const std::string& t) { return t.find(text) != t.npos; });
  }
};

}  // namespace testsupport
