#include "host/services/categories_manager.h"

#include <algorithm>
#include <utility>

#include "host/services/fault_switchboard.h"
#include "host/services/internal/category_codec.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace host {

namespace {

using tov::types::CategoriesAction;

// Where a category came from; a change only ever removes its own origin's.
enum Origin : std::uint32_t { kUser = 0, kSecurityCenter = 2, kInvScan = 3, kTaskManager = 4 };

bool OriginOf(CategoriesAction action, std::uint32_t& origin) noexcept {
  switch (action) {
    case CategoriesAction::AddUser:
    case CategoriesAction::ReplaceUser:
      origin = kUser;
      return true;
    case CategoriesAction::AddSecurityCenter:
      origin = kSecurityCenter;
      return true;
    case CategoriesAction::AddInvScan:
      origin = kInvScan;
      return true;
    case CategoriesAction::AddTaskManager:
    case CategoriesAction::ClearTaskManager:
      origin = kTaskManager;
      return true;
  }
  return false;
}

}  // namespace

CategoriesManager::CategoriesManager(zel::IServiceLocator* objects) : m_objects(objects) {}

CategoriesManager::~CategoriesManager() { Close(); }

zel::result_t CategoriesManager::Open(const std::string& path) {
  std::lock_guard lock(m_mutex);
  zel::result_t r = m_db.Open(path,
                              "CREATE TABLE IF NOT EXISTS categories ("
                              " position INTEGER PRIMARY KEY, origin INTEGER NOT NULL, data BLOB NOT NULL);"
                              "CREATE TABLE IF NOT EXISTS categories_state ("
                              " id INTEGER PRIMARY KEY CHECK (id = 0), counter INTEGER NOT NULL);");
  if (ZEL_SUCCEEDED(r)) r = Load();
  if (ZEL_FAILED(r)) {
    m_db.Close();
    m_entries.clear();
    m_counter = 0;
  }
  Republish(ZEL_SUCCEEDED(r));
  return r;
}

void CategoriesManager::Close() {
  std::lock_guard lock(m_mutex);
  m_db.Close();
  m_entries.clear();
  Republish(false);
}

void CategoriesManager::Republish(bool open) noexcept {
  std::shared_ptr<const CategoryList> next;
  if (open) {
    try {
      auto list = std::make_shared<CategoryList>();
      list->reserve(m_entries.size());
      for (const Entry& e : m_entries) list->push_back(e.category);
      next = std::move(list);
    } catch (...) {
      // Left without a snapshot, Snapshot fails until the next write.
    }
  }
  std::shared_ptr<const CategoryList> dropped;  // freed after the lock is let go
  std::lock_guard lock(m_snapshotMutex);
  if (m_staging) {
    m_staged.swap(next);
  } else {
    m_snapshot.swap(next);
    dropped = std::move(m_staged);  // a plain write outdates what was staged
  }
}

zel::result_t CategoriesManager::StageUserCategories(const CategoryList& categories,
                                                     std::shared_ptr<const CategoryList>* current) {
  {
    std::lock_guard lock(m_snapshotMutex);
    *current = m_snapshot;
  }
  return Write({}, categories, {}, tov::types::CategoriesAction::ReplaceUser, false);
}

void CategoriesManager::PublishStaged() {
  std::shared_ptr<const CategoryList> old;  // freed after the lock is let go
  std::lock_guard lock(m_snapshotMutex);
  if (!m_staged) return;
  old = std::move(m_snapshot);
  m_snapshot = std::move(m_staged);
}

void CategoriesManager::RestoreSnapshot(std::shared_ptr<const CategoryList> snapshot) {
  std::lock_guard lock(m_snapshotMutex);
  m_snapshot.swap(snapshot);
}

zel::result_t CategoriesManager::Snapshot(std::shared_ptr<const CategoryList>* out) const {
  if (const zel::result_t fault = FaultAt(FaultPoint::CategoriesGet)) return fault;
  ++m_gets;
  if (const zel::result_t failure = m_failGet.exchange(0); ZEL_FAILED(failure)) return failure;
  std::shared_ptr<const CategoryList> snapshot;
  {
    std::lock_guard lock(m_snapshotMutex);
    snapshot = m_snapshot;
  }
  if (!snapshot) return zel::result::NotInitialized;
  *out = std::move(snapshot);
  return zel::result::NoError;
}

