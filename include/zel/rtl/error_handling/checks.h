// Checks: test a result or a condition once and, on failure, either write
// the level-300 check line and hand the failure back, or throw.
//
// The check line reads, with no blank in front of the message:
//
//   file:line(expression),(ZEL_SUCCEEDED(_result)) failed: result = 0x80000046 (Invalid argument)message
//   file:line(expression),(bool) failed: result = falsemessage
//
// Macros (each evaluates its expression exactly once; the tracer, the
// message and the code are evaluated only on failure, and the message only
// when the tracer wants the line). The message arguments are trace stream
// items, e.g. `"Cannot open " << path`; they may be left out. For the throw
// forms they are what zel::Exception streams: narrow C strings or UTF-16
// views.
//
//   ZEL_CHECK_RESULT_LOG_RETURN(tracer, expr, msg...)     statement: on failure log, `return` the result
//   ZEL_CHECK_RESULT_LOG(tracer, expr, msg...)            expression of type result_t: on failure log;
//                                                         yields the result, e.g.
//                                                           const result_t r = ZEL_CHECK_RESULT_LOG(t, Load(), "Cannot load");
//                                                           if (ZEL_FAILED(r)) { ...; return r; }
//   ZEL_CHECK_BOOL_LOG_RETURN(tracer, cond, code, msg...) statement: on false log, `return code`
//   ZEL_CHECK_BOOL_LOG(tracer, cond, msg...)              expression of type bool: on false log; yields cond
//   ZEL_CHECK_RESULT_THROW(expr, msg...)                  statement: on failure throw
//                                                         CheckResultFailedException("Expression failed", result) << msg
//   ZEL_CHECK_BOOL_THROW(cond, code, msg...)              statement: on false throw the same with `code`
//   ZEL_CHECK_THROW(cond)                                 statement: on false throw CheckFailedException(file, line)
//
// The two expression forms are lambdas and so only work inside a function.
// Getting a service or throwing is zel::GetInterface(locator, holder) of
// zel/rtl/objclient.h. Sites without macros use the functions below.
#pragma once

#include <cstdint>

#include "zel/itracer.h"
#include "zel/result.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/trace/trace_stream.h"

namespace zel {

// The kinds of check in the head of a check line.
namespace check_kind {
inline constexpr const char* Result = "ZEL_SUCCEEDED(_result)";
inline constexpr const char* Bool = "bool";
}  // namespace check_kind

// "file:line(expression),(kind) failed: " as one trace stream item.
struct CheckHead {
  const char* file;
  int line;
  const char* expression;
  const char* kind;
};
TraceStream& operator<<(TraceStream& stream, const CheckHead& head) noexcept;

// The check line up to the message, into a granted line.
TraceStream& WriteFailedResult(TraceStream& stream, const char* file, int line, const char* expression,
                               result_t result) noexcept;
TraceStream& WriteFailedCondition(TraceStream& stream, const char* file, int line, const char* expression) noexcept;

// Function forms of check-and-log: when the check fails, write the whole
// line (message may be null) at level 300. They give back their input.
result_t CheckResultLog(ITracer* tracer, result_t result, const char* file, int line, const char* expression,
                        const char* message = nullptr) noexcept;
bool CheckBoolLog(ITracer* tracer, bool condition, const char* file, int line, const char* expression,
                  const char* message = nullptr) noexcept;

// Function forms of check-and-throw. Nothing is traced.
[[noreturn]] void ThrowCheckResultFailed(const char* file, int line, result_t result, const char* message = nullptr);
[[noreturn]] void ThrowCheckFailed(const char* file, int line);
inline void CheckResultThrow(result_t result, const char* file, int line, const char* message = nullptr) {
  if (ZEL_FAILED(result)) ThrowCheckResultFailed(file, line, result, message);
}

}  // namespace zel

// ---- macros ---------------------------------------------------------------------------

