// The content test on byte images built here: each signature, its near
// misses, and the ELF and PE cases that need bytes beyond the head.
#include "host/files/internal/content_sniffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using host::files::detail::ByteSource;
using host::files::detail::Content;
using host::files::detail::ScriptInterpreter;
using host::files::detail::SniffContent;

using Image = std::vector<std::uint8_t>;

Image FromText(std::string_view text) { return Image(text.begin(), text.end()); }

void Put(Image& image, std::size_t at, std::uint64_t value, std::size_t width, bool bigEndian = false) {
  if (image.size() < at + width) image.resize(at + width);
  for (std::size_t i = 0; i < width; ++i) {
    const std::size_t shift = 8 * (bigEndian ? width - 1 - i : i);
    image[at + i] = static_cast<std::uint8_t>(value >> shift);
  }
}

// The whole image, readable at any offset; counts the reads beyond the head.
class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(const Image& image) : m_image(image) {}
  zel::result_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> out, std::size_t* read) override {
    ++reads;
    if (fail) return zel::result::MediaError;
    *read = 0;
    if (offset >= m_image.size()) return zel::result::NoError;
    *read = std::min<std::size_t>(out.size(), m_image.size() - offset);
    std::memcpy(out.data(), m_image.data() + offset, *read);
    return zel::result::NoError;
  }
  int reads = 0;
  bool fail = false;

 private:
  const Image& m_image;
};

struct ElfLayout {
  bool is64 = true;
  bool bigEndian = false;
  std::uint16_t type = 3;
  bool interp = false;
  bool dynamic = false;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> dynEntries = {};
  std::size_t extraHeaders = 0;  // PT_LOAD fillers in front, to push the interesting ones past the head
  std::uint8_t elfClass = 0;     // 0: as is64 says
  std::uint16_t phnum = 0;       // 0: the headers written
  std::size_t size = 0;          // 0: as built; else cut to this size
};

// A minimal ELF file: header, program headers, and a dynamic table at 0x2000.
Image MakeElf(const ElfLayout& s) {
  Image image(s.is64 ? 64 : 52, 0);
  image[0] = 0x7f;
  image[1] = 'E';
  image[2] = 'L';
  image[3] = 'F';
  image[4] = s.elfClass != 0 ? s.elfClass : s.is64 ? 2 : 1;
  image[5] = s.bigEndian ? 2 : 1;
  image[6] = 1;
  const std::size_t w = s.is64 ? 8 : 4;
  const std::size_t phent = s.is64 ? 56 : 32;
  const std::size_t phoff = image.size();
  std::vector<std::uint32_t> types(s.extraHeaders, 1u);
  if (s.interp) types.push_back(3);
  if (s.dynamic) types.push_back(2);
  Put(image, 16, s.type, 2, s.bigEndian);
  Put(image, s.is64 ? 32 : 28, phoff, w, s.bigEndian);
  Put(image, s.is64 ? 54 : 42, phent, 2, s.bigEndian);
  Put(image, s.is64 ? 56 : 44, s.phnum != 0 ? s.phnum : types.size(), 2, s.bigEndian);
  const std::size_t dynAt = 0x2000;
  const std::size_t dynSize = (s.dynEntries.size() + 1) * 2 * w;
  for (std::size_t i = 0; i < types.size(); ++i) {
    const std::size_t at = phoff + i * phent;
    Put(image, at, types[i], 4, s.bigEndian);
    if (types[i] == 2) {
      Put(image, at + (s.is64 ? 8 : 4), dynAt, w, s.bigEndian);
      Put(image, at + (s.is64 ? 32 : 16), dynSize, w, s.bigEndian);
    }
    Put(image, at + phent - 1, 0, 1);
  }
  if (s.dynamic) {
    std::size_t at = dynAt;
    for (auto [tag, value] : s.dynEntries) {
      Put(image, at, tag, w, s.bigEndian);
      Put(image, at + w, value, w, s.bigEndian);
      at += 2 * w;
    }
    Put(image, at + 2 * w - 1, 0, 1);  // DT_NULL
  }
  if (s.size != 0) image.resize(s.size);
  return image;
}

// The answer for a 512-byte head with the whole image behind it; `reads`
// gets the reads beyond the head.
Content Sniff(const Image& image, int* reads = nullptr) {
  MemorySource source(image);
  const std::span<const std::uint8_t> head(image.data(), std::min<std::size_t>(512, image.size()));
  Content content = Content::Unknown;
  EXPECT_EQ(SniffContent(head, &source, &content), zel::result::NoError);
  if (reads != nullptr) *reads = source.reads;
  return content;
}

constexpr std::uint64_t kSoname = 14, kFlags1 = 0x6ffffffb, kPie = 0x08000000;

