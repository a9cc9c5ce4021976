// host::XmlStorageFactory: the host's zel::IXmlStorageFactory. It makes XML
// documents (pugixml) over an IIO stream: a new one with a chosen root
// element, or one read from the stream, and hands out the root as a
// zel::IStorageNode whose Flush writes the document back to the stream.
//
// Malformed XML is refused with 0x80000310 and a check line naming the
// parser's complaint and the byte offset; the node output stays null.
#pragma once

#include <memory>

#include "host/serialization/internal/ref_counted.h"
#include "host/services/host_object.h"
#include "zel/itracer.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/iserializers.h"

namespace host {

namespace serialization_detail {
struct XmlFaults;
}

class XmlStorageFactory final : public HeapObject<XmlStorageFactory, zel::IXmlStorageFactory> {
 public:
  // `tracer` may be null.
  static zel::RefPtr<XmlStorageFactory> Create(zel::ITracer* tracer);

  zel::result_t CreateStorage(zel::IIO* io, const char* rootName, zel::IStorageNode** node) override;
  zel::result_t OpenStorage(zel::IIO* io, std::uint8_t readOnly, zel::IStorageNode** node) override;

  // ---- test hooks -------------------------------------------------------------
  void FailNextCreate(zel::result_t code = zel::result::Unexpected) noexcept;
  void FailNextOpen(zel::result_t code = zel::result::Unexpected) noexcept;
  // The next Flush of any node of a document this factory made.
  void FailNextFlush(zel::result_t code = zel::result::Unexpected) noexcept;

 private:
  friend class host::HeapAccess;
  explicit XmlStorageFactory(zel::ITracer* tracer);
  ~XmlStorageFactory();

  zel::RefPtr<zel::ITracer> m_tracer;
  std::shared_ptr<serialization_detail::XmlFaults> m_faults;
};

}  // namespace host
