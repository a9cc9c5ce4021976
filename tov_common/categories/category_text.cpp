#include "tov_common/categories/category_text.h"

#include <cctype>
#include <cstdio>
#include <utility>

#include "tov_common/categories/internal/locale_text.h"
#include "tov_common/categories/internal/text_tables.h"

namespace tov::tools {

using app_ctrl::CategoryFileInfoField;
using app_ctrl::CategoryStringOperation;
using app_ctrl::CategoryVersionField;
using app_ctrl::CategoryVersionOperation;
namespace category_class = app_ctrl::category_class;

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

constexpr const char* kFileInfoFieldNames[] = {
    "VendorName",        "ProductName",          "FileHash",          "FileName",
    "FilePath",          "CertificateThumbprint", "CertificatePublicKey", "CertificateIssuer",
    "CertificateSerial", "PackageName",          "MarketCategory",    "CertificateSubject",
    "FileMd5Hash",       "FileSha256Hash",       "CommandLine",       "ServiceName",
};
constexpr const char* kVersionFieldNames[] = {"ProductVersion", "FileVersion", "OsVersion"};
// The two operator enumerations share their first six texts.
constexpr const char* kStringOperationTexts[] = {"==", "!=", "like", "contains", "startswith", "endswith", "regexp"};
constexpr const char* kVersionOperationTexts[] = {"==",       "!=", "like", "contains", "startswith",
                                                  "endswith", ">",  ">=",   "<",        "<="};

template <std::size_t N>
const char* NameOf(const char* const (&names)[N], std::uint32_t value, const char* unknown) noexcept {
  return value < N ? names[value] : unknown;
}

int HexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void AppendHexByte(std::string& out, std::uint8_t b) {
  out.push_back(kHexDigits[b >> 4]);
  out.push_back(kHexDigits[b & 0x0F]);
}

void AppendNarrowed(std::string& out, const zel::wstring_t& text) {
  // A text the locale can't take is left out; printing never fails on text.
  detail::TryNarrow(text.view(), out);
}

void AppendVersionValue(std::string& out, const app_ctrl::CategoryVersionValue& value) {
  const auto& n = value.numbers;
  if (n[0] != 0 || n[1] != 0 || n[2] != 0 || n[3] != 0) {
    char buffer[48];
    const int len = std::snprintf(buffer, sizeof buffer, "%u.%u.%u.%u", n[0], n[1], n[2], n[3]);
    out.append(buffer, static_cast<std::size_t>(len));
  }
  AppendNarrowed(out, value.text);
  if (!value.raw.empty()) {
    out += " raw ";
    AppendNarrowed(out, value.raw);
  }
}

void AppendExpression(std::string& out, const zel::anydescrptr& expression) {
  out.push_back('(');
  const zel::TypeDescriptor* descriptor = expression.descriptor();
  const void* object = expression.get();
  if (descriptor != nullptr && object != nullptr) {
    switch (descriptor->serId) {
      case category_class::And: {
        const auto& e = *static_cast<const app_ctrl::CategoryAndExpression*>(object);
        AppendExpression(out, e.left);
        out += " and ";
        AppendExpression(out, e.right);
        break;
      }
      case category_class::FileInfoOperation: {
        const auto& e = *static_cast<const app_ctrl::CategoryFileInfoOperationExpression*>(object);
        out += CategoryFileInfoFieldName(e.field);
        out.push_back(' ');
        out += CategoryStringOperationText(e.operation);
        out.push_back(' ');
        AppendNarrowed(out, e.value);
        break;
      }
      case category_class::VersionOperation: {
        const auto& e = *static_cast<const app_ctrl::CategoryVersionOperationExpression*>(object);
        out += CategoryVersionFieldName(e.field);
        out.push_back(' ');
        out += CategoryVersionOperationText(e.operation);
        out.push_back(' ');
        AppendVersionValue(out, e.value);
        break;
      }
      case category_class::LinkedCategory: {
        const auto& e = *static_cast<const app_ctrl::CategoryLinkedCategoryExpression*>(object);
        out += "Category ";
        for (std::uint8_t b : e.category.bytes) AppendHexByte(out, b);
        break;
      }
      case category_class::StorageType: {
        const auto& e = *static_cast<const app_ctrl::CategoryStorageTypeExpression*>(object);
        if (e.storageType == app_ctrl::CategoryStorageTypeExpression::RemovableDrive) out += "RemovableDrive";
        break;
      }
      default:
        break;
    }
  }
  out.push_back(')');
}

bool IsSpace(char c) noexcept { return std::isspace(static_cast<unsigned char>(c)) != 0; }
// Only a blank and ")" end a token: tabs, line feeds and "(" belong to it.
bool IsTokenChar(char c) noexcept { return c != ' ' && c != ')'; }

}  // namespace

