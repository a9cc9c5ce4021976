// Input the host's serialisers must refuse: every truncation of a valid
// binary blob, corrupted bytes, crafted payloads behind a valid header, and
// malformed or mistyped XML. Each gives a failure code and a check line,
// and leaves the target record as it was, with nothing leaked.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/serialization/internal/crc32.h"
#include "serialization_fixture.h"

namespace {

using sertest::Everything;
using tov::app_control::ApplicationIds;

class BadInput : public sertest::SerializationTest {
 protected:
  // A sentinel target: whatever a failed read did to it would show.
  void ExpectUntouched(const ApplicationIds& ids) {
    ASSERT_EQ(ids.list.size(), 1u);
    EXPECT_EQ(ids.list[0], 0xABCDu);
  }
  static ApplicationIds Sentinel() {
    ApplicationIds ids;
    ids.list.push_back(0xABCD);
    return ids;
  }
  // A blob with a correct header (length and checksum) around `payload`.
  static std::vector<unsigned char> Blob(std::uint32_t serId, const std::vector<unsigned char>& payload) {
    std::vector<unsigned char> blob = {'Z', 'R', 'S', 'B', 1, 0, 0, 0};
    Put(blob, serId);
    Put(blob, static_cast<std::uint32_t>(payload.size()));
    Put(blob, host::serialization_detail::Crc32(payload.data(), payload.size()));
    blob.insert(blob.end(), payload.begin(), payload.end());
    return blob;
  }
  static void Put(std::vector<unsigned char>& out, std::uint32_t v) {
    unsigned char b[4];
    std::memcpy(b, &v, 4);
    out.insert(out.end(), b, b + 4);
  }
};

TEST_F(BadInput, EveryTruncationAndEveryCorruptedByteOfAValidBlobIsRefused) {
  Everything source = sertest::MakeEverything(&m_allocator);
  std::vector<unsigned char> blob;
  ASSERT_EQ(ToBinary(Ref(source, sertest::EverythingDescriptor()), blob), 0);
  for (std::size_t n = 0; n < 2 * blob.size(); ++n) {
    // Cut to n bytes (an exact-size copy, so that a read past the end is
    // caught by ASan), then whole with byte n - size flipped.
    std::vector<unsigned char> bad(blob.begin(), blob.begin() + static_cast<std::ptrdiff_t>(std::min(n, blob.size())));
    if (n >= blob.size()) bad[n - blob.size()] ^= 0x10;
    Everything target;
    target.i32 = 123;
    EXPECT_TRUE(ZEL_FAILED(FromBinary(bad, Ref(target, sertest::EverythingDescriptor())))) << n;
    EXPECT_EQ(target.i32, 123) << n;
    EXPECT_TRUE(target.anys.empty()) << n;
  }
  EXPECT_EQ(TakeErrorLines(), 2 * blob.size());
  source = Everything();
  EXPECT_EQ(m_allocator.LiveBlocks(), 0);
}

TEST_F(BadInput, CraftedPayloadsBehindAValidHeader) {
  const std::uint32_t ids = ApplicationIds::SerId;
  std::vector<unsigned char> oneId = {1, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
  std::vector<unsigned char> valid = Blob(ids, oneId);
  std::vector<unsigned char> badMagic = valid;
  badMagic[0] = 'X';
  std::vector<unsigned char> badVersion = valid;
  badVersion[4] = 2;
  std::vector<unsigned char> longer = valid;
  longer.push_back(0);  // length field no longer matches

  struct Case {
    const char* what;
    std::vector<unsigned char> blob;
    zel::result_t expected;
  };
  const Case cases[] = {
      {"count larger than the data", Blob(ids, {0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4, 5, 6, 7, 8}),
       zel::result::InvalidSize},
      {"count one too many", Blob(ids, {2, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}), zel::result::InvalidSize},
      {"trailing bytes", Blob(ids, {0, 0, 0, 0, 9}), zel::result::InvalidSize},
      {"empty payload", Blob(ids, {}), zel::result::InvalidSize},
      {"another record's id", Blob(sertest::Inner::SerId, oneId), zel::result::InvalidType},
      {"bad magic", badMagic, zel::result::InvalidSignature},
      {"bad version", badVersion, zel::result::InvalidVersion},
      {"length mismatch", longer, zel::result::InvalidSize},
  };
  for (const Case& c : cases) {
    ApplicationIds target = Sentinel();
    EXPECT_EQ(FromBinary(c.blob, Ref(target, m_idsDescriptor)), c.expected) << c.what;
    ExpectUntouched(target);
    EXPECT_EQ(TakeErrorLines(), 1u) << c.what;
  }
  ApplicationIds target;
  ASSERT_EQ(FromBinary(valid, Ref(target, m_idsDescriptor)), 0);
  EXPECT_EQ(target.list[0], 0x0807060504030201u);
}

TEST_F(BadInput, CraftedVariantsAndNestedRecords) {
  // Chain: u32 level, variant next.
  const auto chain = [](std::vector<unsigned char> variant) {
    std::vector<unsigned char> p = {1, 0, 0, 0};
    p.insert(p.end(), variant.begin(), variant.end());
    return p;
  };
  std::vector<unsigned char> deep;  // 1000 typed variants inside each other
  for (int i = 0; i < 1000; ++i) {
    deep.insert(deep.end(), {0, 0, 0, 0, 17, 0, 0, 0});
    Put(deep, sertest::Chain::SerId);
  }
  deep.insert(deep.end(), {0, 0, 0, 0, 0, 0, 0, 0});
  struct Case {
    const char* what;
    std::vector<unsigned char> payload;
    zel::result_t expected;
  };
  const Case cases[] = {
      {"unknown tag", chain({99, 0, 0, 0}), zel::result::InvalidType},
      {"interface reference", chain({13, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), zel::result::InvalidType},
      {"by-reference tag", chain({14, 0x40, 0, 0, 0, 0, 0, 0}), zel::result::InvalidType},
      {"string longer than the data", chain({14, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 'a'}), zel::result::InvalidSize},
      {"typed object of unknown id", chain({17, 0, 0, 0, 1, 2, 3, 4}), zel::result::NotFound},
      {"typed object cut short", chain({17, 0, 0, 0, 3, 0, 0x57, 0x7E, 1}), zel::result::InvalidSize},
      {"nesting too deep", deep, zel::result::OutOfRange},
  };
  for (const Case& c : cases) {
    sertest::Chain target;
    target.level = 5;
    EXPECT_EQ(FromBinary(Blob(sertest::Chain::SerId, c.payload), Ref(target, sertest::ChainDescriptor())),
              c.expected)
        << c.what;
    EXPECT_EQ(target.level, 5u) << c.what;
    EXPECT_TRUE(target.next.empty()) << c.what;
  }
  EXPECT_EQ(m_allocator.LiveBlocks(), 0);

  // A bool byte other than 0 or 1 in an otherwise valid record.
  Everything source;
  std::vector<unsigned char> blob;
  ASSERT_EQ(ToBinary(Ref(source, sertest::EverythingDescriptor()), blob), 0);
  std::vector<unsigned char> payload(blob.begin() + 20, blob.end());
  payload[0] = 2;
  Everything target;
  EXPECT_EQ(FromBinary(Blob(Everything::SerId, payload), Ref(target, sertest::EverythingDescriptor())),
            zel::result::InvalidType);
}

TEST_F(BadInput, MalformedAndMistypedXml) {
  const auto doc = [](const std::string& body) { return "<?xml version=\"1.0\"?><root>" + body + "</root>"; };
  struct Case {
    const char* what;
    std::string xml;
    zel::result_t expected;
  };
  const Case cases[] = {
      {"empty", "", zel::result::SyntaxError},
      {"not closed", "<root><list><item>1</item></list>", zel::result::SyntaxError},
      {"garbage", "\x01\x02 not xml", zel::result::SyntaxError},
      {"letters for a number", doc("<list><item>12a</item></list>"), zel::result::InvalidType},
      {"negative for unsigned", doc("<list><item>-1</item></list>"), zel::result::InvalidType},
      {"too large", doc("<list><item>18446744073709551616</item></list>"), zel::result::InvalidType},
      {"blank around a number", doc("<list><item> 1</item></list>"), zel::result::InvalidType},
      {"empty number", doc("<list><item/></list>"), zel::result::InvalidType},
      {"element inside a number", doc("<list><item><x/></item></list>"), zel::result::InvalidType},
      {"wrong element in a vector", doc("<list><item>1</item><elem>2</elem></list>"), zel::result::InvalidType},
      {"text in a vector", doc("<list>5<item>1</item></list>"), zel::result::InvalidType},
  };
  for (const Case& c : cases) {
    ApplicationIds target = Sentinel();
    EXPECT_EQ(FromXml(c.xml, Ref(target, m_idsDescriptor)), c.expected) << c.what;
    ExpectUntouched(target);
    EXPECT_EQ(TakeErrorLines(), 1u) << c.what;
  }
}

TEST_F(BadInput, MistypedFieldsOfTheFullRecordInXml) {
  Everything source = sertest::MakeEverything(&m_allocator);
  std::string xml;
  ASSERT_EQ(ToXml(Ref(source, sertest::EverythingDescriptor()), xml), 0);
  struct Case {
    const char* what;
    std::string from, to;
  };
  const Case cases[] = {
      {"bool as a number", "<flag>true</flag>", "<flag>1</flag>"},
      {"int8 out of range", "<i8>-128</i8>", "<i8>-129</i8>"},
      {"uint16 out of range", "<u16>65535</u16>", "<u16>65536</u16>"},
      {"odd hex", "0041d83dde00", "0041d83dde0"},
      {"hex digit", "0041d83dde00", "0041d83dde0g"},
      {"unknown encoding", "<wide enc=\"hex\">", "<wide enc=\"b64\">"},
      {"variant tag unknown", "<item tag=\"9\">-5</item>", "<item tag=\"99\">-5</item>"},
      {"variant tag missing", "<item tag=\"9\">-5</item>", "<item>-5</item>"},
      {"variant int32 range", "<item tag=\"9\">-5</item>", "<item tag=\"9\">-2147483649</item>"},
      {"variant pair", "<item tag=\"16\">1 18446744073709551615</item>", "<item tag=\"16\">1</item>"},
      {"typed unknown id", "serId=\"2119630849\"", "serId=\"1\""},
      {"nested field mistyped", "<code>7</code>", "<code>seven</code>"},
      {"no text for a number", "<i16>-32768</i16>", "<i16 />"},
      {"no text for a bool", "<flag>true</flag>", "<flag />"},
  };
  for (const Case& c : cases) {
    std::string bad = xml;
    const std::size_t at = bad.find(c.from);
    ASSERT_NE(at, std::string::npos) << c.what;
    bad.replace(at, c.from.size(), c.to);
    Everything target;
    target.i32 = 9;
    EXPECT_TRUE(ZEL_FAILED(FromXml(bad, Ref(target, sertest::EverythingDescriptor())))) << c.what;
    EXPECT_EQ(target.i32, 9) << c.what;
    EXPECT_TRUE(target.anys.empty()) << c.what;
  }
  source = Everything();
  EXPECT_EQ(m_allocator.LiveBlocks(), 0);
}

TEST_F(BadInput, NullAndForeignArguments) {
  zel::RefPtr<zel::IBinarySerializer> binary;
  zel::RefPtr<zel::IStorageSerializer2> storage;
  ASSERT_EQ(zel::GetInterface(&m_locator, binary.Ref()), 0);
  ASSERT_EQ(zel::GetInterface(&m_locator, storage.Ref()), 0);
  ApplicationIds ids;
  unsigned char* ptr = nullptr;
  std::uint32_t len = 0;
  EXPECT_EQ(binary->Serialize(zel::anydescrptr(), &m_allocator, &ptr, len, 0), zel::result::InvalidArgument);
  EXPECT_EQ(binary->Serialize(Ref(ids, m_idsDescriptor), &m_allocator, &ptr, len, 1), zel::result::NotSupported);
  EXPECT_EQ(ptr, nullptr);
  m_allocator.FailAfter(0);
  EXPECT_EQ(binary->Serialize(Ref(ids, m_idsDescriptor), &m_allocator, &ptr, len, 0), zel::result::OutOfMemory);
  m_allocator.FailAfter(-1);
  EXPECT_EQ(len, 0u);
  // A storage node is required, and must be one of the host's.
  EXPECT_EQ(storage->Deserialize(Ref(ids, m_idsDescriptor), nullptr, zel::IStorageSerializer2::Flags::Default,
                                 nullptr),
            zel::result::InvalidArgument);
}

}  // namespace
