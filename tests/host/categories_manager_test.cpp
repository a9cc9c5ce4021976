// The host's category store: what survives a restart, how each action
// changes the list, and that a refused or failed change leaves both the
// list and the database as they were.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "host/services/categories_manager.h"
#include "host/services/counting_allocator.h"
#include "host/services/service_locator.h"
#include "support/temp_tree.h"
#include "tests/tov_common/categories/category_meta_info.h"
#include "tov_common/categories/category_text.h"
#include "zel/strings/conversions.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace {

using app_ctrl::Category;
using app_ctrl::CategoryId;
using tov::types::CategoriesAction;
using CategoryList = ICategoriesManager::CategoryList;

constexpr CategoryId Id(std::uint8_t n) { return CategoryId{{n, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, n}}; }

std::string Utf8(const zel::wstring_t& text) {
  const zel::string_t narrow = zel::Utf16ToUtf8(text.view());
  return std::string(narrow.view());
}

// One line per category: GUID, name, description and every criterion's text.
std::vector<std::string> Describe(const CategoryList& list) {
  std::vector<std::string> out;
  for (const Category& c : list) {
    std::string line = tov::tools::CategoryIdToCompactText(c.GUID) + " " + Utf8(c.Name) + "|" + Utf8(c.Description);
    for (const auto& i : c.Include) line += " +" + tov::tools::CategoryCriterionToText(i);
    for (const auto& e : c.Exclude) line += " -" + tov::tools::CategoryCriterionToText(e);
    out.push_back(line);
  }
  return out;
}

std::vector<std::string> Names(const CategoryList& list) {
  std::vector<std::string> out;
  for (const Category& c : list) out.emplace_back(c.Name.begin(), c.Name.end());
  return out;
}

class CategoriesManagerTest : public ::testing::Test {
 protected:
  CategoriesManagerTest() {
    locator.Register<zel::IAllocator>(&allocator);
    locator.Register<zel::IMetaInfoProvider>(&metaInfo);
  }

  Category Make(std::uint8_t id, std::u16string_view name) {
    Category c;
    c.GUID = Id(id);
    c.Name = zel::wstring_t(name);
    return c;
  }

  // A category with one criterion of every class the store knows.
  Category Rich() {
    Category c = Make(1, u"Rich");
    c.Description = zel::wstring_t(u"all kinds \U0001F600");
    auto add = [&](auto& list, std::u16string_view label, const auto& expression) {
      auto& criterion = list.emplace_back();
      criterion.criterionName = zel::wstring_t(label);
      criterion.expression = zel::make_owning_anydescrptr(&locator, expression);
    };
    add(c.Include, u"vendor",
        app_ctrl::CategoryFileInfoOperationExpression(app_ctrl::CategoryFileInfoField::VendorName,
                                                      app_ctrl::CategoryStringOperation::StartsWith,
                                                      zel::wstring_t(u"Acme Corp")));
    add(c.Include, u"", app_ctrl::CategoryLinkedCategoryExpression(Id(9)));
    add(c.Exclude, u"usb", app_ctrl::CategoryStorageTypeExpression(1));
    app_ctrl::CategoryVersionOperationExpression version;
    version.field = app_ctrl::CategoryVersionField::FileVersion;
    version.operation = app_ctrl::CategoryVersionOperation::GreaterOrEqual;
    version.value.numbers[0] = 2;
    version.value.numbers[3] = 7;
    version.value.text = zel::wstring_t(u"2.0.0.7");
    add(c.Exclude, u"old", version);
    app_ctrl::CategoryAndExpression both;
    both.left = zel::make_owning_anydescrptr(&locator, app_ctrl::CategoryStorageTypeExpression(1));
    both.right = zel::make_owning_anydescrptr(&locator, app_ctrl::CategoryLinkedCategoryExpression(Id(8)));
    add(c.Include, u"both", both);
    c.Include.emplace_back();  // a criterion without an expression
    return c;
  }

