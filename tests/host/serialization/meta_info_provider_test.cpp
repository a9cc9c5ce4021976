// The host's descriptor table: registration rules, lookups that fall through
// to registered providers, and refusal of descriptors the serialisers could
// not walk safely.
#include <gtest/gtest.h>

#include <cstddef>

#include "zel/serialization/field_types.h"
#include "host/serialization/meta_info_provider.h"
#include "serialization_fixture.h"
#include "zel/serialization/ser_obj_descriptor.h"

namespace {

using host::MetaInfoProvider;
using sertest::Inner;

struct Small {
  std::uint32_t a = 0;
  zel::string_t s;
};
zel::SerObjDescriptorImpl<Small> g_smallHelper;

TEST(MetaInfoProvider, RegisterFindAndUnregister) {
  auto provider = MetaInfoProvider::Create();
  const zel::TypeDescriptor* inner = sertest::InnerDescriptor();
  EXPECT_EQ(provider->RegisterDescriptor(inner), 0);
  EXPECT_EQ(provider->RegisterDescriptor(inner), 1);  // the same again changes nothing

  zel::TypeDescriptor other = *inner;  // another descriptor under a taken id
  EXPECT_EQ(provider->RegisterDescriptor(&other), zel::result::AlreadyDone);

  const zel::TypeDescriptor* found = nullptr;
  EXPECT_EQ(provider->FindDescriptor(Inner::SerId, &found), 0);
  EXPECT_EQ(found, inner);
  found = nullptr;
  EXPECT_EQ(provider->FindDescriptorByName("Inner", &found), 0);
  EXPECT_EQ(found, inner);

  const zel::TypeDescriptor* untouched = reinterpret_cast<const zel::TypeDescriptor*>(0x1);
  EXPECT_EQ(provider->FindStructDescriptor(0x12345678, &untouched), zel::result::NotFound);
  EXPECT_EQ(untouched, reinterpret_cast<const zel::TypeDescriptor*>(0x1));

  EXPECT_EQ(provider->UnregisterDescriptor(Inner::SerId), 0);
  EXPECT_EQ(provider->UnregisterDescriptor(Inner::SerId), zel::result::NotFound);
  EXPECT_EQ(provider->FindDescriptor(Inner::SerId, &found), zel::result::NotFound);
}

TEST(MetaInfoProvider, FallsThroughToRegisteredProvidersAndListsTheirIds) {
  auto host = MetaInfoProvider::Create();
  auto module = MetaInfoProvider::Create();
  ASSERT_EQ(host->RegisterDescriptor(sertest::EverythingDescriptor()), 0);
  ASSERT_EQ(module->RegisterDescriptor(sertest::InnerDescriptor()), 0);

  const zel::TypeDescriptor* found = nullptr;
  EXPECT_EQ(host->FindDescriptor(Inner::SerId, &found), zel::result::NotFound);
  ASSERT_EQ(host->RegisterProvider(module.Get()), 0);
  EXPECT_EQ(host->RegisterProvider(module.Get()), 1);
  EXPECT_EQ(host->FindDescriptor(Inner::SerId, &found), 0);
  EXPECT_EQ(found, sertest::InnerDescriptor());

  zel::types::vector_t<std::uint32_t> ids;
  ids.push_back(99);  // appended to, never replaced
  ASSERT_EQ(host->GetRegisteredIds(&ids), 0);
  ASSERT_EQ(ids.size(), 3u);
  EXPECT_EQ(ids[0], 99u);
  EXPECT_EQ(ids[1], sertest::Everything::SerId);
  EXPECT_EQ(ids[2], Inner::SerId);

  EXPECT_EQ(host->UnregisterProvider(module.Get()), 0);
  EXPECT_EQ(host->FindDescriptor(Inner::SerId, &found), zel::result::NotFound);
}

TEST(MetaInfoProvider, RefusesDescriptorsTheSerialisersCannotWalk) {
  namespace st = host::ser_type;
  struct Case {
    const char* what;
    zel::TypeDescriptorField row;
  };
  const Case cases[] = {
      {"unknown code", st::Row(77, "a", offsetof(Small, a), 4)},
      {"size not the code's", st::Row(st::UInt64, "a", offsetof(Small, a), 4)},
      {"string of wrong size", st::Row(st::String, "s", offsetof(Small, s), 8)},
      {"member outside the record", st::Row(st::UInt32, "a", sizeof(Small), 4)},
      {"vector without helper", st::Row(st::UInt32, "a", 0, 4, zel::ser_field_flags::Vector)},
      {"unknown flags", st::Row(st::UInt32, "a", 0, 4, 0x10)},
      {"record without serId", st::RecordRow("r", 0, sizeof(Small), 0)},
      {"no name", st::Row(st::UInt32, nullptr, 0, 4)},
  };
  auto provider = MetaInfoProvider::Create();
  for (const Case& c : cases) {
    zel::TypeDescriptorField rows[] = {c.row, zel::kFieldTableTerminator};
    zel::TypeDescriptor d{0x5000, "Small", sizeof(Small), rows, &g_smallHelper};
    EXPECT_EQ(provider->RegisterDescriptor(&d), zel::result::InvalidType) << c.what;
  }
  zel::TypeDescriptorField good[] = {st::Row(st::UInt32, "a", offsetof(Small, a), 4),
                                     st::Row(st::String, "s", offsetof(Small, s), sizeof(zel::string_t)),
                                     zel::kFieldTableTerminator};
  zel::TypeDescriptor d{0x5000, "Small", sizeof(Small), good, &g_smallHelper};
  EXPECT_EQ(provider->RegisterDescriptor(&d), 0);
  EXPECT_EQ(provider->RegisterDescriptor(nullptr), zel::result::InvalidArgument);
}

}  // namespace
