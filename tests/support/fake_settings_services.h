// Fakes of the host services that the settings conversion reads: a category
// store that hands out a fixed list (or fails), and a user database with a
// table of names. Both count calls and references so that a test can see
// what was asked and that nothing was kept.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "app_control/interfaces/icategories_manager.h"
#include "app_control/interfaces/ipwdb.h"
#include "host/services/host_object.h"

namespace testsupport {

// Test-owned; the counts are bookkeeping only.
template <class Derived, class I>
using CountedFake = host::OwnedObject<Derived, I>;

class FakeCategoriesManager final : public CountedFake<FakeCategoriesManager, ICategoriesManager> {
 public:
  zel::result_t PutCategories(const CategoryIdList&, const CategoryList& list, const NameList&,
                              tov::types::CategoriesAction) override {
    ++puts;
    if (ZEL_FAILED(failWith)) return failWith;
    for (const auto& c : list) categories.push_back(c);
    return zel::result::NoError;
  }
  zel::result_t GetCategories(std::uint32_t& modificationCounter, CategoryList& out) override {
    ++gets;
    if (ZEL_FAILED(failWith)) return failWith;
    modificationCounter = counter;
    out = categories;
    return zel::result::NoError;
  }

  // Appends a category with only a GUID and a name.
  void Add(const app_ctrl::CategoryId& id, std::u16string_view name) {
    app_ctrl::Category& c = categories.emplace_back();
    c.GUID = id;
    c.Name = zel::wstring_t(name);
  }

  CategoryList categories;
  zel::result_t failWith = zel::result::NoError;
  std::uint32_t counter = 1;
  // The engine reads categories on its own thread while the task's settings
  // change on the host's.
  std::atomic<int> gets{0};
  std::atomic<int> puts{0};
};

// Users and groups by exact name. A lookup that misses answers `missCode`.
class FakePwdb final : public CountedFake<FakePwdb, IPwdb> {
 public:
  zel::result_t GetPrimaryGroupId(std::uint32_t, std::uint32_t*) override { return zel::result::NotImplemented; }
  zel::result_t GetUserId(const char* userName, std::uint32_t* uid) override {
    ++lookups;
    return Find(users, userName, uid);
  }
  zel::result_t GetUserName(std::uint32_t uid, zel::string_t* userName) override {
    for (const auto& [name, id] : users) {
      if (id == uid) {
        userName->assign(name);
        return zel::result::NoError;
      }
    }
    return missCode;
  }
  zel::result_t GetGroupId(const char* groupName, std::uint32_t* gid) override {
    ++lookups;
    return Find(groups, groupName, gid);
  }

  std::map<std::string, std::uint32_t> users;
  std::map<std::string, std::uint32_t> groups;
  zel::result_t missCode = zel::result::AccessDenied;
  int lookups = 0;

 private:
  zel::result_t Find(const std::map<std::string, std::uint32_t>& table, const char* name, std::uint32_t* id) const {
    const auto it = table.find(name);
    if (it == table.end()) return missCode;
    *id = it->second;
    return zel::result::NoError;
  }
};

}  // namespace testsupport
