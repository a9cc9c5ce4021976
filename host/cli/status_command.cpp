// acctl status: the store this acctl uses (its inventory and categories)
// and whether an `acctl enforce` runs on this machine, with its marks and
// counters. It only reads: a store that does not exist yet is not made.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "app_control/interfaces/iinventory_info_provider.h"
#include "app_control/module_entry.h"
#include "host/cli/cli.h"
#include "host/cli/host_session.h"
#include "host/cli/internal/arg_reader.h"
#include "host/cli/module_objects.h"
#include "host/cli/service_state.h"

namespace host::cli {
namespace {

constexpr const char* kStatusUsage =
    "usage: acctl [--db PATH] status [--json]\n"
    "  The store (path, applications and time of the last scan, categories) and whether\n"
    "  an acctl enforce runs on this machine, with its marks and counters.\n";

// Inventory and categories of an existing store; 1 when it can't be read.
int ReadStore(const GlobalOptions& options, const std::string& db, Json::Value& store) {
  LoadedModule module(options.modulePath);
  {
    InventoryReading inventory(module, options, db);
    if (!inventory.reader) return 1;
    tov::ApplicationList list;
    zel::result_t r = inventory.reader->GetApplicationList(list);
    if (ZEL_FAILED(r)) return Fail("reading the inventory", r);
    store["applications"] = Json::UInt64(list.list.size());
    const std::string scanned = RecordTimeText(list.timestamp);
    store["lastScan"] = scanned.empty() ? Json::Value() : Json::Value(scanned);

    std::uint32_t counter = 0;
    CategoriesManager::CategoryList categories;
    r = inventory.session.categories.GetCategories(counter, categories);
    if (ZEL_FAILED(r)) return Fail("reading the categories", r);
    store["categories"] = Json::UInt64(categories.size());
  }
  return 0;
}

// Asks the enforcer for fresh counters (SIGUSR1) and waits a little for the
// new status file; an enforcer that does not answer in time (busy, or not
// ours to signal) is shown with the status it wrote last.
Json::Value ReadEnforcer() {
  Json::Value out;
  std::optional<EnforceStatus> found = FindEnforcer();
  out["running"] = found.has_value();
  if (!found) return out;
  const std::string statusPath = EnforceRunDir() + "/enforce.status";
  struct stat before {};
  const bool had = ::stat(statusPath.c_str(), &before) == 0;
  if (::kill(found->pid, SIGUSR1) == 0) {
    for (int i = 0; i < 100; ++i) {
      struct stat now {};
      if (::stat(statusPath.c_str(), &now) == 0 && (!had || now.st_ino != before.st_ino)) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (std::optional<EnforceStatus> again = FindEnforcer()) found = again;
  }
  out["pid"] = static_cast<Json::Int64>(found->pid);
  Json::Value written;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(found->statusJson);
  if (!found->statusJson.empty() && Json::parseFromStream(builder, in, &written, &errors) && written.isObject()) {
    out["marks"] = written["marks"];
    out["counters"] = written["counters"];
    out["statusTime"] = written["time"];
  }
  return out;
}

}  // namespace

int RunStatus(const GlobalOptions& options, const std::vector<std::string>& arguments) {
  bool json = false;
  ArgReader r("status", arguments);
  while (r.Next()) {
    if (r.Is("--json")) {
      json = true;
    } else if (r.IsHelp()) {
      std::fputs(kStatusUsage, stdout);
      return 0;
    } else {
      r.Fail("unexpected argument " + r.Operand());
    }
  }
  const std::string db = StorePath(options, false);
  Json::Value status;
  Json::Value& store = status["store"];
  store["path"] = db;
  struct stat st {};
  store["exists"] = ::stat(db.c_str(), &st) == 0;
  if (store["exists"].asBool()) {
    const int failed = ReadStore(options, db, store);
    if (failed != 0) return failed;
  }
  status["enforce"] = ReadEnforcer();

  if (json) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::printf("%s\n", Json::writeString(writer, status).c_str());
    return 0;
  }
  std::printf("store       %s%s\n", db.c_str(), store["exists"].asBool() ? "" : " (not made yet)");
  if (store["exists"].asBool()) {
    std::printf("inventory   %llu applications, last scan %s\n",
                static_cast<unsigned long long>(store["applications"].asUInt64()),
                store["lastScan"].isNull() ? "never" : store["lastScan"].asCString());
    std::printf("categories  %llu\n", static_cast<unsigned long long>(store["categories"].asUInt64()));
  }
  const Json::Value& enforce = status["enforce"];
  if (!enforce["running"].asBool()) {
    std::printf("enforce     not running\n");
    return 0;
  }
  std::printf("enforce     running, pid %lld", static_cast<long long>(enforce["pid"].asInt64()));
  if (enforce.isMember("marks")) std::printf(", %llu marks", static_cast<unsigned long long>(enforce["marks"].asUInt64()));
  std::printf("\n");
  if (enforce["counters"].isObject()) {
    std::string line;
    for (const std::string& name : enforce["counters"].getMemberNames())
      line += (line.empty() ? "" : ", ") + name + " " + enforce["counters"][name].asString();
    std::printf("counters    %s\n", line.c_str());
  }
  return 0;
}

}  // namespace host::cli
