#include <gtest/gtest.h>

#include <clocale>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "category_test_support.h"
#include "tov_common/categories/category_text.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace {

using namespace app_ctrl;
using category_test::CategoryEnv;
using tov::tools::BuildCategoryExpression;
using tov::tools::CategoryCriterionToText;
using tov::tools::ParseCategoryCriterion;

TEST(CategoryIdText, CanonicalAndCompactFormsKeepStorageOrderAndOnlyHexReadsBack) {
  EXPECT_EQ(tov::tools::CategoryIdToText(GoldenImageCategoryId), u"eac00500-0000-0000-0000-000000000000");
  EXPECT_EQ(tov::tools::GoldenImageCategoryIdText(), u"eac00500-0000-0000-0000-000000000000");

  const CategoryId id = category_test::IdFromHex("00112233445566778899AABBCCDDEEFF");
  EXPECT_EQ(id.bytes[0], 0x00);
  EXPECT_EQ(id.bytes[10], 0xAA);
  EXPECT_EQ(id.bytes[15], 0xFF);
  EXPECT_EQ(tov::tools::CategoryIdToText(id), u"00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(tov::tools::CategoryIdToCompactText(id), "00112233445566778899aabbccddeeff");

  // The compact reader takes nothing but thirty-two hex digits.
  for (const char* bad : {"", "00112233445566778899aabbccddeef", "00112233445566778899aabbccddeeff0",
                          "00112233-4455-6677-8899-aabbccddeeff", "0011223344556677889gaabbccddeeff",
                          " 0112233445566778899aabbccddeeff"}) {
    CategoryId id = GoldenImageCategoryId;
    EXPECT_FALSE(tov::tools::CategoryIdFromCompactText(bad, id)) << bad;
    EXPECT_EQ(id, GoldenImageCategoryId) << "output touched for " << bad;
  }
}

struct GrammarCase {
  const char* text;
  bool matches;
  const char* label;
  std::vector<std::string> tokens;
};

TEST(ParseCategoryCriterion, ByteGrammar) {
  const GrammarCase cases[] = {
      {"(VendorName == Acme)", true, "", {"VendorName", "==", "Acme"}},
      {"x (FileName like a*)", true, "x", {"FileName", "like", "a*"}},
      {"My Label (FileName == a)", true, "MyLabel", {"FileName", "==", "a"}},
      {" \tMy\tLa bel\n(a)", true, "MyLabel", {"a"}},
      {"lbl(a)", true, "lbl", {"a"}},
      {"(FileName == a )", true, "", {"FileName", "==", "a"}},
      {"( FileName == a)", true, "", {"FileName", "==", "a"}},
      {"(\tFileName == a)\n", true, "", {"FileName", "==", "a"}},
      {"(a  )", true, "", {"a"}},
      {"(FileName == a b)", true, "", {"FileName", "==", "a", "b"}},
      {"()", true, "", {}},
      {"( \t )", true, "", {}},
      // Only a blank and ")" end a token.
      {"(FileName ==\ta)", true, "", {"FileName", "==\ta"}},
      {"(a \tb)", true, "", {"a", "\tb"}},
      {"(a(b c)", true, "", {"a(b", "c"}},
      {"(FileName  == a)", false, "", {}},
      {"((FileName == a))", false, "", {}},
      {"(FileName == a) x", false, "", {}},
      {"(a )b", false, "", {}},
      {"FileName == a", false, "", {}},
      {"(FileName == a", false, "", {}},
      {"(", false, "", {}},
      {"", false, "", {}},
      {"   ", false, "", {}},
  };
  for (const GrammarCase& c : cases) {
    std::string label = "untouched";
    std::vector<std::string> tokens{"untouched"};
    ASSERT_EQ(ParseCategoryCriterion(c.text, label, tokens), c.matches) << '"' << c.text << '"';
    if (c.matches) {
      EXPECT_EQ(label, c.label) << c.text;
      EXPECT_EQ(tokens, c.tokens) << c.text;
    } else {
      EXPECT_EQ(label, "untouched") << c.text;
      EXPECT_EQ(tokens, std::vector<std::string>{"untouched"}) << c.text;
    }
  }
}

// Parse, build, print: the printed form, or "" when no expression is made.
std::string ReadBack(CategoryEnv& env, const std::string& text) {
  std::string label;
  std::vector<std::string> tokens;
  if (!ParseCategoryCriterion(text, label, tokens)) return "<no match>";
  CategoryCriterion criterion;
  criterion.expression = BuildCategoryExpression(env.sl(), tokens);
  if (!criterion.expression.IsValid()) return "";
  criterion.criterionName = zel::wstring_t(std::u16string(label.begin(), label.end()));
  return CategoryCriterionToText(criterion);
}

TEST(BuildCategoryExpression, AcceptsAndRejectsByTheFieldTable) {
  CategoryEnv env;
  // Every text field takes every string operation and reads back as written.
  for (const char* field :
       {"VendorName", "ProductName", "FilePath", "FileName", "CertificateSubject", "CertificateThumbprint",
        "CertificatePublicKey", "CertificateIssuer", "CertificateSerial", "PackageName", "MarketCategory"}) {
    for (const char* operation : {"==", "!=", "like", "contains", "startswith", "endswith", "regexp"}) {
      const std::string text = std::string("lbl (") + field + " " + operation + " CN=x.*)";
      EXPECT_EQ(ReadBack(env, text), text);
    }
  }
  const std::string md5(32, 'a');
  const std::string sha(64, 'F');
  const std::string readsBack[] = {"(RemovableDrive)", "(FileMd5Hash == " + md5 + ")",
                                   "(FileSha256Hash == " + sha + ")", "(FileHash == " + md5 + ")",
                                   "(FileHash == " + sha + ")"};
  for (const std::string& text : readsBack) EXPECT_EQ(ReadBack(env, text), text);
  EXPECT_EQ(ReadBack(env, "(Category 00112233445566778899AABBCCDDEEFF)"),
            "(Category 00112233445566778899aabbccddeeff)");
  const std::string rejected[] = {"(FileName >= a)",
                                  "(FileName == a b)",
                                  "(FileName ==)",
                                  "(filename == a)",
                                  "(CommandLine == a)",
                                  "(ServiceName == a)",
                                  "(RemovableDrive x)",
                                  "(Category 00112233445566778899aabbccddeef)",
                                  "(Category 00112233445566778899aabbccddeeff x)",
                                  "(Category)",
                                  "(ProductVersion >= 1.0)",
                                  "(FileVersion == 1)",
                                  "(OsVersion < 5)",
                                  "(FileMd5Hash == " + sha + ")",
                                  "(FileSha256Hash == " + md5 + ")",
                                  "(FileHash == " + md5 + "a)",
                                  "(FileHash == " + std::string(31, '0') + "g)"};
  for (const std::string& text : rejected) EXPECT_EQ(ReadBack(env, text), "") << text;
}

TEST(BuildCategoryExpression, StoresFieldOperationAndValue) {
  CategoryEnv env;
  const zel::anydescrptr e = BuildCategoryExpression(env.sl(), {"FileSha256Hash", "endswith", std::string(64, 'b')});
  ASSERT_TRUE(e.IsValid());
  ASSERT_EQ(e.descriptor()->serId, 0x7C77F1D9u);
  EXPECT_EQ(e.allocator(), &env.allocator);
  const auto& x = *e.get_as<CategoryFileInfoOperationExpression>();
  EXPECT_EQ(x.field, CategoryFileInfoField::FileSha256Hash);
  EXPECT_EQ(x.operation, CategoryStringOperation::EndsWith);
  EXPECT_EQ(x.value, zel::wstring_t(std::u16string(64, u'b')));
}

TEST(BuildCategoryExpression, ServiceAndLocaleFailuresRaise) {
  CategoryEnv env;
  // The tests run in the "C" locale, which takes ASCII only.
  EXPECT_THROW(BuildCategoryExpression(env.sl(), {"FileName", "==", "caf\xc3\xa9"}), std::bad_cast);
  env.metaInfo.Forget(0x2428EDDE);
  EXPECT_THROW(BuildCategoryExpression(env.sl(), {"Category", std::string(32, '1')}), zel::CheckResultFailedException);
  // The other classes are still served.
  EXPECT_TRUE(BuildCategoryExpression(env.sl(), {"RemovableDrive"}).IsValid());
  env.allocator.FailAfter(0);
  EXPECT_THROW(BuildCategoryExpression(env.sl(), {"FileName", "==", "a"}), std::bad_alloc);
  env.allocator.FailAfter(-1);
  env.locator.Remove(zel::IAllocator::iid);
  EXPECT_THROW(BuildCategoryExpression(env.sl(), {"RemovableDrive"}), zel::GetInterfaceException);
  // Rejected tokens never reach the services.
  EXPECT_FALSE(BuildCategoryExpression(env.sl(), {"ProductVersion", "==", "1"}).IsValid());
  EXPECT_FALSE(BuildCategoryExpression(env.sl(), {}).IsValid());
}

std::string Print(const zel::anydescrptr& e) {
  std::ostringstream out;
  tov::tools::CategoryExpressionToText(out, e);
  return out.str();
}

TEST(CategoryExpressionToText, EveryClassAndTheUnknowns) {
  CategoryEnv env;
  CategoryAndExpression conjunction;
  conjunction.left =
      env.Own(CategoryFileInfoOperationExpression(CategoryFileInfoField::VendorName, CategoryStringOperation::Equal, u"Acme"));
  conjunction.right =
      env.Own(CategoryFileInfoOperationExpression(CategoryFileInfoField::FileName, CategoryStringOperation::Like, u"x"));
  EXPECT_EQ(Print(env.Own(conjunction)), "((VendorName == Acme) and (FileName like x))");
  CategoryAndExpression nested;
  nested.left = env.Own(conjunction);
  nested.right = env.Own(CategoryStorageTypeExpression(1));
  EXPECT_EQ(Print(env.Own(nested)), "(((VendorName == Acme) and (FileName like x)) and (RemovableDrive))");

  CategoryVersionOperationExpression version;
  version.field = CategoryVersionField::ProductVersion;
  version.operation = CategoryVersionOperation::GreaterOrEqual;
  version.value.numbers[0] = 1;
  version.value.numbers[1] = 2;
  version.value.text = u"a";
  version.value.raw = u"b";
  EXPECT_EQ(Print(env.Own(version)), "(ProductVersion >= 1.2.0.0a raw b)");
  version.value = CategoryVersionValue{};
  version.value.numbers[3] = 4294967295u;
  version.field = CategoryVersionField::OsVersion;
  version.operation = CategoryVersionOperation::LessOrEqual;
  EXPECT_EQ(Print(env.Own(version)), "(OsVersion <= 0.0.0.4294967295)");
  version.value = CategoryVersionValue{};
  version.value.raw = u"r";
  version.field = static_cast<CategoryVersionField>(3);
  version.operation = static_cast<CategoryVersionOperation>(10);
  EXPECT_EQ(Print(env.Own(version)), "(Unknown ?  raw r)");

  EXPECT_EQ(Print(env.Own(CategoryFileInfoOperationExpression(CategoryFileInfoField::CommandLine,
                                                               CategoryStringOperation::Equal, u"a"))),
            "(CommandLine == a)");
  EXPECT_EQ(Print(env.Own(CategoryFileInfoOperationExpression(static_cast<CategoryFileInfoField>(16),
                                                               static_cast<CategoryStringOperation>(7), u"v"))),
            "(Unknown ? v)");
  EXPECT_EQ(Print(env.Own(CategoryStorageTypeExpression(0))), "()");
  EXPECT_EQ(Print(env.Own(CategoryStorageTypeExpression(2))), "()");
  EXPECT_EQ(Print(env.Own(CategoryLinkedCategoryExpression(GoldenImageCategoryId))),
            "(Category eac00500000000000000000000000000)");
  EXPECT_EQ(Print(zel::anydescrptr()), "()");

  // An id this module does not know prints as empty brackets.
  static zel::TypeDescriptorField noFields[] = {zel::kFieldTableTerminator};
  static const zel::TypeDescriptor stranger{0x12345678, "stranger", 4, noFields, nullptr};
  std::uint32_t object = 1;
  EXPECT_EQ(Print(zel::anydescrptr(&object, &stranger)), "()");
}

// A label and its absence are printed by every read-back above.
TEST(CategoryCriterionToText, TextTheLocaleCannotNarrowIsLeftOut) {
  CategoryEnv env;
  CategoryCriterion c;
  // The "C" locale can't narrow U+00E9: such a text is left out, the rest stays.
  c.criterionName = u"caf\u00e9";
  c.expression =
      env.Own(CategoryFileInfoOperationExpression(CategoryFileInfoField::FileName, CategoryStringOperation::Equal, u"\u00e9"));
  EXPECT_EQ(CategoryCriterionToText(c), " (FileName == )");
}

TEST(CategoryExpression, CloneGivesAHeapCopyItsIdAndAZero) {
  const CategoryFileInfoOperationExpression original(CategoryFileInfoField::FilePath, CategoryStringOperation::RegExp,
                                                     u"/usr/.*");
  const CategoryExpression& base = original;
  const CategoryExpressionClone clone = base.Clone();
  ASSERT_NE(clone.object, nullptr);
  EXPECT_NE(clone.object, static_cast<const void*>(&original));
  EXPECT_EQ(clone.classId, 0x7C77F1D9u);
  EXPECT_EQ(clone.reserved, 0u);
  auto* copy = static_cast<CategoryExpression*>(clone.object);
  const auto* typed = dynamic_cast<CategoryFileInfoOperationExpression*>(copy);
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->field, original.field);
  EXPECT_EQ(typed->value, original.value);
  delete copy;  // through the deleting destructor

  const CategoryExpressionClone linked = CategoryLinkedCategoryExpression(GoldenImageCategoryId).Clone();
  EXPECT_EQ(linked.classId, 0x2428EDDEu);
  EXPECT_EQ(static_cast<CategoryLinkedCategoryExpression*>(linked.object)->category, GoldenImageCategoryId);
  delete static_cast<CategoryExpression*>(linked.object);

  const CategoryExpressionClone storage = CategoryStorageTypeExpression(1).Clone();
  EXPECT_EQ(storage.classId, 0x26F50648u);
  EXPECT_EQ(static_cast<CategoryStorageTypeExpression*>(storage.object)->storageType, 1u);
  delete static_cast<CategoryExpression*>(storage.object);
}

}  // namespace
