// app_core::component::IKeyValueStorage: the host's persistent store of
// byte values under byte-string keys. The inventory keeps its records here.
//
// Contract: keys and values cross as begin/end ranges and stay the caller's.
// Writes and removals are staged and become durable together at Commit; a
// reader of the same store sees its own staged changes. GetValue replaces
// the contents of `value` on success and leaves it alone on failure; a key
// that is not stored gives 0x8000004C (Not found).
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/result.h"
#include "zel/types/range.h"
#include "zel/types/vector.h"

namespace app_core::component {

class IKeyValueStorage : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0xB40A643B;

  using KeyRange = zel::types::range_t<const char*>;
  using ValueRange = zel::types::range_t<const unsigned char*>;
  using Value = zel::types::vector_t<unsigned char>;

  virtual zel::result_t GetValue(const KeyRange& key, Value& value) = 0;
  virtual zel::result_t SetValue(const KeyRange& key, const ValueRange& value) = 0;
  // 1 when nothing was stored under the key.
  virtual zel::result_t RemoveValue(const KeyRange& key) = 0;
  virtual zel::result_t Commit() = 0;

 protected:
  ~IKeyValueStorage() = default;
};

}  // namespace app_core::component
