// The engine's controller face: InventoryModule on real files opened by the
// host (hash, id, path, name, category keys), on bare streams, on bad input,
// and the hash cache it shares with the decision path.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "engine_test_support.h"
#include "host/engine/engine.h"
#include "host/files/file_factory.h"
#include "host/services/file_stream.h"
#include "tov_common/categories/category_text.h"
#include "tov_common/inventory/application_info.h"
#include "zel/serialization/memory_io.h"

namespace {

using namespace engine_test;
using app_ctrl::CategoryFileInfoField;
using app_ctrl::CategoryStringOperation;

constexpr char kEmptySha256[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char kHelloSha256[] = "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824";
constexpr char kMillionASha256[] = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

std::string N(const zel::wstring_t& text) { return std::string(zel::Utf16ToUtf8(text.view()).view()); }

// Files younger than the engine's racy window are hashed but not cached.
void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(80)); }

class InventoryModuleTest : public ::testing::Test {
 protected:
  zel::result_t Inventory(const std::string& path, tov::ApplicationInfo& info, host::engine::Engine* on = nullptr) {
    zel::RefPtr<zel::IIO> io;
    if (const zel::result_t r = host::FileStream::Open(path, io); ZEL_FAILED(r)) return r;
    app_ctrl::IEnterpriseApplicationController* controller = on != nullptr ? on : &engine;
    return controller->InventoryModule(io.Get(), 0, info);
  }

  ScratchDir dir;
  host::engine::Engine engine;
};

TEST_F(InventoryModuleTest, HashIdPathAndNameOfHostFiles) {
  struct Case {
    const char* name;
    std::string content;
    const char* sha256;
  };
  const Case cases[] = {
      {"empty", "", kEmptySha256},
      {"hello", "hello", kHelloSha256},
      // Longer than one read chunk.
      {"million", std::string(1'000'000, 'a'), kMillionASha256},
  };
  for (const Case& c : cases) {
    const std::string path = dir.Write(std::string("bin/") + c.name, c.content);
    tov::ApplicationInfo info;
    ASSERT_EQ(Inventory(path, info), zel::result::NoError) << c.name;
    EXPECT_EQ(N(info.fileHash), c.sha256) << c.name;
    EXPECT_EQ(info.id, host::engine::IdForFile(c.sha256, path)) << c.name;
    EXPECT_EQ(N(info.filePath), path);
    EXPECT_EQ(N(info.fileName), c.name);
    EXPECT_TRUE(info.categoryKeys.empty());
  }
}

TEST_F(InventoryModuleTest, CopiesAtTwoPathsAreTwoRecordsAndAFileKeepsItsIdUntilChanged) {
  for (const bool hashing : {true, false}) {
    SCOPED_TRACE(hashing ? "content hashed" : "identity stamp instead");
    engine.SetContentHashing(hashing);
    const std::uint64_t hashed = engine.HashesComputed();
    const std::string at = hashing ? "hashed/" : "stamped/";
    const std::string a = dir.Write(at + "a/tool", "same content"), b = dir.Write(at + "b/tool", "same content");
    const std::string c = dir.Write(at + "c/tool", "other content");
    tov::ApplicationInfo ia, ib, ic, same, again;
    for (auto [path, info] : {std::pair{a, &ia}, {b, &ib}, {c, &ic}, {a, &same}}) ASSERT_EQ(Inventory(path, *info), 0);
    EXPECT_EQ(ia.fileHash.view() == ib.fileHash.view(), hashing) << "a stamp is of the file, not of its content";
    EXPECT_EQ(ia.id, host::engine::IdForFile(N(ia.fileHash), a));
    EXPECT_NE(ia.id, ib.id) << "one content at two paths";
    EXPECT_NE(ia.id, ic.id);
    EXPECT_EQ(same.id, ia.id) << "an unchanged file, scanned again";
    EXPECT_EQ(same.fileHash.view(), ia.fileHash.view());

    // Rewritten in place with c's content: a new version, still not c's
    // record (and, by its hash, a new id).
    dir.Write(at + "a/tool", "other content");
    ASSERT_EQ(Inventory(a, again), 0);
    EXPECT_NE(again.fileHash.view(), ia.fileHash.view());
    EXPECT_NE(again.id, ic.id);
    if (hashing) {
      EXPECT_NE(again.id, ia.id);
      continue;
    }
    EXPECT_EQ(engine.HashesComputed(), hashed) << "nothing read with hashing off";
    // The stand-in is the file's identity, the inode (mixed) first, then the device and the size.
    struct stat st {};
    ASSERT_EQ(::stat(b.c_str(), &st), 0);
    const std::string stamp = N(ib.fileHash);
    ASSERT_EQ(stamp.size(), 64u);
    EXPECT_EQ(std::stoull(stamp.substr(16, 16), nullptr, 16), static_cast<std::uint64_t>(st.st_dev));
    EXPECT_EQ(std::stoull(stamp.substr(32, 16), nullptr, 16), 12u);
    // Files made one after the other have neighbouring inodes; their stamps
    // must still fall apart in the store's key order, as real hashes' do.
    const std::uint64_t leadA = std::stoull(N(ia.fileHash).substr(0, 16), nullptr, 16);
    const std::uint64_t leadB = std::stoull(stamp.substr(0, 16), nullptr, 16);
    EXPECT_GT(leadA > leadB ? leadA - leadB : leadB - leadA, 1u << 20);
  }
}

