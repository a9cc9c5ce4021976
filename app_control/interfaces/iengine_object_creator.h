// IEngineObjectCreator: the engine's factory for its own objects, above all
// its application-control task (class kEacTaskClassId). Construction
// parameters travel as a typed holder, so the creator can check what it was
// given before it reads it.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/iservice_locator.h"

namespace app_ctrl {

// The engine's application-control task; it offers ITask and ISettings.
inline constexpr std::uint32_t kEacTaskClassId = 0xCDACDD96;
// Serialisation id of EnterpriseApplicationControlSettings, the parameter
// record of kEacTaskClassId.
inline constexpr std::uint32_t kEacSettingsSerId = 0x0A34F473;

}  // namespace app_ctrl

// A typed pointer of three words: the record, its serialisation id, and a
// counted descriptor reference, which the caller releases after the call when
// it is not null. The record stays the caller's.
struct EngineObjectParameters {
  const void* object = nullptr;
  std::uint32_t serId = 0;
  zel::IObject* descriptor = nullptr;
};
static_assert(sizeof(EngineObjectParameters) == 3 * sizeof(void*));

class IEngineObjectCreator : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0xA585D861;

  // Creates an object of `classId` and gives its `iid` face in *out (a
  // reference the caller owns). `parameters` may be null for classes that
  // take none; `reserved` must be 0. On failure *out is null.
  virtual zel::result_t CreateObject(std::uint32_t classId, zel::iid_t iid, zel::IServiceLocator* sl,
                                     const EngineObjectParameters* parameters, std::uintptr_t reserved,
                                     void** out) = 0;

 protected:
  ~IEngineObjectCreator() = default;
};
