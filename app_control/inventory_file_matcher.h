// InventoryFileMatcher: the filter between the inventory walk and the
// engine. For one open file it answers whether the engine should look at it,
// from three tests in order: the configured scope (the host's path matcher),
// the executable bit, and the file's format (the host's recogniser, checked
// against the extension, or the extension alone when the recogniser does not
// know the file). One object serves one run on the scan worker.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "app_control/interfaces/format_recognizer.h"
#include "app_control/interfaces/format_record.h"
#include "app_control/interfaces/ipath_matcher.h"
#include "tov_common/settings/scan_scope.h"
#include "tov_common/native_path.h"
#include "zel/iservice_locator.h"
#include "zel/itracer.h"
#include "zel/noncopyable.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/iio.h"
#include "zel/types/string.h"

namespace tov::app_control {

class InventoryFileMatcher : zel::NonCopyable {
 public:
  // What the matcher takes from the scan settings.
  struct Settings {
    bool firstFormatGroupEnabled = true;
    bool secondFormatGroupEnabled = true;
    bool executableBitEnabled = true;
    tov::settings::ScanScopeLists scopes;
  };

  // Gets the tracer, builds the path matcher and the format recogniser;
  // throws when any of them cannot be had.
  InventoryFileMatcher(zel::IServiceLocator* serviceLocator, const Settings& settings);

  // Any settings record with the scan settings' field names.
  template <class ScanSettings>
    requires requires(const ScanSettings& s) {
      s.firstFormatGroupEnabled;
      s.secondFormatGroupEnabled;
      s.executableBitEnabled;
      s.scanScopes;
      s.secondaryScopes;
    }
  InventoryFileMatcher(zel::IServiceLocator* serviceLocator, const ScanSettings& s)
      : InventoryFileMatcher(serviceLocator, Settings{s.firstFormatGroupEnabled, s.secondFormatGroupEnabled,
                                                      s.executableBitEnabled, {s.scanScopes, s.secondaryScopes}}) {}

  // 0: give the file to the engine; 1: skip it; negative: failure (0x8000004B
  // when the file cannot be stat'ed, or the recogniser's failure). Never throws.
  zel::result_t Match(const tov::NativePath& path, zel::IIO* io);
  // The same, for a caller that has just lstat'ed `path` and found a regular
  // file (so a stat would find the same): `known` stands in for the stat.
  // Null stats the path.
  zel::result_t Match(const tov::NativePath& path, zel::IIO* io, const struct stat* known);

  // The scope test, shared with the walk for directories.
  IPathMatcher* GetPathMatcher() const noexcept { return m_pathMatcher.Get(); }

 private:
  FormatId RecognizeFormat(const zel::wstring_t& widePath, zel::IIO* io);
  FormatId ReadChain(FormatResult* first, std::u16string_view extension);
  bool IsEnabledFormat(FormatId id) const noexcept;

  zel::RefPtr<IPathMatcher> m_pathMatcher;
  zel::RefPtr<zel::ITracer> m_tracer;
  zel::RefPtr<FormatRecognizer> m_recognizer;
  bool m_firstFormatGroupEnabled;
  bool m_secondFormatGroupEnabled;
  bool m_executableBitEnabled;
};

}  // namespace tov::app_control
