#include "host/serialization/xml_storage.h"

#include <cstring>
#include <new>
#include <vector>

#include "host/serialization/internal/xml_node.h"
#include "host/services/fault_switchboard.h"
#include "zel/rtl/error_handling/checks.h"

namespace host {
namespace {

using serialization_detail::XmlDocument;
using serialization_detail::XmlNode;

// Documents are read whole; a stream longer than this is refused.
constexpr std::uint64_t kMaxDocumentSize = 1ull << 31;

zel::result_t ReadAll(zel::IIO* io, std::vector<char>& out) {
  std::uint64_t size = 0;
  if (const zel::result_t r = io->GetSize(&size); ZEL_FAILED(r)) return r;
  if (size > kMaxDocumentSize) return zel::result::FileIsTooBig;
  if (const zel::result_t r = io->Seek(zel::seek_origin::Begin, 0, nullptr); ZEL_FAILED(r)) return r;
  out.resize(static_cast<std::size_t>(size));
  std::size_t filled = 0;
  while (filled < out.size()) {
    std::uint32_t read = 0;
    const auto want = static_cast<std::uint32_t>(out.size() - filled);
    if (const zel::result_t r = io->Read(out.data() + filled, want, &read); ZEL_FAILED(r)) return r;
    if (read == 0) break;  // the stream was shorter than it said
    filled += read;
  }
  out.resize(filled);
  return zel::result::NoError;
}

}  // namespace

zel::RefPtr<XmlStorageFactory> XmlStorageFactory::Create(zel::ITracer* tracer) {
  return MakeHeapObject<XmlStorageFactory>(tracer);
}

XmlStorageFactory::XmlStorageFactory(zel::ITracer* tracer)
    : m_tracer(tracer), m_faults(std::make_shared<serialization_detail::XmlFaults>()) {}

XmlStorageFactory::~XmlStorageFactory() = default;

void XmlStorageFactory::FailNextCreate(zel::result_t code) noexcept { m_faults->create.Arm(code); }
void XmlStorageFactory::FailNextOpen(zel::result_t code) noexcept { m_faults->open.Arm(code); }
void XmlStorageFactory::FailNextFlush(zel::result_t code) noexcept { m_faults->flush.Arm(code); }

zel::result_t XmlStorageFactory::CreateStorage(zel::IIO* io, const char* rootName, zel::IStorageNode** node) {
  if (const zel::result_t fault = FaultAt(FaultPoint::XmlStorageCreate)) return fault;
  zel::ITracer* tracer = m_tracer.Get();
  try {
    ZEL_CHECK_BOOL_LOG_RETURN(tracer, node != nullptr && rootName != nullptr && rootName[0] != '\0',
                              zel::result::InvalidArgument);
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, m_faults->create.Take(), "Injected failure");
    auto document = std::make_shared<XmlDocument>();
    document->io = zel::RefPtr<zel::IIO>(io);
    document->faults = m_faults;
    pugi::xml_node root = document->document.append_child(rootName);
    if (!root) return zel::result::OutOfMemory;
    *node = XmlNode::New(std::move(document), root);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(tracer, "XmlStorageFactory::CreateStorage: ");
  }
}

zel::result_t XmlStorageFactory::OpenStorage(zel::IIO* io, std::uint8_t readOnly, zel::IStorageNode** node) {
  if (const zel::result_t fault = FaultAt(FaultPoint::XmlStorageCreate)) return fault;
  zel::ITracer* tracer = m_tracer.Get();
  try {
    ZEL_CHECK_BOOL_LOG_RETURN(tracer, node != nullptr && io != nullptr, zel::result::InvalidArgument);
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, m_faults->open.Take(), "Injected failure");
    std::vector<char> text;
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, ReadAll(io, text), "Cannot read the XML document");
    auto document = std::make_shared<XmlDocument>();
    document->io = zel::RefPtr<zel::IIO>(io);
    document->readOnly = readOnly != 0;
    document->faults = m_faults;
    // A text that is all blanks is a value in its own right (a string of
    // spaces), so such text is kept where it is an element's only child.
    const pugi::xml_parse_result parsed = document->document.load_buffer(
        text.data(), text.size(), pugi::parse_default | pugi::parse_ws_pcdata_single, pugi::encoding_utf8);
    ZEL_CHECK_BOOL_LOG_RETURN(tracer, static_cast<bool>(parsed), zel::result::SyntaxError,
                              "Malformed XML: " << parsed.description() << " at offset " << parsed.offset);
    pugi::xml_node root = document->document.document_element();
    ZEL_CHECK_BOOL_LOG_RETURN(tracer, static_cast<bool>(root), zel::result::SyntaxError, "XML without a root element");
    *node = XmlNode::New(std::move(document), root);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(tracer, "XmlStorageFactory::OpenStorage: ");
  }
}

}  // namespace host
