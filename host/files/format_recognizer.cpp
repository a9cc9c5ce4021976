#include "host/files/format_recognizer.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "host/files/internal/content_sniffer.h"
#include "host/services/fault_switchboard.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace host {

namespace {

using files::detail::ByteSource;
using files::detail::Content;

struct KnownFormat {
  FormatId id;
  std::u16string_view name;
  std::u16string_view description;
};

constexpr std::array<KnownFormat, 8> kKnownFormats = {{
    {format_ids::kElfExecutable, u"ElfExecutable", u"ELF executable program"},
    {format_ids::kElfSharedObject, u"ElfSharedObject", u"ELF shared object"},
    {format_ids::kScript, u"Script", u"Script run by an interpreter"},
    {format_ids::kJavaScript, u"JavaScript", u"JavaScript program"},
    {format_ids::kJavaArchive, u"JavaArchive", u"Java archive"},
    {format_ids::kPythonBytecode, u"PythonBytecode", u"Compiled Python module"},
    {format_ids::kPeImage, u"PeImage", u"PE executable image"},
    {format_ids::kPeLibrary, u"PeLibrary", u"PE dynamic-link library"},
}};

const KnownFormat* FindFormat(FormatId id) noexcept {
  const auto it = std::find_if(kKnownFormats.begin(), kKnownFormats.end(),
                               [id](const KnownFormat& f) { return f.id == id; });
  return it == kKnownFormats.end() ? nullptr : &*it;
}

// The answer for one content kind; the table in the header, as data.
struct Answer {
  std::uint32_t kind;
  std::array<FormatId, 2> ids;  // 0 ends the list early
};

constexpr std::uint32_t kSet = format_result_kind::Set;
constexpr std::uint32_t kCandidates = format_result_kind::Candidates;

Answer AnswerFor(Content content) noexcept {
  switch (content) {
    case Content::ElfExecutable: return {kSet, {format_ids::kElfExecutable, 0}};
    case Content::ElfSharedObject: return {kSet, {format_ids::kElfSharedObject, 0}};
    case Content::ShellScript:
    case Content::PythonScript:
    case Content::PerlScript:
    case Content::RubyScript: return {kSet, {format_ids::kScript, 0}};
    case Content::NodeScript: return {kSet, {format_ids::kJavaScript, format_ids::kScript}};
    case Content::Jar: return {kSet, {format_ids::kJavaArchive, 0}};
    case Content::Zip: return {kCandidates, {format_ids::kJavaArchive, 0}};
    case Content::PythonBytecode: return {kSet, {format_ids::kPythonBytecode, 0}};
    case Content::PeExecutable: return {kSet, {format_ids::kPeImage, 0}};
    case Content::PeLibrary: return {kSet, {format_ids::kPeImage, format_ids::kPeLibrary}};
    case Content::Unknown: break;
  }
  return {0, {0, 0}};
}

void FillRecord(FormatId id, std::uint32_t kind, FormatRecord& record) {
  const KnownFormat* format = FindFormat(id);
  record.id = id;
  record.flag = kind == kSet ? 1 : 0;
  record.name = zel::wstring_t(format != nullptr ? format->name : std::u16string_view());
  record.description = zel::wstring_t(format != nullptr ? format->description : std::u16string_view());
}

class Result final : public HeapObject<Result, FormatResult> {
 public:
  zel::result_t GetRecord(FormatRecord& record) override {
    try {
      record = m_record;
      return zel::result::NoError;
    } catch (...) {
      return zel::ResultFromCurrentException(nullptr, nullptr);
    }
  }
  zel::result_t GetKind(std::uint32_t& kind) override {
    kind = m_kind;
    return zel::result::NoError;
  }
  zel::result_t GetNext(FormatResult*& next) override {
    next = nullptr;
    if (!m_next) return zel::result::False;
    m_next->AddRef();
    next = m_next.Get();
    return zel::result::NoError;
  }

 private:
  friend class host::HeapAccess;
  Result(FormatId id, std::uint32_t kind, zel::RefPtr<Result> next) : m_kind(kind), m_next(std::move(next)) {
    FillRecord(id, kind, m_record);
  }
  ~Result() = default;

  FormatRecord m_record;
  const std::uint32_t m_kind;
  const zel::RefPtr<Result> m_next;
};

// The file through its IIO: absolute reads by seeking first.
class StreamSource final : public ByteSource {
 public:
  explicit StreamSource(zel::IIO* io) : m_io(io) {}