// Headers that cannot be trusted are not chased: what the head cannot tell of
// an ET_DYN file stays a library.
TEST(ContentSniffer, ElfTypesAndTheDynamicTableDecideExecutableOrLibrary) {
  const struct {
    const char* name;
    ElfLayout layout;
    Content expected;
    int reads = -1;  // beyond the head; -1: any
  } cases[] = {
      {"ET_EXEC", {.type = 2}, Content::ElfExecutable, 0},
      {"ET_DYN without interpreter", {.dynamic = true, .dynEntries = {{kSoname, 1}}}, Content::ElfSharedObject},
      {"PIE flag", {.interp = true, .dynamic = true, .dynEntries = {{kFlags1, kPie}}}, Content::ElfExecutable},
      {"interpreter and soname, no PIE flag (libc)",
       {.interp = true, .dynamic = true, .dynEntries = {{kSoname, 1}, {kFlags1, 1}}},
       Content::ElfSharedObject},
      {"PIE flag wins over a soname",
       {.interp = true, .dynamic = true, .dynEntries = {{kSoname, 1}, {kFlags1, kPie}}},
       Content::ElfExecutable},
      {"old PIE: interpreter, no soname, no flags", {.interp = true, .dynamic = true}, Content::ElfExecutable},
      {"interpreter, no dynamic table", {.interp = true}, Content::ElfExecutable},
      {"32-bit big-endian executable", {.is64 = false, .bigEndian = true, .type = 2}, Content::ElfExecutable},
      {"32-bit big-endian library",
       {.is64 = false, .bigEndian = true, .interp = true, .dynamic = true, .dynEntries = {{kSoname, 1}}},
       Content::ElfSharedObject},
      {"32-bit PIE", {.is64 = false, .interp = true, .dynamic = true, .dynEntries = {{kFlags1, kPie}}},
       Content::ElfExecutable},
      {"program headers past the head",
       {.interp = true, .dynamic = true, .dynEntries = {{kFlags1, kPie}}, .extraHeaders = 12},
       Content::ElfExecutable,
       2},  // the program headers, then the dynamic table
      {"relocatable object", {.type = 1}, Content::Unknown},
      {"core dump", {.type = 4}, Content::Unknown},
      {"no such class", {.interp = true, .dynamic = true, .dynEntries = {{kFlags1, kPie}}, .elfClass = 3},
       Content::Unknown},
      {"cut inside the header", {.type = 2, .size = 40}, Content::Unknown},
      {"absurd program header count",
       {.interp = true, .dynamic = true, .dynEntries = {{kFlags1, kPie}}, .phnum = 60000},
       Content::ElfSharedObject,
       0},
      {"program headers past the end", {.interp = true, .dynamic = true, .extraHeaders = 20, .size = 600},
       Content::ElfSharedObject},
  };
  for (const auto& c : cases) {
    int reads = 0;
    EXPECT_EQ(Sniff(MakeElf(c.layout), &reads), c.expected) << c.name;
    EXPECT_TRUE(c.reads < 0 || reads == c.reads) << c.name << ": " << reads << " reads";
  }
}

TEST(ContentSniffer, ReadFailuresBeyondTheHeadArePassedOn) {
  const Image pie = MakeElf({.interp = true, .dynamic = true, .dynEntries = {{kFlags1, kPie}}, .extraHeaders = 12});
  MemorySource failing(pie);
  failing.fail = true;
  Content content = Content::PeLibrary;
  EXPECT_EQ(SniffContent(std::span(pie.data(), 512), &failing, &content), zel::result::MediaError);

  // Without a source, what the head cannot tell stays a library.
  EXPECT_EQ(SniffContent(std::span(pie.data(), 512), nullptr, &content), zel::result::NoError);
  EXPECT_EQ(content, Content::ElfSharedObject);
}

TEST(ContentSniffer, ShebangNamesTheInterpreter) {
  const struct {
    const char* line;
    Content expected;
  } cases[] = {
      {"#!/bin/sh\n", Content::ShellScript},
      {"#! /bin/bash -e\n", Content::ShellScript},
      {"#!/usr/bin/dash", Content::ShellScript},
      {"#!/bin/zsh\r\n", Content::ShellScript},
      {"#!/usr/bin/python3\n", Content::PythonScript},
      {"#!/usr/bin/python3.11 -I\n", Content::PythonScript},
      {"#!/usr/bin/env python\n", Content::PythonScript},
      {"#!/usr/bin/env -S python3 -u\n", Content::PythonScript},
      {"#!/usr/bin/env -i PYTHONPATH=/x python3\n", Content::PythonScript},
      {"#!/usr/bin/env -u HOME perl\n", Content::PerlScript},
      {"#!/usr/bin/perl -w\n", Content::PerlScript},
      {"#!/usr/bin/perl5.36\n", Content::PerlScript},
      {"#!/usr/bin/ruby\n", Content::RubyScript},
      {"#!/usr/bin/env ruby3.1\n", Content::RubyScript},
      {"#!/usr/bin/node\n", Content::NodeScript},
      {"#!/usr/bin/env nodejs\n", Content::NodeScript},
      {"#!/usr/bin/awk -f\n", Content::Unknown},
      {"#!/usr/bin/pythonic\n", Content::Unknown},
      {"#!/usr/bin/env\n", Content::Unknown},
      {"#!\n/bin/sh\n", Content::Unknown},
      {"#!/bin/shell\n", Content::Unknown},
      {"# /bin/sh\n", Content::Unknown},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ScriptInterpreter(c.line), c.expected) << c.line;
    EXPECT_EQ(Sniff(FromText(c.line)), c.expected) << c.line;
  }
}

