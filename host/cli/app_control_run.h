// The set-up that `acctl run` and `acctl enforce` share: where events go,
// the module, a host session with the engine, the categories, and the
// application control task made from the settings and started; then the
// command's own work; then the task stopped, released, and the module
// checked for objects left alive.
#pragma once

#include <functional>
#include <string>

#include "app_control/interfaces/itask.h"
#include "host/cli/cli.h"
#include "host/cli/host_session.h"
#include "tov_common/settings/app_control_settings.h"

namespace host::cli {

struct AppControlRun {
  HostSession& session;
  app_core::task_manager::task::ITask* task;  // started; the run holds the reference
};

// Events go to --events FILE, else stdout. `categoriesJson` (empty: none)
// is imported before the task is made. Returns what `body` returns, or 1
// when a step fails ("acctl: <step> failed: ..." on stderr).
int RunAppControlTask(const GlobalOptions& options, tov::settings::AppControlSettings& settings,
                      const std::string& categoriesJson, const std::string& categoriesSource,
                      const std::function<int(AppControlRun&)>& body);

}  // namespace host::cli
