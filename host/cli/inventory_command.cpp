// acctl inventory: the applications the last scan stored, read through the
// module's inventory storage as any reader of the product reads them.
//
//   acctl [--db PATH] inventory [--json] [--from N] [--count M] [--id ID]
//
// The table shows id, hash, categories and path; --id shows one record with
// its categories by name.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <json/json.h>

#include "app_control/interfaces/iinventory_info_provider.h"
#include "app_control/interfaces/iinventory_storage.h"
#include "app_control/module_entry.h"
#include "host/cli/cli.h"
#include "host/cli/host_session.h"
#include "host/cli/internal/arg_reader.h"
#include "host/cli/module_objects.h"
#include "zel/strings/conversions.h"

namespace host::cli {
namespace {

struct InventoryArgs {
  bool json = false;
  bool help = false;
  std::uint64_t from = 0;
  std::uint64_t count = UINT64_MAX;
  bool one = false;
  tov::ApplicationId id = 0;
};

const char kInventoryUsage[] =
    "usage: acctl [--db PATH] inventory [--json] [--from N] [--count M] [--id ID]\n"
    "  Lists the stored inventory: all of it, M records from position N, or the one record ID\n"
    "  (with its categories by name).\n";

InventoryArgs ParseInventoryArgs(const std::vector<std::string>& args) {
  InventoryArgs out;
  ArgReader r("inventory", args);
  while (r.Next()) {
    if (r.Is("--json")) {
      out.json = true;
    } else if (r.Is("--from")) {
      out.from = r.Number();
    } else if (r.Is("--count")) {
      out.count = r.Number();
    } else if (r.Is("--id")) {
      out.id = r.Number();
      out.one = true;
    } else if (r.IsHelp()) {
      out.help = true;
    } else {
      r.Fail("unexpected argument " + r.Operand());
    }
  }
  return out;
}

std::string Utf8(const zel::wstring_t& text) { return std::string(zel::Utf16ToUtf8(text.view()).view()); }

Json::Value ToJson(const tov::ApplicationInfo& info, bool names) {
  Json::Value v;
  v["id"] = Json::UInt64(info.id);
  v["fileName"] = Utf8(info.fileName);
  v["filePath"] = Utf8(info.filePath);
  v["fileHash"] = Utf8(info.fileHash);
  v["categoryKeys"] = Json::Value(Json::arrayValue);
  for (const tov::CategoryKey& key : info.categoryKeys) {
    Json::Value k;
    k["kind"] = key.kind;
    k["text"] = Utf8(key.text);
    v["categoryKeys"].append(k);
  }
  if (names) {
    v["categoryNames"] = Json::Value(Json::arrayValue);
    for (const zel::wstring_t& name : info.categoryNames) v["categoryNames"].append(Utf8(name));
  }
  return v;
}

std::string Categories(const tov::ApplicationInfo& info, bool names) {
  std::string text;
  if (names) {
    for (const zel::wstring_t& name : info.categoryNames) text += (text.empty() ? "" : ",") + Utf8(name);
  } else {
    for (const tov::CategoryKey& key : info.categoryKeys) text += (text.empty() ? "" : ",") + Utf8(key.text);
  }
  return text.empty() ? "-" : text;
}

void PrintTable(const std::vector<tov::ApplicationInfo>& records, bool names) {
  std::printf("%-20s  %-16s  %-20s  %s\n", "ID", "SHA-256", names ? "CATEGORIES" : "CATEGORY KEYS", "PATH");
  for (const tov::ApplicationInfo& info : records) {
    const std::string hash = Utf8(info.fileHash).substr(0, 16);
    std::printf("%-20llu  %-16s  %-20s  %s\n", static_cast<unsigned long long>(info.id), hash.c_str(),
                Categories(info, names).c_str(), Utf8(info.filePath).c_str());
  }
}

}  // namespace

int RunInventory(const GlobalOptions& options, const std::vector<std::string>& arguments) {
  const InventoryArgs args = ParseInventoryArgs(arguments);
  if (args.help) {
    std::fputs(kInventoryUsage, stdout);
    return 0;
  }
  const std::string db = StorePath(options);
  LoadedModule module(options.modulePath);
  int status = 0;
  {
    InventoryReading inventory(module, options, db);
    if (!inventory.reader) return 1;
    tov::IInventoryInfoProvider* const reader = inventory.reader.Get();

    std::vector<tov::ApplicationInfo> records;
    std::uint64_t timestamp = 0;
    if (args.one) {
      // The whole list carries the category names; pick the one record.
      tov::ApplicationList list;
      const zel::result_t r = reader->GetApplicationList(list);
      if (ZEL_FAILED(r)) return Fail("reading the inventory", r);
      timestamp = list.timestamp;
      for (const tov::ApplicationInfo& info : list.list) {
        if (info.id == args.id) {
          records.push_back(info);
          break;
        }
      }
      if (records.empty()) {
        std::fprintf(stderr, "acctl: inventory: no application with id %llu\n",
                     static_cast<unsigned long long>(args.id));
        return 1;
      }
    } else {
      tov::ApplicationIdList ids;
      const zel::result_t r = reader->GetApplicationIdList(args.from, args.count, ids);
      if (ZEL_FAILED(r)) return Fail("reading the inventory ids", r);
      for (const tov::ApplicationId id : ids) {
        tov::ApplicationInfo info;
        const zel::result_t got = reader->GetApplicationInfo(id, info);
        if (ZEL_FAILED(got)) {
          status = Fail(("reading application " + std::to_string(id)).c_str(), got);
          continue;
        }
        records.push_back(std::move(info));
      }
    }

    if (args.json) {
      Json::Value out;
      if (args.one) {
        out = ToJson(records.front(), true);
      } else {
        out["applications"] = Json::Value(Json::arrayValue);
        for (const tov::ApplicationInfo& info : records) out["applications"].append(ToJson(info, false));
      }
      Json::StreamWriterBuilder writer;
      writer["indentation"] = "  ";
      std::printf("%s\n", Json::writeString(writer, out).c_str());
    } else if (args.one) {
      const tov::ApplicationInfo& info = records.front();
      std::printf("id          %llu\nfile name   %s\nfile path   %s\nsha-256     %s\ncategories  %s\nkeys        %s\n"
                  "stored      %s\n",
                  static_cast<unsigned long long>(info.id), Utf8(info.fileName).c_str(), Utf8(info.filePath).c_str(),
                  Utf8(info.fileHash).c_str(), Categories(info, true).c_str(), Categories(info, false).c_str(),
                  timestamp == 0 ? "never" : RecordTimeText(timestamp).c_str());
    } else {
      PrintTable(records, false);
    }
  }
  if (module.CanUnload() != 0) {
    std::fprintf(stderr, "acctl: module objects are still alive after the command\n");
    status = 1;
  }
  return status;
}

}  // namespace host::cli
