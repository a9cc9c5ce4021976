// The engine's per-file cost in an inventory scan: a tree of program-sized
// files described through InventoryModule with a cold hash cache (every file
// hashed, as on a first scan or by sha256sum) and with a warm one (a second
// scan of the unchanged tree), plus raw hashing without the engine. Items
// are files; the bytes rate is of file content.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "host/engine/engine.h"
#include "host/engine/file_facts.h"
#include "host/services/file_stream.h"
#include "tov_common/inventory/application_info.h"

namespace {

namespace fs = std::filesystem;

// 256 files from 4 KiB to 1 MiB, like a bin directory.
class Tree {
 public:
  Tree() {
    std::string pattern = (fs::temp_directory_path() / "inventory_bench.XXXXXX").string();
    m_root = ::mkdtemp(pattern.data());
    for (int i = 0; i < 256; ++i) {
      const std::size_t size = std::size_t{4096} << (i % 9);
      std::string content(size, static_cast<char>('a' + i % 26));
      content.replace(0, std::to_string(i).size(), std::to_string(i));
      const std::string path = m_root + "/dir" + std::to_string(i % 8) + "/file" + std::to_string(i);
      fs::create_directories(fs::path(path).parent_path());
      std::ofstream(path, std::ios::binary) << content;
      m_files.push_back(path);
      m_bytes += static_cast<std::int64_t>(size);
    }
    // Older than the engine's racy window, so the warm runs can hit.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ~Tree() { fs::remove_all(m_root); }
  const std::vector<std::string>& Files() const { return m_files; }
  std::int64_t Bytes() const { return m_bytes; }

 private:
  std::string m_root;
  std::vector<std::string> m_files;
  std::int64_t m_bytes = 0;
};

const Tree& TheTree() {
  static const Tree tree;
  return tree;
}

void ScanOnce(host::engine::Engine& engine, const Tree& tree) {
  for (const std::string& path : tree.Files()) {
    zel::RefPtr<zel::IIO> io;
    host::FileStream::Open(path, io);
    tov::ApplicationInfo info;
    benchmark::DoNotOptimize(engine.InventoryModule(io.Get(), 0, info));
  }
}

void BM_InventoryColdCache(benchmark::State& state) {
  const Tree& tree = TheTree();
  host::engine::Engine engine;
  for (auto _ : state) {
    engine.Hashes().Clear();
    ScanOnce(engine, tree);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(tree.Files().size()));
  state.SetBytesProcessed(state.iterations() * tree.Bytes());
}
BENCHMARK(BM_InventoryColdCache)->Unit(benchmark::kMillisecond);

void BM_InventoryWarmCache(benchmark::State& state) {
  const Tree& tree = TheTree();
  host::engine::Engine engine;
  ScanOnce(engine, tree);
  const std::uint64_t hashed = engine.HashesComputed();
  for (auto _ : state) ScanOnce(engine, tree);
  if (engine.HashesComputed() != hashed) state.SkipWithError("the warm scan hashed files");
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(tree.Files().size()));
}
BENCHMARK(BM_InventoryWarmCache)->Unit(benchmark::kMillisecond);

// Hashing alone, by path: what sha256sum does for each file.
void BM_Sha256FilesOnly(benchmark::State& state) {
  const Tree& tree = TheTree();
  std::string hex;
  for (auto _ : state) {
    for (const std::string& path : tree.Files()) benchmark::DoNotOptimize(host::engine::Sha256File(path, &hex));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(tree.Files().size()));
  state.SetBytesProcessed(state.iterations() * tree.Bytes());
}
BENCHMARK(BM_Sha256FilesOnly)->Unit(benchmark::kMillisecond);

}  // namespace
