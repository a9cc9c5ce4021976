// The zel exception family and its conversion to a result_t at an interface
// boundary.
//
// Exceptions never cross an interface: every interface operation ends in
//
//   catch (...) { return zel::ResultFromCurrentException(tracer, "<signature>"); }
//
// which turns the exception in flight (and any nested in it) into a code and
// one level-300 trace line. Inside the module a failure is thrown as, e.g.,
//
//   throw zel::CheckResultFailedException(__FILE__, __LINE__, "Expression failed", r) << "Cannot apply settings";
//
// Copies of an exception share one ExceptionDetails block (narrow text,
// properties, the cached what() text) through a RefPtr; the wide message of
// zel::Exception is copied.
#pragma once

#include <cstdint>
#include <exception>
#include <string_view>
#include <variant>

#include "zel/iobject.h"
#include "zel/iservice_locator.h"
#include "zel/itracer.h"
#include "zel/result.h"
#include "zel/rtl/objbase.h"
#include "zel/types/compact_string.h"
#include "zel/types/fixed_string.h"
#include "zel/types/string.h"
#include "zel/types/vector.h"

namespace zel {

class TraceStream;

// ---- details shared by the copies of one exception --------------------------------

// A module that stack addresses are resolved against.
struct ExceptionModule {
  string_t name;
  string_t detail;
  std::uint64_t base = 0;
  std::uint64_t size = 0;
};

// Type codes of property values that the text form knows.
namespace property_type {
inline constexpr std::uint32_t NarrowString = 7;
inline constexpr std::uint32_t WideString = 8;
inline constexpr std::uint32_t Int32 = 20;
inline constexpr std::uint32_t UInt32 = 21;
inline constexpr std::uint32_t Int64 = 22;
inline constexpr std::uint32_t UInt64 = 23;
}  // namespace property_type

// Property keys and the type ids that go with them.
namespace property_key {
inline constexpr std::string_view Result = "zel.result";
inline constexpr std::string_view Iid = "zel.iid";
inline constexpr std::string_view ServiceKey = "zel.serviceKey";
inline constexpr std::string_view TypeId = "zel.typeid";
inline constexpr std::string_view OsResult = "os.result";
inline constexpr std::string_view OsModuleResult = "os.module_result";

inline constexpr std::uint32_t ResultTypeId = 0x2B193A6F;
inline constexpr std::uint32_t IidTypeId = 0x7B884055;
inline constexpr std::uint32_t ServiceKeyTypeId = 0x674A5EF8;
inline constexpr std::uint32_t TypeIdTypeId = 0x36034B4E;
}  // namespace property_key

// A property's value; monostate is "no value".
using ExceptionValue =
    std::variant<std::monostate, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t, string_t, wstring_t>;

struct ExceptionProperty {
  // At most 31 bytes; the last byte holds the room left.
  basic_fixed_string<32> name;
  ExceptionValue value;
  std::uint32_t typeCode = 0;
  std::uint32_t typeId = 0;
};

struct ExceptionDetails : RefCountedBlock<ExceptionDetails> {
  CompactString text;       // the narrow text given to the constructor
  CompactString whatCache;  // what(), built at its first call
  types::vector_t<std::uint64_t> callStack;
  types::vector_t<ExceptionModule> modules;  // sorted by base
  types::vector_t<ExceptionProperty> properties;  // in order of first insertion
  string_t reserved;
};

// ---- the class tree ---------------------------------------------------------------

// Root of the family: where it was thrown, plus the shared details.
class exception : public std::exception {
 public:
  // No details at all.
  exception(const char* file, int line) noexcept : file(file), line(line) {}
  // Details with `text` and no properties.
  exception(const char* file, int line, std::string_view text);
  // "zel.result".
  exception(const char* file, int line, std::string_view text, result_t result);
  // "zel.result", "zel.typeid".
  exception(const char* file, int line, std::string_view text, result_t result, std::uint32_t typeId);
  // "zel.iid", "zel.serviceKey", "zel.result".
  exception(const char* file, int line, std::string_view text, iid_t iid, std::uint32_t serviceKey, result_t result);

  // Copies share the details.
  exception(const exception& other) noexcept = default;
  exception& operator=(const exception& other) noexcept = default;
  ~exception() override = default;

  // "file(line): text. ..." with the properties and the call stack, cached
  // in the details; "Unknown exception" when there are none. The cache is
  // filled without a lock: copies held by two threads must not both call
  // what() for the first time at once.
  const char* what() const noexcept override;

  const char* GetFile() const noexcept { return file; }
  int GetLine() const noexcept { return line; }
  // Null when nothing needed details yet.
  const ExceptionDetails* GetDetails() const noexcept { return details.Get(); }
  // The narrow constructor text; empty without details.
  std::string_view GetText() const noexcept;

