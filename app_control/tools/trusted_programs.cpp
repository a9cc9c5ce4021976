#include "app_control/tools/trusted_programs.h"

#include <cerrno>
#include <cstdlib>

namespace tov::app_control::tools {
namespace {

constexpr char16_t kReplacement = u'?';
constexpr std::size_t kRealpathBufferSize = 4097;

bool IsContinuation(unsigned char byte) noexcept { return (byte & 0xC0u) == 0x80u; }

// Length of the sequence that `lead` begins, 0 for a byte that begins none.
std::size_t SequenceLength(unsigned char lead) noexcept {
  if (lead < 0x80u) return 1;
  if ((lead & 0xE0u) == 0xC0u) return 2;
  if ((lead & 0xF0u) == 0xE0u) return 3;
  if ((lead & 0xF8u) == 0xF0u) return 4;
  return 0;
}

}  // namespace

zel::wstring_t Utf8ToWideOrQuestionMark(std::string_view text) {
  zel::wstring_t out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = SequenceLength(lead);
    bool complete = length != 0 && i + length <= text.size();
    for (std::size_t k = 1; complete && k < length; ++k) {
      complete = IsContinuation(static_cast<unsigned char>(text[i + k]));
    }
    if (!complete) {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    std::uint32_t cp = length == 1 ? lead : lead & (0x7Fu >> length);
    for (std::size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3Fu);
    i += length;
    if (cp > 0x10FFFFu) {
      out.push_back(kReplacement);
    } else if (cp > 0xFFFFu) {
      cp -= 0x10000u;
      out.push_back(static_cast<char16_t>(0xD800u + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00u + (cp & 0x3FFu)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

exclude::applications::ExclusionList MakeTrustedProgramRecords(std::span<const char* const> paths) {
  exclude::applications::ExclusionList records;
  for (const char* listed : paths) {
    char resolved[kRealpathBufferSize] = {};
    errno = 0;
    if (::realpath(listed, resolved) == nullptr) {
      // A program that isn't installed has nothing to trust.
      if (errno != 0) continue;
      // A failure that names no cause leaves no path behind, whatever
      // realpath wrote on its way.
      resolved[0] = '\0';
    }
    exclude::applications::ExclusionRecord& record = records.emplace_back();
    record.enabled = true;
    record.path = Utf8ToWideOrQuestionMark(resolved);
    record.mask = exclude::applications::kTrustedProgramMask;
    record.listedPath = Utf8ToWideOrQuestionMark(listed);
    record.origin = 0;
    record.version = 1;
  }
  return records;
}

bool MergeTrustedPrograms(exclude::applications::ExclusionList& list,
                          const exclude::applications::ExclusionList& programs) {
  const std::size_t sizeBefore = list.size();
  // Searched instead of the growing list, so two programs that resolve to one
  // file are both entered on a first run and both found on the next.
  const exclude::applications::ExclusionList asRead = list;
  for (const auto& program : programs) {
    bool present = false;
    for (const auto& existing : asRead) {
      if (existing.mask == program.mask && existing.path.view() == program.path.view()) {
        present = true;
        break;
      }
    }
    if (!present) list.push_back(program);
  }
  return list.size() != sizeBefore;
}

}  // namespace tov::app_control::tools
