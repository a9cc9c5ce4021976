// The reference engine's application-control task: ITask drives the
// engine's enforcement, ISettings replaces the rules it enforces. It lives
// in the global-new flavour of the object runtime and dies with its last
// reference; its engine must outlive it.
#pragma once

#include <memory>
#include <mutex>

#include "app_control/interfaces/iengine_task_settings.h"
#include "app_control/interfaces/itask.h"
#include "host/engine/engine.h"
#include "zel/noncopyable.h"
#include "zel/rtl/objbase.h"

namespace host::engine::detail {

class EngineTask : public zel::object::Ifaces<app_core::task_manager::task::ITask, app_ctrl::ISettings>,
                   public zel::NonCopyable {
 public:
  zel::result_t Start(app_core::task_manager::task::TaskSessionId sessionId,
                      app_core::task_manager::task::ITaskStopEvents* taskStopNotifier) override;
  zel::result_t Stop() override;
  zel::result_t Pause() override;
  zel::result_t Resume() override;
  zel::result_t SetSettings(const EacSettings* settings) override;

  std::shared_ptr<const EacSettings> Settings() const;
  bool Is(const zel::IObject* face) const noexcept {
    return face == static_cast<const app_core::task_manager::task::ITask*>(this) ||
           face == static_cast<const app_ctrl::ISettings*>(this);
  }

 protected:
  EngineTask(Engine* engine, const EacSettings& settings);
  ~EngineTask();

 private:
  Engine* const m_engine;
  mutable std::mutex m_mutex;
  std::shared_ptr<const EacSettings> m_settings;
};

using EngineTaskObject = zel::Object<EngineTask, zel::SimpleObjectFactory>;

}  // namespace host::engine::detail
