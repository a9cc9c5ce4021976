#include "zel/rtl/error_handling/checks.h"

namespace zel {

TraceStream& operator<<(TraceStream& stream, const CheckHead& head) noexcept {
  return stream << head.file << ':' << head.line << '(' << head.expression << "),(" << head.kind << ") failed: ";
}

TraceStream& WriteFailedResult(TraceStream& stream, const char* file, int line, const char* expression,
                               result_t result) noexcept {
  return stream << CheckHead{file, line, expression, check_kind::Result} << "result = " << FormatResult(result);
}

TraceStream& WriteFailedCondition(TraceStream& stream, const char* file, int line, const char* expression) noexcept {
  return stream << CheckHead{file, line, expression, check_kind::Bool} << "result = false";
}

result_t CheckResultLog(ITracer* tracer, result_t result, const char* file, int line, const char* expression,
                        const char* message) noexcept {
  if (ZEL_FAILED(result)) {
    TraceRecord record;
    if (TraceTest(record, tracer, trace_level::Error)) {
      TraceStream stream(record);
      WriteFailedResult(stream, file, line, expression, result);
      if (message != nullptr) stream << message;
      TraceFlush(stream);
    }
  }
  return result;
}

bool CheckBoolLog(ITracer* tracer, bool condition, const char* file, int line, const char* expression,
                  const char* message) noexcept {
  if (!condition) {
    TraceRecord record;
    if (TraceTest(record, tracer, trace_level::Error)) {
      TraceStream stream(record);
      WriteFailedCondition(stream, file, line, expression);
      if (message != nullptr) stream << message;
      TraceFlush(stream);
    }
  }
  return condition;
}

void ThrowCheckResultFailed(const char* file, int line, result_t result, const char* message) {
  CheckResultFailedException e(file, line, "Expression failed", result);
  if (message != nullptr) e << message;
  throw e;
}

void ThrowCheckFailed(const char* file, int line) { throw CheckFailedException(file, line); }

}  // namespace zel
