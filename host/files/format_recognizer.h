// host::FormatRecognizerService: the reference host's FormatRecognizerFactory.
// Its recognisers read the first 512 bytes of the open file (for ELF and PE
// a few more header bytes when they lie further on; see
// host/files/internal/content_sniffer.h) and answer with a chain of format
// records. The stream's position is put back afterwards, so the engine reads
// the file from where the caller left it.
//
// What the content says, and the answer:
//
//   content                                    kind        chain (in order)
//   -----------------------------------------  ----------  ------------------------------------------
//   ELF ET_EXEC, or ET_DYN that is a PIE        2 set       0xD716CC51 ELF executable
//   ELF ET_DYN library (no interpreter, or      2 set       0xB731E6B2 ELF shared object
//     a DT_SONAME and no DF_1_PIE)
//   "#!" sh, bash, dash, ash, ksh, mksh, zsh,   2 set       0x58B0B24C script
//     python*, pypy*, perl*, ruby* (also
//     through /usr/bin/env)
//   "#!" node, nodejs                           2 set       0x8940E804 JavaScript, 0x58B0B24C script
//   ZIP whose first entry is META-INF/ or       2 set       0x00529C9A Java archive
//     carries the 0xCAFE marker
//   any other ZIP                               1 candid.   0x00529C9A Java archive (the extension
//                                                           "jar" must confirm it)
//   Python bytecode magic                       2 set       0xEA0395B2 Python bytecode
//   MZ + PE header, no IMAGE_FILE_DLL           2 set       0x721343EB PE image
//   MZ + PE header with IMAGE_FILE_DLL          2 set       0x721343EB PE image, 0x24A3462D PE library
//   anything else ("#!" of another              positive    none
//     interpreter, ELF objects and cores, text)
//
// Content alone decides a set: no extension is needed (most programs on
// Linux have none). A set names every format that applies and leaves the
// choice to the reader's priorities; a library is also a PE image, and of
// the two the library stands higher. A recogniser answers only the ids it
// was created for: the chain keeps its order with the others left out, and
// when none is left the answer is positive (not known).
//
// Each record carries flag 1 when the content alone settles the format
// (kind 2) and 0 for a candidate, the format's name and a description.
// Properties (the extension, id 1) are accepted and not needed.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "app_control/interfaces/format_recognizer_factory.h"
#include "host/services/host_object.h"

namespace host {

namespace format_ids {
inline constexpr FormatId kElfExecutable = 0xD716CC51;
inline constexpr FormatId kElfSharedObject = 0xB731E6B2;
inline constexpr FormatId kScript = 0x58B0B24C;
inline constexpr FormatId kJavaScript = 0x8940E804;
inline constexpr FormatId kJavaArchive = 0x00529C9A;
inline constexpr FormatId kPythonBytecode = 0xEA0395B2;
inline constexpr FormatId kPeImage = 0x721343EB;
inline constexpr FormatId kPeLibrary = 0x24A3462D;
}  // namespace format_ids

// How many bytes of a file a recogniser reads first.
inline constexpr std::size_t kRecognizerHeadBytes = 512;

class FormatRecognizerService final : public OwnedObject<FormatRecognizerService, FormatRecognizerFactory> {
 public:
  FormatRecognizerService();
  FormatRecognizerService(const FormatRecognizerService&) = delete;
  FormatRecognizerService& operator=(const FormatRecognizerService&) = delete;

  zel::result_t CreateRecognizerForAll(FormatRecognizer** out) override;
  // 0x8000004C for an id this host does not recognise.
  zel::result_t GetFormatRecord(FormatId id, FormatRecord& record) override;
  // Ids this host does not know may be asked for; they are never answered.
  zel::result_t CreateRecognizer(const FormatIdList& formats, FormatRecognizer** out) override;

  // Fault injection, each while set (non-zero): Create* fail with `code`;
  // Recognize of every recogniser made here, before or after, fails with `code`.
  void FailCreate(zel::result_t code) noexcept { m_failCreate.store(code); }
  void FailRecognize(zel::result_t code) noexcept { m_failRecognize->store(code); }

 private:
  std::atomic<zel::result_t> m_failCreate{0};
  std::shared_ptr<std::atomic<zel::result_t>> m_failRecognize;
};

}  // namespace host
