// FormatRecognizer: recognises the format of an open file by its content,
// among the formats it was created for. The signatures are the host's.
#pragma once

#include "app_control/interfaces/format_record.h"
#include "app_control/interfaces/format_result.h"
#include "zel/iobject.h"
#include "zel/serialization/iio.h"

class FormatRecognizer : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x4C2F0A95;

  // `properties` may carry hints such as format_property::Extension; `io`
  // is the open file, read from wherever its position stands; `record` is a
  // work area the recogniser may overwrite. Negative on failure; 0 with
  // *result set to a reference the caller owns; positive when the file is
  // none of the formats, with *result left null.
  virtual zel::result_t Recognize(const FormatPropertyList& properties, zel::IIO* io, FormatRecord* record,
                                  FormatResult** result) = 0;

 protected:
  ~FormatRecognizer() = default;
};
