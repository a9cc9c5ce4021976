// Check-and-log lines, byte for byte, and check-and-throw, through the macros
// and the function forms.
#include "zel/rtl/error_handling/checks.h"

#include <gtest/gtest.h>

#include <string>

#include "host/services/collecting_tracer.h"

namespace {

using host::CollectingTracer;
using zel::result_t;

constexpr result_t kInvalidArgument = zel::result::InvalidArgument;
constexpr result_t kInvalidState = zel::result::InvalidState;

std::string At(int line) { return std::string(__FILE__) + ":" + std::to_string(line); }

struct Calls {
  int expr = 0;
  int message = 0;
  result_t Convert(result_t r) { return ++expr, r; }
  bool IsValid(bool v) { return ++expr, v; }
  const char* Message() { return ++message, "Cannot convert settings"; }
};

result_t LogReturn(zel::ITracer* tracer, Calls& c, result_t r, int& line) {
  // clang-format off
  line = __LINE__; ZEL_CHECK_RESULT_LOG_RETURN(tracer, c.Convert(r), c.Message());
  // clang-format on
  return 7;
}

result_t BoolLogReturn(zel::ITracer* tracer, Calls& c, bool v, int& line) {
  // clang-format off
  line = __LINE__; ZEL_CHECK_BOOL_LOG_RETURN(tracer, c.IsValid(v), kInvalidState, "Data refers to " << "nullptr");
  // clang-format on
  return 7;
}

TEST(CheckLog, ResultLineIsByteExactAndExpressionRunsOnce) {
  CollectingTracer tracer;
  Calls c;
  int line = 0;
  EXPECT_EQ(LogReturn(&tracer, c, kInvalidArgument, line), kInvalidArgument);
  ASSERT_EQ(tracer.Lines().size(), 1u);
  EXPECT_EQ(tracer.Lines()[0].level, 300u);
  EXPECT_EQ(tracer.Texts()[0], At(line) +
                                   "(c.Convert(r)),(ZEL_SUCCEEDED(_result)) failed: result = 0x80000046 (Invalid "
                                   "argument)Cannot convert settings");
  EXPECT_EQ(c.expr, 1);
  EXPECT_EQ(c.message, 1);

  // Success, and "False", pass without a line; the function goes on.
  EXPECT_EQ(LogReturn(&tracer, c, 1, line), 7);
  EXPECT_EQ(tracer.Lines().size(), 1u);

  // The level is tested before the message is built.
  CollectingTracer quiet(200);
  EXPECT_EQ(LogReturn(&quiet, c, kInvalidArgument, line), kInvalidArgument);
  EXPECT_EQ(LogReturn(nullptr, c, kInvalidArgument, line), kInvalidArgument);
  EXPECT_TRUE(quiet.Lines().empty());
  EXPECT_EQ(c.expr, 4);
  EXPECT_EQ(c.message, 1);
}

TEST(CheckLog, BoolLineAndTheExpressionForms) {
  CollectingTracer tracer;
  Calls c;
  int line = 0;
  EXPECT_EQ(BoolLogReturn(&tracer, c, false, line), kInvalidState);
  EXPECT_EQ(BoolLogReturn(&tracer, c, true, line), 7);
  // The expression forms yield their value and end at the bracket without a message.
  // clang-format off
  const int exprLine = __LINE__; const result_t r = ZEL_CHECK_RESULT_LOG(&tracer, c.Convert(kInvalidState));
  const bool ok = ZEL_CHECK_BOOL_LOG(&tracer, c.IsValid(true), "never");
  // clang-format on
  EXPECT_EQ(r, kInvalidState);
  EXPECT_TRUE(ok);
  EXPECT_EQ(c.expr, 4);
  ASSERT_EQ(tracer.Texts().size(), 2u);
  EXPECT_EQ(tracer.Texts()[0], At(line) + "(c.IsValid(v)),(bool) failed: result = falseData refers to nullptr");
  EXPECT_EQ(tracer.Texts()[1], At(exprLine) +
                                   "(c.Convert(kInvalidState)),(ZEL_SUCCEEDED(_result)) failed: result = 0x8000006a "
                                   "(Invalid state)");
}

TEST(CheckLog, FunctionFormsWriteTheSameLines) {
  CollectingTracer tracer;
  EXPECT_EQ(zel::CheckResultLog(&tracer, kInvalidArgument, "a/b.cpp", 469, "Start()", "Cannot start EAC task"),
            kInvalidArgument);
  EXPECT_FALSE(zel::CheckBoolLog(&tracer, false, "a/b.cpp", 52, "data.IsValid()", nullptr));
  EXPECT_EQ(zel::CheckResultLog(&tracer, 0, "a/b.cpp", 1, "x", "no"), 0);
  EXPECT_TRUE(zel::CheckBoolLog(&tracer, true, "a/b.cpp", 1, "x", "no"));
  const auto texts = tracer.Texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0],
            "a/b.cpp:469(Start()),(ZEL_SUCCEEDED(_result)) failed: result = 0x80000046 (Invalid argument)Cannot "
            "start EAC task");
  EXPECT_EQ(texts[1], "a/b.cpp:52(data.IsValid()),(bool) failed: result = false");
}

TEST(CheckThrow, FailuresThrowWithTheirCodeAndMessage) {
  Calls c;
  int line = 0;
  try {
    // clang-format off
    line = __LINE__; ZEL_CHECK_RESULT_THROW(c.Convert(kInvalidArgument), "Cannot apply " << "settings");
    // clang-format on
    FAIL() << "no throw";
  } catch (const zel::CheckResultFailedException& e) {
    EXPECT_EQ(e.GetText(), "Expression failed");
    EXPECT_EQ(e.GetLine(), line);
    EXPECT_EQ(zel::GetResult(e), kInvalidArgument);
    EXPECT_TRUE(e.GetDescription().view() == u"Cannot apply settings: 0x80000046 (Invalid argument)");
  }
  EXPECT_EQ(c.expr, 1);
  EXPECT_NO_THROW(ZEL_CHECK_RESULT_THROW(c.Convert(1)));
  EXPECT_EQ(c.expr, 2);

  // The condition forms and the function form.
  try {
    ZEL_CHECK_THROW(1 + 1 == 3);
    FAIL() << "no throw";
  } catch (const zel::CheckFailedException& e) {
    EXPECT_EQ(e.GetDetails(), nullptr);
    EXPECT_STREQ(e.GetFile(), __FILE__);
  }
  try {
    ZEL_CHECK_BOOL_THROW(false, kInvalidState);
    FAIL() << "no throw";
  } catch (const zel::CheckResultFailedException& e) {
    EXPECT_EQ(zel::GetResult(e), kInvalidState);
    EXPECT_TRUE(e.GetMessage().empty());
  }
  try {
    zel::CheckResultThrow(kInvalidState, "f.cpp", 9, "msg");
    FAIL() << "no throw";
  } catch (const zel::CheckResultFailedException& e) {
    EXPECT_TRUE(e.GetDescription().view() == u"msg: 0x8000006a (Invalid state)");
    EXPECT_EQ(e.GetLine(), 9);
  }
  EXPECT_NO_THROW(zel::CheckResultThrow(0, "f.cpp", 9));
}

}  // namespace
