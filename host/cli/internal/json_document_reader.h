// The strict reading of acctl's JSON documents, shared by the settings and
// the scan-settings readers: bad text, duplicate keys, unknown keys, missing
// keys and wrong types are UserErrors that name the document and the place
// in it.
#pragma once

#include <json/json.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "host/cli/cli.h"

namespace host::cli::internal {

class JsonDocumentReader {
 public:
  explicit JsonDocumentReader(std::string_view source) : m_source(source) {}

  // The whole text as one JSON value; comments and duplicate keys refused.
  Json::Value Parse(std::string_view json) const {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["rejectDupKeys"] = true;
    const std::unique_ptr<Json::CharReader> parser(builder.newCharReader());
    Json::Value root;
    std::string errors;
    bool parsed = false;
    try {
      parsed = parser->parse(json.data(), json.data() + json.size(), &root, &errors);
    } catch (const Json::RuntimeError& e) {
      // jsoncpp throws, instead of failing, on nesting deeper than its stack
      // limit; the user sees it as one more reason the text isn't a document.
      errors = e.what();
    }
    if (!parsed) {
      while (!errors.empty() && (errors.back() == '\n' || errors.back() == ' ')) errors.pop_back();
      throw UserError(std::string(m_source) + ": not a JSON document: " + errors);
    }
    return root;
  }

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
