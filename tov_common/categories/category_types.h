// The engine's category model: a category is a named, identified set of
// programs, told by criteria over what can be observed of a file. These
// records and expression classes are shared with the engine and the host, so
// their field order and the expression classes' virtual tables are fixed.
// The module holds, copies, prints and parses categories; it never evaluates
// a criterion against a file.
#pragma once

#include <compare>
#include <cstdint>

#include "zel/types/string.h"
#include "zel/types/vector.h"
#include "zel/util/anydescrptr.h"

namespace app_ctrl {

// 16 raw bytes in storage order, compared bytewise.
struct CategoryId {
  std::uint8_t bytes[16];

  friend bool operator==(const CategoryId&, const CategoryId&) = default;
  friend std::strong_ordering operator<=>(const CategoryId&, const CategoryId&) = default;
};

// The category the inventory scan builds; rules and inventory share it.
inline constexpr CategoryId GoldenImageCategoryId{{0xEA, 0xC0, 0x05, 0x00}};

enum class CategoryFileInfoField : std::uint32_t {
  VendorName = 0,
  ProductName = 1,
  FileHash = 2,
  FileName = 3,
  FilePath = 4,
  CertificateThumbprint = 5,
  CertificatePublicKey = 6,
  CertificateIssuer = 7,
  CertificateSerial = 8,
  PackageName = 9,
  MarketCategory = 10,
  CertificateSubject = 11,
  FileMd5Hash = 12,
  FileSha256Hash = 13,
  CommandLine = 14,
  ServiceName = 15,
};

enum class CategoryVersionField : std::uint32_t {
  ProductVersion = 0,
  FileVersion = 1,
  OsVersion = 2,
};

// Shares its first six values with CategoryVersionOperation.
enum class CategoryStringOperation : std::uint32_t {
  Equal = 0,       // "=="
  NotEqual = 1,    // "!="
  Like = 2,        // "like"
  Contains = 3,    // "contains"
  StartsWith = 4,  // "startswith"
  EndsWith = 5,    // "endswith"
  RegExp = 6,      // "regexp"
};

enum class CategoryVersionOperation : std::uint32_t {
  Equal = 0,
  NotEqual = 1,
  Like = 2,
  Contains = 3,
  StartsWith = 4,
  EndsWith = 5,
  Greater = 6,         // ">"
  GreaterOrEqual = 7,  // ">="
  Less = 8,            // "<"
  LessOrEqual = 9,     // "<="
};

// Serialisation ids of the expression classes: the class of an expression is
// told by the id in its type descriptor, never by run-time type information.
namespace category_class {
inline constexpr std::uint32_t FileInfoOperation = 0x7C77F1D9;
inline constexpr std::uint32_t LinkedCategory = 0x2428EDDE;
inline constexpr std::uint32_t StorageType = 0x26F50648;
inline constexpr std::uint32_t VersionOperation = 0xC323D933;
inline constexpr std::uint32_t And = 0x2DA20D44;
}  // namespace category_class

// What Clone gives: a new heap copy (plain new), its class id, and a
// pointer-sized zero.
struct CategoryExpressionClone {
  void* object;
  std::uint32_t classId;
  std::uintptr_t reserved;
};

// Base of the engine's single-class expressions. Its virtual table is the
// destructor pair followed by Clone.
class CategoryExpression {
 public:
  virtual ~CategoryExpression() = default;
  virtual CategoryExpressionClone Clone() const = 0;

 protected:
  CategoryExpression() = default;
  CategoryExpression(const CategoryExpression&) = default;
  CategoryExpression& operator=(const CategoryExpression&) = default;
};

class CategoryFileInfoOperationExpression : public CategoryExpression {
 public:
  static constexpr std::uint32_t SerId = category_class::FileInfoOperation;

  CategoryFileInfoOperationExpression() = default;
  CategoryFileInfoOperationExpression(CategoryFileInfoField f, CategoryStringOperation op, zel::wstring_t v)
      : field(f), operation(op), value(std::move(v)) {}
  CategoryFileInfoOperationExpression(const CategoryFileInfoOperationExpression&) = default;
  CategoryFileInfoOperationExpression& operator=(const CategoryFileInfoOperationExpression&) = default;
  CategoryFileInfoOperationExpression(CategoryFileInfoOperationExpression&&) noexcept = default;
  CategoryFileInfoOperationExpression& operator=(CategoryFileInfoOperationExpression&&) noexcept = default;
  ~CategoryFileInfoOperationExpression() override = default;

  CategoryExpressionClone Clone() const override;

  CategoryFileInfoField field = CategoryFileInfoField::VendorName;
  CategoryStringOperation operation = CategoryStringOperation::Equal;
  zel::wstring_t value;
};

class CategoryLinkedCategoryExpression : public CategoryExpression {
 public:
  static constexpr std::uint32_t SerId = category_class::LinkedCategory;

  CategoryLinkedCategoryExpression() = default;
  explicit CategoryLinkedCategoryExpression(const CategoryId& id) : category(id) {}
  CategoryLinkedCategoryExpression(const CategoryLinkedCategoryExpression&) = default;
  CategoryLinkedCategoryExpression& operator=(const CategoryLinkedCategoryExpression&) = default;
  ~CategoryLinkedCategoryExpression() override = default;

  CategoryExpressionClone Clone() const override;

  CategoryId category{};
};

class CategoryStorageTypeExpression : public CategoryExpression {
 public:
  static constexpr std::uint32_t SerId = category_class::StorageType;
  // The one storage type that has a text ("RemovableDrive").
  static constexpr std::uint32_t RemovableDrive = 1;

  CategoryStorageTypeExpression() = default;
  explicit CategoryStorageTypeExpression(std::uint32_t type) : storageType(type) {}
  CategoryStorageTypeExpression(const CategoryStorageTypeExpression&) = default;
  CategoryStorageTypeExpression& operator=(const CategoryStorageTypeExpression&) = default;
  ~CategoryStorageTypeExpression() override = default;

  CategoryExpressionClone Clone() const override;

  std::uint32_t storageType = 0;
};

struct CategoryVersionValue {
  std::uint32_t numbers[4] = {0, 0, 0, 0};
  zel::wstring_t text;
  zel::wstring_t raw;
};

// Comes from the engine only; the module prints it and recognises (without
// accepting) its text.
struct CategoryVersionOperationExpression {
  static constexpr std::uint32_t SerId = category_class::VersionOperation;

  CategoryVersionField field = CategoryVersionField::ProductVersion;
  CategoryVersionOperation operation = CategoryVersionOperation::Equal;
  CategoryVersionValue value;
};

// Comes from the engine only; the module prints it.
struct CategoryAndExpression {
  static constexpr std::uint32_t SerId = category_class::And;

  zel::anydescrptr left;
  zel::anydescrptr right;
};

struct CategoryCriterion {
  zel::wstring_t criterionName;  // optional label, may be empty
  zel::anydescrptr expression;   // owning pointer to one of the classes above
};

struct Category {
  CategoryId GUID{};
  zel::wstring_t Name;
  zel::wstring_t Description;
  zel::types::vector_t<CategoryCriterion> Include;
  zel::types::vector_t<CategoryCriterion> Exclude;
};

}  // namespace app_ctrl
