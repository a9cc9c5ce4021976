// The hash cache kept in the store, side by side: the first decision on a
// 50 MB program by a freshly started engine with nothing loaded (it hashes
// the program) and with the store's cache loaded (it does not); and what
// loading and writing back a scan's worth of rows costs at start and exit.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "host/engine/engine.h"
#include "host/engine/hash_cache_store.h"

namespace {

namespace fs = std::filesystem;
using host::engine::Engine;
using host::engine::HashCache;
using host::engine::HashCacheStore;

class Scratch {
 public:
  Scratch() {
    std::string pattern = (fs::temp_directory_path() / "hash_cache_bench.XXXXXX").string();
    root = ::mkdtemp(pattern.data());
    program = root + "/program";
    std::string chunk(1 << 20, '\x7f');
    std::ofstream out(program, std::ios::binary);
    for (int i = 0; i < 50; ++i) {
      chunk[0] = static_cast<char>(i);
      out << chunk;
    }
    out.close();
    // Older than the engine's racy window, so that its hash is kept.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    db = root + "/state.db";
    Engine scanner;
    scanner.DecideNow({program, 0, 0}, {});
    HashCacheStore store;
    store.Open(db);
    store.Save(scanner.Hashes());
  }
  ~Scratch() { fs::remove_all(root); }
  std::string root, program, db;
};

const Scratch& TheScratch() {
  static const Scratch scratch;
  return scratch;
}

// arg 0: nothing loaded; 1: the store's cache loaded before the start.
void BM_FirstDecisionOn50MBProgram(benchmark::State& state) {
  const Scratch& s = TheScratch();
  const bool loaded = state.range(0) == 1;
  for (auto _ : state) {
    state.PauseTiming();
    auto engine = std::make_unique<Engine>();
    if (loaded) {
      HashCacheStore store;
      store.Open(s.db);
      store.LoadInto(engine->Hashes());
    }
    state.ResumeTiming();
    benchmark::DoNotOptimize(engine->DecideNow({s.program, 0, 0}, {}));
    state.PauseTiming();
    if (engine->HashesComputed() != (loaded ? 0u : 1u)) state.SkipWithError("unexpected hashing");
    engine.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_FirstDecisionOn50MBProgram)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// A scan's worth of rows (arg) written back into an empty table, then
// loaded by the next process.
void BM_SaveThenLoadRows(benchmark::State& state) {
  const Scratch& s = TheScratch();
  const auto rows = static_cast<std::uint64_t>(state.range(0));
  double saveSeconds = 0, loadSeconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string db = s.root + "/rows.db";
    fs::remove(db);
    fs::remove(db + "-wal");
    fs::remove(db + "-shm");
    HashCache cache(rows);
    for (std::uint64_t i = 0; i < rows; ++i) {
      host::engine::FileStamp stamp;
      stamp.device = 2049;
      stamp.inode = i * 7919;
      stamp.size = 1000 + i;
      stamp.mtimeNs = stamp.ctimeNs = 1'700'000'000'000'000'000 + static_cast<std::int64_t>(i);
      cache.Insert(stamp, std::string(64, "0123456789abcdef"[i % 16]));
    }
    HashCacheStore store;
    store.Open(db);
    state.ResumeTiming();
    const auto t0 = std::chrono::steady_clock::now();
    store.Save(cache);
    const auto t1 = std::chrono::steady_clock::now();
    HashCache loaded(rows);
    store.LoadInto(loaded);
    const auto t2 = std::chrono::steady_clock::now();
    saveSeconds += std::chrono::duration<double>(t1 - t0).count();
    loadSeconds += std::chrono::duration<double>(t2 - t1).count();
    if (loaded.Stats().entries != rows) state.SkipWithError("rows lost");
  }
  state.counters["save_ms"] = benchmark::Counter(saveSeconds * 1000 / static_cast<double>(state.iterations()));
  state.counters["load_ms"] = benchmark::Counter(loadSeconds * 1000 / static_cast<double>(state.iterations()));
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rows));
}
BENCHMARK(BM_SaveThenLoadRows)->Arg(65536)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
