// The inventory walk over a tree of 100 000 files in 5 000 directories,
// beside `find ROOT -type f` over the same tree in the same run. The walk
// does an lstat per entry (find mostly trusts d_type), so the ratio says
// what that care costs. The tree is generated once, outside any timed
// region, and reused by later runs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>

#include "app_control/directory_enumerator.h"

extern char** environ;

namespace {

constexpr int kTopDirs = 50;
constexpr int kSubDirs = 100;        // per top directory: 5 000 in all
constexpr int kFilesPerDir = 20;     // 100 000 files in all
const char* const kRoot = "/tmp/ac_bench_tree_100k";

void MakeTree() {
  const std::string marker = std::string(kRoot) + "/.complete";
  if (::access(marker.c_str(), F_OK) == 0) return;
  (void)std::system((std::string("rm -rf ") + kRoot).c_str());
  ::mkdir(kRoot, 0755);
  const int root = ::open(kRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int t = 0; t < kTopDirs; ++t) {
    const std::string top = "top" + std::to_string(t);
    ::mkdirat(root, top.c_str(), 0755);
    const int topFd = ::openat(root, top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int s = 0; s < kSubDirs; ++s) {
      const std::string sub = "sub" + std::to_string(s);
      ::mkdirat(topFd, sub.c_str(), 0755);
      const int subFd = ::openat(topFd, sub.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      for (int f = 0; f < kFilesPerDir; ++f) {
        const std::string name = "file" + std::to_string(f) + ".sh";
        const int fd = ::openat(subFd, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) ::close(fd);
      }
      ::close(subFd);
    }
    ::close(topFd);
  }
  ::close(root);
  const int done = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (done >= 0) ::close(done);
}

// One walk; gives the number of entries handed out.
std::int64_t Walk() {
  tov::app_control::DirectoryEnumerator e;
  if (e.Open(tov::NativePath(kRoot), nullptr) != 0) return -1;
  std::int64_t entries = 0;
  do {
    benchmark::DoNotOptimize(e.CurrentName());
    ++entries;
  } while (e.Advance() == 0);
  return entries;
}

// `find ROOT -type f > /dev/null`, in seconds.
double RunFind() {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  char find[] = "find";
  char type[] = "-type";
  char f[] = "f";
  std::string root = kRoot;
  char* argv[] = {find, root.data(), type, f, nullptr};
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  double seconds = -1;
  if (posix_spawnp(&pid, "find", &actions, nullptr, argv, environ) == 0) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  posix_spawn_file_actions_destroy(&actions);
  return seconds;
}

void BM_FindTypeF(benchmark::State& state) {
  MakeTree();
  RunFind();  // warm the caches
  for (auto _ : state) {
    const double s = RunFind();
    state.SetIterationTime(s);
  }
  state.SetItemsProcessed(state.iterations() * kTopDirs * kSubDirs * kFilesPerDir);
}
BENCHMARK(BM_FindTypeF)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_EnumerateTree(benchmark::State& state) {
  MakeTree();
  Walk();  // warm the caches
  double findBest = 1e9;
  for (int i = 0; i < 3; ++i) findBest = std::min(findBest, RunFind());

  std::int64_t entries = 0;
  double walkBest = 1e9;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    entries = Walk();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    walkBest = std::min(walkBest, s);
    state.SetIterationTime(s);
  }
  state.SetItemsProcessed(state.iterations() * entries);
  state.counters["entries"] = static_cast<double>(entries);
  state.counters["entries_per_s"] = static_cast<double>(entries) / walkBest;
  state.counters["find_ms"] = findBest * 1000;
  state.counters["ratio_to_find"] = walkBest / findBest;
}
BENCHMARK(BM_EnumerateTree)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