namespace detail {

bool FindStringOperation(std::string_view text, std::uint32_t& operation) {
  static const std::map<std::string_view, std::uint32_t, std::less<>> table = [] {
    std::map<std::string_view, std::uint32_t, std::less<>> m;
    for (std::uint32_t i = 0; i < std::size(kStringOperationTexts); ++i) m.emplace(kStringOperationTexts[i], i);
    return m;
  }();
  const auto it = table.find(text);
  if (it == table.end()) return false;
  operation = it->second;
  return true;
}

bool FindVersionOperation(std::string_view text, std::uint32_t& operation) {
  static const std::map<std::string_view, std::uint32_t, std::less<>> table = [] {
    std::map<std::string_view, std::uint32_t, std::less<>> m;
    for (std::uint32_t i = 0; i < std::size(kVersionOperationTexts); ++i) m.emplace(kVersionOperationTexts[i], i);
    return m;
  }();
  const auto it = table.find(text);
  if (it == table.end()) return false;
  operation = it->second;
  return true;
}

bool IsHexText(std::string_view text) noexcept {
  for (char c : text) {
    if (HexValue(c) < 0) return false;
  }
  return true;
}

}  // namespace detail

const std::map<std::string, CategoryFieldRow, std::less<>> CategoryFieldTable = {
    {"FileName", {category_class::FileInfoOperation, 3, CategoryValueCheck::None}},
    {"FilePath", {category_class::FileInfoOperation, 4, CategoryValueCheck::None}},
    {"FileHash", {category_class::FileInfoOperation, 2, CategoryValueCheck::Md5OrSha256Hex}},
    {"VendorName", {category_class::FileInfoOperation, 0, CategoryValueCheck::None}},
    {"ProductName", {category_class::FileInfoOperation, 1, CategoryValueCheck::None}},
    {"CertificateThumbprint", {category_class::FileInfoOperation, 5, CategoryValueCheck::None}},
    {"CertificatePublicKey", {category_class::FileInfoOperation, 6, CategoryValueCheck::None}},
    {"CertificateIssuer", {category_class::FileInfoOperation, 7, CategoryValueCheck::None}},
    {"CertificateSerial", {category_class::FileInfoOperation, 8, CategoryValueCheck::None}},
    {"PackageName", {category_class::FileInfoOperation, 9, CategoryValueCheck::None}},
    {"MarketCategory", {category_class::FileInfoOperation, 10, CategoryValueCheck::None}},
    {"CertificateSubject", {category_class::FileInfoOperation, 11, CategoryValueCheck::None}},
    {"FileMd5Hash", {category_class::FileInfoOperation, 12, CategoryValueCheck::Md5Hex}},
    {"FileSha256Hash", {category_class::FileInfoOperation, 13, CategoryValueCheck::Sha256Hex}},
    {"ProductVersion", {category_class::VersionOperation, 0, CategoryValueCheck::None}},
    {"FileVersion", {category_class::VersionOperation, 1, CategoryValueCheck::None}},
    {"OsVersion", {category_class::VersionOperation, 2, CategoryValueCheck::None}},
    {"Category", {category_class::LinkedCategory, 0, CategoryValueCheck::None}},
    {"RemovableDrive", {category_class::StorageType, 0, CategoryValueCheck::None}},
};