// Writes one check line if `tracer` wants level 300. `head` is a call that
// writes the line up to the message and gives the stream back.
#define ZEL_DETAIL_CHECK_LOG(tracer, head, ...)                                                         \
  if (::zel::TraceRecord zel_check_record_;                                                             \
      ::zel::TraceTest(zel_check_record_, (tracer), ::zel::trace_level::Error)) {                      \
    ::zel::detail::TraceLineScope zel_check_line_(zel_check_record_);                                   \
    ::zel::head __VA_OPT__(<< __VA_ARGS__);                                                             \
  }

#define ZEL_DETAIL_LOG_FAILED_RESULT(tracer, result, exprText, ...)                                     \
  ZEL_DETAIL_CHECK_LOG(tracer, WriteFailedResult(zel_check_line_.Stream(), __FILE__, __LINE__, exprText, result), \
                       __VA_ARGS__)

#define ZEL_DETAIL_LOG_FAILED_CONDITION(tracer, exprText, ...)                                           \
  ZEL_DETAIL_CHECK_LOG(tracer, WriteFailedCondition(zel_check_line_.Stream(), __FILE__, __LINE__, exprText), \
                       __VA_ARGS__)

#define ZEL_CHECK_RESULT_LOG_RETURN(tracer, expr, ...)                                                  \
  do {                                                                                                  \
    const ::zel::result_t zel_check_result_ = (expr);                                                   \
    if (ZEL_FAILED(zel_check_result_)) {                                                                \
      ZEL_DETAIL_LOG_FAILED_RESULT(tracer, zel_check_result_, #expr, __VA_ARGS__)                       \
      return zel_check_result_;                                                                         \
    }                                                                                                   \
  } while (false)

#define ZEL_CHECK_RESULT_LOG(tracer, expr, ...)                                                         \
  ([&]() -> ::zel::result_t {                                                                           \
    const ::zel::result_t zel_check_result_ = (expr);                                                   \
    if (ZEL_FAILED(zel_check_result_)) {                                                                \
      ZEL_DETAIL_LOG_FAILED_RESULT(tracer, zel_check_result_, #expr, __VA_ARGS__)                       \
    }                                                                                                   \
    return zel_check_result_;                                                                           \
  }())

#define ZEL_CHECK_BOOL_LOG_RETURN(tracer, cond, code, ...)                                              \
  do {                                                                                                  \
    if (!(cond)) {                                                                                      \
      ZEL_DETAIL_LOG_FAILED_CONDITION(tracer, #cond, __VA_ARGS__)                                       \
      return (code);                                                                                    \
    }                                                                                                   \
  } while (false)

#define ZEL_CHECK_BOOL_LOG(tracer, cond, ...)                                                           \
  ([&]() -> bool {                                                                                      \
    if (static_cast<bool>(cond)) return true;                                                           \
    ZEL_DETAIL_LOG_FAILED_CONDITION(tracer, #cond, __VA_ARGS__)                                         \
    return false;                                                                                       \
  }())

#define ZEL_CHECK_RESULT_THROW(expr, ...)                                                               \
  do {                                                                                                  \
    const ::zel::result_t zel_check_result_ = (expr);                                                   \
    if (ZEL_FAILED(zel_check_result_)) {                                                                \
      throw ::zel::CheckResultFailedException(__FILE__, __LINE__, "Expression failed", zel_check_result_) \
          __VA_OPT__(<< __VA_ARGS__);                                                                   \
    }                                                                                                   \
  } while (false)

#define ZEL_CHECK_BOOL_THROW(cond, code, ...)                                                           \
  do {                                                                                                  \
    if (!(cond)) {                                                                                      \
      throw ::zel::CheckResultFailedException(__FILE__, __LINE__, "Expression failed",                  \
                                              static_cast<::zel::result_t>(code)) __VA_OPT__(<< __VA_ARGS__); \
    }                                                                                                   \
  } while (false)

#define ZEL_CHECK_THROW(cond)                                                                           \
  do {                                                                                                  \
    if (!(cond)) throw ::zel::CheckFailedException(__FILE__, __LINE__);                                 \
  } while (false)
