// Helpers for the reference engine's tests: category records built with
// owning expression pointers (as the host's codec builds them), rule
// records, the file tests' scratch directory, and a recording event sink.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app_control/interfaces/ienterprise_application_control_events2.h"
#include "tov_common/settings/enterprise_application_control_settings.h"
#include "host/services/counting_allocator.h"
#include "host/services/host_object.h"
#include "tov_common/categories/category_types.h"
#include "zel/serialization/ser_obj_descriptor.h"
#include "zel/strings/conversions.h"
#include "tests/host/files/files_test_support.h"

namespace engine_test {

inline host::CountingAllocator& Allocator() {
  static host::CountingAllocator allocator;
  return allocator;
}

template <class T>
const zel::TypeDescriptor* DescriptorOf() {
  static zel::SerObjDescriptorImpl<T> helper;
  static zel::TypeDescriptorField fields[] = {zel::kFieldTableTerminator};
  static const zel::TypeDescriptor descriptor{T::SerId, "expression", sizeof(T), fields, &helper};
  return &descriptor;
}

template <class T>
zel::anydescrptr Owning(const T& value) {
  zel::anydescrptr p;
  p.assign_copy(&value, DescriptorOf<T>(), &Allocator());
  return p;
}

inline zel::wstring_t W(const std::string& s) { return zel::Utf8ToWide(s); }

inline app_ctrl::CategoryId Id(std::uint8_t n) {
  app_ctrl::CategoryId id{};
  id.bytes[0] = n;
  return id;
}

inline zel::anydescrptr FileInfo(app_ctrl::CategoryFileInfoField field, app_ctrl::CategoryStringOperation op,
                                 const std::string& value) {
  return Owning(app_ctrl::CategoryFileInfoOperationExpression(field, op, W(value)));
}

inline app_ctrl::Category MakeCategory(std::uint8_t id, const std::string& name,
                                       std::vector<zel::anydescrptr> include,
                                       std::vector<zel::anydescrptr> exclude = {}) {
  app_ctrl::Category c;
  c.GUID = Id(id);
  c.Name = W(name);
  for (auto& e : include) c.Include.emplace_back().expression = std::move(e);
  for (auto& e : exclude) c.Exclude.emplace_back().expression = std::move(e);
  return c;
}

struct Entry {
  std::uint32_t type;  // EnginePrincipal::kUser / kGroup / kEveryone
  std::uint32_t id;
  std::uint32_t access;
};

inline app_ctrl::EngineRule Rule(std::uint8_t category, std::uint32_t status, std::vector<Entry> entries,
                                 const std::string& name = "rule") {
  app_ctrl::EngineRule r;
  r.categoryId = Id(category);
  r.status = status;
  r.ruleName = W(name);
  for (const Entry& e : entries) {
    app_ctrl::EngineRuleUser u;
    u.principals.push_back(app_ctrl::EnginePrincipal{e.type, e.id});
    u.access = e.access;
    r.users.push_back(std::move(u));
  }
  return r;
}

using files_test::ScratchDir;

// Records every call and the thread it came on; may be told to throw.
class RecordingSink final : public host::OwnedObject<RecordingSink, app_ctrl::IEnterpriseApplicationControlEvents2> {
 public:
  struct Call {
    std::thread::id thread;
    std::int32_t verdict;
    app_ctrl::ApplicationStartInfo info;
    app_ctrl::ApplicationCategoryInfo category;
  };

  zel::result_t OnApplicationControl(const app_ctrl::ApplicationStartInfo* info,
                                     const app_ctrl::ApplicationCategoryInfo* category,
                                     const std::int32_t* verdict) override {
    {
      std::lock_guard lock(m_mutex);
      m_calls.push_back({std::this_thread::get_id(), *verdict, *info, *category});
    }
    if (m_throw) throw std::invalid_argument("stoll");
    return m_result;
  }
  zel::result_t OnFailSafeModeBoot() override {
    ++m_failSafe;
    return 0;
  }
  zel::result_t OnUnknownModulesOfflineHistoryLost() override {
    ++m_historyLost;
    return 0;
  }

  std::vector<Call> Calls() const {
    std::lock_guard lock(m_mutex);
    return m_calls;
  }

  std::atomic<int> m_failSafe{0};
  std::atomic<int> m_historyLost{0};
  bool m_throw = false;
  zel::result_t m_result = 0;  // what OnApplicationControl answers when it doesn't throw

 private:
  mutable std::mutex m_mutex;
  std::vector<Call> m_calls;
};

}  // namespace engine_test
