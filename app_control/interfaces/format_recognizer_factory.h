// FormatRecognizerFactory: the host service holding the format signatures.
// The inventory asks it for a recogniser limited to the formats it cares
// about.
#pragma once

#include "app_control/interfaces/format_recognizer.h"
#include "app_control/interfaces/format_record.h"
#include "zel/iobject.h"

class FormatRecognizerFactory : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x326456FA;

  // A recogniser over every format the service knows.
  virtual zel::result_t CreateRecognizerForAll(FormatRecognizer** out) = 0;
  // The description of one format; 0x8000004C when the id is unknown.
  virtual zel::result_t GetFormatRecord(FormatId id, FormatRecord& record) = 0;
  // A recogniser limited to `formats`. On success *out holds a reference the
  // caller owns.
  virtual zel::result_t CreateRecognizer(const FormatIdList& formats, FormatRecognizer** out) = 0;

 protected:
  ~FormatRecognizerFactory() = default;
};
