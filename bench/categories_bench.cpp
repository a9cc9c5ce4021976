// Reading and writing a category document of 1000 categories with six
// criteria each, and the criterion reader on its own.
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "tests/tov_common/categories/category_meta_info.h"
#include "tov_common/categories/category_json.h"
#include "tov_common/categories/category_text.h"

namespace {

struct Services {
  Services() {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::IMetaInfoProvider>(&metaInfo);
  }
  host::CountingAllocator allocator;
  category_test::MetaInfo metaInfo;
  host::ServiceLocator locator;
};

Services& TheServices() {
  static Services services;
  return services;
}

std::string Hex(unsigned seed, std::size_t length) {
  std::string s;
  for (std::size_t i = 0; i < length; ++i) s.push_back("0123456789abcdef"[(seed * 7 + i * 13) % 16]);
  return s;
}

// Every criterion form that reads back: file information with each operator,
// hashes of both lengths, linked categories, removable drives, labels.
std::string Document() {
  static const char* const kOperations[] = {"==", "!=", "like", "contains", "startswith", "endswith", "regexp"};
  Json::Value root(Json::arrayValue);
  for (unsigned i = 0; i < 1000; ++i) {
    Json::Value c(Json::objectValue);
    c["GUID"] = Hex(i, 32);
    c["Name"] = "category-" + std::to_string(i);
    c["Description"] = "description of category " + std::to_string(i);
    Json::Value include(Json::arrayValue);
    Json::Value exclude(Json::arrayValue);
    const unsigned n = i * 6;
    include.append("label" + std::to_string(i) + " (VendorName " + kOperations[i % 7] + " Vendor" + std::to_string(i) + ")");
    include.append("(FilePath startswith /opt/app" + std::to_string(i) + "/)");
    include.append("(FileHash == " + Hex(n, i % 2 ? 32 : 64) + ")");
    exclude.append("(FileSha256Hash == " + Hex(n + 1, 64) + ")");
    exclude.append("(Category " + Hex(n + 2, 32) + ")");
    exclude.append("(RemovableDrive)");
    c["Include"] = include;
    c["Exclude"] = exclude;
    root.append(c);
  }
  return Json::writeString(Json::StreamWriterBuilder(), root);
}

void BM_CategoriesRead(benchmark::State& state) {
  const std::string document = Document();
  for (auto _ : state) {
    tov::tools::CategoryList list = tov::tools::JsonToCategories(&TheServices().locator, document, "bench");
    benchmark::DoNotOptimize(list.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document.size()));
}
BENCHMARK(BM_CategoriesRead)->Unit(benchmark::kMillisecond);

void BM_CategoriesWrite(benchmark::State& state) {
  const tov::tools::CategoryList list = tov::tools::JsonToCategories(&TheServices().locator, Document(), "bench");
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = tov::tools::CategoriesToJson(list);
    bytes = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_CategoriesWrite)->Unit(benchmark::kMillisecond);

void BM_CriterionParseAndBuild(benchmark::State& state) {
  const std::string text = "label (FileSha256Hash == " + Hex(3, 64) + ")";
  std::string label;
  std::vector<std::string> tokens;
  for (auto _ : state) {
    tov::tools::ParseCategoryCriterion(text, label, tokens);
    zel::anydescrptr e = tov::tools::BuildCategoryExpression(&TheServices().locator, tokens);
    benchmark::DoNotOptimize(e.get());
  }
}
BENCHMARK(BM_CriterionParseAndBuild);

}  // namespace
