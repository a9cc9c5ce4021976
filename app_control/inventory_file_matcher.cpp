#include "app_control/inventory_file_matcher.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "app_control/interfaces/format_recognizer_factory.h"
#include "app_control/interfaces/ipath_matcher_factory.h"
#include "app_control/interfaces/path_matcher_options.h"
#include "application_control/common/helpers/file_format.h"
#include "application_control/common/helpers/format_recognizer.h"
#include "application_control/eac/utils.h"
#include "zel/rtl/error_handling/checks.h"
#include "zel/strings/conversions.h"
#include "zel/trace/trace_stream.h"

namespace tov::app_control {

namespace formats = app_ctrl::formats;
using zel::trace_level::Error;
using zel::trace_level::Info;

namespace {

// strerror_r in its GNU form may or may not use the buffer.
const char* ErrnoText(int error, char (&buffer)[256]) noexcept {
  return ::strerror_r(error, buffer, sizeof buffer);
}

}  // namespace

InventoryFileMatcher::InventoryFileMatcher(zel::IServiceLocator* serviceLocator, const Settings& settings)
    : m_firstFormatGroupEnabled(settings.firstFormatGroupEnabled),
      m_secondFormatGroupEnabled(settings.secondFormatGroupEnabled),
      m_executableBitEnabled(settings.executableBitEnabled) {
  zel::result_t r = zel::GetInterface(serviceLocator, m_tracer.Ref());
  if (ZEL_FAILED(r)) throw zel::ResultCodeException(__FILE__, __LINE__, "Expression failed", r) << "Cannot get zel::ITracer interface";

  zel::RefPtr<IPathMatcherFactory> pathMatcherFactory;
  r = zel::GetInterface(serviceLocator, pathMatcherFactory.Ref());
  if (ZEL_FAILED(r)) throw zel::ResultCodeException(__FILE__, __LINE__, "Expression failed", r) << "Cannot get IPathMatcherFactory interface";

  const PathMatcherOptions options;
  r = pathMatcherFactory->CreatePathMatcher(settings.scopes, options, m_pathMatcher.Ref());
  if (ZEL_FAILED(r)) throw zel::ResultCodeException(__FILE__, __LINE__, "Expression failed", r) << "Cannot create path matcher";
  ZEL_CHECK_THROW(m_pathMatcher);

  FormatIdList formatIds;
  for (FormatId id : formats::kRecognizerFormats) formatIds.push_back(id);

  zel::RefPtr<FormatRecognizerFactory> recognizerFactory;
  zel::GetInterface(serviceLocator, recognizerFactory);
  ZEL_CHECK_RESULT_THROW(recognizerFactory->CreateRecognizer(formatIds, m_recognizer.Ref()));
  ZEL_CHECK_THROW(m_recognizer);
}

zel::result_t InventoryFileMatcher::Match(const tov::NativePath& path, zel::IIO* io) {
  return Match(path, io, nullptr);
}

zel::result_t InventoryFileMatcher::Match(const tov::NativePath& path, zel::IIO* io, const struct stat* known) {
  zel::ITracer* tracer = m_tracer.Get();
  try {
    ZEL_TRACE(tracer, Info) << "Match" << "() " << "path=" << path.view();

    if (m_pathMatcher->Match(path, 0) != 0) {
      ZEL_TRACE(tracer, Info) << "Match" << ": " << "skip file " << path.view();
      return 1;
    }

    struct stat st {};
    if (known != nullptr) {
      st = *known;
    } else if (::stat(path.c_str(), &st) == -1) {
      const int error = errno;
      zel::TraceRecord record;
      if (zel::TraceTest(record, tracer, Error)) {
        zel::detail::TraceLineScope line(record);
        char buffer[256];
        zel::WriteFailedCondition(line.Stream(), __FILE__, __LINE__, "::stat(path.c_str(), &st) != -1")
            << "Cannot stat " << path.view() << ": " << ErrnoText(error, buffer);
      }
      return zel::result::UnspecifiedError;
    }

    if ((st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0 && m_executableBitEnabled) {
      ZEL_TRACE(tracer, Info) << "Match" << ": " << path.view() << " has executable bit set";
      return 0;
    }

    const FormatId id = RecognizeFormat(zel::Utf8ToWide(path.view()), io);
    if (id == formats::kUnrecognized) {
      // Nobody can name it: the engine gets to judge it.
      ZEL_TRACE(tracer, Info) << "File '" << path.view() << "' : formatId[unrecognized]";
      return 0;
    }
    ZEL_TRACE(tracer, Info) << "File '" << path.view() << "' : formatId[" << id << "]";
    return IsEnabledFormat(id) ? 0 : 1;
  } catch (...) {
    return zel::ResultFromCurrentException(
        tracer, "result_t tov::app_control::InventoryFileMatcher::Match(const tov::NativePath&, zel::IIO*)");
  }
}

bool InventoryFileMatcher::IsEnabledFormat(FormatId id) const noexcept {
  if (formats::Contains(formats::kFirstGroup, id)) return m_firstFormatGroupEnabled;
  if (formats::Contains(formats::kSecondGroup, id)) return m_secondFormatGroupEnabled;
  return false;
}

FormatId InventoryFileMatcher::RecognizeFormat(const zel::wstring_t& widePath, zel::IIO* io) {
  const std::u16string_view extension = formats::ExtensionOf(widePath.view());

  FormatPropertyList properties;
  FormatProperty property;
  property.id = format_property::Extension;
  property.value.SetWString(zel::wstring_t(extension));
  properties.push_back(std::move(property));

  FormatRecord workArea;
  zel::RefPtr<FormatResult> result;
  const zel::result_t r = m_recognizer->Recognize(properties, io, &workArea, result.Ref());
  ZEL_CHECK_RESULT_THROW(r);
  if (r > 0) return formats::FormatFromExtension(extension);
  ZEL_CHECK_THROW(result);
  return ReadChain(result.Get(), extension);
}

FormatId InventoryFileMatcher::ReadChain(FormatResult* first, std::u16string_view extension) {
  zel::RefPtr<FormatResult> current(first);
  for (;;) {
    std::uint32_t kind = 0;
    FormatRecord record;
    ZEL_CHECK_RESULT_THROW(current->GetKind(kind));
    ZEL_CHECK_RESULT_THROW(current->GetRecord(record));

    if (kind == format_result_kind::Candidates) {
      // A candidate counts only when the file's extension confirms it;
      // otherwise the next element decides, read by its own kind.
      if (formats::ExtensionConfirmsFormat(record.id, extension)) return record.id;
      zel::RefPtr<FormatResult> next;
      if (current->GetNext(*next.Ref()) != 0 || !next) return formats::kUnrecognized;
      current = std::move(next);
      continue;
    }

    if (kind == format_result_kind::Set) {
      // All elements apply; the earliest in the priority table counts.
      const FormatId firstId = record.id;
      std::size_t best = formats::kPriority.size();
      for (;;) {
        best = formats::PriorityRank(record.id, best);
        zel::RefPtr<FormatResult> next;
        const zel::result_t n = current->GetNext(*next.Ref());
        ZEL_CHECK_RESULT_THROW(n);
        if (n != 0 || !next) break;
        current = std::move(next);
        ZEL_CHECK_RESULT_THROW(current->GetRecord(record));
      }
      return best < formats::kPriority.size() ? formats::kPriority[best] : firstId;
    }

    return formats::kUnrecognized;
  }
}

}  // namespace tov::app_control
