// Records through both host forms and back: equal values, byte-exact output
// on a second pass, every block returned, and the shape of the XML form.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "serialization_fixture.h"

namespace {

using sertest::Everything;
using tov::app_control::ApplicationIds;

class RoundTrip : public sertest::SerializationTest {};

ApplicationIds MakeIds(std::size_t n) {
  ApplicationIds ids;
  for (std::size_t i = 0; i < n; ++i) ids.list.push_back(0x9E3779B97F4A7C15ull * (i + 1));
  return ids;
}

TEST_F(RoundTrip, ApplicationIdsOfEverySizeInBothForms) {
  for (std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{100000}}) {
    SCOPED_TRACE(n);
    ApplicationIds source = MakeIds(n);

    std::vector<unsigned char> blob, again;
    ASSERT_EQ(ToBinary(Ref(source, m_idsDescriptor), blob), 0);
    EXPECT_EQ(blob.size(), 20 + 4 + 8 * n);  // header, count, ids: nothing else
    ApplicationIds back;
    back.list.push_back(5);  // replaced, not appended to
    ASSERT_EQ(FromBinary(blob, Ref(back, m_idsDescriptor)), 0);
    EXPECT_TRUE(back.list == source.list);
    ASSERT_EQ(ToBinary(Ref(back, m_idsDescriptor), again), 0);
    EXPECT_EQ(again, blob);

    std::string xml, xmlAgain;
    ASSERT_EQ(ToXml(Ref(source, m_idsDescriptor), xml), 0);
    ApplicationIds fromXml;
    ASSERT_EQ(FromXml(xml, Ref(fromXml, m_idsDescriptor)), 0);
    EXPECT_TRUE(fromXml.list == source.list);
    ASSERT_EQ(ToXml(Ref(fromXml, m_idsDescriptor), xmlAgain), 0);
    EXPECT_EQ(xmlAgain, xml);
  }
  EXPECT_EQ(TakeErrorLines(), 0u);
}

TEST_F(RoundTrip, XmlFormIsRootWithOneElementPerField) {
  ApplicationIds ids = MakeIds(2);
  std::string xml;
  ASSERT_EQ(ToXml(Ref(ids, m_idsDescriptor), xml), 0);
  EXPECT_EQ(xml, "<root><list><item>11400714819323198485</item><item>4354685564936845354</item></list></root>");
}

TEST_F(RoundTrip, AnIndentedDocumentWithADeclarationStillReads) {
  const std::string indented =
      "<?xml version=\"1.0\"?>\n<root>\n  <list>\n    <item>11400714819323198485</item>\n"
      "    <item>4354685564936845354</item>\n  </list>\n</root>\n";
  ApplicationIds ids;
  ASSERT_EQ(FromXml(indented, Ref(ids, m_idsDescriptor)), 0);
  EXPECT_TRUE(ids.list == MakeIds(2).list);
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

TEST_F(RoundTrip, InterfaceReferenceInAVariantHasNoSerialisedForm) {
  Everything source;
  source.any.SetObject(&m_allocator);
  std::vector<unsigned char> blob;
  std::string xml = "unchanged";
  EXPECT_EQ(ToBinary(Ref(source, sertest::EverythingDescriptor()), blob), zel::result::NotSupported);
  EXPECT_EQ(ToXml(Ref(source, sertest::EverythingDescriptor()), xml), zel::result::NotSupported);
  EXPECT_EQ(xml, "unchanged");
  EXPECT_EQ(TakeErrorLines(), 2u);
}

TEST_F(RoundTrip, NestingBeyondTheLimitIsRefusedNotRecursedInto) {
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
  std::vector<unsigned char> blob;
  EXPECT_EQ(ToBinary(Ref(root, sertest::ChainDescriptor()), blob), zel::result::OutOfRange);
  std::string xml;
  EXPECT_EQ(ToXml(Ref(root, sertest::ChainDescriptor()), xml), zel::result::OutOfRange);
}

TEST_F(RoundTrip, FaultHooksFailTheNextCallOnly) {
  ApplicationIds ids = MakeIds(3), back;
  std::vector<unsigned char> blob;
  m_services.binary->FailNextSerialize(zel::result::OutOfSpace);
  EXPECT_EQ(ToBinary(Ref(ids, m_idsDescriptor), blob), zel::result::OutOfSpace);
  EXPECT_TRUE(blob.empty());
  ASSERT_EQ(ToBinary(Ref(ids, m_idsDescriptor), blob), 0);
  m_services.binary->FailNextDeserialize(zel::result::MediaError);
  EXPECT_EQ(FromBinary(blob, Ref(back, m_idsDescriptor)), zel::result::MediaError);
  EXPECT_TRUE(back.list.empty());
  EXPECT_EQ(FromBinary(blob, Ref(back, m_idsDescriptor)), 0);

  std::string xml = "old";
  m_services.storage->FailNextSerialize();
  EXPECT_EQ(ToXml(Ref(ids, m_idsDescriptor), xml), zel::result::Unexpected);
  m_services.xmlFactory->FailNextFlush(zel::result::OutOfSpace);
  EXPECT_EQ(ToXml(Ref(ids, m_idsDescriptor), xml), zel::result::OutOfSpace);
  EXPECT_EQ(xml, "old");
  ASSERT_EQ(ToXml(Ref(ids, m_idsDescriptor), xml), 0);
  m_services.xmlFactory->FailNextOpen();
  EXPECT_EQ(FromXml(xml, Ref(back, m_idsDescriptor)), zel::result::Unexpected);
  m_services.storage->FailNextDeserialize();
  EXPECT_EQ(FromXml(xml, Ref(back, m_idsDescriptor)), zel::result::Unexpected);
  EXPECT_EQ(FromXml(xml, Ref(back, m_idsDescriptor)), 0);
  EXPECT_TRUE(back.list == ids.list);
}

}  // namespace
