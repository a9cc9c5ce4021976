#include "zel/rtl/error_handling/exceptions.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"
#include "zel/strings/conversions.h"
#include "zel/trace/trace_stream.h"

namespace zel {

namespace {

// Lower-case hex digits of `value`, zero-filled to `digits`; returns the end.
char* WriteHex(char* out, std::uint64_t value, int digits) {
  char tmp[16];
  int n = 0;
  do {
    tmp[n++] = "0123456789abcdef"[value & 0xF];
    value >>= 4;
  } while (value != 0);
  for (int i = n; i < digits; ++i) *out++ = '0';
  while (n > 0) *out++ = tmp[--n];
  return out;
}

void AppendDecimal(string_t& out, std::int64_t value) {
  char buf[24];
  const int n = std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(value));
  out.append(buf, static_cast<std::size_t>(n));
}

// "0x" and the hex digits of `value`, zero-filled to `digits`.
void AppendPrefixedHex(string_t& out, std::uint64_t value, int digits) {
  char buf[20] = {'0', 'x'};
  out.append(buf, static_cast<std::size_t>(WriteHex(buf + 2, value, digits) - buf));
}

void AppendPropertyValue(string_t& out, const ExceptionProperty& p) {
  const ExceptionValue& v = p.value;
  switch (p.typeCode) {
    case property_type::Int32:
      if (auto* x = std::get_if<std::int32_t>(&v)) return AppendPrefixedHex(out, static_cast<std::uint32_t>(*x), 8);
      break;
    case property_type::UInt32:
      if (auto* x = std::get_if<std::uint32_t>(&v)) return AppendPrefixedHex(out, *x, 8);
      break;
    case property_type::Int64:
      if (auto* x = std::get_if<std::int64_t>(&v)) return AppendPrefixedHex(out, static_cast<std::uint64_t>(*x), 16);
      break;
    case property_type::UInt64:
      if (auto* x = std::get_if<std::uint64_t>(&v)) return AppendPrefixedHex(out, *x, 16);
      break;
    case property_type::NarrowString:
      if (auto* x = std::get_if<string_t>(&v)) {
        out.append(x->view());
        return;
      }
      break;
    case property_type::WideString:
      if (auto* x = std::get_if<wstring_t>(&v)) {
        out.append(Utf16ToUtf8(x->view()).view());
        return;
      }
      break;
    default:
      break;
  }
  out.append(std::string_view("<typeid="));
  AppendDecimal(out, p.typeCode);
  out.append(std::string_view(">"));
}

void AppendCallStack(string_t& out, const ExceptionDetails& d) {
  const ExceptionModule* modulesBegin = d.modules.begin();
  const ExceptionModule* modulesEnd = d.modules.end();
  std::uint32_t counter = 0;
  for (const std::uint64_t address : d.callStack) {
    char buf[16];
    const int n = std::snprintf(buf, sizeof buf, "%2u# ", counter++);
    out.append(buf, static_cast<std::size_t>(n));
    // The first module that ends at or above the address.
    const ExceptionModule* m =
        std::lower_bound(modulesBegin, modulesEnd, address,
                         [](const ExceptionModule& module, std::uint64_t a) { return module.base + module.size < a; });
    char hex[16];
    if (m != modulesEnd && address >= m->base) {
      out.append(m->name.view());
      out.append(std::string_view("!"));
      out.append(m->detail.view());
      out.append(std::string_view("!"));
      out.append(hex, static_cast<std::size_t>(WriteHex(hex, address - m->base, 1) - hex));
    } else {
      out.append(hex, static_cast<std::size_t>(WriteHex(hex, address, 1) - hex));
    }
    out.append(std::string_view("\n"));
  }
}

void AppendAscii(wstring_t& out, std::string_view text) {
  for (const char c : text) out.push_back(static_cast<char16_t>(static_cast<unsigned char>(c)));
}

}  // namespace

// ---- zel::exception -------------------------------------------------------------------

exception::exception(const char* file, int line, std::string_view text) : file(file), line(line) {
  // The holder frees the block if the text can't be stored.
  details = RefPtr<ExceptionDetails>::Adopt(new ExceptionDetails());
  details->text.assign(text);
}

exception::exception(const char* file, int line, std::string_view text, result_t result)
    : exception(file, line, text) {
  // The delegated constructor completed, so the destructor cleans up on a throw.
  SetResult(result);
}

exception::exception(const char* file, int line, std::string_view text, result_t result, std::uint32_t typeId)
    : exception(file, line, text) {
  SetResult(result);
  SetProperty(property_key::TypeId, typeId, property_type::UInt32, property_key::TypeIdTypeId);
}

exception::exception(const char* file, int line, std::string_view text, iid_t iid, std::uint32_t serviceKey,
                     result_t result)
    : exception(file, line, text) {
  SetProperty(property_key::Iid, iid, property_type::UInt32, property_key::IidTypeId);
  SetProperty(property_key::ServiceKey, serviceKey, property_type::UInt32, property_key::ServiceKeyTypeId);
  SetResult(result);
}

