#include "host/files/internal/content_sniffer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace host::files::detail {

namespace {

// ---- little helpers over byte spans -------------------------------------------------

using Bytes = std::span<const std::uint8_t>;

bool StartsWith(Bytes data, std::string_view prefix) noexcept {
  return data.size() >= prefix.size() && std::memcmp(data.data(), prefix.data(), prefix.size()) == 0;
}

// Reads an unsigned field of `width` bytes (1, 2, 4, 8) in either byte order.
std::uint64_t Field(const std::uint8_t* p, std::size_t width, bool bigEndian) noexcept {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const std::size_t at = bigEndian ? i : width - 1 - i;
    v = (v << 8) | p[at];
  }
  return v;
}

// Bytes [offset, offset + size) of the file: from the head when they lie in
// it, otherwise through `more`. `buffer` keeps bytes that had to be read.
// Gives an empty span when the file is too short or there is no source.
zel::result_t Slice(Bytes head, ByteSource* more, std::uint64_t offset, std::size_t size,
                    std::vector<std::uint8_t>& buffer, Bytes* out) {
  *out = {};
  if (offset <= head.size() && size <= head.size() - offset) {
    *out = head.subspan(static_cast<std::size_t>(offset), size);
    return zel::result::NoError;
  }
  if (more == nullptr) return zel::result::NoError;
  buffer.resize(size);
  std::size_t read = 0;
  const zel::result_t r = more->ReadAt(offset, buffer, &read);
  if (ZEL_FAILED(r)) return r;
  if (read == size) *out = buffer;
  return zel::result::NoError;
}

// ---- ELF -----------------------------------------------------------------------

constexpr std::uint16_t kEtExec = 2;
constexpr std::uint16_t kEtDyn = 3;
constexpr std::uint32_t kPtDynamic = 2;
constexpr std::uint32_t kPtInterp = 3;
constexpr std::uint64_t kDtNull = 0;
constexpr std::uint64_t kDtSoname = 14;
constexpr std::uint64_t kDtFlags1 = 0x6ffffffb;
constexpr std::uint64_t kDf1Pie = 0x08000000;
// Far above anything a linker writes; keeps a hostile header from making us
// read megabytes.
constexpr std::size_t kMaxProgramHeaders = 256;
constexpr std::size_t kMaxDynamicBytes = 16 * 1024;

struct ElfLayout {
  bool is64;
  bool bigEndian;
  std::size_t word() const noexcept { return is64 ? 8 : 4; }
};

// An executable with an interpreter unless its dynamic table says library:
// no DF_1_PIE and a DT_SONAME. A table that cannot be read leaves it an
// executable, which is what the interpreter suggests.
zel::result_t ClassifyByDynamic(Bytes head, ByteSource* more, const ElfLayout& elf, std::uint64_t offset,
                                std::uint64_t size, Content* content) {
  *content = Content::ElfExecutable;
  const std::size_t entry = 2 * elf.word();
  size = std::min<std::uint64_t>(size, kMaxDynamicBytes) / entry * entry;
  if (size == 0) return zel::result::NoError;
  std::vector<std::uint8_t> buffer;
  Bytes table;
  const zel::result_t r = Slice(head, more, offset, static_cast<std::size_t>(size), buffer, &table);
  if (ZEL_FAILED(r)) return r;
  bool soname = false;
  for (std::size_t at = 0; at + entry <= table.size(); at += entry) {
    const std::uint64_t tag = Field(table.data() + at, elf.word(), elf.bigEndian);
    const std::uint64_t value = Field(table.data() + at + elf.word(), elf.word(), elf.bigEndian);
    if (tag == kDtNull) break;
    if (tag == kDtFlags1 && (value & kDf1Pie) != 0) return zel::result::NoError;
    if (tag == kDtSoname) soname = true;
  }
  if (soname) *content = Content::ElfSharedObject;
  return zel::result::NoError;
}

