// app_ctrl::IEnterpriseApplicationControlEvents2: what the engine reports
// about program starts, and the records it reports them with. The engine
// calls these on its own threads, between Subscribe and Unsubscribe; the
// records are the engine's and valid for the call only. A verdict is already
// taken when it is reported: nothing a sink does changes it.
#pragma once

#include <cstdint>

#include "zel/iobject.h"
#include "zel/types/string.h"

namespace app_ctrl {

// The engine's description of a program that is starting.
struct ApplicationStartInfo {
  std::uint64_t moduleId = 0;
  zel::wstring_t userName;  // a bare name, or domain, a backslash and a name
  zel::wstring_t fileVersion;
  zel::wstring_t fileHash;  // SHA-256, lower-case hex
  zel::wstring_t fileName;
  zel::wstring_t certificateThumbprint;
  zel::wstring_t certificateIssuer;
  zel::wstring_t certificateSerialNumber;
  zel::wstring_t certificateSubject;
  std::uint64_t processUniqueId = 0;
  zel::wstring_t userId;  // decimal text
  zel::wstring_t filePath;  // the full path the decision was taken for
};

// The category that decided, as the rule named it.
struct ApplicationCategoryInfo {
  zel::wstring_t productCategoryName;
  zel::wstring_t categoryName;
};

// Verdict values. A verdict reached in test mode has the sign bit set and
// keeps in its low two bits what would have been done; the program runs.
namespace verdict {
inline constexpr std::int32_t Allowed = 1;
inline constexpr std::int32_t Blocked = 2;
inline constexpr std::int32_t TestModeFlag = static_cast<std::int32_t>(0x80000000u);
inline constexpr std::int32_t AllowedInTestMode = TestModeFlag | Allowed;
inline constexpr std::int32_t BlockedInTestMode = TestModeFlag | Blocked;
}  // namespace verdict

class IEnterpriseApplicationControlEvents2 : public zel::IEvents {
 public:
  static constexpr zel::iid_t iid = 0x812FBB84;

  // A program start was decided. `verdict` points at one of the values above.
  virtual zel::result_t OnApplicationControl(const ApplicationStartInfo* info,
                                             const ApplicationCategoryInfo* categories,
                                             const std::int32_t* verdict) = 0;
  // The machine booted in fail-safe mode; control was not enforced.
  virtual zel::result_t OnFailSafeModeBoot() = 0;
  // The engine lost its offline history of unknown modules.
  virtual zel::result_t OnUnknownModulesOfflineHistoryLost() = 0;

 protected:
  ~IEnterpriseApplicationControlEvents2() = default;
};

}  // namespace app_ctrl
