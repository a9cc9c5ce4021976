#include "host/engine/engine_object_creator.h"

#include "host/services/fault_switchboard.h"
#include "tov_common/settings/enterprise_application_control_settings.h"

static_assert(app_ctrl::kEacSettingsSerId == app_ctrl::EnterpriseApplicationControlSettings::SerId,
              "the engine takes its settings record under the record's own id");

namespace host::engine {

zel::result_t EngineObjectCreator::CreateObject(std::uint32_t classId, zel::iid_t iid, zel::IServiceLocator* /*sl*/,
                                                const EngineObjectParameters* parameters, std::uintptr_t reserved,
                                                void** out) {
  if (const zel::result_t fault = FaultAt(FaultPoint::EngineCreateObject)) return fault;
  m_calls.fetch_add(1);
  if (out == nullptr || reserved != 0) return zel::result::InvalidArgument;
  *out = nullptr;
  if (classId != app_ctrl::kEacTaskClassId) return zel::result::ClassNotFound;
  if (parameters == nullptr || parameters->object == nullptr) return zel::result::SettingsAreRequired;
  if (parameters->serId != app_ctrl::kEacSettingsSerId) return zel::result::WrongSettingsType;
  return m_engine.CreateTask(*static_cast<const EacSettings*>(parameters->object), iid, out);
}

}  // namespace host::engine
