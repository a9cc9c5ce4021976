#include <gtest/gtest.h>
#include <json/json.h>

#include <clocale>
#include <string>
#include <typeinfo>

#include "category_test_support.h"
#include "tov_common/categories/category_json.h"

namespace {

using namespace app_ctrl;
using category_test::CategoryEnv;
using tov::tools::CategoriesToJson;
using tov::tools::CategoryList;
using tov::tools::FilterCategoriesByName;
using tov::tools::JsonToCategories;

constexpr const char* kGuid = "00112233445566778899aabbccddeeff";

// What JsonToCategories did with a document, as one comparable line.
std::string Outcome(CategoryEnv& env, const std::string& json) {
  try {
    const CategoryList list = JsonToCategories(env.sl(), json, "src.json");
    return "ok " + std::to_string(list.size());
  } catch (const tov::tools::JsonToCategoriesExceptionMsgKey& e) {
    return "MsgKey " + std::to_string(e.message) + " " + e.key;
  } catch (const tov::tools::JsonToCategoriesExceptionMsgMsgKey& e) {
    return "MsgMsgKey " + std::to_string(e.message) + " " + std::to_string(e.secondMessage) + " " + e.key;
  } catch (const tov::tools::JsonToCategoriesExceptionMsgKeyMsg& e) {
    return "MsgKeyMsg " + std::to_string(e.message) + " " + e.key + " " + std::to_string(e.secondMessage);
  } catch (const Json::LogicError&) {
    return "LogicError";
  }
}

std::string Repeat(const std::string& text, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += text;
  return out;
}

std::string Element(const std::string& members) {
  return std::string("[{\"Name\":\"n\",\"GUID\":\"") + kGuid + "\"" + (members.empty() ? "" : ",") + members + "}]";
}

TEST(JsonToCategories, DocumentFaultsThenElementFaultsInTheirOrder) {
  CategoryEnv env;
  const std::string good = std::string("\"GUID\":\"") + kGuid + "\"";
  const struct {
    std::string json;
    std::string outcome;
  } cases[] = {
      {"[]", "ok 0"},
      {"// list\n[] /* none */\n", "ok 0"},
      {"[ // one\n" + Element("").substr(1), "ok 1"},
      {"{}", "MsgKey 121 src.json"},
      {"", "MsgKey 121 src.json"},
      {"[1", "MsgKey 121 src.json"},
      {"[{\"Name\":\"a\",}]", "MsgKey 121 src.json"},
      {"[1]", "LogicError"},
      // Nesting beyond the parser's stack limit is refused like any bad text.
      {Repeat("[", 1200), "MsgKey 121 src.json"},
      {"[" + Repeat("{\"a\":", 1200), "MsgKey 121 src.json"},
      // Name is fetched first, then GUID.
      {"[null]", "MsgMsgKey 323 387 Name"},
      {"[{" + good + "}]", "MsgMsgKey 323 387 Name"},
      {"[{\"name\":\"a\"," + good + "}]", "MsgMsgKey 323 387 Name"},
      {"[{\"Name\":\"a\"}]", "MsgMsgKey 323 387 GUID"},
      {"[{\"Name\":1}]", "MsgKeyMsg 321 Name 387"},
      {"[{\"Name\":null," + good + "}]", "MsgKeyMsg 321 Name 387"},
      {"[{\"Name\":\"a\",\"GUID\":7}]", "MsgKeyMsg 321 GUID 387"},
      {"[{\"Name\":\"a\",\"GUID\":\"00112233-4455-6677-8899-aabbccddeeff\"}]",
       "MsgKey 113 00112233-4455-6677-8899-aabbccddeeff"},
      {"[{\"Name\":\"a\",\"GUID\":\"00112233445566778899aabbccddeef\"}]", "MsgKey 113 00112233445566778899aabbccddeef"},
      // A bad GUID is reported before an unknown key.
      {"[{\"Aaa\":1,\"Name\":\"a\",\"GUID\":\"x\"}]", "MsgKey 113 x"},
      {Element("\"Zzz\":1"), "MsgKey 319 Zzz"},
      {Element("\"guid\":1"), "MsgKey 319 guid"},
      // Members are visited in ascending key order, whatever the document says.
      {Element("\"Include\":\"i\",\"Exclude\":\"e\",\"Description\":1"), "MsgKeyMsg 321 Description 387"},
      {Element("\"Zzz\":1,\"Include\":\"i\",\"Exclude\":\"e\""), "MsgKeyMsg 321 Exclude 386"},
      {Element("\"Zzz\":1,\"Include\":\"i\""), "MsgKeyMsg 321 Include 386"},
      {Element("\"Include\":\"i\",\"Aaa\":1"), "MsgKey 319 Aaa"},
      {Element("\"Include\":{}"), "MsgKeyMsg 321 Include 386"},
      {Element("\"Include\":[\"(RemovableDrive)\",1]"), "MsgKeyMsg 321 Include 386"},
      {Element("\"Exclude\":[null]"), "MsgKeyMsg 321 Exclude 386"},
      {Element("\"Include\":[\"(ProductVersion == 1)\"]"), "MsgKey 113 (ProductVersion == 1)"},
      {Element("\"Exclude\":[\"x (CommandLine == a)\"]"), "MsgKey 113 x (CommandLine == a)"},
      {Element("\"Include\":[],\"Exclude\":[],\"Description\":\"\""), "ok 1"},
      // A fault in a later element loses the earlier ones too.
      {"[" + Element("").substr(1, Element("").size() - 2) + ",{\"Name\":2}]", "MsgKeyMsg 321 Name 387"},
  };
  for (const auto& c : cases) EXPECT_EQ(Outcome(env, c.json), c.outcome) << c.json;
}

TEST(JsonToCategories, ReadsEveryFieldAndKeepsDuplicates) {
  CategoryEnv env;
  const std::string json = R"json([
    {"Name": "Tools", "GUID": "00112233445566778899AABBCCDDEEFF", "Description": "d",
     "Include": ["My Label (VendorName == Acme)", "(RemovableDrive)"],
     "Exclude": ["(Category eac00500000000000000000000000000)"]},
    {"GUID": "00112233445566778899aabbccddeeff", "Name": "Tools"}
  ])json";
  const CategoryList list = JsonToCategories(env.sl(), json, "s");
  ASSERT_EQ(list.size(), 2u);
  const Category& c = list[0];
  EXPECT_EQ(c.GUID, category_test::IdFromHex(kGuid));
  EXPECT_EQ(c.Name, u"Tools");
  EXPECT_EQ(c.Description, u"d");
  ASSERT_EQ(c.Include.size(), 2u);
  EXPECT_EQ(c.Include[0].criterionName, u"MyLabel");
  EXPECT_EQ(c.Include[0].expression.descriptor()->serId, 0x7C77F1D9u);
  EXPECT_TRUE(c.Include[1].criterionName.empty());
  EXPECT_EQ(c.Include[1].expression.descriptor()->serId, 0x26F50648u);
  ASSERT_EQ(c.Exclude.size(), 1u);
  EXPECT_EQ(c.Exclude[0].expression.get_as<CategoryLinkedCategoryExpression>()->category, GoldenImageCategoryId);
  EXPECT_EQ(list[1].GUID, c.GUID);
  EXPECT_EQ(list[1].Name, u"Tools");
  EXPECT_TRUE(list[1].Description.empty() && list[1].Include.empty() && list[1].Exclude.empty());

  // Written and read again, every criterion form comes back; copies are deep.
  const std::string written = CategoriesToJson(CategoryList(list));
  const CategoryList again = JsonToCategories(env.sl(), written, "written");
  ASSERT_EQ(again.size(), 2u);
  for (std::size_t i = 0; i < 2; ++i) EXPECT_TRUE(category_test::SameCategory(again[i], list[i])) << i;
  EXPECT_EQ(CategoriesToJson(again), written);
}

