// The settings records' descriptors as the host's serialisers see them: the
// host accepts every field table, and a settings record and an engine record
// come back from the binary form field for field.
#include <gtest/gtest.h>

#include <tuple>

#include "tov_common/settings/app_control_settings.h"
#include "tov_common/settings/enterprise_application_control_settings.h"
#include "tov_common/settings/settings_descriptors.h"
#include "host/serialization/serialization_services.h"
#include "host/services/counting_allocator.h"
#include "zel/serialization/iserializers.h"

namespace {

template <class T>
T RoundTrip(zel::IBinarySerializer* serializer, zel::IAllocator* allocator, const T& value) {
  const zel::TypeDescriptor* descriptor = zel::StaticTypeDescriptor<T>::Get();
  const zel::anydescrptr in(const_cast<T*>(&value), descriptor);
  unsigned char* bytes = nullptr;
  std::uint32_t length = 0;
  EXPECT_EQ(serializer->Serialize(in, allocator, &bytes, length, 0), 0);
  T out;
  std::uint32_t used = 0;
  EXPECT_EQ(serializer->Deserialize(zel::byte_range_t(bytes, bytes + length), zel::anydescrptr(&out, descriptor), used, 0),
            0);
  EXPECT_EQ(used, length);
  allocator->Free(bytes);
  return out;
}

TEST(SettingsRecords, HostAcceptsTheDescriptorsAndRoundTripsTheRecords) {
  host::CountingAllocator allocator;
  host::ServiceLocator locator;
  const host::SerializationServices services = host::RegisterSerializationServices(locator);
  for (const zel::TypeDescriptor* d : tov::settings::SettingsRecordDescriptors())
    EXPECT_EQ(services.metaInfo->RegisterDescriptor(d), 0) << d->name;

  tov::settings::AppControlSettings settings;
  settings.mode = static_cast<tov::AppControlMode>(2);
  settings.reportAllowedStarts = true;
  settings.blockMessage = zel::wstring_t(u"blocked");
  auto& rule = settings.denyListRules.emplace_back();
  rule.ruleName = zel::wstring_t(u"rule \U0001F600");
  rule.status = tov::RuleStatus::Test;
  rule.categoryName = zel::wstring_t(u"Browsers");
  rule.categoryIds.push_back(app_ctrl::GoldenImageCategoryId);
  auto& user = rule.users.emplace_back();
  user.userName = zel::wstring_t(u"@staff");
  user.access = tov::UserAccess::Block;

  const auto back = RoundTrip(services.binary.Get(), &allocator, settings);
  EXPECT_EQ(std::tie(back.mode, back.reportAllowedStarts, back.blockMessage),
            std::tie(settings.mode, settings.reportAllowedStarts, settings.blockMessage));
  ASSERT_TRUE(back.allowListRules.empty());
  ASSERT_EQ(back.denyListRules.size(), 1u);
  const auto& r = back.denyListRules[0];
  EXPECT_EQ(std::tie(r.ruleName, r.status, r.categoryName), std::tie(rule.ruleName, rule.status, rule.categoryName));
  ASSERT_EQ(r.categoryIds.size(), 1u);
  EXPECT_EQ(r.categoryIds[0], app_ctrl::GoldenImageCategoryId);
  ASSERT_EQ(r.users.size(), 1u);
  EXPECT_EQ(std::tie(r.users[0].userName, r.users[0].access), std::tie(user.userName, user.access));

  app_ctrl::EnterpriseApplicationControlSettings engine;
  engine.allowListMode = true;
  engine.testMode = 1;
  auto& engineRule = engine.rules.emplace_back();
  engineRule.categoryId = app_ctrl::GoldenImageCategoryId;
  engineRule.ruleName = zel::wstring_t(u"r");
  engineRule.status = 2;
  engineRule.textList2.push_back(zel::wstring_t(u"x"));
  auto& engineUser = engineRule.users.emplace_back();
  engineUser.principals.push_back({app_ctrl::EnginePrincipal::kEveryone, app_ctrl::EnginePrincipal::kEveryoneId});
  engineUser.access = 0;

  const auto engineBack = RoundTrip(services.binary.Get(), &allocator, engine);
  EXPECT_EQ(std::tie(engineBack.allowListMode, engineBack.testMode, engineBack.value13),
            std::make_tuple(true, 1u, 3u));
  EXPECT_TRUE(engineBack.flag4 && engineBack.flag5 && engineBack.flag11);
  ASSERT_EQ(engineBack.rules.size(), 1u);
  const auto& er = engineBack.rules[0];
  EXPECT_EQ(std::tie(er.categoryId, er.status), std::tie(engineRule.categoryId, engineRule.status));
  ASSERT_EQ(er.textList2.size(), 1u);
  EXPECT_EQ(er.textList2[0], u"x");
  ASSERT_EQ(er.users.size(), 1u);
  EXPECT_EQ(er.users[0].access, 0u);
  ASSERT_EQ(er.users[0].principals.size(), 1u);
  EXPECT_EQ(std::tie(er.users[0].principals[0].principalType, er.users[0].principals[0].principalId),
            std::make_tuple(2u, 0xFFFFFFFFu));
}

}  // namespace
