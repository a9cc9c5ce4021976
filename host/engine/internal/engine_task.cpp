#include "host/engine/internal/engine_task.h"

#include <new>

namespace host::engine::detail {

EngineTask::EngineTask(Engine* engine, const EacSettings& settings)
    : m_engine(engine), m_settings(std::make_shared<const EacSettings>(settings)) {
  m_engine->TaskBorn(this);
}

EngineTask::~EngineTask() { m_engine->TaskDied(this); }

zel::result_t EngineTask::Start(app_core::task_manager::task::TaskSessionId /*sessionId*/,
                                app_core::task_manager::task::ITaskStopEvents* /*taskStopNotifier*/) {
  // The reference engine never ends by itself, so the notifier is not kept.
  return m_engine->StartTask(this);
}

zel::result_t EngineTask::Stop() { return m_engine->StopTask(this); }
zel::result_t EngineTask::Pause() { return m_engine->PauseTask(this, true); }
zel::result_t EngineTask::Resume() { return m_engine->PauseTask(this, false); }

zel::result_t EngineTask::SetSettings(const EacSettings* settings) {
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