  zel::result_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> out, std::size_t* read) override {
    *read = 0;
    if (offset > static_cast<std::uint64_t>(INT64_MAX)) return zel::result::NoError;
    zel::result_t r = m_io->Seek(zel::seek_origin::Begin, static_cast<std::int64_t>(offset), nullptr);
    if (ZEL_FAILED(r)) return r;
    while (*read < out.size()) {
      std::uint32_t got = 0;
      r = m_io->Read(out.data() + *read, static_cast<std::uint32_t>(out.size() - *read), &got);
      if (ZEL_FAILED(r)) return r;
      if (got == 0) break;
      *read += got;
    }
    return zel::result::NoError;
  }

 private:
  zel::IIO* m_io;
};

class Recognizer final : public HeapObject<Recognizer, FormatRecognizer> {
 public:
  zel::result_t Recognize(const FormatPropertyList& /*properties*/, zel::IIO* io, FormatRecord* record,
                          FormatResult** result) override {
    try {
      if (io == nullptr || result == nullptr) return zel::result::InvalidArgument;
      *result = nullptr;
      if (const zel::result_t failure = m_failRecognize->load(); failure != 0) return failure;

      Content content = Content::Unknown;
      if (const zel::result_t r = Sniff(io, &content); ZEL_FAILED(r)) return r;

      // Build the chain from its end, keeping only the ids asked for.
      const Answer answer = AnswerFor(content);
      zel::RefPtr<Result> head;
      for (auto it = answer.ids.rbegin(); it != answer.ids.rend(); ++it) {
        if (*it == 0 || !Wanted(*it)) continue;
        head = MakeHeapObject<Result>(*it, answer.kind, std::move(head));
      }
      if (!head) return zel::result::False;
      if (record != nullptr) head->GetRecord(*record);
      *result = head.Detach();
      return zel::result::NoError;
    } catch (...) {
      return zel::ResultFromCurrentException(nullptr, nullptr);
    }
  }

 private:
  friend class host::HeapAccess;
  Recognizer(std::vector<FormatId> wanted, std::shared_ptr<std::atomic<zel::result_t>> failRecognize)
      : m_wanted(std::move(wanted)), m_failRecognize(std::move(failRecognize)) {}
  ~Recognizer() = default;

  bool Wanted(FormatId id) const noexcept { return std::find(m_wanted.begin(), m_wanted.end(), id) != m_wanted.end(); }

  // Reads the head from the start of the file and puts the position back,
  // whatever happens in between.
  static zel::result_t Sniff(zel::IIO* io, Content* content) {
    std::uint64_t position = 0;
    zel::result_t r = io->Tell(&position);
    if (ZEL_FAILED(r)) return r;
    std::array<std::uint8_t, kRecognizerHeadBytes> head;
    StreamSource source(io);
    std::size_t got = 0;
    r = source.ReadAt(0, head, &got);
    if (ZEL_SUCCEEDED(r)) r = files::detail::SniffContent(std::span(head.data(), got), &source, content);
    const zel::result_t back = io->Seek(zel::seek_origin::Begin, static_cast<std::int64_t>(position), nullptr);
    return ZEL_FAILED(r) ? r : back;
  }

  const std::vector<FormatId> m_wanted;
  const std::shared_ptr<std::atomic<zel::result_t>> m_failRecognize;
};

}  // namespace

FormatRecognizerService::FormatRecognizerService()
    : m_failRecognize(std::make_shared<std::atomic<zel::result_t>>(0)) {}

zel::result_t FormatRecognizerService::CreateRecognizerForAll(FormatRecognizer** out) {
  if (const zel::result_t fault = FaultAt(FaultPoint::FormatRecognizerCreate)) return fault;
  try {
    FormatIdList all;
    for (const KnownFormat& format : kKnownFormats) all.push_back(format.id);
    return CreateRecognizer(all, out);
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t FormatRecognizerService::GetFormatRecord(FormatId id, FormatRecord& record) {
  try {
    const KnownFormat* format = FindFormat(id);
    if (format == nullptr) return zel::result::NotFound;
    FormatRecord found;
    found.id = id;
    found.name = zel::wstring_t(format->name);
    found.description = zel::wstring_t(format->description);
    record = std::move(found);
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t FormatRecognizerService::CreateRecognizer(const FormatIdList& formats, FormatRecognizer** out) {
  if (const zel::result_t fault = FaultAt(FaultPoint::FormatRecognizerCreate)) return fault;
  try {
    if (out == nullptr) return zel::result::InvalidArgument;
    *out = nullptr;
    if (const zel::result_t failure = m_failCreate.load(); failure != 0) return failure;
    *out = MakeHeapObject<Recognizer>(std::vector<FormatId>(formats.begin(), formats.end()), m_failRecognize).Detach();
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

}  // namespace host
