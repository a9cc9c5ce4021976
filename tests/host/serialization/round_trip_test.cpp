// Records through both host forms and back: equal values, byte-exact output
// on a second pass, every block returned, the shape of the XML form, and
// the records that have no form.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "serialization_fixture.h"

namespace {

using sertest::Defaulted;
using sertest::Everything;
using tov::app_control::ApplicationIds;

class RoundTrip : public sertest::SerializationTest {};

ApplicationIds MakeIds(std::size_t n) {
  ApplicationIds ids;
  for (std::size_t i = 0; i < n; ++i) ids.list.push_back(0x9E3779B97F4A7C15ull * (i + 1));
  return ids;
}

TEST_F(RoundTrip, ApplicationIdsOfEverySizeInTheBinaryForm) {
  for (std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{100000}}) {
    SCOPED_TRACE(n);
    ApplicationIds source = MakeIds(n);

    std::vector<unsigned char> blob;
    ASSERT_EQ(ToBinary(Ref(source, m_idsDescriptor), blob), 0);
    EXPECT_EQ(blob.size(), 20 + 4 + 8 * n);  // header, count, ids: nothing else
    ApplicationIds back;
    back.list.push_back(5);  // replaced, not appended to
    ASSERT_EQ(FromBinary(blob, Ref(back, m_idsDescriptor)), 0);
    EXPECT_TRUE(back.list == source.list);
  }
  EXPECT_EQ(TakeErrorLines(), 0u);
}

