// SerObjDump<T>: a serialisable record as text for the trace, made from its
// structured (XML) form. A dump never breaks the operation it decorates:
// every failure becomes a text that says so,
//   "cannot dump name=<type> serid=0x<id> exception: <what>"   for a std::exception,
//   "cannot dump name=<type> serid=0x<id>"                      for anything else,
// with the id in lower-case hex without leading zeros. Only a failure to
// demangle T's name ("Type name demangling failed") gets out.
//
//   ZEL_TRACE(tracer, 800) << "ApplySettings" << "() " << " " << tov::TypeNameOf<T>() << ":\n"
//                          << tov::SerObjDump<T>(sl, &settings);
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <typeinfo>

#include <boost/format.hpp>
#include <boost/type_index/stl_type_index.hpp>

#include "tov_common/blob_tools.h"
#include "zel/iservice_locator.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/serialization/type_descriptor.h"
#include "zel/trace/trace_stream.h"
#include "zel/types/string.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace tov {

// The demangled name of T from its run-time type record; raises
// std::runtime_error("Type name demangling failed") when that fails.
template <class T>
std::string TypeNameOf() {
  return boost::typeindex::stl_type_index(typeid(T)).pretty_name();
}

template <class T>
class SerObjDump {
 public:
  static constexpr std::uint32_t kSerId = zel::SerObjId<T>::value;

  SerObjDump(zel::IServiceLocator* serviceLocator, const T* object) {
    try {
      const zel::anydescrptr data(const_cast<T*>(object), zel::GetTypeDescriptor(serviceLocator, kSerId));
      tools::Blob blob;
      const zel::result_t r = tools::AnyToXmlBlob(serviceLocator, data, blob);
      if (ZEL_FAILED(r)) {
        throw zel::CheckResultFailedException(__FILE__, __LINE__, "Expression failed", r) << "cannot serialize";
      }
      // One byte to one character; the string keeps its own terminating NUL.
      m_text.assign(reinterpret_cast<const char*>(blob.data()), blob.size());
    } catch (const std::exception& e) {
      Assign(boost::format("cannot dump name=%s serid=0x%x exception: %s") % TypeNameOf<T>() % kSerId % e.what());
    } catch (...) {
      Assign(boost::format("cannot dump name=%s serid=0x%x") % TypeNameOf<T>() % kSerId);
    }
  }

  const zel::string_t& Text() const noexcept { return m_text; }

 private:
  void Assign(const boost::format& format) {
    const std::string text = format.str();
    m_text.assign(text.data(), text.size());
  }

  zel::string_t m_text;
};

template <class T>
zel::TraceStream& operator<<(zel::TraceStream& stream, const SerObjDump<T>& dump) noexcept {
  return stream << dump.Text().view();
}

}  // namespace tov