ExceptionDetails& exception::EnsureDetails() {
  if (!details) details = RefPtr<ExceptionDetails>::Adopt(new ExceptionDetails());
  return *details;
}

std::string_view exception::GetText() const noexcept {
  return !details ? std::string_view() : details->text.view();
}

void exception::SetProperty(std::string_view name, ExceptionValue value, std::uint32_t typeCode,
                            std::uint32_t typeId) {
  ExceptionProperty property;
  if (!property.name.assign(name)) throw std::bad_alloc();
  ExceptionDetails& d = EnsureDetails();
  for (ExceptionProperty& existing : d.properties) {
    if (existing.name.view() == name) {
      existing.value = std::move(value);
      existing.typeCode = typeCode;
      existing.typeId = typeId;
      return;
    }
  }
  property.value = std::move(value);
  property.typeCode = typeCode;
  property.typeId = typeId;
  d.properties.push_back(std::move(property));
}

void exception::SetResult(result_t result) {
  SetProperty(property_key::Result, result, property_type::Int32, property_key::ResultTypeId);
}

const ExceptionProperty* exception::FindProperty(std::string_view name) const noexcept {
  if (!details) return nullptr;
  for (const ExceptionProperty& p : details->properties) {
    if (p.name.view() == name) return &p;
  }
  return nullptr;
}

const char* exception::what() const noexcept {
  if (!details) return "Unknown exception";
  if (!details->whatCache.empty()) return details->whatCache.c_str();
  try {
    string_t text;
    text.append(std::string_view(file != nullptr ? file : ""));
    text.append(std::string_view("("));
    AppendDecimal(text, line);
    text.append(std::string_view("): "));
    text.append(details->text.view());
    text.append(std::string_view("."));
    if (details->properties.empty()) {
      text.append(std::string_view(" "));
    } else {
      text.append(std::string_view(" Properties:\n"));
      bool first = true;
      for (const ExceptionProperty& p : details->properties) {
        if (!first) text.append(std::string_view("\n"));
        first = false;
        text.append(p.name.view());
        text.append(std::string_view("="));
        AppendPropertyValue(text, p);
      }
      text.append(std::string_view("\n"));
    }
    text.append(std::string_view("Call stack:\n"));
    AppendCallStack(text, *details);
    details->whatCache.assign(text.view());
    return details->whatCache.c_str();
  } catch (...) {
    return details->text.c_str();
  }
}

// ---- zel::Exception and the concrete classes ----------------------------------------------

Exception::Exception(const char* file, int line, std::u16string_view wideText)
    : exception(file, line), message(wideText) {}

Exception::~Exception() = default;

wstring_t Exception::GetDescription() const { return message; }

void Exception::AppendMessage(const char* text) {
  std::wostringstream widened;
  widened << text;
  const std::wstring w = widened.str();
  message.append(Utf32ToWide(std::wstring_view(w)).view());
}

void Exception::AppendMessage(std::u16string_view text) { message.append(text); }

wstring_t ResultCodeException::GetDescription() const {
  wstring_t text(message);
  if (!text.empty()) text.append(std::u16string_view(u": "));
  const result_t r = GetResult(*this);
  char buf[12] = {'0', 'x'};
  AppendAscii(text, std::string_view(buf, static_cast<std::size_t>(WriteHex(buf + 2, static_cast<std::uint32_t>(r), 8) - buf)));
  text.append(std::u16string_view(u" ("));
  AppendAscii(text, PlatformResultCodeText(r).view());
  text.append(std::u16string_view(u")"));
  return text;
}

GetInterfaceException::GetInterfaceException(const char* file, int line, iid_t iid, std::uint32_t serviceKey,
                                             result_t result)
    : exception(file, line, "Can't get interface", iid, serviceKey, result) {}

GetInterfaceException::~GetInterfaceException() = default;

// ---- conversion --------------------------------------------------------------------------

namespace detail {

result_t ResultFromModuleError(std::string_view text) noexcept {
  // The loader's text is taken as a C string of at most 255 bytes.
  char buffer[256];
  const std::size_t n = std::min(text.size(), sizeof buffer - 1);
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
  const std::size_t length = std::strlen(buffer);
  if (length == 0) return 0;
  constexpr std::string_view kUndefinedSymbol = "undefined symbol:";
  if (std::string_view(buffer, length).starts_with(kUndefinedSymbol)) return result::SymbolNotFound;
  return result::UnspecifiedPlatformError;
}

}  // namespace detail