TEST_F(InventoryModuleTest, BareStreamIsHashedFromItsStartWithoutPath) {
  const std::string text = "hello";
  const zel::types::range_t<const unsigned char*> bytes(reinterpret_cast<const unsigned char*>(text.data()),
                                                        reinterpret_cast<const unsigned char*>(text.data()) + 5);
  zel::RefPtr<zel::IIO> io;
  ASSERT_EQ(zel::memory_io::CreateReadOnlyIo<zel::memory_io::ExternalStorageTraits>(bytes, io.Ref()), 0);
  char skip[2];
  std::uint32_t n = 0;
  ASSERT_EQ(io->Read(skip, 2, &n), 0);  // a format test read the head before

  tov::ApplicationInfo info;
  ASSERT_EQ(engine.InventoryModule(io.Get(), 0, info), 0);
  EXPECT_EQ(N(info.fileHash), kHelloSha256);
  EXPECT_EQ(info.id, 0x2cf24dba5fb0a30eULL);
  EXPECT_TRUE(info.filePath.empty());
  EXPECT_TRUE(info.fileName.empty());
  // Without an identity there is nothing to cache by.
  ASSERT_EQ(engine.InventoryModule(io.Get(), 0, info), 0);
  EXPECT_EQ(engine.HashesComputed(), 2u);
  EXPECT_EQ(engine.Hashes().Stats().entries, 0u);
}

TEST_F(InventoryModuleTest, BadInputLeavesTheRecordAlone) {
  tov::ApplicationInfo info;
  info.id = 77;
  info.fileHash = W("kept");
  info.categoryKeys.push_back(tov::CategoryKey{5, W("kept")});
  const std::string path = dir.Write("tool", "hello");
  zel::RefPtr<zel::IIO> io;
  ASSERT_EQ(host::FileStream::Open(path, io), 0);

  EXPECT_EQ(engine.InventoryModule(nullptr, 0, info), zel::result::InvalidArgument);
  EXPECT_EQ(engine.InventoryModule(io.Get(), 1, info), zel::result::InvalidArgument);
  // A directory opens but cannot be read.
  zel::RefPtr<zel::IIO> directory;
  ASSERT_EQ(host::FileStream::Open(dir.Path(), directory), 0);
  EXPECT_LT(engine.InventoryModule(directory.Get(), 0, info), 0);

  EXPECT_EQ(info.id, 77u);
  EXPECT_EQ(N(info.fileHash), "kept");
  ASSERT_EQ(info.categoryKeys.size(), 1u);
  EXPECT_EQ(info.categoryKeys[0].kind, 5u);
  EXPECT_LT(host::FileStream::Open(dir.Path() + "/missing", io), 0);
}

TEST_F(InventoryModuleTest, KeysOfTheMatchingCategoriesInTheirOrder) {
  const std::string path = dir.Write("opt/app/tool", "hello");
  host::engine::CategoryList categories;
  categories.push_back(MakeCategory(3, "By hash", {FileInfo(CategoryFileInfoField::FileHash,
                                                            CategoryStringOperation::Equal, kHelloSha256)}));
  categories.push_back(MakeCategory(1, "Scripts", {FileInfo(CategoryFileInfoField::FileName,
                                                            CategoryStringOperation::Like, "*.sh")}));
  categories.push_back(MakeCategory(2, "App dir", {FileInfo(CategoryFileInfoField::FilePath,
                                                            CategoryStringOperation::Contains, "/opt/app/")},
                                    {FileInfo(CategoryFileInfoField::FileName, CategoryStringOperation::Equal,
                                              "excluded")}));
  categories.push_back(MakeCategory(4, "Linked", {Owning(app_ctrl::CategoryLinkedCategoryExpression(Id(3)))}));
  engine.SetCategories(categories);

  tov::ApplicationInfo info;
  ASSERT_EQ(Inventory(path, info), 0);
  ASSERT_EQ(info.categoryKeys.size(), 3u);
  const std::uint8_t expected[] = {3, 2, 4};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(info.categoryKeys[i].kind, tov::kScanCategoryKind);
    EXPECT_EQ(info.categoryKeys[i].text.view(), tov::tools::CategoryIdToText(Id(expected[i])).view());
  }

  // The decision path sees the same categories for the same file.
  const host::engine::ProgramDecision decision = engine.DecideNow({path, 0, 0}, {});
  EXPECT_EQ(decision.decision.matchedCategories, (std::vector<app_ctrl::CategoryId>{Id(3), Id(2), Id(4)}));

  zel::types::vector_t<app_ctrl::Category> offered;
  ASSERT_EQ(engine.GetCategories(offered), 0);
  ASSERT_EQ(offered.size(), 4u);
  EXPECT_EQ(offered[1].Name.view(), u"Scripts");
}

