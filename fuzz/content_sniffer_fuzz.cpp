// Fuzzes the host's content recogniser (host/files/internal/content_sniffer.h)
// on arbitrary files: the input is the whole file, its first 512 bytes the
// head and the rest reachable through a ByteSource. Classifying never fails
// on readable bytes and names a known kind; the head alone (no source)
// classifies too, and for a file no longer than its head gives the same
// answer. The first "#!" line goes through the interpreter lookup.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "host/files/format_recognizer.h"
#include "host/files/internal/content_sniffer.h"

namespace {

using host::files::detail::Content;

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

// The file in memory; reads past its end are short, as a file's are.
class MemorySource final : public host::files::detail::ByteSource {
 public:
  explicit MemorySource(std::span<const std::uint8_t> file) : m_file(file) {}
  zel::result_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> out, std::size_t* read) override {
    *read = 0;
    if (offset < m_file.size()) {
      *read = std::min<std::size_t>(out.size(), m_file.size() - offset);
      std::memcpy(out.data(), m_file.data() + offset, *read);
    }
    return 0;
  }

 private:
  std::span<const std::uint8_t> m_file;
};

void CheckKnown(Content content) {
  Check(content <= Content::PeLibrary);
  Check(!host::files::detail::ContentName(content).empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> file(data, size);
  const std::span<const std::uint8_t> head = file.first(std::min(size, host::kRecognizerHeadBytes));
  MemorySource source(file);
  Content withSource = Content::Unknown;
  Check(host::files::detail::SniffContent(head, &source, &withSource) == 0);
  CheckKnown(withSource);
  Content headOnly = Content::Unknown;
  Check(host::files::detail::SniffContent(head, nullptr, &headOnly) == 0);
  CheckKnown(headOnly);
  // A file that fits in its head has nothing more to read: with or without
  // a source, the same answer.
  if (size <= host::kRecognizerHeadBytes) Check(headOnly == withSource);
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (text.starts_with("#!")) {
    const Content interpreter = host::files::detail::ScriptInterpreter(text.substr(0, text.find('\n')));
    CheckKnown(interpreter);
  }
  return 0;
}
