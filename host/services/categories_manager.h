// host::CategoriesManager: the reference host's ICategoriesManager. The
// categories live in memory, in the order they were first added, and every
// change is written through to an embedded SQLite database in one
// transaction, so a restart reads back exactly the last accepted state and
// the modification counter with it.
//
// Expressions are stored by their class id (file information, linked
// category, storage type, version, and-combination); a criterion of any
// other class can't be stored and makes PutCategories fail with 0x80000046,
// changing nothing. Reading them back makes the objects through the
// locator given at construction (its IAllocator and its descriptors of the
// expression classes). Safe for concurrent calls; tests can inject failures.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app_control/interfaces/icategories_manager.h"
#include "host/services/host_object.h"
#include "host/storage/sqlite_db.h"
#include "zel/iservice_locator.h"
#include "zel/rtl/objclient.h"

namespace host {

class CategoriesManager final : public OwnedObject<CategoriesManager, ICategoriesManager> {
 public:
  // `objects` makes the expressions read back from the store (a reference is kept).
  explicit CategoriesManager(zel::IServiceLocator* objects);
  CategoriesManager(const CategoriesManager&) = delete;
  CategoriesManager& operator=(const CategoriesManager&) = delete;
  ~CategoriesManager();

  // Opens or creates the store at `path` (":memory:" for a private one) and
  // loads what it holds. A store that can't be read is closed again.
  zel::result_t Open(const std::string& path);
  void Close();

  // 0x80000046 for an action outside the enumeration or an expression that
  // can't be stored; 0x8000006B (not initialised) before Open.
  zel::result_t PutCategories(const CategoryIdList& removeIds, const CategoryList& categories,
                              const NameList& removeNames, tov::types::CategoriesAction action) override;
  zel::result_t GetCategories(std::uint32_t& modificationCounter, CategoryList& categories) override;

  // The categories as one shared list that never changes: what a program
  // start's decision reads, for the price of a pointer copy, and never behind
  // a write to the store (a new list replaces it once written).
  // Fails as GetCategories does: a Get fault's code, 0x8000006B before Open
  // (or when the last list could not be made).
  zel::result_t Snapshot(std::shared_ptr<const CategoryList>* out) const;

  // For a change that must be seen together with another (a reload of the
  // rules): PutCategories with ReplaceUser, stored and readable through
  // GetCategories, while Snapshot still gives the list before it until
  // PublishStaged, which only swaps a pointer. Returns the list decisions
  // read until then, which RestoreSnapshot puts back if the other change fails.
  zel::result_t StageUserCategories(const CategoryList& categories, std::shared_ptr<const CategoryList>* current);
  void PublishStaged();
  void RestoreSnapshot(std::shared_ptr<const CategoryList> snapshot);

  // ---- fault injection (one-shot) ----------------------------------------------------
  void FailNextGet(zel::result_t code);
  void FailNextPut(zel::result_t code);

  // ---- observations ------------------------------------------------------------------
  std::uint64_t Gets() const { return m_gets.load(); }
  std::uint64_t Puts() const { return m_puts.load(); }

 private:
  struct Entry {
    std::uint32_t origin = 0;
    app_ctrl::Category category;
  };

  zel::result_t Load();
  zel::result_t Store(const std::vector<Entry>& entries, std::uint32_t counter);
  // Makes the snapshot from m_entries (under m_mutex); none when closed.
  void Republish(bool open) noexcept;
  zel::result_t Write(const CategoryIdList& removeIds, const CategoryList& categories, const NameList& removeNames,
                      tov::types::CategoriesAction action, bool publish);

  zel::RefPtr<zel::IServiceLocator> m_objects;
  mutable std::mutex m_mutex;
  storage::StoreDatabase m_db;
  std::vector<Entry> m_entries;
  std::uint32_t m_counter = 0;
  mutable std::atomic<zel::result_t> m_failGet{0};
  zel::result_t m_failPut = 0;

  mutable std::mutex m_snapshotMutex;  // only ever held for a pointer copy
  std::shared_ptr<const CategoryList> m_snapshot;
  bool m_staging = false;  // under m_mutex: Republish makes m_staged instead
  std::shared_ptr<const CategoryList> m_staged;  // under m_snapshotMutex
  mutable std::atomic<std::uint64_t> m_gets{0};
  std::atomic<std::uint64_t> m_puts{0};
};

}  // namespace host
