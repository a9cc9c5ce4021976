// ITaskTryMutex: the host's per-type lock shared by every task object it
// runs, so that two tasks of one type (two inventory scans, say) never run
// at the same time. Nothing ever waits on it: a taker either gets the type
// or is told that someone else has it.
#pragma once

#include "zel/iobject.h"
#include "zel/types/string.h"

class ITaskTryMutex : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x6CF32F27;

  // Takes the lock of `type`; "Locked" (0x8000004F) when it is already
  // held, by this caller or any other. Never blocks.
  virtual zel::result_t TryLock(const zel::wstring_t& type) = 0;
  // Sets `locked` to whether `type` is held now; a snapshot only.
  virtual zel::result_t IsLocked(const zel::wstring_t& type, bool& locked) = 0;
  // Gives back the lock of `type`; "Not locked" (0x80000050) when it is
  // not held.
  virtual zel::result_t Unlock(const zel::wstring_t& type) = 0;

 protected:
  ~ITaskTryMutex() = default;
};
