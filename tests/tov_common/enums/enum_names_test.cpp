// The name tables are a published contract: the listed rows must print
// exactly and read back. Density, order and uniqueness are static_asserts
// next to the tables.
#include <gtest/gtest.h>

#include <span>
#include <string_view>

#include "tov_common/enums/enum_names.h"

namespace {

using tov::EnumName;

struct Row {
  std::int32_t value;
  std::string_view name;
};

void ExpectRows(std::span<const EnumName> table, std::initializer_list<Row> rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(tov::FindEnumName(table, row.value), row.name) << "value " << row.value;
    EXPECT_EQ(tov::FindEnumValue(table, row.name, -1), row.value) << row.name;
  }
}

TEST(EnumNames, EventTypeAndFieldNameKeepTheListedRows) {
  ExpectRows(tov::kEventTypeNames,
             {{1, "TaskStateChanged"},
              {2, "TaskSettingsChanged"},
              {21, "ApplicationStopped"},
              {22, "ApplicationStarted"},
              {23, "ApplicationSettingsChanged"},
              {24, "TaskFailed"},
              {120, "ApplicationStartupAllowed"},
              {121, "ApplicationStartupAllowedInTestMode"},
              {122, "ApplicationStartupBlocked"},
              {123, "ApplicationStartupBlockedInTestMode"},
              {197, "Misconfiguration"},
              {253, "ApplicationInstalled"},
              {254, "ApplicationUninstalled"},
              {267, "InvalidCriteriaInCustomCategory"}});
  EXPECT_EQ(tov::EnumToString(tov::EventType::ApplicationStartupBlocked), "ApplicationStartupBlocked");
  EXPECT_EQ(tov::FindEnumName(tov::kEventTypeNames, 268), "");
  EXPECT_EQ(tov::FindEnumName(tov::kEventTypeNames, -1), "");

  ExpectRows(tov::kFieldNameNames,
             {{0, "FileName"},          {1, "ObjectName"},       {5, "TaskName"},         {7, "RuntimeTaskId"},
              {8, "TaskId"},            {9, "TaskState"},        {10, "PrevTaskState"},   {11, "DetectName"},
              {12, "TaskType"},         {18, "DetectCertainty"}, {19, "DetectType"},      {20, "DetectSource"},
              {37, "AccessUser"},       {38, "AccessUserId"},    {66, "Path"},            {93, "DetectionMethod"},
              {103, "Subject"},         {104, "Issuer"},         {114, "Md5Hash"},        {118, "ProcessId"},
              {122, "FileHash"},        {123, "UniqueFileId"},   {124, "UniqueProcessId"}, {125, "Sha256Hash"},
              {134, "SerialNumber"},    {142, "Category"},       {143, "VendorCategory"}, {144, "FileVersion"},
              {145, "Thumbprint"},      {146, "ModuleId"},       {147, "ParentProcessName"}, {149, "DetectDanger"},
              {157, "ApplicationPath"}, {158, "ApplicationPid"}, {159, "RuleName"},       {180, "DetectUID"},
              {181, "DetectIsLocal"},   {182, "DetectIsHarmful"}, {183, "DetectIsBlacklisted"}});
}

TEST(EnumNames, SmallTablesPrintRetiredRowsToo) {
  ExpectRows(tov::kSeverityNames, {{0, "Critical"}, {1, "_deprecatedHigh"}, {2, "Warning"},
                                   {3, "_deprecatedLow"}, {4, "Informational"}, {5, "Error"}});
  ExpectRows(tov::kTaskStateNames, {{0, "Starting"}, {3, "Suspended"}, {6, "Stopped"}, {7, "Unknown"}});
  ExpectRows(tov::kDetectDangerNames, {{0, "Unknown"}, {1, "High"}, {5, "All"}});
  ExpectRows(tov::kDetectCertaintyNames, {{1, "Sure"}, {3, "Suspicion"}});
  ExpectRows(tov::kRuleStatusNames, {{0, "On"}, {1, "Off"}, {2, "Test"}});
  EXPECT_EQ(tov::EnumToString(tov::UserAccess::Allow), "Allow");
  EXPECT_EQ(tov::EnumToString(static_cast<tov::AppControlMode>(2)), "");
}

}  // namespace
