// host::engine::EngineObjectCreator: the reference engine's
// IEngineObjectCreator. It makes the one class the module asks for, the
// application-control task, from a holder of
// app_ctrl::EnterpriseApplicationControlSettings.
#pragma once

#include <atomic>
#include <cstdint>

#include "app_control/interfaces/iengine_object_creator.h"
#include "host/engine/engine.h"

namespace host::engine {

class EngineObjectCreator final : public IEngineObjectCreator {
 public:
  explicit EngineObjectCreator(Engine& engine) : m_engine(engine) {}
  EngineObjectCreator(const EngineObjectCreator&) = delete;
  EngineObjectCreator& operator=(const EngineObjectCreator&) = delete;

  // Owned by its creator; the count is bookkeeping that tests can read.
  std::uint32_t AddRef() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Release() override { return m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  zel::result_t QueryInterface(zel::iid_t iid, void** out) override;

  // 0x80000100 for another class; 0x80000103 when the holder is not of the
  // settings record; 0x80000101 without a holder; the engine's code when it
  // refuses to create.
  zel::result_t CreateObject(std::uint32_t classId, zel::iid_t iid, zel::IServiceLocator* sl,
                             const EngineObjectParameters* parameters, std::uintptr_t reserved,
                             void** out) override;

  std::uint64_t Calls() const { return m_calls.load(); }
  std::int64_t OutstandingRefs() const { return static_cast<std::int64_t>(m_refs.load()) - 1; }

 private:
  Engine& m_engine;
  std::atomic<std::uint64_t> m_calls{0};
  std::atomic<std::uint32_t> m_refs{1};
};

}  // namespace host::engine
