// The strict reading of acctl's JSON documents, shared by the settings and
// the scan-settings readers: unknown keys, missing keys and wrong types are
// UserErrors that name the document and the place in it.
#pragma once

#include <json/json.h>

#include <initializer_list>
#include <string>
#include <string_view>

#include "host/cli/cli.h"

namespace host::cli::internal {

class JsonDocumentReader {
 public:
  explicit JsonDocumentReader(std::string_view source) : m_source(source) {}

  [[noreturn]] void Fault(const std::string& where, const std::string& what) const {
    throw UserError(std::string(m_source) + ": " + where + ": " + what);
  }

  void OnlyKeys(const Json::Value& object, const std::string& where, std::initializer_list<const char*> keys) const {
    if (!object.isObject()) Fault(where, "expected an object");
    for (const std::string& name : object.getMemberNames()) {
      bool known = false;
      for (const char* k : keys) known = known || name == k;
      if (!known) Fault(where, "unknown key \"" + name + "\"");
    }
  }

  std::string Text(const Json::Value& object, const std::string& where, const char* key, bool required) const {
    if (!object.isMember(key)) {
      if (required) Fault(where, "missing key \"" + std::string(key) + "\"");
      return {};
    }
    if (!object[key].isString()) Fault(where + "." + key, "expected a string");
    return object[key].asString();
  }

  bool Flag(const Json::Value& object, const std::string& where, const char* key, bool fallback) const {
    if (!object.isMember(key)) return fallback;
    if (!object[key].isBool()) Fault(where + "." + key, "expected true or false");
    return object[key].asBool();
  }

 private:
  std::string_view m_source;
};

}  // namespace host::cli::internal