result_t GetResult(const exception& e) noexcept {
  if (const ExceptionProperty* p = e.FindProperty(property_key::Result); p != nullptr && p->typeCode == property_type::Int32) {
    if (auto* v = std::get_if<std::int32_t>(&p->value)) return *v;
  }
  if (const ExceptionProperty* p = e.FindProperty(property_key::OsResult); p != nullptr && p->typeCode == property_type::UInt32) {
    if (auto* v = std::get_if<std::uint32_t>(&p->value)) return ResultFromErrno(*v);
  }
  if (const ExceptionProperty* p = e.FindProperty(property_key::OsModuleResult);
      p != nullptr && p->typeCode == property_type::NarrowString) {
    if (auto* v = std::get_if<string_t>(&p->value)) return detail::ResultFromModuleError(v->view());
  }
  return result::ExceptionHasNoResultCode;
}

namespace {

result_t FailureOrSuccessfulCode(result_t r) noexcept { return ZEL_FAILED(r) ? r : result::ExceptionWithSuccessfulResultCode; }

void PrintWhat(TraceStream* stream, const char* text) noexcept {
  if (stream != nullptr) *stream << text;
}

}  // namespace

result_t ResultFromException(std::exception_ptr e, TraceStream* stream) noexcept {
  try {
    std::rethrow_exception(std::move(e));
  } catch (const ResultCodeException& x) {
    if (stream != nullptr) *stream << static_cast<const Exception&>(x);
    return FailureOrSuccessfulCode(GetResult(x));
  } catch (const Exception& x) {
    if (stream != nullptr) *stream << x;
    return result::ExceptionHasNoResultCode;
  } catch (const exception& x) {
    PrintWhat(stream, x.what());
    return FailureOrSuccessfulCode(GetResult(x));
  } catch (const std::bad_alloc& x) {
    PrintWhat(stream, x.what());
    return result::OutOfMemory;
  } catch (const std::bad_cast& x) {
    PrintWhat(stream, x.what());
    return result::BadCast;
  } catch (const std::length_error& x) {
    PrintWhat(stream, x.what());
    return result::InvalidSize;
  } catch (const std::out_of_range& x) {
    PrintWhat(stream, x.what());
    return result::OutOfRange;
  } catch (const std::invalid_argument& x) {
    PrintWhat(stream, x.what());
    return result::InvalidArgument;
  } catch (const std::exception& x) {
    PrintWhat(stream, x.what());
    return result::ExceptionHasNoResultCode;
  } catch (...) {
    PrintWhat(stream, "unknown exception");
    return result::UnknownException;
  }
}

result_t ResultFromCurrentException(ITracer* tracer, const char* prefix) noexcept {
  TraceRecord record;
  const bool tracing = TraceTest(record, tracer, trace_level::Error);
  // The stream only touches the record's buffer when tracing is on.
  TraceStream stream(record);
  if (tracing && prefix != nullptr) stream << prefix << ' ';

  std::exception_ptr current = std::current_exception();
  result_t result = 0;
  while (current) {
    const result_t r = ResultFromException(current, tracing ? &stream : nullptr);
    if (result == 0) result = r;
    if (!tracing) break;
    try {
      std::rethrow_exception(current);
    } catch (const std::nested_exception& nested) {
      current = nested.nested_ptr();
    } catch (...) {
      current = nullptr;
    }
  }
  if (tracing) TraceFlush(stream);
  return result != 0 ? result : result::NoCurrentException;
}

result_t ResultFromCurrentExceptionWithLocator(IServiceLocator* serviceLocator, const char* prefix) noexcept {
  // Without a locator or a tracer the conversion runs untraced.
  RefPtr<ITracer> tracer;
  if (serviceLocator != nullptr) static_cast<void>(GetInterface(serviceLocator, tracer.Ref()));
  return ResultFromCurrentException(tracer.Get(), prefix);
}

TraceStream& operator<<(TraceStream& stream, const Exception& e) noexcept {
  wstring_t text;
  try {
    text = e.GetDescription();
    text.append(std::u16string_view(u". At "));
    const char* file = e.GetFile();
    text.append(Utf8ToWide(std::string_view(file != nullptr ? file : "")).view());
    text.append(std::u16string_view(u"("));
    char buf[16];
    const int n = std::snprintf(buf, sizeof buf, "%d", e.GetLine());
    AppendAscii(text, std::string_view(buf, static_cast<std::size_t>(n)));
    text.append(std::u16string_view(u") "));
  } catch (...) {
    text.clear();
  }
  const std::u16string_view view = text.view();
  return stream.WriteItem({}, Utf16ToUtf8Length(view), view.size(),
                          [view](char* out) noexcept { return Utf16ToUtf8(view, out); });
}

// ---- object runtime hooks -------------------------------------------------------------------

namespace detail {

void ThrowGetInterfaceException(const char* file, int line, iid_t iid, std::uint32_t serviceKey, result_t result) {
  throw GetInterfaceException(file, line, iid, serviceKey, result);
}

result_t ResultFromConstructionException(IServiceLocator* serviceLocator) noexcept {
  return ResultFromCurrentExceptionWithLocator(serviceLocator, "Exception during object construction: ");
}

}  // namespace detail

}  // namespace zel
