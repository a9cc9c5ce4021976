// Loads the built module the way the service process does and speaks to it
// only through its three exported functions: that each export is wired to its
// own entry point and that the module stays loaded while its objects live.
// What the objects do is tested in process.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/module/module_loader.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "zel/rtl/objclient.h"

namespace {

constexpr std::uint32_t kDispatcherClass = 0xA17CCC95;

std::set<std::string> DefinedDynamicSymbols(const std::string& path) {
  std::set<std::string> names;
  const std::string command = "nm -D --defined-only '" + path + "'";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (!pipe) return names;
  char line[1024];
  while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
    // "<address> <type> <name>"; version nodes (type A) are not symbols of ours.
    std::istringstream in(line);
    std::string address, type, name;
    if (in >> address >> type >> name && type != "A") names.insert(name);
  }
  return names;
}

TEST(ModuleFileTest, ExportsExactlyTheThreeEntryPoints) {
  EXPECT_EQ(DefinedDynamicSymbols(AC_MODULE_PATH),
            (std::set<std::string>{"zelCanUnloadModule", "zelCreateObject", "zelGetObjectFactory"}));
}

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::ITracer>(&tracer);
  }

  zel::RefPtr<zel::IObjectFactory> Factory(std::uint32_t classId) {
    zel::IObjectFactory* f = nullptr;
    EXPECT_EQ(module.GetObjectFactory(&locator, classId, &f), 0);
    return zel::RefPtr<zel::IObjectFactory>::Adopt(f);
  }

  host::LoadedModule module{AC_MODULE_PATH};
  host::CountingAllocator allocator;
  host::CollectingTracer tracer;
  host::ServiceLocator locator;
};

TEST_F(ModuleTest, UnknownClassesAreRefusedWithEachEntryPointsCode) {
  auto* factory = reinterpret_cast<zel::IObjectFactory*>(0x1);
  EXPECT_EQ(module.GetObjectFactory(&locator, 0x12345678, &factory), zel::result::NotImplemented);
  EXPECT_EQ(factory, nullptr);

  auto* object = reinterpret_cast<zel::IObject*>(0x1);
  void* arguments[2] = {&locator, nullptr};
  EXPECT_EQ(module.CreateObject(0x12345678, arguments, &object), zel::result::ClassNotFound);
  EXPECT_EQ(object, reinterpret_cast<zel::IObject*>(0x1));
  EXPECT_EQ(module.CanUnload(), 0);
}

TEST_F(ModuleTest, UnloadFollowsLivingObjects) {
  ASSERT_EQ(module.CanUnload(), 0);
  auto factory = Factory(kDispatcherClass);
  auto other = Factory(kDispatcherClass);
  EXPECT_NE(factory.Get(), other.Get());
  EXPECT_EQ(module.CanUnload(), 1);
  other.Reset();

  void* out = nullptr;
  ASSERT_EQ(factory->CreateInstance(&locator, 0, &out), 0);
  factory.Reset();
  EXPECT_EQ(module.CanUnload(), 1) << "the dispatcher still lives";
  EXPECT_FALSE(module.Unload());
  static_cast<zel::IObject*>(out)->Release();
  EXPECT_EQ(module.CanUnload(), 0);
  EXPECT_EQ(allocator.LiveBlocks(), 0);
  EXPECT_TRUE(module.Unload());
}

}  // namespace
