// TraceStream formatting, growth and loss, and the TraceTest/TraceFlush
// protocol, observed through a collecting tracer.
#include "zel/trace/trace_stream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "host/services/collecting_tracer.h"
#include "host/services/host_object.h"
#include "zel/types/string.h"

namespace {

using host::CollectingTracer;
using zel::TraceRecord;
using zel::TraceStream;
namespace trace = zel::trace;

using Writer = std::function<void(TraceStream&)>;

// One line through the whole protocol; gives the committed text.
std::string Render(const Writer& write) {
  CollectingTracer tracer;
  TraceRecord record;
  if (!zel::TraceTest(record, &tracer, 800)) return "<not granted>";
  TraceStream stream(record);
  write(stream);
  zel::TraceFlush(stream);
  const auto texts = tracer.Texts();
  return texts.size() == 1 ? texts[0] : "<" + std::to_string(texts.size()) + " lines>";
}

struct Case {
  const char* name;
  Writer write;
  std::string expected;
};

zel::ResultText EmptyText(zel::result_t) noexcept { return {"", 0}; }

TEST(TraceStream, FormatsEachItem) {
  using trace::hex;
  using trace::oct;
  using trace::setfill;
  using trace::setw;
  using trace::showbase;
  const Case cases[] = {
      // Integers.
      {"zero", [](TraceStream& s) { s << 0; }, "0"},
      {"negative", [](TraceStream& s) { s << -42; }, "-42"},
      {"int64 min", [](TraceStream& s) { s << std::numeric_limits<std::int64_t>::min(); }, "-9223372036854775808"},
      {"uint64 max", [](TraceStream& s) { s << std::numeric_limits<std::uint64_t>::max(); }, "18446744073709551615"},
      {"int8 is a number", [](TraceStream& s) { s << std::int8_t{-1} << ' ' << std::uint8_t{200}; }, "-1 200"},
      {"short and long", [](TraceStream& s) { s << short{-7} << 8L << 9ULL; }, "-789"},
      {"hex unsigned", [](TraceStream& s) { s << hex << 255u; }, "ff"},
      {"hex showbase", [](TraceStream& s) { s << hex << showbase << 255; }, "0xff"},
      {"oct showbase", [](TraceStream& s) { s << oct << showbase << 8; }, "010"},
      {"hex negative int32 shows its bits", [](TraceStream& s) { s << hex << -1; }, "ffffffff"},
      {"hex negative int16", [](TraceStream& s) { s << hex << std::int16_t{-1}; }, "ffff"},
      {"hex negative int8", [](TraceStream& s) { s << hex << std::int8_t{-2}; }, "fe"},
      {"oct negative has no sign", [](TraceStream& s) { s << oct << -1; }, "37777777777"},
      {"showbase without hex/oct", [](TraceStream& s) { s << showbase << 10; }, "10"},
      {"hex|oct together is decimal",
       [](TraceStream& s) { s.setf(TraceStream::hex | TraceStream::oct, TraceStream::basefield), s << 255; }, "255"},
      {"base sticks across items", [](TraceStream& s) { s << hex << 10 << 11 << trace::dec << 12; }, "ab12"},
      // Width, fill and adjustment.
      {"right by default", [](TraceStream& s) { s << setw(6) << 42; }, "    42"},
      {"left", [](TraceStream& s) { s << trace::left << setw(6) << 42; }, "42    "},
      {"internal sign", [](TraceStream& s) { s << trace::internal << setfill('0') << setw(6) << -42; }, "-00042"},
      {"internal base",
       [](TraceStream& s) { s << trace::internal << trace::hex << trace::showbase << setfill('0') << setw(8) << 8; },
       "0x000008"},
      {"fill before prefix", [](TraceStream& s) { s << trace::hex << trace::showbase << setfill('.') << setw(6) << 8; },
       "...0x8"},
      {"width counts sign and base", [](TraceStream& s) { s << setw(3) << -42; }, "-42"},
      {"width is for one item", [](TraceStream& s) { s << setw(4) << 1 << 2; }, "   12"},
      {"narrower than item", [](TraceStream& s) { s << setw(2) << "abcd"; }, "abcd"},
      {"negative width is none", [](TraceStream& s) { s << setw(-5) << "ab"; }, "ab"},
      {"text", [](TraceStream& s) { s << setfill('*') << setw(5) << "ab" << '|'; }, "***ab|"},
      {"char", [](TraceStream& s) { s << setw(3) << 'x'; }, "  x"},
      {"bool", [](TraceStream& s) { s << trace::boolalpha << setw(6) << true; }, "  true"},
      {"optional", [](TraceStream& s) { s << setw(6) << std::optional<int>(); }, "  null"},
      {"write ignores width", [](TraceStream& s) { s << setw(5), s.write("ab", 2), s << 1; }, "ab    1"},
      // Text, bool and optional.
      {"padded null", [](TraceStream& s) { s << trace::setw(8) << static_cast<const char*>(nullptr); }, "  (null)"},
      {"known length keeps NUL", [](TraceStream& s) { s << std::string_view("a\0b", 3); }, std::string("a\0b", 3)},
      {"std::string", [](TraceStream& s) { s << std::string("Start") << "() "; }, "Start() "},
      {"bool digits", [](TraceStream& s) { s << true << false; }, "10"},
      {"bool words", [](TraceStream& s) { s << trace::boolalpha << true << ',' << false; }, "true,false"},
      {"present", [](TraceStream& s) { s << std::optional<int>(7) << std::optional<std::string>("x"); }, "7x"},
      // Floats.
      {"default fixed", [](TraceStream& s) { s << 1.5; }, "1.500000"},
      {"float promotes", [](TraceStream& s) { s << trace::setprecision(1) << 0.25f; }, "0.2"},
      {"scientific", [](TraceStream& s) { s << trace::scientific << 12345.678; }, "1.234568e+04"},
      {"fixed|scientific is fixed", [](TraceStream& s) { s.setf(TraceStream::floatfield), s << 1.5; }, "1.500000"},
      {"width then reset", [](TraceStream& s) { s << setw(8) << trace::setprecision(2) << 3.14159 << 1; },
       "    3.141"},
      {"negative", [](TraceStream& s) { s << trace::setprecision(0) << -2.0; }, "-2"},
      {"fill", [](TraceStream& s) { s << setfill('*') << setw(7) << trace::setprecision(1) << 2.5; }, "****2.5"},
      {"left", [](TraceStream& s) { s << trace::left << setw(6) << trace::setprecision(1) << -2.5; }, "-2.5  "},
      {"internal after sign",
       [](TraceStream& s) { s << trace::internal << setfill('0') << setw(7) << trace::setprecision(1) << -2.5; },
       "-0002.5"},
      // Wide text as UTF-8, width in UTF-16 units.
      {"ascii", [](TraceStream& s) { s << std::u16string_view(u"skip file "); }, "skip file "},
      {"framework string", [](TraceStream& s) { s << zel::wstring_t(u"/opt/\u00e9") << '|'; }, "/opt/\xc3\xa9|"},
      {"std::u16string", [](TraceStream& s) { s << std::u16string(u"ab"); }, "ab"},
      {"null pointer", [](TraceStream& s) { s << static_cast<const char16_t*>(nullptr); }, "(null)"},
      {"empty", [](TraceStream& s) { s << setw(2) << u"" << '|'; }, "  |"},
      // Width counts UTF-16 units: 2 units in 4 bytes pad by 2, not by none.
      {"width by units", [](TraceStream& s) { s << setw(4) << u"\u00e9\u00e9"; }, "  \xc3\xa9\xc3\xa9"},
      {"pair is two units", [](TraceStream& s) { s << setw(3) << u"\U0001F600"; }, " \xf0\x9f\x98\x80"},
      {"left fill", [](TraceStream& s) { s << trace::left << setfill('.') << setw(3) << u"\u20ac"; },
       "\xe2\x82\xac.."},
      {"width then reset", [](TraceStream& s) { s << setw(3) << u"a" << u"b"; }, "  ab"},
      // Result codes ignore the stream's format.
      {"with text", [](TraceStream& s) { s << zel::FormatResult(zel::result::InvalidArgument); },
       "0x80000046 (Invalid argument)"},
      {"zero padded", [](TraceStream& s) { s << zel::FormatResult(1); }, "0x00000001 (False)"},
      {"null lookup", [](TraceStream& s) { s << zel::ResultFormat{0, nullptr}; }, "0x00000000"},
      {"empty text", [](TraceStream& s) { s << zel::ResultFormat{5, &EmptyText}; }, "0x00000005"},
      {"width fill base ignored",
       [](TraceStream& s) {
         s << trace::setw(20) << trace::setfill('*') << trace::oct << trace::showbase << zel::ResultFormat{255, nullptr};
       },
       "0x000000ff"},
  };
  for (const Case& c : cases) EXPECT_EQ(Render(c.write), c.expected) << c.name;
  // The widest double in fixed notation comes out whole, not cut at a buffer.
  EXPECT_EQ(Render([](TraceStream& s) { s << 1e300; }).size(), 301u + 7u);
  EXPECT_EQ(Render([](TraceStream& s) { s << -1.7976931348623157e308; }).size(), 1u + 309u + 7u);
}

// Each row writes one line opened at level 700; growth is asked for at 1000,
// and a refused growth loses the text but never the line's bookkeeping.
TEST(TraceStreamGrowth, GrowsAtLevel1000OrLosesTheText) {
  using Growth = CollectingTracer::Growth;
  std::string wide(500, 'a');
  for (int i = 0; i < 300; ++i) wide += "\xc3\xa9";
  struct Row {
    const char* name;
    Growth growth;
    Writer write;
    std::vector<std::uint64_t> grows;
    std::vector<std::string> texts;
  } rows[] = {
      {"exactly full", Growth::Grant, [](TraceStream& s) { s << std::string(512, 'a'); }, {}, {std::string(512, 'a')}},
      {"doubled", Growth::Grant, [](TraceStream& s) { s << std::string(500, 'a') << std::string(100, 'b'); }, {1024},
       {std::string(500, 'a') + std::string(100, 'b')}},
      {"need beats double", Growth::Grant, [](TraceStream& s) { s << std::string(100, 'a') << std::string(3000, 'b'); },
       {3100}, {std::string(100, 'a') + std::string(3000, 'b')}},
      {"doubled twice", Growth::Grant, [](TraceStream& s) { s << std::string(1000, 'a') << std::string(100, 'b'); },
       {1024, 2048}, {std::string(1000, 'a') + std::string(100, 'b')}},
      {"padding counts", Growth::Grant, [](TraceStream& s) { s << trace::setw(600) << "x"; }, {1024},
       {std::string(599, ' ') + "x"}},
      // 300 units are 600 bytes of UTF-8: one request for all of them.
      {"wide text asks once", Growth::Grant,
       [](TraceStream& s) { s << std::string(500, 'a') << std::u16string(300, u'\u00e9'); }, {1100}, {wide}},
      // Refused: no room, and no further requests for what comes later.
      {"refused", Growth::RefuseKeep,
       [](TraceStream& s) { s << std::string(500, 'a') << std::string(100, 'b') << "later" << 42; }, {1024}, {""}},
      {"refused, buffer taken back", Growth::RefuseDrop, [](TraceStream& s) { s << std::string(600, 'a') << "b"; },
       {1024}, {}},
      {"wrapping size: no room without asking", Growth::Grant,
       [](TraceStream& s) { s << "abc", s.write("x", std::numeric_limits<std::size_t>::max()); }, {}, {""}},
      {"huge width refused, not written", Growth::Grant,
       [](TraceStream& s) { s << "abc" << trace::setw(std::int64_t{1} << 40) << 1; }, {(std::uint64_t{1} << 40) + 3},
       {""}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CollectingTracer tracer;
    tracer.SetGrowth(row.growth);
    TraceRecord record;
    ASSERT_TRUE(zel::TraceTest(record, &tracer, 700));
    TraceStream stream(record);
    row.write(stream);
    zel::TraceFlush(stream);
    const auto calls = tracer.AllocCalls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls[0].mode, CollectingTracer::AllocMode::Open);  // 512 bytes at the line's level
    EXPECT_EQ(calls[0].level, 700u);
    EXPECT_EQ(calls[0].size, 512u);
    std::vector<std::uint64_t> grows;
    for (const auto& call : calls) {
      if (call.mode != CollectingTracer::AllocMode::Grow) continue;
      EXPECT_EQ(call.level, 1000u);
      grows.push_back(call.size);
    }
    EXPECT_EQ(grows, row.grows);
    EXPECT_EQ(tracer.Texts(), row.texts);
    for (const auto& line : tracer.Lines()) EXPECT_EQ(line.level, 700u);  // kept from the opening
    EXPECT_EQ(tracer.CommitLineCount(), row.texts.size());
    EXPECT_EQ(tracer.OpenLines(), 0u);
  }
}

// Grants nothing but says yes: a tracer that must not be trusted blindly.
class SaysYesGivesNothing final : public host::OwnedObject<SaysYesGivesNothing, zel::ITracer> {
 public:
  zel::result_t AllocLine(std::uint32_t, TraceRecord*, std::uint64_t) override { return 0; }
  zel::result_t CommitLine(char*, std::uint64_t) override { return 0; }
};

TEST(TraceTest, AnswersNoWithoutALineAndFlushesAGrantedOneOnce) {
  TraceRecord record;
  EXPECT_FALSE(zel::TraceTest(record, nullptr, 300));

  CollectingTracer filtered(700);
  record.buffer = reinterpret_cast<char*>(&record);  // stale: TraceTest must clear it
  EXPECT_FALSE(zel::TraceTest(record, &filtered, 800));
  EXPECT_EQ(record.buffer, nullptr);
  EXPECT_EQ(record.tracer, nullptr);
  EXPECT_EQ(filtered.AllocLineCount(), 1u);

  SaysYesGivesNothing liar;
  EXPECT_FALSE(zel::TraceTest(record, &liar, 300));

  CollectingTracer tracer;
  ASSERT_TRUE(zel::TraceTest(record, &tracer, 300));
  EXPECT_NE(record.buffer, nullptr);
  EXPECT_EQ(record.tracer, &tracer);
  TraceStream stream(record);
  zel::TraceFlush(stream);
  zel::TraceFlush(stream);  // second flush has nothing to commit
  stream << "after";        // nor anywhere to write
  EXPECT_EQ(tracer.Texts(), std::vector<std::string>{""});
  EXPECT_EQ(record.buffer, nullptr);
  EXPECT_EQ(stream.buffer(), nullptr);
}

int g_evaluated = 0;
const char* Evaluated() {
  ++g_evaluated;
  return "value";
}

// Off level nothing is evaluated; on level the line is committed at the end
// of the statement, even when building it throws; an else binds to the caller.
TEST(TraceMacro, BehavesAsOneStatement) {
  CollectingTracer tracer(800);
  g_evaluated = 0;
  ZEL_TRACE(&tracer, 900) << "Start" << Evaluated();
  zel::ITracer* none = nullptr;
  ZEL_TRACE(none, 300) << Evaluated();
  EXPECT_EQ(g_evaluated, 0);
  EXPECT_EQ(tracer.AllocLineCount(), 1u);  // the refused line cost one call

  ZEL_TRACE(&tracer, 800) << "Start" << "() " << 5;
  ZEL_TRACE(&tracer, 300) << "second";
  const auto lines = tracer.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "Start() 5");
  EXPECT_EQ(lines[0].level, 800u);
  EXPECT_EQ(lines[1].text, "second");
  EXPECT_EQ(lines[1].level, 300u);

  // An else after a site binds to the caller's if.
  int elseTaken = 0;
  for (bool flag : {true, false}) {
    if (flag)
      ZEL_TRACE(&tracer, 800) << "yes";
    else
      ++elseTaken;
  }
  EXPECT_EQ(elseTaken, 1);
  EXPECT_EQ(tracer.Texts().back(), "yes");

  // A line whose building throws is still committed.
  auto boom = []() -> const char* { throw std::runtime_error("dump failed"); };
  EXPECT_THROW(ZEL_TRACE(&tracer, 800) << "partial " << boom(), std::runtime_error);
  EXPECT_EQ(tracer.OpenLines(), 0u);
  EXPECT_EQ(tracer.CommitLineCount(), 4u);
}

}  // namespace