TEST_F(RoundTrip, OnlyFieldsThatAreNotZeroAreWrittenAndEachReadsBackOverAFilledTarget) {
  // One field set at a time, with the whole form it gives. Several values
  // look like zero but are not the zero of their type (a list of one zero, a
  // variant holding 0 or ""), so they are written.
  struct Case {
    void (*set)(Everything&);
    const char* xml;
  };
  const Case cases[] = {
      {[](Everything&) {}, "<root/>"},
      {[](Everything& e) { e.flag = true; }, "<root><flag>true</flag></root>"},
      {[](Everything& e) { e.i8 = -1; }, "<root><i8>-1</i8></root>"},
      {[](Everything& e) { e.u8 = 1; }, "<root><u8>1</u8></root>"},
      {[](Everything& e) { e.i16 = -1; }, "<root><i16>-1</i16></root>"},
      {[](Everything& e) { e.u16 = 256; }, "<root><u16>256</u16></root>"},
      {[](Everything& e) { e.i32 = -1; }, "<root><i32>-1</i32></root>"},
      {[](Everything& e) { e.u32 = 0x10000; }, "<root><u32>65536</u32></root>"},
      {[](Everything& e) { e.i64 = -1; }, "<root><i64>-1</i64></root>"},
      {[](Everything& e) { e.u64 = 1ull << 40; }, "<root><u64>1099511627776</u64></root>"},
      {[](Everything& e) { e.text = zel::string_t(" "); }, "<root><text> </text></root>"},
      {[](Everything& e) { e.wide = zel::wstring_t(u"w"); }, "<root><wide>w</wide></root>"},
      {[](Everything& e) { e.inner.code = -1; }, "<root><inner><code>-1</code></inner></root>"},
      {[](Everything& e) { e.inner.label = zel::string_t("l"); }, "<root><inner><label>l</label></inner></root>"},
      {[](Everything& e) { e.inner.ids.push_back(0); }, "<root><inner><ids><item>0</item></ids></inner></root>"},
      {[](Everything& e) { e.inners.emplace_back(); }, "<root><inners><item/></inners></root>"},
      {[](Everything& e) { e.names.push_back(zel::string_t("")); }, "<root><names><item/></names></root>"},
      {[](Everything& e) { e.wideNames.push_back(zel::wstring_t(u"")); },
       "<root><wideNames><item/></wideNames></root>"},
      {[](Everything& e) { e.shorts.push_back(0); }, "<root><shorts><item>0</item></shorts></root>"},
      {[](Everything& e) { e.flags.push_back(false); }, "<root><flags><item>false</item></flags></root>"},
      {[](Everything& e) { e.any.SetInt32(0); }, "<root><any tag=\"9\">0</any></root>"},
      {[](Everything& e) { e.any.SetString(zel::string_t("")); }, "<root><any tag=\"14\"/></root>"},
      {[](Everything& e) { e.anys.emplace_back(); }, "<root><anys><item tag=\"0\"/></anys></root>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    Everything source;
    c.set(source);
    std::string xml;
    ASSERT_EQ(ToXml(Ref(source, sertest::EverythingDescriptor()), xml), 0);
    EXPECT_EQ(xml, c.xml);

    Everything target = sertest::MakeEverything(&m_allocator);  // every field set: none may survive
    ASSERT_EQ(FromXml(xml, Ref(target, sertest::EverythingDescriptor())), 0);
    EXPECT_TRUE(target == source);
    std::string again;
    ASSERT_EQ(ToXml(Ref(target, sertest::EverythingDescriptor()), again), 0);
    EXPECT_EQ(again, xml);
  }
  EXPECT_EQ(TakeErrorLines(), 0u);
  EXPECT_EQ(m_allocator.LiveBlocks(), 0);
}

TEST_F(RoundTrip, AnAbsentFieldReadsAsZeroNotAsItsConstructorDefault) {
  // Defaulted starts at -1, true, "unnamed" and an inner code of -1.
  struct Case {
    const char* name;
    void (*set)(Defaulted&);
  };
  const Case cases[] = {
      {"constructor defaults", [](Defaulted&) {}},
      {"all zero",
       [](Defaulted& d) {
         d.uid = 0;
         d.size = 0;
         d.enabled = false;
         d.name.clear();
         d.inner = sertest::Inner();
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Defaulted source;
    c.set(source);
    std::string xml;
    ASSERT_EQ(ToXml(Ref(source, sertest::DefaultedDescriptor()), xml), 0);
    Defaulted fresh;  // holds the defaults the form may not lean on
    ASSERT_EQ(FromXml(xml, Ref(fresh, sertest::DefaultedDescriptor())), 0) << xml;
    EXPECT_TRUE(fresh == source) << xml;
  }
}

TEST_F(RoundTrip, RecordsWrittenWithEveryElementStillRead) {
  {
    // Zeros written out, as every record used to be, over a filled target.
    const std::string full =
        "<?xml version=\"1.0\"?>\n<root>\n  <flag>false</flag>\n  <i8>0</i8>\n  <u8>0</u8>\n  <i16>0</i16>\n"
        "  <u16>0</u16>\n  <i32>-7</i32>\n  <u32>0</u32>\n  <i64>0</i64>\n  <u64>0</u64>\n  <text />\n"
        "  <wide>w</wide>\n  <inner>\n    <code>0</code>\n    <label />\n    <ids />\n  </inner>\n  <inners />\n"
        "  <names />\n  <wideNames />\n  <shorts>\n    <item>0</item>\n  </shorts>\n  <flags />\n"
        "  <any tag=\"0\" />\n  <anys />\n</root>\n";
    Everything expected;
    expected.i32 = -7;
    expected.wide = zel::wstring_t(u"w");
    expected.shorts.push_back(0);
    Everything target = sertest::MakeEverything(&m_allocator);
    ASSERT_EQ(FromXml(full, Ref(target, sertest::EverythingDescriptor())), 0);
    EXPECT_TRUE(target == expected);
  }
  EXPECT_EQ(TakeErrorLines(), 0u);
  EXPECT_EQ(m_allocator.LiveBlocks(), 0);
}

TEST_F(RoundTrip, EveryFieldTypeInBothFormsWithoutLeaks) {
  {
    Everything source = sertest::MakeEverything(&m_allocator);
    std::vector<unsigned char> blob, again;
    ASSERT_EQ(ToBinary(Ref(source, sertest::EverythingDescriptor()), blob), 0);
    Everything back;
    ASSERT_EQ(FromBinary(blob, Ref(back, sertest::EverythingDescriptor())), 0);
    EXPECT_TRUE(back == source);
    ASSERT_EQ(ToBinary(Ref(back, sertest::EverythingDescriptor()), again), 0);
    EXPECT_EQ(again, blob);

    std::string xml, xmlAgain;
    ASSERT_EQ(ToXml(Ref(source, sertest::EverythingDescriptor()), xml), 0);
    Everything fromXml;
    ASSERT_EQ(FromXml(xml, Ref(fromXml, sertest::EverythingDescriptor())), 0) << xml;
    EXPECT_TRUE(fromXml == source) << xml;
    ASSERT_EQ(ToXml(Ref(fromXml, sertest::EverythingDescriptor()), xmlAgain), 0);
    EXPECT_EQ(xmlAgain, xml);

    // Well-formed text stays readable; what XML cannot carry goes hex.
    EXPECT_NE(xml.find("<text>plain &lt;&amp;&gt; \"text\"\twith\nlines, caf\xC3\xA9</text>"), std::string::npos);
    EXPECT_NE(xml.find("<wide enc=\"hex\">0041d83dde0000200042d80000200043dc00</wide>"), std::string::npos);
    EXPECT_NE(xml.find("<item>   </item>"), std::string::npos);
    EXPECT_NE(xml.find("<item tag=\"9\">-5</item>"), std::string::npos);
    EXPECT_NE(xml.find("<item tag=\"17\" serId=\"2119630849\">"), std::string::npos);
  }
  EXPECT_EQ(m_allocator.LiveBlocks(), 0);
  EXPECT_EQ(TakeErrorLines(), 0u);
}

TEST_F(RoundTrip, ByReferenceVariantIsWrittenAsTheValueItPointsAt) {
  zel::string_t pointee("pointed at");
  std::uint32_t number = 77;
  for (int form = 0; form < 2; ++form) {
    Everything source, back;
    source.any.SetReference(zel::vt::String, &pointee);
    source.anys.emplace_back().SetReference(zel::vt::UInt32, &number);
    if (form == 0) {
      std::vector<unsigned char> blob;
      ASSERT_EQ(ToBinary(Ref(source, sertest::EverythingDescriptor()), blob), 0);
      ASSERT_EQ(FromBinary(blob, Ref(back, sertest::EverythingDescriptor())), 0);
    } else {
      std::string xml;
      ASSERT_EQ(ToXml(Ref(source, sertest::EverythingDescriptor()), xml), 0);
      ASSERT_EQ(FromXml(xml, Ref(back, sertest::EverythingDescriptor())), 0);
    }
    ASSERT_EQ(back.any.tag(), zel::vt::String);
    EXPECT_EQ(back.any.GetString(), pointee);
    ASSERT_EQ(back.anys.size(), 1u);
    ASSERT_EQ(back.anys[0].tag(), zel::vt::UInt32);
    EXPECT_EQ(back.anys[0].GetUInt32(), 77u);
  }
}

// An interface reference in a variant has no serialised form; nesting beyond
// the limit is refused, not recursed into.
TEST_F(RoundTrip, RecordsWithoutAFormAreRefusedInBoth) {
  Everything source;
  source.any.SetObject(&m_allocator);
  std::vector<unsigned char> blob;
  std::string xml = "unchanged";
  EXPECT_EQ(ToBinary(Ref(source, sertest::EverythingDescriptor()), blob), zel::result::NotSupported);
  EXPECT_EQ(ToXml(Ref(source, sertest::EverythingDescriptor()), xml), zel::result::NotSupported);
  EXPECT_EQ(xml, "unchanged");
  EXPECT_EQ(TakeErrorLines(), 2u);

  // 100 records deep through typed variants.
  sertest::Chain root;
  for (std::uint32_t level = 100; level-- > 0;) {
    sertest::Chain outer;
    outer.level = level;
    zel::anydescrptr typed;
    typed.assign_copy(&root, sertest::ChainDescriptor(), &m_allocator);
    outer.next.SetTyped(std::move(typed));
    root = std::move(outer);
  }
  EXPECT_EQ(ToBinary(Ref(root, sertest::ChainDescriptor()), blob), zel::result::OutOfRange);
  EXPECT_EQ(ToXml(Ref(root, sertest::ChainDescriptor()), xml), zel::result::OutOfRange);
}

}  // namespace
