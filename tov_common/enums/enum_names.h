// The product's event vocabulary: every enumeration that leaves the module
// as a number, and for each one a table pairing the values with their printed
// names. This header is the one source of both, so the enum and its table can
// never disagree; the numbers are a published contract and never move.
//
// Retired numbers keep their row: "_deprecated<Word>" or "_unused<N>". The
// EventType and FieldName rows this module knows nothing about are carried as
// "_unused<N>" so that the numbering stays dense; the components that own those
// events name them in their own copy of the vocabulary.
//
// Everything is constexpr data: no static initialisation, nothing to destroy
// at unload, and every unit that includes the header sees the same bytes.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tov {

// One row of a name table. The name is a view of a literal: the tables are
// plain constants, so nothing is built when the module loads.
struct EnumName {
  std::int32_t value;
  std::string_view name;
};

// The wide constants that event records carry for this module's tasks.
inline constexpr std::u16string_view kAppControlTaskName = u"Application_Control";
inline constexpr std::u16string_view kAppControlTaskType = u"AppControl";
inline constexpr std::int64_t kAppControlTaskId = 21;
inline constexpr std::u16string_view kInventoryScanTaskType = u"InventoryScan";

// clang-format off
#define TOV_ENUM_YES_NO(X) \
  X(No, 0) \
  X(Yes, 1) \
  /* end */
// clang-format on