zel::result_t CategoriesManager::Load() {
  try {
    std::vector<Entry> entries;
    std::uint32_t counter = 0;
    storage::Statement select;
    zel::result_t r = select.Prepare(m_db.Db(), "SELECT origin, data FROM categories ORDER BY position");
    while (ZEL_SUCCEEDED(r) && select.Step(&r)) {
      Entry& entry = entries.emplace_back();
      entry.origin = static_cast<std::uint32_t>(select.ColumnInt(0));
      r = detail::DecodeCategory(m_objects.Get(), select.ColumnBlob(1), entry.category);
    }
    select.Finalize();
    if (ZEL_FAILED(r)) return r;
    r = select.Prepare(m_db.Db(), "SELECT counter FROM categories_state WHERE id = 0");
    if (ZEL_SUCCEEDED(r) && select.Step(&r)) counter = static_cast<std::uint32_t>(select.ColumnInt(0));
    if (ZEL_FAILED(r)) return r;
    m_entries = std::move(entries);
    m_counter = counter;
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t CategoriesManager::Store(const std::vector<Entry>& entries, std::uint32_t counter) {
  // Encode everything first: an expression that can't be stored must not
  // leave a half-written table behind.
  std::vector<std::vector<std::uint8_t>> blobs(entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const zel::result_t r = detail::EncodeCategory(entries[i].category, blobs[i]);
    if (ZEL_FAILED(r)) return r;
  }
  return m_db.InTransaction([&]() -> zel::result_t {
    storage::Database& db = m_db.Db();
    zel::result_t r = db.Exec("DELETE FROM categories");
    storage::Statement insert;
    if (ZEL_SUCCEEDED(r)) r = insert.Prepare(db, "INSERT INTO categories (position, origin, data) VALUES (?1, ?2, ?3)");
    for (std::size_t i = 0; ZEL_SUCCEEDED(r) && i < entries.size(); ++i) {
      insert.Reset();
      r = insert.Bind(1, static_cast<std::int64_t>(i));
      if (ZEL_SUCCEEDED(r)) r = insert.Bind(2, static_cast<std::int64_t>(entries[i].origin));
      if (ZEL_SUCCEEDED(r)) r = insert.Bind(3, std::span<const std::uint8_t>(blobs[i]));
      if (ZEL_SUCCEEDED(r)) r = insert.Run();
    }
    insert.Finalize();
    storage::Statement state;
    if (ZEL_SUCCEEDED(r)) {
      r = state.Prepare(db,
                        "INSERT INTO categories_state (id, counter) VALUES (0, ?1)"
                        " ON CONFLICT(id) DO UPDATE SET counter = excluded.counter");
    }
    if (ZEL_SUCCEEDED(r)) r = state.Bind(1, static_cast<std::int64_t>(counter));
    if (ZEL_SUCCEEDED(r)) r = state.Run();
    return r;
  });
}

zel::result_t CategoriesManager::PutCategories(const CategoryIdList& removeIds, const CategoryList& categories,
                                               const NameList& removeNames, tov::types::CategoriesAction action) {
  return Write(removeIds, categories, removeNames, action, true);
}

zel::result_t CategoriesManager::Write(const CategoryIdList& removeIds, const CategoryList& categories,
                                       const NameList& removeNames, tov::types::CategoriesAction action,
                                       bool publish) {
  if (const zel::result_t fault = FaultAt(FaultPoint::CategoriesPut)) return fault;
  ++m_puts;
  try {
    std::lock_guard lock(m_mutex);
    if (ZEL_FAILED(m_failPut)) return std::exchange(m_failPut, 0);
    if (!m_db.IsOpen()) return zel::result::NotInitialized;
    std::uint32_t origin = 0;
    if (!OriginOf(action, origin)) return zel::result::InvalidArgument;

    std::vector<Entry> next = m_entries;
    const bool clearOrigin = action == CategoriesAction::ReplaceUser || action == CategoriesAction::ClearTaskManager;
    std::erase_if(next, [&](const Entry& e) {
      if (e.origin != origin) return false;
      if (clearOrigin) return true;
      const auto& c = e.category;
      return std::find(removeIds.begin(), removeIds.end(), c.GUID) != removeIds.end() ||
             std::find(removeNames.begin(), removeNames.end(), c.Name) != removeNames.end();
    });
    for (const app_ctrl::Category& category : categories) {
      // Identity is the GUID: a known one is replaced where it stands.
      const auto same = std::find_if(next.begin(), next.end(),
                                     [&](const Entry& e) { return e.category.GUID == category.GUID; });
      if (same != next.end()) {
        same->origin = origin;
        same->category = category;
      } else {
        next.push_back(Entry{origin, category});
      }
    }
    const std::uint32_t counter = m_counter + 1;
    const zel::result_t r = Store(next, counter);
    if (ZEL_FAILED(r)) return r;
    m_entries.swap(next);
    m_counter = counter;
    m_staging = !publish;
    Republish(true);
    m_staging = false;
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

zel::result_t CategoriesManager::GetCategories(std::uint32_t& modificationCounter, CategoryList& categories) {
  if (const zel::result_t fault = FaultAt(FaultPoint::CategoriesGet)) return fault;
  ++m_gets;
  try {
    std::lock_guard lock(m_mutex);
    if (const zel::result_t failure = m_failGet.exchange(0); ZEL_FAILED(failure)) return failure;
    if (!m_db.IsOpen()) return zel::result::NotInitialized;
    CategoryList copy;
    copy.reserve(m_entries.size());
    for (const Entry& e : m_entries) copy.push_back(e.category);
    categories.swap(copy);
    modificationCounter = m_counter;
    return zel::result::NoError;
  } catch (...) {
    return zel::ResultFromCurrentException(nullptr, nullptr);
  }
}

void CategoriesManager::FailNextGet(zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failGet = code;
}

void CategoriesManager::FailNextPut(zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failPut = code;
}

}  // namespace host
