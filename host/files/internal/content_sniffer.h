// What a file is, told from its first bytes: the content test behind the
// host's format recogniser, kept free of any interface so that it can be
// tested and measured on plain buffers.
//
// The head (the first bytes of the file, typically 512) decides almost every
// case. Two need a little more, read through ByteSource on demand:
//   - ELF: an ET_DYN file is a position-independent executable or a shared
//     object; the program headers (PT_INTERP) and, when there is an
//     interpreter, the dynamic table (DF_1_PIE, DT_SONAME) tell them apart.
//     libc.so.6 has an interpreter and is still a library.
//   - PE: the "PE\0\0" header may start past the head.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "zel/result.h"

namespace host::files::detail {

enum class Content : std::uint8_t {
  Unknown,
  ElfExecutable,
  ElfSharedObject,
  ShellScript,
  PythonScript,
  PerlScript,
  RubyScript,
  NodeScript,
  Zip,  // a ZIP archive with nothing in its first entry that says Java
  Jar,  // a ZIP whose first entry is META-INF/ or carries the 0xCAFE marker
  PythonBytecode,
  PeExecutable,
  PeLibrary,
};

// Printable name of a content kind, for records and traces.
std::string_view ContentName(Content content) noexcept;

// Random access to the rest of the file.
class ByteSource {
 public:
  // Reads up to out.size() bytes at `offset` into `out` and sets `*read`;
  // a short count means the file ended. Negative on a read failure.
  virtual zel::result_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> out, std::size_t* read) = 0;

 protected:
  ~ByteSource() = default;
};

// The interpreter named by a "#!" line, or Unknown for a line that names
// none of the known ones. "/usr/bin/env [-S] [NAME=value...] X" names X.
Content ScriptInterpreter(std::string_view shebangLine) noexcept;

// Classifies the file whose first bytes are `head`. `more` may be null; then
// whatever needs bytes beyond the head is decided from the head alone (an
// ET_DYN file with unreadable program headers counts as a shared object).
// Fails only when `more` fails.
zel::result_t SniffContent(std::span<const std::uint8_t> head, ByteSource* more, Content* content);

}  // namespace host::files::detail
