// Settings conversion of 1k and 10k rules, ten users each, against as many
// categories: the cost must grow linearly with rules plus users (one hash
// lookup a rule, one database lookup a user), category copy included.
#include <benchmark/benchmark.h>

#include <string>

#include "app_control/tools/convert_settings.h"
#include "host/services/service_locator.h"
#include "tests/support/fake_settings_services.h"

namespace {

zel::wstring_t Wide(const std::string& text) {
  zel::wstring_t wide;
  for (char c : text) wide.push_back(static_cast<char16_t>(c));
  return wide;
}

void BM_ConvertSettings(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  constexpr std::size_t kUsers = 10;

  testsupport::FakeCategoriesManager categories;
  testsupport::FakePwdb pwdb;
  for (std::size_t i = 0; i < count; ++i) {
    app_ctrl::CategoryId id{};
    for (std::size_t b = 0; b < 8; ++b) id.bytes[b] = static_cast<std::uint8_t>(i >> (8 * b));
    categories.Add(id, Wide("Category number " + std::to_string(i)).view());
  }
  for (std::size_t u = 0; u < kUsers; ++u) {
    pwdb.users["user" + std::to_string(u)] = static_cast<std::uint32_t>(1000 + u);
    pwdb.groups["group" + std::to_string(u)] = static_cast<std::uint32_t>(2000 + u);
  }

  tov::settings::AppControlSettings settings;
  settings.mode = tov::AppControlMode::DenyList;
  settings.denyListRules.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    auto& rule = settings.denyListRules.emplace_back();
    rule.ruleName = Wide("Rule " + std::to_string(i));
    // Spread the lookups over the whole index, not in list order.
    rule.categoryName = Wide("Category number " + std::to_string((i * 7919) % count));
    rule.users.reserve(kUsers);
    for (std::size_t u = 0; u < kUsers; ++u) {
      auto& user = rule.users.emplace_back();
      user.userName = Wide((u % 2 == 0 ? "user" : "@group") + std::to_string(u));
      user.access = u % 3 == 0 ? tov::UserAccess::Block : tov::UserAccess::Allow;
    }
  }

  host::ServiceLocator locator;
  locator.Register<ICategoriesManager>(&categories);
  locator.Register<IPwdb>(&pwdb);

  tov::app_control::EngineRuleList rules;
  for (auto _ : state) {
    const zel::result_t r = tov::app_control::ConvertSettings(&locator, settings, rules);
    if (r != 0 || rules.size() != count) state.SkipWithError("conversion failed");
    benchmark::DoNotOptimize(rules.data());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count * (kUsers + 1)));
  state.SetComplexityN(static_cast<std::int64_t>(count));
}

BENCHMARK(BM_ConvertSettings)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

}  // namespace
