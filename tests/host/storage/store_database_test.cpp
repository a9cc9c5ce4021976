// The stores' shared connection: schema and kept statements at open, and
// all-or-nothing transactions.
#include <gtest/gtest.h>

#include <stdexcept>

#include "host/storage/sqlite_db.h"

namespace {

using host::storage::Statement;
using host::storage::StoreDatabase;

constexpr const char* kSchema = "CREATE TABLE IF NOT EXISTS t (v INTEGER NOT NULL)";
enum : std::size_t { kInsert, kCount };

void OpenWithStatements(StoreDatabase& db) {
  ASSERT_EQ(db.Open(":memory:", kSchema, {"INSERT INTO t (v) VALUES (?1)", "SELECT COUNT(*) FROM t"}), 0);
}

std::int64_t Rows(StoreDatabase& db) {
  Statement& count = db.Kept(kCount);
  count.Reset();
  zel::result_t r = 0;
  EXPECT_TRUE(count.Step(&r));
  const std::int64_t n = count.ColumnInt(0);
  count.Reset();
  return n;
}

zel::result_t Insert(StoreDatabase& db, std::int64_t v) {
  Statement& insert = db.Kept(kInsert);
  insert.Reset();
  zel::result_t r = insert.Bind(1, v);
  if (ZEL_SUCCEEDED(r)) r = insert.Run();
  insert.Reset();
  return r;
}

TEST(StoreDatabase, TransactionsCommitOrLeaveNothing) {
  StoreDatabase db;
  OpenWithStatements(db);
  struct Case {
    const char* what;
    zel::result_t bodyResult;  // after two inserts
    bool bodyThrows;
    zel::result_t expected;
    std::int64_t rowsAdded;
  };
  const Case cases[] = {
      {"success commits", 0, false, 0, 2},
      {"a success code is handed back", zel::result::False, false, zel::result::False, 2},
      {"a failure rolls back", zel::result::AccessDenied, false, zel::result::AccessDenied, 0},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    const std::int64_t before = Rows(db);
    const zel::result_t r = db.InTransaction([&] {
      EXPECT_EQ(Insert(db, 1), 0);
      EXPECT_EQ(Insert(db, 2), 0);
      return k.bodyResult;
    });
    EXPECT_EQ(r, k.expected);
    EXPECT_EQ(Rows(db) - before, k.rowsAdded);
  }

  const std::int64_t before = Rows(db);
  EXPECT_THROW(db.InTransaction([&]() -> zel::result_t {
    EXPECT_EQ(Insert(db, 3), 0);
    throw std::runtime_error("body failed");
  }),
               std::runtime_error);
  EXPECT_EQ(Rows(db), before);
  // The connection is usable afterwards: no transaction was left open.
  EXPECT_EQ(db.InTransaction([&] { return Insert(db, 4); }), 0);
  EXPECT_EQ(Rows(db), before + 1);
}

TEST(StoreDatabase, AFailedOpenLeavesItClosed) {
  StoreDatabase db;
  EXPECT_NE(db.Open(":memory:", kSchema, {"SELECT nope FROM missing"}), 0);
  EXPECT_FALSE(db.IsOpen());
  EXPECT_NE(db.Open(":memory:", "CREATE TABLE broken (", {}), 0);
  EXPECT_FALSE(db.IsOpen());
  EXPECT_LT(db.Open("/nonexistent-dir-for-store-database/x.db", kSchema), 0);
  EXPECT_FALSE(db.IsOpen());
  // Reopening works and finds its statements again.
  OpenWithStatements(db);
  EXPECT_EQ(Insert(db, 1), 0);
  EXPECT_EQ(Rows(db), 1);
}

}  // namespace