// A local file header with the given first entry name and extra field.
Image MakeZip(std::string_view name, const Image& extra = {}) {
  Image image = FromText(std::string_view("PK\x03\x04", 4));
  image.resize(30, 0);
  Put(image, 26, name.size(), 2);
  Put(image, 28, extra.size(), 2);
  image.insert(image.end(), name.begin(), name.end());
  image.insert(image.end(), extra.begin(), extra.end());
  image.resize(image.size() + 16, 0);
  return image;
}

Image MakePe(std::uint32_t lfanew, std::uint16_t characteristics, bool signature = true) {
  Image image = FromText("MZ");
  image.resize(0x40, 0);
  Put(image, 0x3C, lfanew, 4);
  if (signature) {
    Put(image, lfanew, 0x00004550, 4);  // "PE\0\0"
    Put(image, lfanew + 22, characteristics, 2);
  }
  image.resize(std::max<std::size_t>(image.size(), lfanew + 24 + 200), 0);
  return image;
}

// A compiled Python file's head: the magic number and its two-byte tail.
Image MakePyc(std::uint16_t magic, std::string_view tail = "\r\n") {
  Image image;
  Put(image, 0, magic, 2);
  image.insert(image.end(), tail.begin(), tail.end());
  image.resize(16, 0);
  return image;
}

// A ZIP is a JAR only when its first entry says so.
TEST(ContentSniffer, ArchivesBytecodeAndPeImagesAndTheirNearMisses) {
  Image cafe;
  Put(cafe, 0, 0x5455, 2);  // an unrelated extra block first
  Put(cafe, 2, 5, 2);
  cafe.resize(9, 0);
  Put(cafe, 9, 0xCAFE, 2);
  Put(cafe, 11, 0, 2);
  const struct {
    const char* name;
    Image image;
    Content expected;
  } cases[] = {
      {"plain ZIP", MakeZip("readme.txt"), Content::Zip},
      {"manifest directory", MakeZip("META-INF/"), Content::Jar},
      {"manifest file", MakeZip("META-INF/MANIFEST.MF"), Content::Jar},
      {"0xCAFE extra block", MakeZip("a/B.class", cafe), Content::Jar},
      {"empty archive", FromText(std::string_view("PK\x05\x06\0\0\0\0", 8)), Content::Zip},
      {"spanned archive", FromText(std::string_view("PK\x07\x08", 4)), Content::Zip},
      {"ZIP header cut short", FromText(std::string_view("PK\x03\x04\x14\0", 6)), Content::Zip},
      {"not a ZIP", FromText("PK\x01\x02"), Content::Unknown},
      {"Python 3.12", MakePyc(3531), Content::PythonBytecode},
      {"Python 3.8", MakePyc(3413), Content::PythonBytecode},
      {"Python 2.7", MakePyc(62211), Content::PythonBytecode},
      {"bytecode tail swapped", MakePyc(3531, "\n\r"), Content::Unknown},
      {"bytecode magic below 3.x", MakePyc(2999), Content::Unknown},
      {"bytecode magic above 3.x", MakePyc(4000), Content::Unknown},
      {"bytecode magic above 2.7", MakePyc(62212), Content::Unknown},
      {"PE executable", MakePe(0x80, 0x0102), Content::PeExecutable},
      {"PE library", MakePe(0x80, 0x2102), Content::PeLibrary},
      {"PE header past the head", MakePe(0x1000, 0x2102), Content::PeLibrary},
      {"DOS program without PE header", MakePe(0x80, 0, false), Content::Unknown},
      {"e_lfanew out of reach", MakePe(0x100000, 0x0102, false), Content::Unknown},
      {"e_lfanew inside the MZ magic", MakePe(2, 0, false), Content::Unknown},
      {"MZ too short", FromText("MZ\x90"), Content::Unknown},
      {"empty", {}, Content::Unknown},
      {"text", FromText("hello world\n"), Content::Unknown},
      {"ELF magic cut short", FromText("\x7f" "EL"), Content::Unknown},
  };
  for (const auto& c : cases) EXPECT_EQ(Sniff(c.image), c.expected) << c.name;
}

}  // namespace