  // Adds or replaces (in place) a property. A name over 31 bytes throws
  // std::bad_alloc, as running out of memory does.
  void SetProperty(std::string_view name, ExceptionValue value, std::uint32_t typeCode, std::uint32_t typeId = 0);
  // "zel.result" of type code 20.
  void SetResult(result_t result);
  // Null when absent.
  const ExceptionProperty* FindProperty(std::string_view name) const noexcept;

 protected:
  ExceptionDetails& EnsureDetails();

  const char* file;
  std::int32_t line;
  RefPtr<ExceptionDetails> details;
};

// A zel::exception with a user-facing wide message.
class Exception : public exception {
 public:
  Exception(const char* file, int line) noexcept : exception(file, line) {}
  Exception(const char* file, int line, std::u16string_view wideText);
  Exception(const char* file, int line, std::string_view text, result_t result) : exception(file, line, text, result) {}
  Exception(const char* file, int line, std::string_view text, result_t result, std::uint32_t typeId)
      : exception(file, line, text, result, typeId) {}

  ~Exception() override;
  const char* what() const noexcept override { return exception::what(); }
  // The message; result-code exceptions add the code.
  virtual wstring_t GetDescription() const;

  const wstring_t& GetMessage() const noexcept { return message; }
  // Widens `text` through a standard wide stream (the global locale's
  // widen) and appends it; a byte that does not widen to a code point makes
  // the whole piece empty, so messages are expected to be ASCII.
  void AppendMessage(const char* text);
  void AppendMessage(std::u16string_view text);

 protected:
  wstring_t message;
};

// Gives a concrete class streaming that returns the class itself, so that
// `throw X(...) << "text";` throws an X.
template <class Derived, class Base>
class ExceptionBase : public Base {
 public:
  using Base::Base;

  Derived& operator<<(const char* text) {
    this->AppendMessage(text);
    return static_cast<Derived&>(*this);
  }
  Derived& operator<<(std::u16string_view text) {
    this->AppendMessage(text);
    return static_cast<Derived&>(*this);
  }
};

// An exception that carries a code in "zel.result".
class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
 public:
  using ExceptionBase::ExceptionBase;
  // "message: 0x%08x (text)", or without "message: " when it is empty.
  wstring_t GetDescription() const override;
};

// A check on a result failed ("Expression failed").
class CheckResultFailedException : public ExceptionBase<CheckResultFailedException, ResultCodeException> {
 public:
  using ExceptionBase::ExceptionBase;
};

// A system call failed; the code is set after construction.
class SystemException : public ExceptionBase<SystemException, ResultCodeException> {
 public:
  using ExceptionBase::ExceptionBase;
};

// A condition without a code failed: file and line only.
class CheckFailedException : public ExceptionBase<CheckFailedException, Exception> {
 public:
  using ExceptionBase::ExceptionBase;
};

class RuntimeError : public ExceptionBase<RuntimeError, Exception> {
 public:
  using ExceptionBase::ExceptionBase;
};

// A service could not be had ("Can't get interface"); rendered by what() only.
class GetInterfaceException : public exception {
 public:
  GetInterfaceException(const char* file, int line, iid_t iid, std::uint32_t serviceKey, result_t result);
  ~GetInterfaceException() override;
  const char* what() const noexcept override { return exception::what(); }
};

// Kept for lock wrappers.
class LockError : public std::exception {
 public:
  const char* what() const noexcept override { return "LockError"; }
};

// ---- conversion ---------------------------------------------------------------------

// The code an exception carries: "zel.result", else "os.result" mapped from
// errno, else "os.module_result" (loader text), else 0x80000151.
result_t GetResult(const exception& e) noexcept;

// One exception to a code; with a stream, its text is written there too.
result_t ResultFromException(std::exception_ptr e, TraceStream* stream) noexcept;

// For a catch-all: converts the exception in flight and every one nested in
// it; with a tracer, writes them all on one level-300 line behind `prefix`
// and a blank. The outermost decides the code; 0x80000150 when nothing is
// in flight. Both arguments may be null.
result_t ResultFromCurrentException(ITracer* tracer, const char* prefix) noexcept;

// As above with the tracer taken from `serviceLocator` (0x6EF3329B) when the
// locator is not null and has one; silent otherwise.
result_t ResultFromCurrentExceptionWithLocator(IServiceLocator* serviceLocator, const char* prefix) noexcept;

// The one-line form: "description. At file(line) ", UTF-8, width and fill
// of the stream honoured by UTF-16 units. Never throws: out of memory
// leaves the text empty.
TraceStream& operator<<(TraceStream& stream, const Exception& e) noexcept;

// Internal to the conversion; exposed for the tests.
namespace detail {
// GetResult's rule for a dynamic loader error text.
result_t ResultFromModuleError(std::string_view text) noexcept;
}  // namespace detail

}  // namespace zel
