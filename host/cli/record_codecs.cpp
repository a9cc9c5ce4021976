#include "host/cli/record_codecs.h"

#include <json/json.h>

#include <memory>
#include <sstream>
#include <string>

#include "app_control/interfaces/controller_service_settings.h"
#include "app_control/interfaces/exclusion_record.h"
#include "tov_common/categories/category_json.h"
#include "zel/strings/conversions.h"

namespace host::cli {
namespace {

std::string Narrow(const zel::wstring_t& text) {
  const zel::string_t s = zel::Utf16ToUtf8(text.view());
  return std::string(s.view());
}
zel::wstring_t Wide(const Json::Value& v) { return zel::Utf8ToWide(v.asString()); }

std::vector<std::uint8_t> Bytes(const Json::Value& root) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  const std::string text = Json::writeString(writer, root);
  return {text.begin(), text.end()};
}

bool Parse(std::span<const std::uint8_t> bytes, Json::Value& root) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const char* begin = reinterpret_cast<const char*>(bytes.data());
  std::string errors;
  return reader->parse(begin, begin + bytes.size(), &root, &errors) && root.isObject();
}

class ControllerCodec final : public ISettingsCodec {
 public:
  explicit ControllerCodec(zel::IServiceLocator* objects) : m_objects(objects) {}
  zel::result_t Encode(const void* object, std::vector<std::uint8_t>& bytes) override try {
    const auto& s = *static_cast<const app_ctrl::ControllerServiceSettings*>(object);
    Json::Value root(Json::objectValue);
    root["reputationServiceUrl"] = Narrow(s.reputationServiceUrl);
    root["useCloudReputation"] = s.useCloudReputation;
    root["categories"] = tov::tools::CategoriesToJson(s.categories);
    root["reportUnknownModules"] = s.reportUnknownModules;
    root["cacheDirectory"] = Narrow(s.cacheDirectory);
    root["enforceAfterFailSafeBoot"] = s.enforceAfterFailSafeBoot;
    bytes = Bytes(root);
    return zel::result::NoError;
  } catch (...) {
    return zel::result::InvalidArgument;
  }
  zel::result_t Decode(std::span<const std::uint8_t> bytes, void* object) override try {
    Json::Value root;
    if (!Parse(bytes, root)) return zel::result::InvalidArgument;
    auto& s = *static_cast<app_ctrl::ControllerServiceSettings*>(object);
    s.reputationServiceUrl = Wide(root["reputationServiceUrl"]);
    s.useCloudReputation = root["useCloudReputation"].asBool();
    s.categories = tov::tools::JsonToCategories(m_objects.Get(), root["categories"].asString(), "controller settings");
    s.reportUnknownModules = root["reportUnknownModules"].asBool();
    s.cacheDirectory = Wide(root["cacheDirectory"]);
    s.enforceAfterFailSafeBoot = root["enforceAfterFailSafeBoot"].asBool();
    return zel::result::NoError;
  } catch (...) {
    return zel::result::InvalidArgument;
  }

 private:
  zel::RefPtr<zel::IServiceLocator> m_objects;
};

class ExclusionCodec final : public ISettingsCodec {
 public:
  zel::result_t Encode(const void* object, std::vector<std::uint8_t>& bytes) override try {
    const auto& list = *static_cast<const exclude::applications::ExclusionList*>(object);
    Json::Value records(Json::arrayValue);
    for (const auto& r : list) {
      Json::Value& v = records.append(Json::Value(Json::objectValue));
      v["enabled"] = r.enabled;
      v["path"] = Narrow(r.path);
      v["mask"] = r.mask;
      v["listedPath"] = Narrow(r.listedPath);
      v["comment"] = Narrow(r.comment);
      if (r.hash) {
        v["hashAlgorithm"] = r.hash->first;
        Json::Value& digest = v["hash"] = Json::Value(Json::arrayValue);
        for (std::uint8_t b : r.hash->second) digest.append(b);
      }
      v["origin"] = r.origin;
      v["version"] = r.version;
    }
    Json::Value root(Json::objectValue);
    root["records"] = records;
    bytes = Bytes(root);
    return zel::result::NoError;
  } catch (...) {
    return zel::result::InvalidArgument;
  }
  zel::result_t Decode(std::span<const std::uint8_t> bytes, void* object) override try {
    Json::Value root;
    if (!Parse(bytes, root)) return zel::result::InvalidArgument;
    exclude::applications::ExclusionList list;
    for (const Json::Value& v : root["records"]) {
      auto& r = list.emplace_back();
      r.enabled = v["enabled"].asBool();
      r.path = Wide(v["path"]);
      r.mask = v["mask"].asUInt();
      r.listedPath = Wide(v["listedPath"]);
      r.comment = Wide(v["comment"]);
      if (v.isMember("hash")) {
        zel::types::vector_t<std::uint8_t> digest;
        for (const Json::Value& b : v["hash"]) digest.push_back(static_cast<std::uint8_t>(b.asUInt()));
        r.hash.emplace(v["hashAlgorithm"].asUInt(), std::move(digest));
      }
      r.origin = v["origin"].asUInt();
      r.version = v["version"].asUInt();
    }
    *static_cast<exclude::applications::ExclusionList*>(object) = std::move(list);
    return zel::result::NoError;
  } catch (...) {
    return zel::result::InvalidArgument;
  }
};

}  // namespace

void RegisterRecordCodecs(ServiceManager& manager, zel::IServiceLocator* objects) {
  manager.RegisterCodec(app_ctrl::kControllerServiceSettingsId, std::make_shared<ControllerCodec>(objects));
  manager.RegisterCodec(exclude::applications::kExclusionListSerId, std::make_shared<ExclusionCodec>());
}

}  // namespace host::cli