TEST_F(InventoryModuleTest, RemovableDriveComesFromTheOpenFilesDevice) {
  const std::string path = dir.Write("media/tool", "hello");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  // A sysfs stand-in in which the scratch directory's device is a partition
  // of a removable disk.
  ScratchDir sys;
  sys.Write("devices/disk/removable", "1\n");
  std::filesystem::create_directories(sys.Path() + "/devices/disk/part1");
  std::filesystem::create_directories(sys.Path() + "/dev/block");
  std::filesystem::create_directory_symlink(
      sys.Path() + "/devices/disk/part1",
      sys.Path() + "/dev/block/" + std::to_string(major(st.st_dev)) + ":" + std::to_string(minor(st.st_dev)));

  host::engine::CategoryList categories;
  categories.push_back(MakeCategory(
      9, "Removable", {Owning(app_ctrl::CategoryStorageTypeExpression(app_ctrl::CategoryStorageTypeExpression::RemovableDrive))}));
  host::engine::Engine onRemovable(sys.Path());
  onRemovable.SetCategories(categories);
  engine.SetCategories(categories);

  tov::ApplicationInfo info;
  ASSERT_EQ(Inventory(path, info, &onRemovable), 0);
  ASSERT_EQ(info.categoryKeys.size(), 1u);
  EXPECT_EQ(info.categoryKeys[0].text.view(), tov::tools::CategoryIdToText(Id(9)).view());
  EXPECT_TRUE(onRemovable.DecideNow({path, 0, 0}, {}).facts.removable);

  ASSERT_EQ(Inventory(path, info), 0);  // the real /sys knows no such disk
  EXPECT_TRUE(info.categoryKeys.empty());
}

TEST_F(InventoryModuleTest, DecisionsAndScansShareOneCacheThatMissesChangedFiles) {
  const std::string path = dir.Write("tool", "hello");
  Settle();
  const app_ctrl::EnterpriseApplicationControlSettings settings;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(engine.DecideNow({path, 0, 0}, settings).facts.sha256, kHelloSha256);
  // The scan's streams come from the file factory, and the recogniser has
  // read and moved them before the engine sees them.
  host::FileFactory factory;
  tov::ApplicationInfo info;
  for (int run = 0; run < 2; ++run) {
    zel::RefPtr<zel::IIO> io;
    ASSERT_EQ(factory.CreateFile(zel::Utf8ToWide(path).c_str(), zel::file_access::Read, zel::file_share::Read,
                                 zel::file_disposition::OpenExisting, 0, io.Ref()),
              0);
    char head[3];
    std::uint32_t read = 0;
    ASSERT_EQ(io->Read(head, sizeof head, &read), 0);
    ASSERT_EQ(engine.InventoryModule(io.Get(), 0, info), 0);
    EXPECT_EQ(N(info.fileHash), kHelloSha256) << run;
    EXPECT_EQ(N(info.filePath), path);
  }
  EXPECT_EQ(engine.HashesComputed(), 1u);
  EXPECT_EQ(engine.Hashes().Stats().hits, 3u);

  // Same size, new content.
  dir.Write("tool", "world");
  ASSERT_EQ(Inventory(path, info), 0);
  EXPECT_EQ(engine.HashesComputed(), 2u);
  const std::string worldHash = N(info.fileHash);
  EXPECT_NE(worldHash, kHelloSha256);

  // Times set back to what they were: ctime still moves, so it misses.
  Settle();
  struct stat before {};
  ASSERT_EQ(::stat(path.c_str(), &before), 0);
  ASSERT_EQ(Inventory(path, info), 0);
  const std::uint64_t afterSettle = engine.HashesComputed();
  const struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  ASSERT_EQ(Inventory(path, info), 0);
  EXPECT_EQ(engine.HashesComputed(), afterSettle + 1);
  EXPECT_EQ(N(info.fileHash), worldHash);

  // A file changed a moment ago is hashed every time, never remembered.
  const std::string fresh = dir.Write("fresh", "new");
  const std::uint64_t base = engine.HashesComputed();
  ASSERT_EQ(Inventory(fresh, info), 0);
  ASSERT_EQ(Inventory(fresh, info), 0);
  EXPECT_EQ(engine.HashesComputed(), base + 2);

  // An unreadable program still has its path facts, and nothing is hashed.
  const host::engine::ProgramDecision missing = engine.DecideNow({dir.Path() + "/missing", 0, 0}, settings);
  EXPECT_TRUE(missing.facts.sha256.empty());
  EXPECT_EQ(missing.facts.name, "missing");
  EXPECT_EQ(engine.HashesComputed(), base + 2);
}

}  // namespace