  CategoryList Get(host::CategoriesManager& manager, std::uint32_t* counter = nullptr) {
    CategoryList list;
    std::uint32_t c = 0;
    EXPECT_EQ(manager.GetCategories(c, list), 0);
    if (counter != nullptr) *counter = c;
    return list;
  }

  host::CountingAllocator allocator;
  category_test::MetaInfo metaInfo;
  host::ServiceLocator locator;
  testsupport::TempDir dir;
  const std::string path = dir / "categories.db";
};

TEST_F(CategoriesManagerTest, EveryExpressionClassSurvivesARestart) {
  CategoryList put;
  put.push_back(Rich());
  put.push_back(Make(2, u""));
  std::vector<std::string> before;
  {
    host::CategoriesManager manager(&locator);
    ASSERT_EQ(manager.Open(path), 0);
    ASSERT_EQ(manager.PutCategories({}, put, {}, CategoriesAction::AddUser), 0);
    ASSERT_EQ(manager.PutCategories({}, {}, {}, CategoriesAction::AddInvScan), 0);
    before = Describe(Get(manager));
  }
  ASSERT_EQ(before.size(), 2u);
  EXPECT_EQ(before, Describe(put));

  host::CategoriesManager reopened(&locator);
  ASSERT_EQ(reopened.Open(path), 0);
  std::uint32_t counter = 0;
  const CategoryList after = Get(reopened, &counter);
  EXPECT_EQ(Describe(after), before);
  EXPECT_EQ(counter, 2u);
  ASSERT_TRUE(after[0].Include[2].expression);
  EXPECT_EQ(after[0].Include[2].expression.descriptor()->serId, app_ctrl::category_class::And);
  EXPECT_FALSE(after[0].Include[3].expression);
}

TEST_F(CategoriesManagerTest, ActionsChangeOnlyTheirOwnOrigin) {
  host::CategoriesManager manager(&locator);
  ASSERT_EQ(manager.Open(":memory:"), 0);
  const CategoryId golden = app_ctrl::GoldenImageCategoryId;
  Category goldenImage = Make(0, u"GoldenImage");
  goldenImage.GUID = golden;

  ASSERT_EQ(manager.PutCategories({}, {Make(1, u"A"), Make(2, u"GoldenImage")}, {}, CategoriesAction::AddUser), 0);
  ASSERT_EQ(manager.PutCategories({}, {goldenImage}, {}, CategoriesAction::AddInvScan), 0);
  ASSERT_EQ(manager.PutCategories({}, {Make(3, u"T")}, {}, CategoriesAction::AddTaskManager), 0);
  EXPECT_EQ(Names(Get(manager)), (std::vector<std::string>{"A", "GoldenImage", "GoldenImage", "T"}));

  // The scan's removal by name leaves the administrator's namesake alone.
  ASSERT_EQ(manager.PutCategories({}, {}, {zel::wstring_t(u"GoldenImage")}, CategoriesAction::AddInvScan), 0);
  CategoryList list = Get(manager);
  ASSERT_EQ(Names(list), (std::vector<std::string>{"A", "GoldenImage", "T"}));
  EXPECT_EQ(list[1].GUID, Id(2));

  // Same GUID: replaced in place. Removal by id.
  ASSERT_EQ(manager.PutCategories({}, {Make(1, u"A2")}, {}, CategoriesAction::AddUser), 0);
  ASSERT_EQ(manager.PutCategories({Id(2)}, {}, {}, CategoriesAction::AddUser), 0);
  EXPECT_EQ(Names(Get(manager)), (std::vector<std::string>{"A2", "T"}));

  ASSERT_EQ(manager.PutCategories({}, {Make(4, u"B")}, {}, CategoriesAction::ReplaceUser), 0);
  EXPECT_EQ(Names(Get(manager)), (std::vector<std::string>{"T", "B"}));
  ASSERT_EQ(manager.PutCategories({}, {}, {}, CategoriesAction::ClearTaskManager), 0);
  std::uint32_t counter = 0;
  EXPECT_EQ(Names(Get(manager, &counter)), (std::vector<std::string>{"B"}));
  EXPECT_EQ(counter, 8u);
}