enum class YesNo : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_YES_NO(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kYesNoNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_YES_NO(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_SEVERITY(X) \
  X(Critical, 0) \
  X(_deprecatedHigh, 1) \
  X(Warning, 2) \
  X(_deprecatedLow, 3) \
  X(Informational, 4) \
  X(Error, 5) \
  /* end */
// clang-format on

enum class Severity : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_SEVERITY(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kSeverityNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_SEVERITY(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_DETECT_CERTAINTY(X) \
  X(Unknown, 0) \
  X(Sure, 1) \
  X(Warning, 2) \
  X(Suspicion, 3) \
  /* end */
// clang-format on

enum class DetectCertainty : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_DETECT_CERTAINTY(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kDetectCertaintyNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_DETECT_CERTAINTY(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_DETECT_DANGER(X) \
  X(Unknown, 0) \
  X(High, 1) \
  X(Medium, 2) \
  X(Low, 3) \
  X(Informational, 4) \
  X(All, 5) \
  /* end */
// clang-format on

enum class DetectDanger : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_DETECT_DANGER(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kDetectDangerNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_DETECT_DANGER(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_TASK_STATE(X) \
  X(Starting, 0) \
  X(Started, 1) \
  X(Pausing, 2) \
  X(Suspended, 3) \
  X(Resuming, 4) \
  X(Stopping, 5) \
  X(Stopped, 6) \
  X(Unknown, 7) \
  /* end */
// clang-format on

enum class TaskState : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_TASK_STATE(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kTaskStateNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_TASK_STATE(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_APPLICATION_KIND(X) \
  X(Unknown, 0) \
  X(Executable, 1) \
  X(Script, 2) \
  /* end */
// clang-format on

enum class ApplicationKind : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_APPLICATION_KIND(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kApplicationKindNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_APPLICATION_KIND(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_APP_CONTROL_MODE(X) \
  X(AllowList, 0) \
  X(DenyList, 1) \
  /* end */
// clang-format on

enum class AppControlMode : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_APP_CONTROL_MODE(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kAppControlModeNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_APP_CONTROL_MODE(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_APP_CONTROL_ENFORCEMENT(X) \
  X(TestRules, 0) \
  X(ApplyRules, 1) \
  /* end */
// clang-format on

enum class AppControlEnforcement : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_APP_CONTROL_ENFORCEMENT(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kAppControlEnforcementNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_APP_CONTROL_ENFORCEMENT(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_RULE_STATUS(X) \
  X(On, 0) \
  X(Off, 1) \
  X(Test, 2) \
  /* end */
// clang-format on

enum class RuleStatus : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_RULE_STATUS(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kRuleStatusNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_RULE_STATUS(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_USER_ACCESS(X) \
  X(Block, 0) \
  X(Allow, 1) \
  /* end */
// clang-format on

enum class UserAccess : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_USER_ACCESS(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kUserAccessNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_USER_ACCESS(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_EVENT_TYPE(X) \
  X(TaskCreated, 0) \
  X(TaskStateChanged, 1) \
  X(TaskSettingsChanged, 2) \
  X(TaskDeleted, 3) \
  X(TaskProgress, 4) \
  X(TaskCompleted, 5) \
  X(TaskStartFailed, 6) \
  X(TaskStopFailed, 7) \
  X(ScheduleChanged, 8) \
  X(ScheduledRunSkipped, 9) \
  X(LicenseAdded, 10) \
  X(LicenseRemoved, 11) \
  X(LicenseExpiring, 12) \
  X(LicenseExpired, 13) \
  X(LicenseBlocked, 14) \
  X(DatabasesUpdated, 15) \
  X(DatabasesOutdated, 16) \
  X(DatabasesObsolete, 17) \
  X(DatabasesRolledBack, 18) \
  X(UpdateFailed, 19) \
  X(ApplicationUpdated, 20) \
  X(ApplicationStopped, 21) \
  X(ApplicationStarted, 22) \
  X(ApplicationSettingsChanged, 23) \
  X(TaskFailed, 24) \
  X(ThreatDetected, 25) \
  X(ObjectDisinfected, 26) \
  X(ObjectDeleted, 27) \
  X(ObjectQuarantined, 28) \
  X(ObjectRestored, 29) \
  X(ObjectNotProcessed, 30) \
  X(ObjectProcessingError, 31) \
  X(ObjectSkipped, 32) \
  X(ObjectIsPasswordProtected, 33) \
  X(ObjectIsCorrupted, 34) \
  X(QuarantineLimitReached, 35) \
  X(BackupLimitReached, 36) \
  X(StorageCleaned, 37) \
  X(ScanStarted, 38) \
  X(ScanCompleted, 39) \
  X(NetworkAttackDetected, 40) \
  X(NetworkAttackerBlocked, 41) \
  X(ConnectionBlocked, 42) \
  X(ConnectionAllowed, 43) \
  X(FirewallRuleTriggered, 44) \
  X(WebPageBlocked, 45) \
  X(WebPageAllowed, 46) \
  X(MailObjectDetected, 47) \
  X(DeviceConnected, 48) \
  X(DeviceBlocked, 49) \
  X(DeviceAllowed, 50) \
  X(IntegrityViolation, 51) \
  X(FileChanged, 52) \
  X(ConfigurationChanged, 53) \
  X(AuditEvent, 54) \
  X(SelfDefenseViolation, 55) \
  X(ProcessTerminated, 56) \
  X(RemediationStarted, 57) \
  X(RemediationCompleted, 58) \
  X(RemediationFailed, 59) \
  X(ExclusionApplied, 60) \
  X(TrustedApplicationApplied, 61) \
  X(CloudServiceUnavailable, 62) \
  X(CloudServiceRestored, 63) \
  X(KernelModuleLoaded, 64) \
  X(KernelModuleFailed, 65) \
  X(FileSystemMonitorStarted, 66) \
  X(FileSystemMonitorFailed, 67) \
  X(ContainerDetected, 68) \
  X(ContainerScanCompleted, 69) \
  X(_unused70, 70) \
  X(_unused71, 71) \
  X(_unused72, 72) \
  X(_unused73, 73) \
  X(_unused74, 74) \
  X(_unused75, 75) \
  X(_unused76, 76) \
  X(_unused77, 77) \
  X(_unused78, 78) \
  X(_unused79, 79) \
  X(_unused80, 80) \
  X(_unused81, 81) \
  X(_unused82, 82) \
  X(_unused83, 83) \
  X(_unused84, 84) \
  X(_unused85, 85) \
  X(_unused86, 86) \
  X(_unused87, 87) \
  X(_unused88, 88) \
  X(_unused89, 89) \
  X(_unused90, 90) \
  X(_unused91, 91) \
  X(_unused92, 92) \
  X(_unused93, 93) \
  X(_unused94, 94) \
  X(_unused95, 95) \
  X(_unused96, 96) \
  X(_unused97, 97) \
  X(_unused98, 98) \
  X(_unused99, 99) \
  X(_unused100, 100) \
  X(_unused101, 101) \
  X(_unused102, 102) \
  X(_unused103, 103) \
  X(_unused104, 104) \
  X(_unused105, 105) \
  X(_unused106, 106) \
  X(_unused107, 107) \
  X(_unused108, 108) \
  X(_unused109, 109) \
  X(_unused110, 110) \
  X(_unused111, 111) \
  X(_unused112, 112) \
  X(_unused113, 113) \
  X(_unused114, 114) \
  X(_unused115, 115) \
  X(_unused116, 116) \
  X(_unused117, 117) \
  X(_unused118, 118) \
  X(_unused119, 119) \
  X(ApplicationStartupAllowed, 120) \
  X(ApplicationStartupAllowedInTestMode, 121) \
  X(ApplicationStartupBlocked, 122) \
  X(ApplicationStartupBlockedInTestMode, 123) \
  X(InventoryScanStarted, 124) \
  X(InventoryScanCompleted, 125) \
  X(InventoryScanFailed, 126) \
  X(CategoryUpdated, 127) \
  X(GoldenImageCategoryUpdated, 128) \
  X(ApplicationControlEngineFailed, 129) \
  X(_unused130, 130) \
  X(_unused131, 131) \
  X(_unused132, 132) \
  X(_unused133, 133) \
  X(_unused134, 134) \
  X(_unused135, 135) \
  X(_unused136, 136) \
  X(_unused137, 137) \
  X(_unused138, 138) \
  X(_unused139, 139) \
  X(_unused140, 140) \
  X(_unused141, 141) \
  X(_unused142, 142) \
  X(_unused143, 143) \
  X(_unused144, 144) \
  X(_unused145, 145) \
  X(_unused146, 146) \
  X(_unused147, 147) \
  X(_unused148, 148) \
  X(_unused149, 149) \
  X(_unused150, 150) \
  X(_unused151, 151) \
  X(_unused152, 152) \
  X(_unused153, 153) \
  X(_unused154, 154) \
  X(_unused155, 155) \
  X(_unused156, 156) \
  X(_unused157, 157) \
  X(_unused158, 158) \
  X(_unused159, 159) \
  X(_unused160, 160) \
  X(_unused161, 161) \
  X(_unused162, 162) \
  X(_unused163, 163) \
  X(_unused164, 164) \
  X(_unused165, 165) \
  X(_unused166, 166) \
  X(_unused167, 167) \
  X(_unused168, 168) \
  X(_unused169, 169) \
  X(_unused170, 170) \
  X(_unused171, 171) \
  X(_unused172, 172) \
  X(_unused173, 173) \
  X(_unused174, 174) \
  X(_unused175, 175) \
  X(_unused176, 176) \
  X(_unused177, 177) \
  X(_unused178, 178) \
  X(_unused179, 179) \
  X(_unused180, 180) \
  X(_unused181, 181) \
  X(_unused182, 182) \
  X(_unused183, 183) \
  X(_unused184, 184) \
  X(_unused185, 185) \
  X(_unused186, 186) \
  X(_unused187, 187) \
  X(_unused188, 188) \
  X(_unused189, 189) \
  X(_unused190, 190) \
  X(_unused191, 191) \
  X(_unused192, 192) \
  X(_unused193, 193) \
  X(_unused194, 194) \
  X(_unused195, 195) \
  X(_unused196, 196) \
  X(Misconfiguration, 197) \
  X(_unused198, 198) \
  X(_unused199, 199) \
  X(_unused200, 200) \
  X(_unused201, 201) \
  X(_unused202, 202) \
  X(_unused203, 203) \
  X(_unused204, 204) \
  X(_unused205, 205) \
  X(_unused206, 206) \
  X(_unused207, 207) \
  X(_unused208, 208) \
  X(_unused209, 209) \
  X(_unused210, 210) \
  X(_unused211, 211) \
  X(_unused212, 212) \
  X(_unused213, 213) \
  X(_unused214, 214) \
  X(_unused215, 215) \
  X(_unused216, 216) \
  X(_unused217, 217) \
  X(_unused218, 218) \
  X(_unused219, 219) \
  X(_unused220, 220) \
  X(_unused221, 221) \
  X(_unused222, 222) \
  X(_unused223, 223) \
  X(_unused224, 224) \
  X(_unused225, 225) \
  X(_unused226, 226) \
  X(_unused227, 227) \
  X(_unused228, 228) \
  X(_unused229, 229) \
  X(_unused230, 230) \
  X(_unused231, 231) \
  X(_unused232, 232) \
  X(_unused233, 233) \
  X(_unused234, 234) \
  X(_unused235, 235) \
  X(_unused236, 236) \
  X(_unused237, 237) \
  X(_unused238, 238) \
  X(_unused239, 239) \
  X(_unused240, 240) \
  X(_unused241, 241) \
  X(_unused242, 242) \
  X(_unused243, 243) \
  X(_unused244, 244) \
  X(_unused245, 245) \
  X(_unused246, 246) \
  X(_unused247, 247) \
  X(_unused248, 248) \
  X(_unused249, 249) \
  X(_unused250, 250) \
  X(_unused251, 251) \
  X(_unused252, 252) \
  X(ApplicationInstalled, 253) \
  X(ApplicationUninstalled, 254) \
  X(FailSafeModeBoot, 255) \
  X(UnknownModulesOfflineHistoryLost, 256) \
  X(_unused257, 257) \
  X(_unused258, 258) \
  X(_unused259, 259) \
  X(_unused260, 260) \
  X(_unused261, 261) \
  X(_unused262, 262) \
  X(_unused263, 263) \
  X(_unused264, 264) \
  X(_unused265, 265) \
  X(_unused266, 266) \
  X(InvalidCriteriaInCustomCategory, 267) \
  /* end */
// clang-format on

enum class EventType : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_EVENT_TYPE(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kEventTypeNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_EVENT_TYPE(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// clang-format off
#define TOV_ENUM_FIELD_NAME(X) \
  X(FileName, 0) \
  X(ObjectName, 1) \
  X(ObjectType, 2) \
  X(ObjectSize, 3) \
  X(ObjectCreationTime, 4) \
  X(TaskName, 5) \
  X(TaskDescription, 6) \
  X(RuntimeTaskId, 7) \
  X(TaskId, 8) \
  X(TaskState, 9) \
  X(PrevTaskState, 10) \
  X(DetectName, 11) \
  X(TaskType, 12) \
  X(TaskResult, 13) \
  X(EventTime, 14) \
  X(EventSeverity, 15) \
  X(ComponentName, 16) \
  X(ComponentVersion, 17) \
  X(DetectCertainty, 18) \
  X(DetectType, 19) \
  X(DetectSource, 20) \
  X(ProcessingMode, 21) \
  X(ProcessingResult, 22) \
  X(ErrorCode, 23) \
  X(ErrorText, 24) \
  X(ErrorDescription, 25) \
  X(DatabaseVersion, 26) \
  X(DatabaseDate, 27) \
  X(ApplicationVersion, 28) \
  X(LicenseSerial, 29) \
  X(LicenseExpiration, 30) \
  X(LicenseType, 31) \
  X(HostName, 32) \
  X(IpAddress, 33) \
  X(RemoteIpAddress, 34) \
  X(RemotePort, 35) \
  X(LocalPort, 36) \
  X(AccessUser, 37) \
  X(AccessUserId, 38) \
  X(AccessGroup, 39) \
  X(AccessGroupId, 40) \
  X(Protocol, 41) \
  X(Direction, 42) \
  X(Url, 43) \
  X(DeviceName, 44) \
  X(DeviceType, 45) \
  X(DeviceId, 46) \
  X(ObjectOwner, 47) \
  X(ObjectOwnerId, 48) \
  X(ScanScope, 49) \
  X(ObjectsScanned, 50) \
  X(ObjectsDetected, 51) \
  X(ObjectsProcessed, 52) \
  X(ObjectsSkipped, 53) \
  X(ScanDuration, 54) \
  X(SettingName, 55) \
  X(SettingOldValue, 56) \
  X(SettingNewValue, 57) \
  X(RuleId, 58) \
  X(RuleDescription, 59) \
  X(_unused60, 60) \
  X(_unused61, 61) \
  X(_unused62, 62) \
  X(_unused63, 63) \
  X(_unused64, 64) \
  X(_unused65, 65) \
  X(Path, 66) \
  X(_unused67, 67) \
  X(_unused68, 68) \
  X(_unused69, 69) \
  X(_unused70, 70) \
  X(_unused71, 71) \
  X(_unused72, 72) \
  X(_unused73, 73) \
  X(_unused74, 74) \
  X(_unused75, 75) \
  X(_unused76, 76) \
  X(_unused77, 77) \
  X(_unused78, 78) \
  X(_unused79, 79) \
  X(_unused80, 80) \
  X(_unused81, 81) \
  X(_unused82, 82) \
  X(_unused83, 83) \
  X(_unused84, 84) \
  X(_unused85, 85) \
  X(_unused86, 86) \
  X(_unused87, 87) \
  X(_unused88, 88) \
  X(_unused89, 89) \
  X(_unused90, 90) \
  X(_unused91, 91) \
  X(_unused92, 92) \
  X(DetectionMethod, 93) \
  X(_unused94, 94) \
  X(_unused95, 95) \
  X(_unused96, 96) \
  X(_unused97, 97) \
  X(_unused98, 98) \
  X(_unused99, 99) \
  X(_unused100, 100) \
  X(_unused101, 101) \
  X(_unused102, 102) \
  X(Subject, 103) \
  X(Issuer, 104) \
  X(_unused105, 105) \
  X(_unused106, 106) \
  X(_unused107, 107) \
  X(_unused108, 108) \
  X(_unused109, 109) \
  X(_unused110, 110) \
  X(_unused111, 111) \
  X(_unused112, 112) \
  X(_unused113, 113) \
  X(Md5Hash, 114) \
  X(_unused115, 115) \
  X(_unused116, 116) \
  X(_unused117, 117) \
  X(ProcessId, 118) \
  X(ProcessName, 119) \
  X(ProcessCommandLine, 120) \
  X(ParentProcessId, 121) \
  X(FileHash, 122) \
  X(UniqueFileId, 123) \
  X(UniqueProcessId, 124) \
  X(Sha256Hash, 125) \
  X(_unused126, 126) \
  X(_unused127, 127) \
  X(_unused128, 128) \
  X(_unused129, 129) \
  X(_unused130, 130) \
  X(_unused131, 131) \
  X(_unused132, 132) \
  X(_unused133, 133) \
  X(SerialNumber, 134) \
  X(_unused135, 135) \
  X(_unused136, 136) \
  X(_unused137, 137) \
  X(_unused138, 138) \
  X(_unused139, 139) \
  X(_unused140, 140) \
  X(_unused141, 141) \
  X(Category, 142) \
  X(VendorCategory, 143) \
  X(FileVersion, 144) \
  X(Thumbprint, 145) \
  X(ModuleId, 146) \
  X(ParentProcessName, 147) \
  X(ApplicationName, 148) \
  X(DetectDanger, 149) \
  X(_unused150, 150) \
  X(_unused151, 151) \
  X(_unused152, 152) \
  X(_unused153, 153) \
  X(_unused154, 154) \
  X(_unused155, 155) \
  X(_unused156, 156) \
  X(ApplicationPath, 157) \
  X(ApplicationPid, 158) \
  X(RuleName, 159) \
  X(_unused160, 160) \
  X(_unused161, 161) \
  X(_unused162, 162) \
  X(_unused163, 163) \
  X(_unused164, 164) \
  X(_unused165, 165) \
  X(_unused166, 166) \
  X(_unused167, 167) \
  X(_unused168, 168) \
  X(_unused169, 169) \
  X(_unused170, 170) \
  X(_unused171, 171) \
  X(_unused172, 172) \
  X(_unused173, 173) \
  X(_unused174, 174) \
  X(_unused175, 175) \
  X(_unused176, 176) \
  X(_unused177, 177) \
  X(_unused178, 178) \
  X(_unused179, 179) \
  X(DetectUID, 180) \
  X(DetectIsLocal, 181) \
  X(DetectIsHarmful, 182) \
  X(DetectIsBlacklisted, 183) \
  X(_unused184, 184) \
  X(_unused185, 185) \
  X(_unused186, 186) \
  X(_unused187, 187) \
  X(_unused188, 188) \
  X(_unused189, 189) \
  /* end */
// clang-format on

enum class FieldName : std::int32_t {
#define TOV_ENUM_ROW(n, v) n = v,
  TOV_ENUM_FIELD_NAME(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

inline constexpr EnumName kFieldNameNames[] = {
#define TOV_ENUM_ROW(n, v) {v, #n},
    TOV_ENUM_FIELD_NAME(TOV_ENUM_ROW)
#undef TOV_ENUM_ROW
};

// ---- lookup for printing ---------------------------------------------------------
// Nothing on the module's own paths needs these (it uses the numbers as
// constants); they serve whoever prints an event, such as the host's publisher.

// The name of `value` in `table`, or an empty view when the table has no such
// row. Tables are sorted by value; a dense table is indexed directly.
constexpr std::string_view FindEnumName(std::span<const EnumName> table, std::int32_t value) noexcept {
  if (value >= 0 && static_cast<std::size_t>(value) < table.size() && table[static_cast<std::size_t>(value)].value == value)
    return table[static_cast<std::size_t>(value)].name;
  std::size_t lo = 0, hi = table.size();
  while (lo < hi) {
    const std::size_t mid = lo + (hi - lo) / 2;
    if (table[mid].value < value) lo = mid + 1; else hi = mid;
  }
  return lo < table.size() && table[lo].value == value ? table[lo].name : std::string_view();
}

// The value named `name`, or `fallback` when there is none.
constexpr std::int32_t FindEnumValue(std::span<const EnumName> table, std::string_view name,
                                     std::int32_t fallback) noexcept {
  for (const EnumName& row : table)
    if (row.name == name) return row.value;
  return fallback;
}

// The name table that belongs to an enumeration of this header.
template <class E>
struct EnumNames;
template <>
struct EnumNames<YesNo> {
  static constexpr std::span<const EnumName> table{kYesNoNames};
};
template <>
struct EnumNames<Severity> {
  static constexpr std::span<const EnumName> table{kSeverityNames};
};
template <>
struct EnumNames<DetectCertainty> {
  static constexpr std::span<const EnumName> table{kDetectCertaintyNames};
};
template <>
struct EnumNames<DetectDanger> {
  static constexpr std::span<const EnumName> table{kDetectDangerNames};
};
template <>
struct EnumNames<TaskState> {
  static constexpr std::span<const EnumName> table{kTaskStateNames};
};
template <>
struct EnumNames<ApplicationKind> {
  static constexpr std::span<const EnumName> table{kApplicationKindNames};
};
template <>
struct EnumNames<AppControlMode> {
  static constexpr std::span<const EnumName> table{kAppControlModeNames};
};
template <>
struct EnumNames<AppControlEnforcement> {
  static constexpr std::span<const EnumName> table{kAppControlEnforcementNames};
};
template <>
struct EnumNames<RuleStatus> {
  static constexpr std::span<const EnumName> table{kRuleStatusNames};
};
template <>
struct EnumNames<UserAccess> {
  static constexpr std::span<const EnumName> table{kUserAccessNames};
};
template <>
struct EnumNames<EventType> {
  static constexpr std::span<const EnumName> table{kEventTypeNames};
};
template <>
struct EnumNames<FieldName> {
  static constexpr std::span<const EnumName> table{kFieldNameNames};
};

namespace detail {
// Lookup relies on rows sorted by value; a repeated value or name would make
// FindEnumName or FindEnumValue ambiguous.
// Names are checked by sorting a copy, not pairwise: the pairwise check is
// quadratic and runs out of clang's constant-evaluation step budget on the
// event-type table.
inline constexpr std::size_t kMaxNameTable = 512;
constexpr bool SortedAndUnique(std::span<const EnumName> table) noexcept {
  if (table.size() > kMaxNameTable) return false;
  std::array<std::string_view, kMaxNameTable> names{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (i > 0 && table[i - 1].value >= table[i].value) return false;
    names[i] = table[i].name;
  }
  const auto end = names.begin() + static_cast<std::ptrdiff_t>(table.size());
  std::sort(names.begin(), end);
  return std::adjacent_find(names.begin(), end) == end;
}
// Row i holds value i, so FindEnumName indexes directly.
constexpr bool Dense(std::span<const EnumName> table) noexcept {
  for (std::size_t i = 0; i < table.size(); ++i)
    if (table[i].value != static_cast<std::int32_t>(i)) return false;
  return true;
}
template <class... E>
constexpr bool AllSortedAndUnique() noexcept {
  return (SortedAndUnique(EnumNames<E>::table) && ...);
}
}  // namespace detail

static_assert(detail::AllSortedAndUnique<YesNo, Severity, DetectCertainty, DetectDanger, TaskState, ApplicationKind,
                                         AppControlMode, AppControlEnforcement, RuleStatus, UserAccess, EventType,
                                         FieldName>(),
              "a name table is out of order or repeats a value or a name");
static_assert(std::size(kEventTypeNames) == 268 && detail::Dense(kEventTypeNames), "event types must stay dense");
static_assert(std::size(kFieldNameNames) == 190 && detail::Dense(kFieldNameNames), "field names must stay dense");

// Printed name of an enumerator, empty for a value outside its table.
template <class E>
constexpr std::string_view EnumToString(E value) noexcept {
  return FindEnumName(EnumNames<E>::table, static_cast<std::int32_t>(value));
}

}  // namespace tov
