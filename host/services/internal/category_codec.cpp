#include "host/services/internal/category_codec.h"

#include <cstring>

#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace host::detail {
namespace {

using app_ctrl::CategoryId;
namespace cls = app_ctrl::category_class;

// Deeper nesting than this is taken as damage, not as data.
constexpr int kMaxDepth = 64;

class Writer {
 public:
  explicit Writer(std::vector<std::uint8_t>& bytes) : m_bytes(bytes) {}
  void U32(std::uint32_t v) { Raw(&v, sizeof v); }
  void Id(const CategoryId& id) { Raw(id.bytes, sizeof id.bytes); }
  void Text(const zel::wstring_t& text) {
    U32(static_cast<std::uint32_t>(text.size()));
    Raw(text.data(), text.size() * sizeof(char16_t));
  }

 private:
  void Raw(const void* p, std::size_t n) {
    const auto* b = static_cast<const std::uint8_t*>(p);
    m_bytes.insert(m_bytes.end(), b, b + n);
  }
  std::vector<std::uint8_t>& m_bytes;
};

class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) : m_rest(bytes) {}
  bool U32(std::uint32_t& v) { return Raw(&v, sizeof v); }
  bool Id(CategoryId& id) { return Raw(id.bytes, sizeof id.bytes); }
  bool Text(zel::wstring_t& text) {
    std::uint32_t units = 0;
    if (!U32(units) || units > m_rest.size() / sizeof(char16_t)) return false;
    text.resize(units);
    return Raw(text.data(), units * sizeof(char16_t));
  }
  bool AtEnd() const { return m_rest.empty(); }

 private:
  bool Raw(void* p, std::size_t n) {
    if (m_rest.size() < n) return false;
    if (n != 0) std::memcpy(p, m_rest.data(), n);
    m_rest = m_rest.subspan(n);
    return true;
  }
  std::span<const std::uint8_t> m_rest;
};

bool WriteExpression(Writer& w, const zel::anydescrptr& expression, int depth) {
  if (!expression) {
    w.U32(0);
    return true;
  }
  if (expression.descriptor() == nullptr || depth > kMaxDepth) return false;
  const std::uint32_t classId = expression.descriptor()->serId;
  switch (classId) {
    case cls::FileInfoOperation: {
      const auto& e = *expression.get_as<app_ctrl::CategoryFileInfoOperationExpression>();
      w.U32(classId);
      w.U32(static_cast<std::uint32_t>(e.field));
      w.U32(static_cast<std::uint32_t>(e.operation));
      w.Text(e.value);
      return true;
    }
    case cls::LinkedCategory:
      w.U32(classId);
      w.Id(expression.get_as<app_ctrl::CategoryLinkedCategoryExpression>()->category);
      return true;
    case cls::StorageType:
      w.U32(classId);
      w.U32(expression.get_as<app_ctrl::CategoryStorageTypeExpression>()->storageType);
      return true;
    case cls::VersionOperation: {
      const auto& e = *expression.get_as<app_ctrl::CategoryVersionOperationExpression>();
      w.U32(classId);
      w.U32(static_cast<std::uint32_t>(e.field));
      w.U32(static_cast<std::uint32_t>(e.operation));
      for (std::uint32_t n : e.value.numbers) w.U32(n);
      w.Text(e.value.text);
      w.Text(e.value.raw);
      return true;
    }
    case cls::And: {
      const auto& e = *expression.get_as<app_ctrl::CategoryAndExpression>();
      w.U32(classId);
      return WriteExpression(w, e.left, depth + 1) && WriteExpression(w, e.right, depth + 1);
    }
    default:
      return false;
  }
}

bool ReadExpression(zel::IServiceLocator* objects, Reader& r, zel::anydescrptr& expression, int depth) {
  std::uint32_t classId = 0;
  if (!r.U32(classId) || depth > kMaxDepth) return false;
  std::uint32_t a = 0, b = 0;
  switch (classId) {
    case 0:
      expression.reset();
      return true;
    case cls::FileInfoOperation: {
      app_ctrl::CategoryFileInfoOperationExpression e;
      if (!r.U32(a) || !r.U32(b) || !r.Text(e.value)) return false;
      e.field = static_cast<app_ctrl::CategoryFileInfoField>(a);
      e.operation = static_cast<app_ctrl::CategoryStringOperation>(b);
      zel::assign_anydescrptr(expression, objects, e);
      return true;
    }
    case cls::LinkedCategory: {
      app_ctrl::CategoryLinkedCategoryExpression e;
      if (!r.Id(e.category)) return false;
      zel::assign_anydescrptr(expression, objects, e);
      return true;
    }
    case cls::StorageType: {
      app_ctrl::CategoryStorageTypeExpression e;
      if (!r.U32(e.storageType)) return false;
      zel::assign_anydescrptr(expression, objects, e);
      return true;
    }
    case cls::VersionOperation: {
      app_ctrl::CategoryVersionOperationExpression e;
      if (!r.U32(a) || !r.U32(b)) return false;
      for (std::uint32_t& n : e.value.numbers)
        if (!r.U32(n)) return false;
      if (!r.Text(e.value.text) || !r.Text(e.value.raw)) return false;
      e.field = static_cast<app_ctrl::CategoryVersionField>(a);
      e.operation = static_cast<app_ctrl::CategoryVersionOperation>(b);
      zel::assign_anydescrptr(expression, objects, e);
      return true;
    }
    case cls::And: {
      app_ctrl::CategoryAndExpression e;
      if (!ReadExpression(objects, r, e.left, depth + 1) || !ReadExpression(objects, r, e.right, depth + 1))
        return false;
      zel::assign_anydescrptr(expression, objects, e);
      return true;
    }
    default:
      return false;
  }
}

bool WriteCriteria(Writer& w, const zel::types::vector_t<app_ctrl::CategoryCriterion>& criteria) {
  w.U32(static_cast<std::uint32_t>(criteria.size()));
  for (const auto& c : criteria) {
    w.Text(c.criterionName);
    if (!WriteExpression(w, c.expression, 0)) return false;
  }
  return true;
}

bool ReadCriteria(zel::IServiceLocator* objects, Reader& r, zel::types::vector_t<app_ctrl::CategoryCriterion>& out) {
  std::uint32_t count = 0;
  if (!r.U32(count)) return false;
  for (std::uint32_t i = 0; i < count; ++i) {
    app_ctrl::CategoryCriterion& c = out.emplace_back();
    if (!r.Text(c.criterionName) || !ReadExpression(objects, r, c.expression, 0)) return false;
  }
  return true;
}

}  // namespace

zel::result_t EncodeCategory(const app_ctrl::Category& category, std::vector<std::uint8_t>& bytes) {
  Writer w(bytes);
  w.Id(category.GUID);
  w.Text(category.Name);
  w.Text(category.Description);
  if (!WriteCriteria(w, category.Include) || !WriteCriteria(w, category.Exclude)) return zel::result::InvalidArgument;
  return zel::result::NoError;
}

zel::result_t DecodeCategory(zel::IServiceLocator* objects, std::span<const std::uint8_t> bytes,
                             app_ctrl::Category& category) {
  Reader r(bytes);
  app_ctrl::Category read;
  if (!r.Id(read.GUID) || !r.Text(read.Name) || !r.Text(read.Description) ||
      !ReadCriteria(objects, r, read.Include) || !ReadCriteria(objects, r, read.Exclude) || !r.AtEnd())
    return zel::result::InvalidSize;
  category = std::move(read);
  return zel::result::NoError;
}

}  // namespace host::detail