TEST_F(CategoriesManagerTest, RefusedChangesLeaveListStoreAndCounter) {
  {
    host::CategoriesManager manager(&locator);
    ASSERT_EQ(manager.Open(path), 0);
    ASSERT_EQ(manager.PutCategories({}, {Make(1, u"Kept")}, {}, CategoriesAction::AddUser), 0);
    EXPECT_EQ(manager.PutCategories({}, {Make(2, u"Lost")}, {}, static_cast<CategoriesAction>(6)),
              zel::result::InvalidArgument);

    // An expression of a class the store can't keep refuses the whole change.
    static zel::SerObjDescriptorImpl<int> intHelper;
    static zel::TypeDescriptorField noFields[] = {zel::kFieldTableTerminator};
    static const zel::TypeDescriptor foreign{0x12345678, "foreign", sizeof(int), noFields, &intHelper};
    Category odd = Make(3, u"Odd");
    int value = 5;
    odd.Include.emplace_back().expression.assign_copy(&value, &foreign, &allocator);
    EXPECT_EQ(manager.PutCategories({}, {Make(4, u"Lost"), odd}, {}, CategoriesAction::AddUser),
              zel::result::InvalidArgument);

    std::uint32_t counter = 0;
    EXPECT_EQ(Names(Get(manager, &counter)), (std::vector<std::string>{"Kept"}));
    EXPECT_EQ(counter, 1u);
  }
  host::CategoriesManager reopened(&locator);
  ASSERT_EQ(reopened.Open(path), 0);
  std::uint32_t counter = 0;
  EXPECT_EQ(Names(Get(reopened, &counter)), (std::vector<std::string>{"Kept"}));
  EXPECT_EQ(counter, 1u);

  host::CategoriesManager closed(&locator);
  CategoryList out;
  EXPECT_EQ(closed.GetCategories(counter, out), zel::result::NotInitialized);
}

TEST_F(CategoriesManagerTest, DecisionsSeeAStagedListOnlyOnceItIsPublishedAndThePreviousOneWhenPutBack) {
  host::CategoriesManager manager(&locator);
  std::shared_ptr<const CategoryList> seen;
  EXPECT_EQ(manager.Snapshot(&seen), zel::result::NotInitialized);
  ASSERT_EQ(manager.Open(path), 0);
  ASSERT_EQ(manager.PutCategories({}, {Make(1, u"Old")}, {}, CategoriesAction::ReplaceUser), 0);
  const auto snapshot = [&] {
    std::shared_ptr<const CategoryList> list;
    EXPECT_EQ(manager.Snapshot(&list), 0);
    return list ? Names(*list) : std::vector<std::string>{"(none)"};
  };
  EXPECT_EQ(snapshot(), std::vector<std::string>{"Old"});

  std::shared_ptr<const CategoryList> before;
  ASSERT_EQ(manager.StageUserCategories({Make(2, u"New")}, &before), 0);
  EXPECT_EQ(Names(Get(manager)), std::vector<std::string>{"New"}) << "stored at once";
  EXPECT_EQ(snapshot(), std::vector<std::string>{"Old"}) << "decisions still read the old list";
  manager.PublishStaged();
  EXPECT_EQ(snapshot(), std::vector<std::string>{"New"});
  manager.RestoreSnapshot(before);
  EXPECT_EQ(snapshot(), std::vector<std::string>{"Old"});

  // A plain write after a stage outdates what was staged.
  ASSERT_EQ(manager.StageUserCategories({Make(3, u"Staged")}, &before), 0);
  ASSERT_EQ(manager.PutCategories({}, {Make(4, u"Written")}, {}, CategoriesAction::ReplaceUser), 0);
  manager.PublishStaged();
  EXPECT_EQ(snapshot(), std::vector<std::string>{"Written"});
  manager.FailNextGet(zel::result::UnspecifiedError);
  EXPECT_EQ(manager.Snapshot(&seen), zel::result::UnspecifiedError) << "a read fault reaches decisions too";
}

}  // namespace