zel::result_t SniffElf(Bytes head, ByteSource* more, Content* content) {
  *content = Content::Unknown;
  if (head.size() < 52) return zel::result::NoError;  // shorter than the smallest ELF header
  const std::uint8_t cls = head[4];
  const std::uint8_t data = head[5];
  if ((cls != 1 && cls != 2) || (data != 1 && data != 2)) return zel::result::NoError;
  const ElfLayout elf{cls == 2, data == 2};
  if (elf.is64 && head.size() < 64) return zel::result::NoError;

  const auto type = static_cast<std::uint16_t>(Field(head.data() + 16, 2, elf.bigEndian));
  if (type == kEtExec) {
    *content = Content::ElfExecutable;
    return zel::result::NoError;
  }
  if (type != kEtDyn) return zel::result::NoError;  // relocatable objects and core dumps are not programs

  *content = Content::ElfSharedObject;
  const std::uint64_t phoff = Field(head.data() + (elf.is64 ? 32 : 28), elf.word(), elf.bigEndian);
  const std::size_t phentsize = Field(head.data() + (elf.is64 ? 54 : 42), 2, elf.bigEndian);
  const std::size_t phnum = Field(head.data() + (elf.is64 ? 56 : 44), 2, elf.bigEndian);
  const std::size_t minEntry = elf.is64 ? 56 : 32;
  if (phoff == 0 || phnum == 0 || phnum > kMaxProgramHeaders || phentsize < minEntry || phentsize > 4 * minEntry)
    return zel::result::NoError;

  std::vector<std::uint8_t> buffer;
  Bytes table;
  zel::result_t r = Slice(head, more, phoff, phnum * phentsize, buffer, &table);
  if (ZEL_FAILED(r) || table.empty()) return r;

  bool interp = false;
  std::uint64_t dynOffset = 0, dynSize = 0;
  for (std::size_t i = 0; i < phnum; ++i) {
    const std::uint8_t* ph = table.data() + i * phentsize;
    const auto ptype = static_cast<std::uint32_t>(Field(ph, 4, elf.bigEndian));
    if (ptype == kPtInterp) interp = true;
    if (ptype == kPtDynamic) {
      dynOffset = Field(ph + (elf.is64 ? 8 : 4), elf.word(), elf.bigEndian);
      dynSize = Field(ph + (elf.is64 ? 32 : 16), elf.word(), elf.bigEndian);
    }
  }
  if (!interp) return zel::result::NoError;
  return ClassifyByDynamic(head, more, elf, dynOffset, dynSize, content);
}

// ---- "#!" scripts ----------------------------------------------------------------

bool IsBlank(char c) noexcept { return c == ' ' || c == '\t'; }

// Splits the next blank-separated word off `line`.
std::string_view NextWord(std::string_view& line) noexcept {
  std::size_t b = 0;
  while (b < line.size() && IsBlank(line[b])) ++b;
  std::size_t e = b;
  while (e < line.size() && !IsBlank(line[e])) ++e;
  const std::string_view word = line.substr(b, e - b);
  line.remove_prefix(e);
  return word;
}

