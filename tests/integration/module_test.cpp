// Loads the built module the way the service process does and speaks to it
// only through its three exported functions and the interfaces they give.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "app_control/interfaces/iapplication_start_log_events.h"
#include "host/module/module_loader.h"
#include "host/services/collecting_tracer.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "support/recording_sink.h"
#include "zel/rtl/objclient.h"

namespace {

using app_ctrl::IApplicationStartLogEvents;
using app_ctrl::IApplicationStartLogEventsSubscription;

constexpr std::uint32_t kDispatcherClass = 0xA17CCC95;
constexpr zel::result_t kNoInterface = zel::result::InterfaceNotSupported;

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

TEST_F(ModuleTest, UnsupportedInterfaceGivesNullAndKeepsNothing) {
  auto factory = Factory(kDispatcherClass);
  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(&locator, 0x0BADF00D, &out), kNoInterface);
  EXPECT_EQ(out, nullptr);
  out = &out;
  EXPECT_EQ(factory->QueryInterface(IApplicationStartLogEvents::iid, &out), kNoInterface);
  EXPECT_EQ(out, nullptr);
  factory.Reset();
  EXPECT_EQ(module.CanUnload(), 0);
  EXPECT_EQ(allocator.LiveBlocks(), 0);
  EXPECT_EQ(allocator.OutstandingRefs(), 1) << "only the locator's";
}

TEST_F(ModuleTest, DispatcherFansEventsOutInOrder) {
  void* out = nullptr;
  ASSERT_EQ(Factory(kDispatcherClass)->CreateInstance(&locator, 0, &out), 0);
  auto subscription = zel::RefPtr<IApplicationStartLogEventsSubscription>::Adopt(
      static_cast<IApplicationStartLogEventsSubscription*>(out));
  ASSERT_EQ(subscription->QueryInterface(IApplicationStartLogEvents::iid, &out), 0);
  auto events = zel::RefPtr<IApplicationStartLogEvents>::Adopt(static_cast<IApplicationStartLogEvents*>(out));

  testsupport::Journal journal;
  testsupport::RecordingSink first("first", journal), second("second", journal);
  ASSERT_EQ(subscription->Subscribe(&first), 0);
  ASSERT_EQ(subscription->Subscribe(&second), 0);
  EXPECT_EQ(events->OnApplicationStartLogged(reinterpret_cast<const void*>(1)), 0);
  ASSERT_EQ(subscription->Unsubscribe(&first), 0);
  EXPECT_EQ(subscription->Unsubscribe(&first), zel::result::NotFound);
  EXPECT_EQ(events->OnApplicationStartLogLost(reinterpret_cast<const void*>(2)), 0);
  EXPECT_EQ(journal.entries, (std::vector<std::string>{"first:logged:1", "second:logged:1", "second:lost:2"}));

  events.Reset();
  subscription.Reset();
  EXPECT_EQ(second.ExtraRefs(), 0);
  EXPECT_EQ(module.CanUnload(), 0);
  EXPECT_EQ(allocator.LiveBlocks(), 0);
  EXPECT_TRUE(tracer.Lines().empty());
}

}  // namespace