zel::wstring_t CategoryIdToText(const app_ctrl::CategoryId& id) {
  char16_t text[36];
  std::size_t pos = 0;
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text[pos++] = u'-';
    text[pos++] = static_cast<char16_t>(kHexDigits[id.bytes[i] >> 4]);
    text[pos++] = static_cast<char16_t>(kHexDigits[id.bytes[i] & 0x0F]);
  }
  return zel::wstring_t(text, pos);
}

const zel::wstring_t& GoldenImageCategoryIdText() {
  static const zel::wstring_t text = CategoryIdToText(app_ctrl::GoldenImageCategoryId);
  return text;
}

std::string CategoryIdToCompactText(const app_ctrl::CategoryId& id) {
  std::string out;
  out.reserve(32);
  for (std::uint8_t b : id.bytes) AppendHexByte(out, b);
  return out;
}

bool CategoryIdFromCompactText(std::string_view text, app_ctrl::CategoryId& id) {
  if (text.size() != 32 || !detail::IsHexText(text)) return false;
  for (std::size_t i = 0; i < 16; ++i) {
    id.bytes[i] = static_cast<std::uint8_t>((HexValue(text[2 * i]) << 4) | HexValue(text[2 * i + 1]));
  }
  return true;
}

const char* CategoryFileInfoFieldName(CategoryFileInfoField field) noexcept {
  return NameOf(kFileInfoFieldNames, static_cast<std::uint32_t>(field), "Unknown");
}
const char* CategoryVersionFieldName(CategoryVersionField field) noexcept {
  return NameOf(kVersionFieldNames, static_cast<std::uint32_t>(field), "Unknown");
}
const char* CategoryStringOperationText(CategoryStringOperation operation) noexcept {
  return NameOf(kStringOperationTexts, static_cast<std::uint32_t>(operation), "?");
}
const char* CategoryVersionOperationText(CategoryVersionOperation operation) noexcept {
  return NameOf(kVersionOperationTexts, static_cast<std::uint32_t>(operation), "?");
}

std::ostream& CategoryExpressionToText(std::ostream& stream, const zel::anydescrptr& expression) {
  std::string text;
  AppendExpression(text, expression);
  return stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::string CategoryCriterionToText(const app_ctrl::CategoryCriterion& criterion) {
  std::string text;
  if (!criterion.criterionName.empty()) {
    AppendNarrowed(text, criterion.criterionName);
    text.push_back(' ');
  }
  AppendExpression(text, criterion.expression);
  return text;
}

bool ParseCategoryCriterion(std::string_view text, std::string& name, std::vector<std::string>& tokens) {
  const std::size_t end = text.size();
  std::size_t pos = 0;
  const auto skipSpaces = [&] {
    while (pos < end && IsSpace(text[pos])) ++pos;
  };

  // The label: everything before the first "(", with every space dropped.
  skipSpaces();
  std::string label;
  while (pos < end && text[pos] != '(') {
    if (!IsSpace(text[pos])) label.push_back(text[pos]);
    ++pos;
  }
  skipSpaces();
  if (pos == end || text[pos] != '(') return false;
  ++pos;

  skipSpaces();
  std::vector<std::string> list;
  if (pos < end && IsTokenChar(text[pos])) {
    for (;;) {
      const std::size_t start = pos;
      while (pos < end && IsTokenChar(text[pos])) ++pos;
      list.emplace_back(text.substr(start, pos - start));
      // One blank and a token start continue the list; anything else ends
      // it in front of that blank.
      if (pos + 1 < end && text[pos] == ' ' && IsTokenChar(text[pos + 1])) {
        ++pos;
        continue;
      }
      break;
    }
  }

  skipSpaces();
  if (pos == end || text[pos] != ')') return false;
  ++pos;
  skipSpaces();
  if (pos != end) return false;

  name = std::move(label);
  tokens = std::move(list);
  return true;
}

}  // namespace tov::tools
