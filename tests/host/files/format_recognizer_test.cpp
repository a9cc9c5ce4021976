// The host's format recogniser on real files opened through the host's file
// factory: the chain each kind of file gets, the kinds, the filter by the
// ids a recogniser was made for, and what it leaves of the stream.
#include "host/files/format_recognizer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "files_test_support.h"
#include "host/files/file_factory.h"

namespace {

using files_test::OpenForScan;
using files_test::ScratchDir;
namespace ids = host::format_ids;

// A chain read out: its kind and the ids in order. kind 0 and no ids when
// the recogniser did not know the file.
struct Chain {
  std::uint32_t kind = 0;
  std::vector<FormatId> ids;
  bool operator==(const Chain&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Chain& chain) {
  out << "kind " << chain.kind << " [";
  for (FormatId id : chain.ids) out << " 0x" << std::hex << id << std::dec;
  return out << " ]";
}

std::string ReadWhole(const std::string& path, std::size_t limit = 1 << 20) {
  std::ifstream in(path, std::ios::binary);
  std::string data(limit, '\0');
  in.read(data.data(), static_cast<std::streamsize>(limit));
  data.resize(static_cast<std::size_t>(in.gcount()));
  return data;
}

// The libc this test runs on, from the process's own mappings.
std::string MappedLibc() {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    const std::size_t slash = line.find('/');
    if (slash == std::string::npos) continue;
    const std::string path = line.substr(slash);
    if (path.find("/libc.so") != std::string::npos || path.find("/libc-") != std::string::npos) return path;
  }
  return {};
}

std::string Le(std::uint64_t value, std::size_t width) {
  std::string out;
  for (std::size_t i = 0; i < width; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
  return out;
}

std::string ZipWithFirstEntry(const std::string& name) {
  std::string zip = std::string("PK\x03\x04", 4) + Le(20, 2) + Le(0, 2) + Le(0, 2) + Le(0, 4) + Le(0, 4) + Le(0, 4) +
                    Le(0, 4) + Le(name.size(), 2) + Le(0, 2) + name;
  zip += std::string("PK\x05\x06", 4) + std::string(18, '\0');
  return zip;
}

std::string PeImage(std::uint16_t characteristics) {
  std::string pe = "MZ" + std::string(0x3A, '\0') + Le(0x80, 4);
  pe.resize(0x80, '\0');
  pe += std::string("PE\0\0", 4) + Le(0x8664, 2) + Le(1, 2) + std::string(12, '\0') + Le(0xF0, 2) +
        Le(characteristics, 2);
  pe.resize(1024, '\0');
  return pe;
}

class FormatRecognizerTest : public ::testing::Test {
 protected:
  FormatRecognizerTest() {
    EXPECT_EQ(service.CreateRecognizerForAll(all.Ref()), zel::result::NoError);
    // The module's list: the second group, then the first.
    const FormatIdList inventory = {ids::kElfExecutable, ids::kElfSharedObject, ids::kPythonBytecode,
                                    ids::kJavaArchive,   ids::kJavaScript,      ids::kScript};
    EXPECT_EQ(service.CreateRecognizer(inventory, scan.Ref()), zel::result::NoError);
  }

  Chain Recognize(FormatRecognizer* recognizer, const std::string& path, zel::result_t expected = 0) {
    zel::RefPtr<zel::IIO> io;
    EXPECT_EQ(OpenForScan(files, path, io), zel::result::NoError) << path;
    if (!io) return {};
    // The head is read from the start and the stream is put back where it was.
    EXPECT_EQ(io->Seek(zel::seek_origin::Begin, 1, nullptr), zel::result::NoError);
    FormatPropertyList properties;
    FormatProperty extension;
    extension.id = format_property::Extension;
    extension.value.SetWString(zel::wstring_t(u"bin"));
    properties.push_back(extension);
    FormatRecord record;
    FormatResult* raw = reinterpret_cast<FormatResult*>(0x1);
    const zel::result_t r = recognizer->Recognize(properties, io.Get(), &record, &raw);
    EXPECT_EQ(r, expected) << path;
    std::uint64_t position = 0;
    EXPECT_EQ(io->Tell(&position), zel::result::NoError);
    EXPECT_EQ(position, 1u) << path;
    Chain chain;
    if (r != zel::result::NoError) {
      EXPECT_EQ(raw, nullptr) << path;
      return chain;
    }
    zel::RefPtr<FormatResult> element = zel::RefPtr<FormatResult>::Adopt(raw);
    EXPECT_TRUE(element) << path;
    EXPECT_EQ(element->GetKind(chain.kind), zel::result::NoError);
    while (element) {
      std::uint32_t kind = 0;
      EXPECT_EQ(element->GetKind(kind), zel::result::NoError);
      EXPECT_EQ(kind, chain.kind) << "every element tells the chain's kind";
      FormatRecord got;
      EXPECT_EQ(element->GetRecord(got), zel::result::NoError);
      chain.ids.push_back(got.id);
      EXPECT_EQ(got.flag, kind == format_result_kind::Set ? 1 : 0);
      EXPECT_FALSE(got.name.empty());
      FormatResult* next = reinterpret_cast<FormatResult*>(0x1);
      const zel::result_t n = element->GetNext(next);
      EXPECT_EQ(n == zel::result::NoError, next != nullptr);
      EXPECT_TRUE(n == zel::result::NoError || n == zel::result::False);
      element = zel::RefPtr<FormatResult>::Adopt(next);
    }
    EXPECT_EQ(record.id, chain.ids.empty() ? 0 : chain.ids.front()) << "the work area holds the first answer";
    return chain;
  }

  host::FileFactory files;
  host::FormatRecognizerService service;
  zel::RefPtr<FormatRecognizer> all;
  zel::RefPtr<FormatRecognizer> scan;
  ScratchDir dir;
};

constexpr std::uint32_t kSet = format_result_kind::Set;
constexpr std::uint32_t kCandidates = format_result_kind::Candidates;

TEST_F(FormatRecognizerTest, RealProgramsAndLibraries) {
  const std::string program = dir.Write("true", ReadWhole("/usr/bin/true"));
  EXPECT_EQ(Recognize(all.Get(), program), (Chain{kSet, {ids::kElfExecutable}}));

  const std::string libc = MappedLibc();
  ASSERT_FALSE(libc.empty());
  // libc has an interpreter (it runs as a program) and is still a library.
  EXPECT_EQ(Recognize(all.Get(), libc), (Chain{kSet, {ids::kElfSharedObject}}));
  EXPECT_EQ(Recognize(scan.Get(), libc), (Chain{kSet, {ids::kElfSharedObject}}));
}

// One file of each kind the content test tells apart (its signatures and
// near misses are the sniffer's tests): the chain the kind becomes.
TEST_F(FormatRecognizerTest, EachKindOfContentGetsItsChain) {
  const struct {
    const char* name;
    std::string content;
    Chain expected;  // no ids: not recognised, a positive answer all the same
  } cases[] = {
      {"sh", "#!/bin/sh\necho hi\n", {kSet, {ids::kScript}}},
      {"python", "#!/usr/bin/env python3\n", {kSet, {ids::kScript}}},
      {"perl", "#!/usr/bin/perl -w\n", {kSet, {ids::kScript}}},
      {"ruby", "#!/usr/bin/env ruby\n", {kSet, {ids::kScript}}},
      {"node", "#!/usr/bin/env node\n", {kSet, {ids::kJavaScript, ids::kScript}}},
      {"awk", "#!/usr/bin/awk -f\n", {}},
      {"plain.zip", ZipWithFirstEntry("readme.txt"), {kCandidates, {ids::kJavaArchive}}},
      {"app.jar", ZipWithFirstEntry("META-INF/MANIFEST.MF"), {kSet, {ids::kJavaArchive}}},
      {"mod.pyc", Le(3531, 2) + "\r\n" + std::string(12, '\0'), {kSet, {ids::kPythonBytecode}}},
      {"tool.exe", PeImage(0x0022), {kSet, {ids::kPeImage}}},
      {"lib.dll", PeImage(0x2022), {kSet, {ids::kPeImage, ids::kPeLibrary}}},
      {"notes.txt", "just text\n", {}},
      {"empty", "", {}},
      {"mz", "MZ", {}},
  };
  for (const auto& c : cases) {
    const zel::result_t expected = c.expected.ids.empty() ? zel::result::False : zel::result::NoError;
    EXPECT_EQ(Recognize(all.Get(), dir.Write(c.name, c.content), expected), c.expected) << c.name;
  }
}

TEST_F(FormatRecognizerTest, OnlyTheIdsARecognizerWasMadeForAreAnswered) {
  // The inventory's list has no PE ids: those files are not known to it.
  EXPECT_EQ(Recognize(scan.Get(), dir.Write("tool.exe", PeImage(0x0022)), zel::result::False), Chain{});
  EXPECT_EQ(Recognize(scan.Get(), dir.Write("lib.dll", PeImage(0x2022)), zel::result::False), Chain{});

  zel::RefPtr<FormatRecognizer> dllOnly;
  ASSERT_EQ(service.CreateRecognizer(FormatIdList{ids::kPeLibrary}, dllOnly.Ref()), zel::result::NoError);
  EXPECT_EQ(Recognize(dllOnly.Get(), dir.Write("lib2.dll", PeImage(0x2022))), (Chain{kSet, {ids::kPeLibrary}}));

  zel::RefPtr<FormatRecognizer> scriptsOnly;
  ASSERT_EQ(service.CreateRecognizer(FormatIdList{ids::kScript, 0x12345678}, scriptsOnly.Ref()),
            zel::result::NoError);
  const std::string node = dir.Write("app", "#!/usr/bin/env node\n");
  EXPECT_EQ(Recognize(scriptsOnly.Get(), node), (Chain{kSet, {ids::kScript}}));
  EXPECT_EQ(Recognize(scriptsOnly.Get(), dir.Write("true", ReadWhole("/usr/bin/true")), zel::result::False), Chain{});

  zel::RefPtr<FormatRecognizer> none;
  ASSERT_EQ(service.CreateRecognizer(FormatIdList{}, none.Ref()), zel::result::NoError);
  EXPECT_EQ(Recognize(none.Get(), node, zel::result::False), Chain{});
}

TEST_F(FormatRecognizerTest, FormatRecordsAndFailures) {
  FormatRecord record;
  EXPECT_EQ(service.GetFormatRecord(ids::kJavaArchive, record), zel::result::NoError);
  EXPECT_EQ(record.id, ids::kJavaArchive);
  EXPECT_FALSE(record.name.empty());
  EXPECT_FALSE(record.description.empty());
  FormatRecord untouched;
  untouched.id = 42;
  EXPECT_EQ(service.GetFormatRecord(0x5A0F32FE, untouched), zel::result::NotFound);
  EXPECT_EQ(untouched.id, 42u);

  // A read failure of the stream is the recogniser's failure.
  const std::string path = dir.Write("s.sh", "#!/bin/sh\n");
  files.FailRead(zel::result::MediaError);
  EXPECT_EQ(Recognize(all.Get(), path, zel::result::MediaError), Chain{});
  files.FailRead(0);
  EXPECT_EQ(Recognize(all.Get(), path), (Chain{kSet, {ids::kScript}}));

  zel::RefPtr<FormatResult> result;
  EXPECT_EQ(all->Recognize({}, nullptr, nullptr, result.Ref()), zel::result::InvalidArgument);
}

}  // namespace
