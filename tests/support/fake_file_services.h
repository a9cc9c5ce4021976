// Fakes of the host's file services for the inventory filter and walk: a
// path matcher and its factory, a format recogniser, its factory and the
// chains of answers it hands out. All are framework objects (reference
// counted by zel::Object), count their calls and let a test script their
// results.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app_control/interfaces/format_recognizer_factory.h"
#include "app_control/interfaces/ipath_matcher_factory.h"
#include "zel/rtl/objbase.h"
#include "zel/rtl/objclient.h"

namespace testsupport {

template <class T, class... A>
zel::RefPtr<T> MakeObject(A&&... args) {
  return zel::RefPtr<T>::Adopt(new zel::Object<T, zel::SimpleObjectFactory>(std::forward<A>(args)...));
}

inline constexpr zel::result_t kNotImplemented = zel::result::NotImplemented;

class FakePathMatcher : public zel::object::Ifaces<IPathMatcher> {
 public:
  zel::result_t Match(const tov::NativePath& path, std::uint32_t isDirectory) override {
    calls.emplace_back(std::string(path.view()), isDirectory);
    return rejected.count(std::string(path.view())) != 0 ? rejectResult : 0;
  }

  std::set<std::string> rejected;  // exact paths that are out of scope
  zel::result_t rejectResult = 1;
  std::vector<std::pair<std::string, std::uint32_t>> calls;
};

class FakePathMatcherFactory : public zel::object::Ifaces<IPathMatcherFactory> {
 public:
  zel::result_t CreateMaskMatcher(const zel::types::vector_t<zel::string_t>&, const PathMatcherOptions&,
                                  IPathMatcher**) override {
    return kNotImplemented;
  }
  zel::result_t CreateScopeMatcher(const tov::settings::ScanScope&, const PathMatcherOptions&,
                                   IPathMatcher**) override {
    return kNotImplemented;
  }
  zel::result_t CreatePathMatcher(const tov::settings::ScanScopeLists& scopes, const PathMatcherOptions& options,
                                  IPathMatcher** out) override {
    ++createCalls;
    lastScopes = scopes;
    lastOptions = options;
    if (createResult < 0) return createResult;
    *out = handOutNull ? nullptr : matcher.Get();
    if (*out != nullptr) (*out)->AddRef();
    return createResult;
  }

  zel::RefPtr<FakePathMatcher> matcher = MakeObject<FakePathMatcher>();
  zel::result_t createResult = 0;
  bool handOutNull = false;
  int createCalls = 0;
  tov::settings::ScanScopeLists lastScopes;
  PathMatcherOptions lastOptions;
};

// One element of a recogniser's answer.
class FakeFormatResult : public zel::object::Ifaces<FormatResult> {
 public:
  FakeFormatResult(std::uint32_t kind, FormatId id) : m_kind(kind), m_id(id) {}

  zel::result_t GetRecord(FormatRecord& record) override {
    if (recordResult < 0) return recordResult;
    record.id = m_id;
    return 0;
  }
  zel::result_t GetKind(std::uint32_t& kind) override {
    if (kindResult < 0) return kindResult;
    kind = m_kind;
    return 0;
  }
  zel::result_t GetNext(FormatResult*& next) override {
    if (nextResult < 0) return nextResult;
    if (!next_) {
      next = nullptr;
      return 1;
    }
    next = next_.Get();
    next->AddRef();
    return 0;
  }

  zel::RefPtr<FakeFormatResult> next_;
  zel::result_t recordResult = 0, kindResult = 0, nextResult = 0;

 private:
  std::uint32_t m_kind;
  FormatId m_id;
};

// A chain of (kind, id) elements, the first one returned.
inline zel::RefPtr<FakeFormatResult> MakeChain(const std::vector<std::pair<std::uint32_t, FormatId>>& elements) {
  zel::RefPtr<FakeFormatResult> head, tail;
  for (const auto& [kind, id] : elements) {
    auto element = MakeObject<FakeFormatResult>(kind, id);
    if (tail) {
      tail->next_ = element;
    } else {
      head = element;
    }
    tail = element;
  }
  return head;
}

class FakeFormatRecognizer : public zel::object::Ifaces<FormatRecognizer> {
 public:
  zel::result_t Recognize(const FormatPropertyList& properties, zel::IIO* io, FormatRecord* record,
                          FormatResult** result) override {
    ++calls;
    lastIo = io;
    hadWorkArea = record != nullptr;
    lastProperties = properties;
    if (recognizeResult != 0) return recognizeResult;
    *result = answer.Get();
    if (*result != nullptr) (*result)->AddRef();
    return 0;
  }

  zel::result_t recognizeResult = 1;  // by default the file is unknown
  zel::RefPtr<FakeFormatResult> answer;
  int calls = 0;
  zel::IIO* lastIo = nullptr;
  bool hadWorkArea = false;
  FormatPropertyList lastProperties;
};

class FakeFormatRecognizerFactory : public zel::object::Ifaces<FormatRecognizerFactory> {
 public:
  zel::result_t CreateRecognizerForAll(FormatRecognizer**) override { return kNotImplemented; }
  zel::result_t GetFormatRecord(FormatId, FormatRecord&) override { return kNotImplemented; }
  zel::result_t CreateRecognizer(const FormatIdList& formats, FormatRecognizer** out) override {
    requested.assign(formats.begin(), formats.end());
    if (createResult < 0) return createResult;
    *out = handOutNull ? nullptr : recognizer.Get();
    if (*out != nullptr) (*out)->AddRef();
    return createResult;
  }

  zel::RefPtr<FakeFormatRecognizer> recognizer = MakeObject<FakeFormatRecognizer>();
  zel::result_t createResult = 0;
  bool handOutNull = false;
  std::vector<FormatId> requested;
};

}  // namespace testsupport
