#include "host/serialization/internal/xml_node.h"

#include <cstring>
#include <new>
#include <string>

namespace host::serialization_detail {
namespace {

// Writes pugixml's output through the stream and keeps the first failure.
class IoWriter final : public pugi::xml_writer {
 public:
  explicit IoWriter(zel::IIO* io) : m_io(io) {}
  void write(const void* data, std::size_t size) override {
    const auto* p = static_cast<const unsigned char*>(data);
    while (size != 0 && ZEL_SUCCEEDED(m_result)) {
      const auto chunk = static_cast<std::uint32_t>(size > 0x40000000u ? 0x40000000u : size);
      std::uint32_t written = 0;
      m_result = m_io->Write(p, chunk, &written);
      if (ZEL_SUCCEEDED(m_result) && written == 0) m_result = zel::result::OutOfSpace;
      p += written;
      size -= written;
    }
  }
  zel::result_t result() const noexcept { return m_result; }

 private:
  zel::IIO* m_io;
  zel::result_t m_result = zel::result::NoError;
};

zel::result_t CopyOut(const char* text, char* buffer, std::uint32_t size, std::uint32_t* needed) noexcept {
  const std::size_t length = std::strlen(text);
  if (length > 0xFFFFFFFFu) return zel::result::FileIsTooBig;
  if (needed != nullptr) *needed = static_cast<std::uint32_t>(length);
  if (buffer == nullptr && size != 0) return zel::result::InvalidArgument;
  const std::size_t n = length < size ? length : size;
  if (n != 0) std::memcpy(buffer, text, n);
  if (n < size) buffer[n] = '\0';
  return length > size ? zel::result::BufferTooSmall : zel::result::NoError;
}

}  // namespace

zel::IStorageNode* XmlNode::New(std::shared_ptr<XmlDocument> document, pugi::xml_node element) {
  return MakeHeapObject<XmlNode>(std::move(document), element).Detach();
}

XmlNode* AsXmlNode(zel::IStorageNode* node) noexcept {
  if (node == nullptr) return nullptr;
  void* p = nullptr;
  if (ZEL_FAILED(node->QueryInterface(kXmlNodeIid, &p)) || p == nullptr) return nullptr;
  auto* face = static_cast<zel::IStorageNode*>(p);
  face->Release();  // the caller holds `node`, which keeps it alive
  return static_cast<XmlNode*>(face);
}

zel::result_t XmlNode::QueryInterface(zel::iid_t iid, void** out) {
  return HeapObject::QueryInterface(iid == kXmlNodeIid ? zel::IStorageNode::iid : iid, out);
}

zel::result_t XmlNode::GetName(const char** name) {
  if (name == nullptr) return zel::result::InvalidArgument;
  *name = m_element.name();
  return zel::result::NoError;
}

zel::result_t XmlNode::GetChildCount(std::uint32_t* count) {
  if (count == nullptr) return zel::result::InvalidArgument;
  std::uint32_t n = 0;
  for (pugi::xml_node c = m_element.first_child(); c; c = c.next_sibling()) n += c.type() == pugi::node_element;
  *count = n;
  return zel::result::NoError;
}

zel::result_t XmlNode::GetChild(std::uint32_t index, zel::IStorageNode** child) {
  if (child == nullptr) return zel::result::InvalidArgument;
  try {
    for (pugi::xml_node c = m_element.first_child(); c; c = c.next_sibling()) {
      if (c.type() != pugi::node_element) continue;
      if (index-- == 0) {
        *child = New(m_document, c);
        return zel::result::NoError;
      }
    }
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::OutOfRange;
}

zel::result_t XmlNode::FindChild(const char* name, zel::IStorageNode** child) {
  if (name == nullptr || child == nullptr) return zel::result::InvalidArgument;
  pugi::xml_node c = m_element.child(name);
  if (!c) return zel::result::NotFound;
  try {
    *child = New(m_document, c);
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::NoError;
}

zel::result_t XmlNode::AddChild(const char* name, zel::IStorageNode** child) {
  if (name == nullptr || name[0] == '\0') return zel::result::InvalidArgument;
  if (ReadOnly()) return zel::result::AccessDenied;
  try {
    pugi::xml_node c = m_element.append_child(name);
    if (!c) return zel::result::OutOfMemory;
    if (child != nullptr) *child = New(m_document, c);
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::NoError;
}

zel::result_t XmlNode::RemoveChild(const char* name) {
  if (name == nullptr) return zel::result::InvalidArgument;
  if (ReadOnly()) return zel::result::AccessDenied;
  pugi::xml_node c = m_element.child(name);
  if (!c) return zel::result::NotFound;
  m_element.remove_child(c);
  return zel::result::NoError;
}

zel::result_t XmlNode::GetValue(char* buffer, std::uint32_t size, std::uint32_t* needed) {
  return CopyOut(m_element.child_value(), buffer, size, needed);
}

zel::result_t XmlNode::SetValue(const char* text, std::uint32_t length) {
  if (text == nullptr && length != 0) return zel::result::InvalidArgument;
  if (ReadOnly()) return zel::result::AccessDenied;
  try {
    const std::string value(text == nullptr ? "" : text, length);
    if (value.find('\0') != std::string::npos) return zel::result::InvalidArgument;
    if (!m_element.text().set(value.c_str())) return zel::result::OutOfMemory;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::NoError;
}

zel::result_t XmlNode::GetAttribute(const char* name, char* buffer, std::uint32_t size, std::uint32_t* needed) {
  if (name == nullptr) return zel::result::InvalidArgument;
  const pugi::xml_attribute a = m_element.attribute(name);
  if (!a) return zel::result::NotFound;
  return CopyOut(a.value(), buffer, size, needed);
}

zel::result_t XmlNode::SetAttribute(const char* name, const char* value) {
  if (name == nullptr || name[0] == '\0' || value == nullptr) return zel::result::InvalidArgument;
  if (ReadOnly()) return zel::result::AccessDenied;
  pugi::xml_attribute a = m_element.attribute(name);
  if (!a) a = m_element.append_attribute(name);
  if (!a || !a.set_value(value)) return zel::result::OutOfMemory;
  return zel::result::NoError;
}

zel::result_t XmlNode::GetParent(zel::IStorageNode** parent) {
  if (parent == nullptr) return zel::result::InvalidArgument;
  const pugi::xml_node p = m_element.parent();
  if (!p || p.type() != pugi::node_element) {
    *parent = nullptr;
    return zel::result::False;
  }
  try {
    *parent = New(m_document, p);
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
  return zel::result::NoError;
}

zel::result_t XmlNode::Clear() {
  if (ReadOnly()) return zel::result::AccessDenied;
  while (m_element.first_child()) m_element.remove_child(m_element.first_child());
  while (m_element.first_attribute()) m_element.remove_attribute(m_element.first_attribute());
  return zel::result::NoError;
}

zel::result_t XmlNode::Flush() {
  if (m_document->faults) {
    if (const zel::result_t r = m_document->faults->flush.Take(); ZEL_FAILED(r)) return r;
  }
  zel::IIO* io = m_document->io.Get();
  if (m_document->readOnly || io == nullptr) return zel::result::False;
  try {
    if (const zel::result_t r = io->SetSize(0); ZEL_FAILED(r)) return r;
    if (const zel::result_t r = io->Seek(zel::seek_origin::Begin, 0, nullptr); ZEL_FAILED(r)) return r;
    IoWriter writer(io);
    // Documents are records kept by the thousand, read only by this code:
    // no indentation and no declaration, which a reader does not need.
    m_document->document.save(writer, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
    if (ZEL_FAILED(writer.result())) return writer.result();
    return io->Flush();
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  }
}

}  // namespace host::serialization_detail
