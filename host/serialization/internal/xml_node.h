// The storage node behind host::XmlStorageFactory: one element of a pugixml
// document that is shared by all nodes taken from it and written to its
// stream on Flush. The host's storage serialiser reaches the element itself
// through the private interface id kXmlNodeIid.
//
// A document and its nodes are for one thread at a time; only the reference
// counts are atomic.
#pragma once

#include <memory>

#include <pugixml.hpp>

#include "host/serialization/internal/ref_counted.h"
#include "host/services/host_object.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/iserializers.h"

namespace host::serialization_detail {

// Answered only by XmlNode; the pointer given back is an IStorageNode* that
// is an XmlNode.
inline constexpr zel::iid_t kXmlNodeIid = 0x6B1D93E2;

// Armed by tests through the factory, consulted by every document it made.
struct XmlFaults {
  FailNext create;
  FailNext open;
  FailNext flush;
};

struct XmlDocument {
  pugi::xml_document document;
  zel::RefPtr<zel::IIO> io;
  bool readOnly = false;
  std::shared_ptr<XmlFaults> faults;
};

class XmlNode final : public HeapObject<XmlNode, zel::IStorageNode> {
 public:
  static zel::IStorageNode* New(std::shared_ptr<XmlDocument> document, pugi::xml_node element);

  // Also answers kXmlNodeIid, with the IStorageNode face.
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override;

  zel::result_t GetName(const char** name) override;
  zel::result_t GetChildCount(std::uint32_t* count) override;
  zel::result_t GetChild(std::uint32_t index, zel::IStorageNode** child) override;
  zel::result_t FindChild(const char* name, zel::IStorageNode** child) override;
  zel::result_t AddChild(const char* name, zel::IStorageNode** child) override;
  zel::result_t RemoveChild(const char* name) override;
  // 0x80000044 when the text was cut to `size` bytes.
  zel::result_t GetValue(char* buffer, std::uint32_t size, std::uint32_t* needed) override;
  zel::result_t SetValue(const char* text, std::uint32_t length) override;
  zel::result_t GetAttribute(const char* name, char* buffer, std::uint32_t size, std::uint32_t* needed) override;
  zel::result_t SetAttribute(const char* name, const char* value) override;
  zel::result_t GetParent(zel::IStorageNode** parent) override;
  zel::result_t Clear() override;
  // Writes the document through its stream: replaced from the start. A
  // read-only document or one without a stream has nothing to write (1).
  zel::result_t Flush() override;

  pugi::xml_node Element() const noexcept { return m_element; }
  bool ReadOnly() const noexcept { return m_document->readOnly; }

 private:
  friend class host::HeapAccess;
  XmlNode(std::shared_ptr<XmlDocument> document, pugi::xml_node element)
      : m_document(std::move(document)), m_element(element) {}
  ~XmlNode() = default;

  std::shared_ptr<XmlDocument> m_document;
  pugi::xml_node m_element;
};

// The XmlNode behind `node`, or null for a node of another kind.
XmlNode* AsXmlNode(zel::IStorageNode* node) noexcept;

}  // namespace host::serialization_detail
