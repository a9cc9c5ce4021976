// host::IOpenFile: a second face of the file streams the host opens, which
// tells a reader what file stands behind the stream without opening it
// again: the descriptor's fstat and the path it was opened by. The engine
// uses it to key its hash cache and to name the file it describes; a stream
// without it (a memory stream, say) is simply read.
#pragma once

#include <sys/stat.h>

#include "zel/iobject.h"
#include "zel/types/string.h"

namespace host {

class IOpenFile : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x4F1C7A62;

  // fstat of the open descriptor, as it is now.
  virtual zel::result_t Stat(struct stat& st) = 0;
  // The path the stream was opened by, as it was given (UTF-8, not resolved).
  virtual zel::result_t GetPath(zel::string_t& path) = 0;

 protected:
  ~IOpenFile() = default;
};

}  // namespace host
