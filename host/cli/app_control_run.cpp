#include "host/cli/app_control_run.h"

#include <cstdio>

#include "host/cli/category_document.h"
#include "host/module/module_loader.h"

namespace host::cli {
namespace {

constexpr std::uint32_t kAppControlTaskClass = 0x46DFCF43;

class FileCloser {
 public:
  explicit FileCloser(std::FILE* f) : m_file(f) {}
  FileCloser(const FileCloser&) = delete;
  FileCloser& operator=(const FileCloser&) = delete;
  ~FileCloser() {
    if (m_file != nullptr && m_file != stdout) std::fclose(m_file);
  }

 private:
  std::FILE* m_file;
};

}  // namespace

int RunAppControlTask(const GlobalOptions& options, tov::settings::AppControlSettings& settings,
                      const std::string& categoriesJson, const std::string& categoriesSource,
                      const std::function<int(AppControlRun&)>& body) {
  std::FILE* events = stdout;
  if (!options.eventsPath.empty()) {
    events = std::fopen(options.eventsPath.c_str(), "w");
    if (events == nullptr) throw UserError("cannot write " + options.eventsPath);
  }
  const FileCloser closeEvents(events);

  LoadedModule module(options.modulePath);
  int status = 0;
  {
    HostSession session(options.traceLevel, options.dbPath.empty() ? ":memory:" : options.dbPath, events);
    // The hashes that earlier scans and runs stored: a program they saw is not read again.
    session.UseHashCacheStore(true);
    if (!categoriesSource.empty()) ImportCategories(session.categories, &session.locator, categoriesJson, categoriesSource);

    void* arguments[2] = {&session.locator, &settings};
    zel::IObject* object = nullptr;
    zel::result_t r = module.CreateObject(kAppControlTaskClass, arguments, &object);
    if (ZEL_FAILED(r)) return Fail("creating the application control task", r);
    auto task = zel::RefPtr<app_core::task_manager::task::ITask>::Adopt(
        static_cast<app_core::task_manager::task::ITask*>(object));
    r = task->Start(1, nullptr);
    if (ZEL_FAILED(r)) return Fail("starting the application control task", r);

    AppControlRun run{session, task.Get()};
    status = body(run);
    session.SaveHashCache();

    r = task->Stop();
    if (ZEL_FAILED(r)) status = Fail("stopping the application control task", r);
    task.Reset();
  }
  if (module.CanUnload() != 0) {
    std::fprintf(stderr, "acctl: module objects are still alive after the run\n");
    status = 1;
  }
  return status;
}

}  // namespace host::cli