TEST(CategoriesToJson, WritesKeysAscendingAndDropsOnlyAnEmptyDescription) {
  CategoryEnv env;
  CategoryList list;
  Category c;
  c.GUID = category_test::IdFromHex("00112233445566778899AABBCCDDEEFF");
  c.Name = u"n";
  CategoryCriterion blank;
  blank.criterionName = u"lbl";
  blank.expression = env.Own(
      CategoryFileInfoOperationExpression(CategoryFileInfoField::FilePath, CategoryStringOperation::Equal, u"/a b"));
  c.Include.push_back(blank);
  list.push_back(c);

  const std::string json = CategoriesToJson(list);
  EXPECT_EQ(json,
            "[\n\t{\n\t\t\"Exclude\" : [],\n\t\t\"GUID\" : \"00112233445566778899aabbccddeeff\",\n"
            "\t\t\"Include\" : \n\t\t[\n\t\t\t\"lbl (FilePath == /a b)\"\n\t\t],\n\t\t\"Name\" : \"n\"\n\t}\n]");
  // The value with a blank prints, and can't be read back.
  EXPECT_EQ(Outcome(env, json), "MsgKey 113 lbl (FilePath == /a b)");

  list[0].Include.clear();
  list[0].Description = u"d";
  const std::string described = CategoriesToJson(list);
  EXPECT_LT(described.find("\"Description\""), described.find("\"Exclude\""));

  EXPECT_EQ(CategoriesToJson(CategoryList()), "[]");

  // Text the "C" locale cannot narrow raises.
  list[0].Name = u"caf\u00e9";
  EXPECT_THROW(CategoriesToJson(list), std::bad_cast);
  list[0].Name = u"cafe";
  list[0].Description = u"\xD800";  // a lone surrogate narrows in no locale
  EXPECT_THROW(CategoriesToJson(list), std::bad_cast);
}

