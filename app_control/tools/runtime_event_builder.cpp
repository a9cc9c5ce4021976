#include "app_control/tools/runtime_event_builder.h"

#include <climits>
#include <cwchar>
#include <ctime>
#include <string>
#include <typeinfo>

namespace tov::app_control::tools {
namespace {

// Code point by code point through wcrtomb, a surrogate pair first joined.
std::string NarrowInLocale(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  char bytes[MB_LEN_MAX];
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t cp = text[i];
    if (cp >= 0xD800u && cp <= 0xDBFFu && i + 1 < text.size() && text[i + 1] >= 0xDC00u && text[i + 1] <= 0xDFFFu) {
      cp = 0x10000u + ((cp - 0xD800u) << 10) + (text[i + 1] - 0xDC00u);
      ++i;
    }
    if (cp == 0) {
      out.push_back('\0');
      continue;
    }
    std::mbstate_t state{};
    const std::size_t written = std::wcrtomb(bytes, static_cast<wchar_t>(cp), &state);
    if (written == static_cast<std::size_t>(-1)) throw std::bad_cast();
    out.append(bytes, written);
  }
  return out;
}

}  // namespace

std::optional<VerdictEvent> EventForVerdict(std::int32_t verdict) noexcept {
  if (verdict == 1) return VerdictEvent{tov::EventType::ApplicationStartupAllowed, tov::Severity::Informational};
  if (verdict == 2) return VerdictEvent{tov::EventType::ApplicationStartupBlocked, tov::Severity::Critical};
  if (verdict < 0) {
    // Only a real block is critical; in test mode the program ran.
    if ((verdict & 1) != 0) {
      return VerdictEvent{tov::EventType::ApplicationStartupAllowedInTestMode, tov::Severity::Informational};
    }
    if ((verdict & 2) != 0) {
      return VerdictEvent{tov::EventType::ApplicationStartupBlockedInTestMode, tov::Severity::Informational};
    }
  }
  return std::nullopt;
}

std::int64_t ParseUserId(std::u16string_view text) { return std::stoll(NarrowInLocale(text), nullptr, 10); }

std::u16string_view UserNameWithoutDomain(std::u16string_view name) noexcept {
  const std::size_t slash = name.find(u'\\');
  return slash == std::u16string_view::npos ? name : name.substr(slash + 1);
}

std::u16string_view ImageFileName(std::u16string_view imagePath) noexcept {
  const std::size_t slash = imagePath.rfind(u'/');
  return slash == std::u16string_view::npos ? imagePath : imagePath.substr(slash + 1);
}

std::int64_t CurrentEventTime() noexcept {
  timespec now{};
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  return static_cast<std::int64_t>(now.tv_sec);
}

void AppendField(RuntimeEvent& event, tov::FieldName name, std::u16string_view value) {
  RuntimeField& field = event.runtimeFields.emplace_back();
  field.name = static_cast<std::int32_t>(name);
  field.data.SetWString(zel::wstring_t(value, event.runtimeFields.get_allocator().get()));
}

void AppendField(RuntimeEvent& event, tov::FieldName name, std::int32_t value) {
  RuntimeField& field = event.runtimeFields.emplace_back();
  field.name = static_cast<std::int32_t>(name);
  field.data.SetInt32(value);
}

void AppendField(RuntimeEvent& event, tov::FieldName name, std::uint64_t value) {
  RuntimeField& field = event.runtimeFields.emplace_back();
  field.name = static_cast<std::int32_t>(name);
  field.data.SetUInt64(value);
}

}  // namespace tov::app_control::tools
