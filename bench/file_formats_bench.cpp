// Cost of telling a file's format from its first bytes, per file, as the
// inventory scan pays it: open through the host's file factory, recognise,
// release. Measured over 10,000 files made from the heads of the programs
// in /usr/bin plus scripts, archives and bytecode, and over /usr/bin itself
// (whole ELF files, where libraries and PIEs need their dynamic table).
// The bare content test over heads in memory shows what is left when the
// system calls are taken away.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/files/file_factory.h"
#include "host/files/format_recognizer.h"
#include "host/files/internal/content_sniffer.h"
#include "zel/strings/conversions.h"

namespace {

constexpr std::size_t kGeneratedFiles = 10000;
constexpr std::size_t kHeadCopyBytes = 8192;

std::vector<std::string> RegularFilesIn(const std::string& directory) {
  std::vector<std::string> files;
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) return files;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string path = directory + "/" + entry->d_name;
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(path);
  }
  ::closedir(dir);
  return files;
}

std::string ReadHead(const std::string& path, std::size_t limit) {
  std::ifstream in(path, std::ios::binary);
  std::string data(limit, '\0');
  in.read(data.data(), static_cast<std::streamsize>(limit));
  data.resize(static_cast<std::size_t>(in.gcount()));
  return data;
}

// The generated corpus, made once for the process and removed at exit.
class Corpus {
 public:
  Corpus() {
    std::string pattern = (std::filesystem::temp_directory_path() / "file_formats_bench.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    m_dir = pattern;
    std::vector<std::string> sources;
    for (const std::string& path : RegularFilesIn("/usr/bin")) sources.push_back(ReadHead(path, kHeadCopyBytes));
    sources.push_back("#!/bin/sh\nexit 0\n");
    sources.push_back("#!/usr/bin/env python3\nprint('x')\n");
    sources.push_back("#!/usr/bin/env node\nconsole.log(1)\n");
    sources.push_back(std::string("PK\x03\x04", 4) + std::string(22, '\0') +
                      std::string("\x09\0\0\0META-INF/", 13) + std::string(64, '\0'));
    sources.push_back(std::string("\xcb\x0d\r\n", 4) + std::string(12, '\0'));
    sources.push_back("plain text that nobody recognises\n");
    for (std::size_t i = 0; i < kGeneratedFiles; ++i) {
      const std::string path = m_dir + "/f" + std::to_string(i);
      const std::string& content = sources[i % sources.size()];
      std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
      m_files.push_back(zel::Utf8ToWide(path));
      m_heads.push_back(content.substr(0, host::kRecognizerHeadBytes));
    }
  }
  ~Corpus() {
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
  }

  const std::vector<zel::wstring_t>& Files() const { return m_files; }
  const std::vector<std::string>& Heads() const { return m_heads; }

 private:
  std::string m_dir;
  std::vector<zel::wstring_t> m_files;
  std::vector<std::string> m_heads;
};

const Corpus& TheCorpus() {
  static const Corpus corpus;
  return corpus;
}

void RecognizeAll(benchmark::State& state, const std::vector<zel::wstring_t>& files) {
  host::FileFactory factory;
  host::FormatRecognizerService service;
  zel::RefPtr<FormatRecognizer> recognizer;
  if (ZEL_FAILED(service.CreateRecognizerForAll(recognizer.Ref()))) state.SkipWithError("no recogniser");
  std::size_t known = 0;
  for (auto _ : state) {
    known = 0;
    for (const zel::wstring_t& path : files) {
      zel::RefPtr<zel::IIO> io;
      if (ZEL_FAILED(factory.CreateFile(path.c_str(), zel::file_access::Read, zel::file_share::Read,
                                        zel::file_disposition::OpenExisting, 0, io.Ref())))
        continue;
      zel::RefPtr<FormatResult> result;
      if (recognizer->Recognize({}, io.Get(), nullptr, result.Ref()) == zel::result::NoError) ++known;
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * files.size()));
  state.counters["files"] = static_cast<double>(files.size());
  state.counters["recognised"] = static_cast<double>(known);
}

void BM_RecognizeGeneratedFiles(benchmark::State& state) { RecognizeAll(state, TheCorpus().Files()); }
BENCHMARK(BM_RecognizeGeneratedFiles)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_RecognizeUsrBin(benchmark::State& state) {
  std::vector<zel::wstring_t> files;
  for (const std::string& path : RegularFilesIn("/usr/bin")) files.push_back(zel::Utf8ToWide(path));
  RecognizeAll(state, files);
}
BENCHMARK(BM_RecognizeUsrBin)->Unit(benchmark::kMillisecond)->Iterations(5);

// The content test alone, over heads already in memory (no further reads).
void BM_SniffHeadsInMemory(benchmark::State& state) {
  const std::vector<std::string>& heads = TheCorpus().Heads();
  for (auto _ : state) {
    for (const std::string& head : heads) {
      host::files::detail::Content content;
      const auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(head.data()), head.size());
      benchmark::DoNotOptimize(host::files::detail::SniffContent(bytes, nullptr, &content));
      benchmark::DoNotOptimize(content);
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * heads.size()));
}
BENCHMARK(BM_SniffHeadsInMemory)->Unit(benchmark::kMillisecond);

}  // namespace