TEST(CategoryJson, NonAsciiTextRoundTripsInAUtf8Locale) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  struct RestoreLocale {
    ~RestoreLocale() { std::setlocale(LC_ALL, "C"); }
  } restore;
  CategoryEnv env;
  const std::string json =
      std::string("[{\"Name\":\"Caf\xc3\xa9 \xf0\x9f\x98\x80\",\"GUID\":\"") + kGuid +
      "\",\"Include\":[\"\xc3\xa9t\xc3\xa9 (FileName == \\u00e9.sh)\"]}]";
  const CategoryList list = JsonToCategories(env.sl(), json, "s");
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].Name, u"Caf\u00e9 \U0001F600");
  EXPECT_EQ(list[0].Include[0].criterionName, u"\u00e9t\u00e9");
  EXPECT_EQ(list[0].Include[0].expression.get_as<CategoryFileInfoOperationExpression>()->value, u"\u00e9.sh");
  const CategoryList again = JsonToCategories(env.sl(), CategoriesToJson(list), "s");
  ASSERT_EQ(again.size(), 1u);
  EXPECT_TRUE(category_test::SameCategory(again[0], list[0]));
  // Bytes that aren't UTF-8 can't be widened even here.
  EXPECT_THROW(JsonToCategories(env.sl(), std::string("[{\"Name\":\"\xff\",\"GUID\":\"") + kGuid + "\"}]", "s"),
               std::bad_cast);
}

TEST(FilterCategoriesByName, KeepsExactMatchesInOrder) {
  const auto make = [](std::initializer_list<const char16_t*> names) {
    CategoryList list;
    std::uint8_t n = 0;
    for (const char16_t* name : names) {
      Category c;
      c.GUID.bytes[0] = n++;
      c.Name = name;
      list.push_back(std::move(c));
    }
    return list;
  };
  const auto names = [](const CategoryList& list) {
    std::string out;
    for (const Category& c : list) out += std::to_string(c.GUID.bytes[0]) + ",";
    return out;
  };
  CategoryList list = make({u"a", u"ab", u"b", u"a", u"A"});
  FilterCategoriesByName(list, {});
  EXPECT_EQ(names(list), "0,1,2,3,4,");
  FilterCategoriesByName(list, {"a", "b", "zz"});
  EXPECT_EQ(names(list), "0,2,3,");
  FilterCategoriesByName(list, {"ab"});
  EXPECT_EQ(names(list), "");

  CategoryList odd = make({u"x", u"caf\u00e9"});
  EXPECT_THROW(FilterCategoriesByName(odd, {"x"}), std::bad_cast);
  EXPECT_EQ(names(odd), "0,1,") << "a failed filter must leave the list alone";
}

}  // namespace