std::string_view BaseName(std::string_view path) noexcept {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// "python", "python3", "python3.11": a name followed by an optional version.
bool NameWithVersion(std::string_view word, std::string_view name) noexcept {
  if (word.substr(0, name.size()) != name) return false;
  return std::all_of(word.begin() + static_cast<std::ptrdiff_t>(name.size()), word.end(),
                     [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
}

Content InterpreterByName(std::string_view name) noexcept {
  static constexpr std::array<std::string_view, 7> kShells = {"sh", "bash", "dash", "ash", "ksh", "mksh", "zsh"};
  if (std::find(kShells.begin(), kShells.end(), name) != kShells.end()) return Content::ShellScript;
  if (NameWithVersion(name, "python") || NameWithVersion(name, "pypy")) return Content::PythonScript;
  if (NameWithVersion(name, "perl")) return Content::PerlScript;
  if (NameWithVersion(name, "ruby")) return Content::RubyScript;
  if (name == "node" || name == "nodejs") return Content::NodeScript;
  return Content::Unknown;
}

// ---- ZIP, pyc, PE ------------------------------------------------------------------

constexpr std::string_view kZipEntry = "PK\x03\x04";
constexpr std::string_view kZipEmpty = "PK\x05\x06";
constexpr std::string_view kZipSpanned = "PK\x07\x08";
constexpr std::uint16_t kJarMarker = 0xCAFE;

Content SniffZip(Bytes head) noexcept {
  if (StartsWith(head, kZipEmpty) || StartsWith(head, kZipSpanned)) return Content::Zip;
  if (head.size() < 30) return Content::Zip;
  const std::size_t nameLength = Field(head.data() + 26, 2, false);
  const std::size_t extraLength = Field(head.data() + 28, 2, false);
  if (head.size() >= 30 + nameLength) {
    const std::string_view name(reinterpret_cast<const char*>(head.data()) + 30, nameLength);
    if (name == "META-INF/" || name == "META-INF/MANIFEST.MF") return Content::Jar;
  }
  // The extra field is a list of (id, size, data) blocks.
  std::size_t at = 30 + nameLength;
  const std::size_t end = std::min(head.size(), at + extraLength);
  while (at + 4 <= end) {
    if (Field(head.data() + at, 2, false) == kJarMarker) return Content::Jar;
    at += 4 + Field(head.data() + at + 2, 2, false);
  }
  return Content::Zip;
}

// A .pyc starts with the interpreter's magic: a 16-bit version number and
// "\r\n". Python 3 numbers lie in 3000..3999; Python 1.5 to 2.7 used
// 20121..62211.
bool IsPythonBytecode(Bytes head) noexcept {
  if (head.size() < 4 || head[2] != '\r' || head[3] != '\n') return false;
  const std::uint64_t magic = Field(head.data(), 2, false);
  return (magic >= 3000 && magic <= 3999) || (magic >= 20121 && magic <= 62211);
}

constexpr std::uint16_t kImageFileDll = 0x2000;
// e_lfanew beyond this is not a real image; do not chase it.
constexpr std::uint64_t kMaxPeHeaderOffset = 64 * 1024;

zel::result_t SniffPe(Bytes head, ByteSource* more, Content* content) {
  *content = Content::Unknown;
  if (head.size() < 0x40) return zel::result::NoError;
  const std::uint64_t lfanew = Field(head.data() + 0x3C, 4, false);
  if (lfanew < 4 || lfanew > kMaxPeHeaderOffset) return zel::result::NoError;
  std::vector<std::uint8_t> buffer;
  Bytes header;
  // "PE\0\0" then the file header, whose Characteristics stand at +18.
  const zel::result_t r = Slice(head, more, lfanew, 24, buffer, &header);
  if (ZEL_FAILED(r) || header.empty()) return r;
  if (!StartsWith(header, std::string_view("PE\0\0", 4))) return zel::result::NoError;
  const std::uint64_t characteristics = Field(header.data() + 22, 2, false);
  *content = (characteristics & kImageFileDll) != 0 ? Content::PeLibrary : Content::PeExecutable;
  return zel::result::NoError;
}

}  // namespace

std::string_view ContentName(Content content) noexcept {
  switch (content) {
    case Content::Unknown: return "unknown";
    case Content::ElfExecutable: return "ELF executable";
    case Content::ElfSharedObject: return "ELF shared object";
    case Content::ShellScript: return "shell script";
    case Content::PythonScript: return "Python script";
    case Content::PerlScript: return "Perl script";
    case Content::RubyScript: return "Ruby script";
    case Content::NodeScript: return "Node.js script";
    case Content::Zip: return "ZIP archive";
    case Content::Jar: return "Java archive";
    case Content::PythonBytecode: return "Python bytecode";
    case Content::PeExecutable: return "PE executable";
    case Content::PeLibrary: return "PE library";
  }
  return "unknown";
}

Content ScriptInterpreter(std::string_view line) noexcept {
  if (line.substr(0, 2) != "#!") return Content::Unknown;
  line.remove_prefix(2);
  if (const std::size_t eol = line.find_first_of("\r\n"); eol != std::string_view::npos) line = line.substr(0, eol);

  std::string_view name = BaseName(NextWord(line));
  if (name == "env") {
    // env's options and NAME=value assignments stand before the program;
    // -S only splits the rest of the line into words, which we do anyway.
    for (name = NextWord(line); !name.empty(); name = NextWord(line)) {
      if (name == "-u" || name == "-C" || name == "--unset" || name == "--chdir") {
        NextWord(line);  // the option's argument
        continue;
      }
      if (name.front() == '-' || name.find('=') != std::string_view::npos) continue;
      break;
    }
    name = BaseName(name);
  }
  return InterpreterByName(name);
}

zel::result_t SniffContent(Bytes head, ByteSource* more, Content* content) {
  *content = Content::Unknown;
  if (StartsWith(head, "\x7f" "ELF")) return SniffElf(head, more, content);
  if (StartsWith(head, "#!")) {
    *content = ScriptInterpreter(std::string_view(reinterpret_cast<const char*>(head.data()), head.size()));
    return zel::result::NoError;
  }
  if (StartsWith(head, kZipEntry) || StartsWith(head, kZipEmpty) || StartsWith(head, kZipSpanned)) {
    *content = SniffZip(head);
    return zel::result::NoError;
  }
  if (StartsWith(head, "MZ")) return SniffPe(head, more, content);
  if (IsPythonBytecode(head)) *content = Content::PythonBytecode;
  return zel::result::NoError;
}

}  // namespace host::files::detail
