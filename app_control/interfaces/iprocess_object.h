// IProcessObject: one process as the host's process registry sees it,
// handed out by IProcessRegistry. It stays valid after the process has gone;
// its description is what was true when it was taken.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/types/string.h"

struct ProcessDescription {
  std::uint32_t processId = 0;
  std::uint64_t parentUniqueId = 0;
  zel::wstring_t imagePath;  // "/" as separator
  zel::wstring_t commandLine;
  zel::wstring_t currentDirectory;
};

class IProcessObject : public zel::IObject {
 public:
  // Fills `*description`; the last two strings may stay empty when the host
  // could not read them.
  virtual zel::result_t GetDescription(ProcessDescription* description) = 0;

 protected:
  ~IProcessObject() = default;
};
