#include "host/engine/internal/engine_task.h"

#include <new>

#include "host/services/fault_switchboard.h"

namespace host::engine::detail {

EngineTask::EngineTask(Engine* engine, const EacSettings& settings)
    : m_engine(engine), m_settings(std::make_shared<const EacSettings>(settings)) {
  m_engine->TaskBorn(this);
}

EngineTask::~EngineTask() { m_engine->TaskDied(this); }

zel::result_t EngineTask::Start(app_core::task_manager::task::TaskSessionId /*sessionId*/,
                                app_core::task_manager::task::ITaskStopEvents* /*taskStopNotifier*/) {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineTaskStart)) return fault;
  // The reference engine never ends by itself, so the notifier is not kept.
  return m_engine->StartTask(this);
}

zel::result_t EngineTask::Stop() {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineTaskStop)) return fault;
  return m_engine->StopTask(this);
}

zel::result_t EngineTask::Pause() {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineTaskPause)) return fault;
  return m_engine->PauseTask(this, true);
}

zel::result_t EngineTask::Resume() {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineTaskResume)) return fault;
  return m_engine->PauseTask(this, false);
}


zel::result_t EngineTask::SetSettings(const EacSettings* settings) {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineTaskSetSettings)) return fault;
  if (settings == nullptr) return zel::result::InvalidArgument;
  if (const zel::result_t fault = m_engine->m_failSetSettings.load(); fault != 0) return fault;
  try {
    auto copy = std::make_shared<const EacSettings>(*settings);
    std::lock_guard lock(m_mutex);
    m_settings.swap(copy);
    return zel::result::NoError;
  } catch (const std::bad_alloc&) {
    return zel::result::OutOfMemory;
  } catch (...) {
    return zel::result::Unexpected;
  }
}

std::shared_ptr<const EacSettings> EngineTask::Settings() const {
  std::lock_guard lock(m_mutex);
  return m_settings;
}

}  // namespace host::engine::detail
