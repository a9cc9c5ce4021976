// host::engine::EngineObjectCreator: the reference engine's
// IEngineObjectCreator. It makes the one class the module asks for, the
// application-control task, from a holder of
// app_ctrl::EnterpriseApplicationControlSettings.
#pragma once

#include <atomic>
#include <cstdint>

#include "app_control/interfaces/iengine_object_creator.h"
#include "host/engine/engine.h"
#include "host/services/host_object.h"

namespace host::engine {

class EngineObjectCreator final : public OwnedObject<EngineObjectCreator, IEngineObjectCreator> {
 public:
  explicit EngineObjectCreator(Engine& engine) : m_engine(engine) {}
  EngineObjectCreator(const EngineObjectCreator&) = delete;
  EngineObjectCreator& operator=(const EngineObjectCreator&) = delete;

  // 0x80000100 for another class; 0x80000103 when the holder is not of the
  // settings record; 0x80000101 without a holder; the engine's code when it
  // refuses to create.
  zel::result_t CreateObject(std::uint32_t classId, zel::iid_t iid, zel::IServiceLocator* sl,
                             const EngineObjectParameters* parameters, std::uintptr_t reserved,
                             void** out) override;

  std::uint64_t Calls() const { return m_calls.load(); }

 private:
  Engine& m_engine;
  std::atomic<std::uint64_t> m_calls{0};
};

}  // namespace host::engine
