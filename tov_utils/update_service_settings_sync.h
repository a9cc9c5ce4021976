// tools::UpdateServiceSettingsSync: read, change and write another service's stored settings, repeating
// when another writer got there first, and make the change durable before returning. 0: written and
// flushed; 1: the modifier changed nothing; negative: failure (already logged).
#pragma once
#include <cstdint>
#include <utility>
#include "tov_utils/interfaces/iservice_manager.h"
#include "zel/rtl/error_handling/checks.h"
#include "zel/rtl/objclient.h"
#include "zel/serialization/type_descriptor.h"
#include "zel/trace/trace_stream.h"
namespace tools {
namespace detail {
template <class Settings, class Modifier>
zel::result_t ReadModifyWrite(app_core::facade::IServiceManager* esm, std::uint32_t serviceKey, Modifier& modifier,
                              bool sync);
}  // namespace detail
// `modifier(Settings&) -> bool`: did it change the record? It may run several times; exceptions pass through.
template <class Settings, class Modifier>
zel::result_t UpdateServiceSettingsSync(zel::ITracer* tracer, zel::IServiceLocator* sl, std::uint32_t serviceKey, Modifier modifier, bool sync = true) {
  const zel::RefPtr<zel::ITracer> tracerRef(tracer);
  ZEL_TRACE(tracer, zel::trace_level::Info) << "UpdateServiceSettingsSync" << "() " << "serviceKey=" << zel::trace::hex << zel::trace::showbase << serviceKey << zel::trace::dec << ", sync=" << (sync ? 1 : 0);
  zel::RefPtr<app_core::facade::IServiceManager> esm;
  ZEL_CHECK_RESULT_LOG_RETURN(tracer, GetInterface(sl, esm.Ref()), "Cannot get IServiceManager interface");

  zel::result_t res = detail::ReadModifyWrite<Settings>(esm.Get(), serviceKey, modifier, sync);
  if (ZEL_FAILED(res)) {
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, res, "UpdateServiceSettings2 failed");
  }
  if (res == 0) {
    // A failed flush leaves the change written; it is reported, not undone.
    ZEL_CHECK_RESULT_LOG_RETURN(tracer, esm->FlushSettings(), "FlushSettings failed");
  }
  ZEL_TRACE(tracer, zel::trace_level::Info) << "UpdateServiceSettingsSync" << "() <- " << zel::FormatResult(res) << " ";
  return res;
}

namespace detail {
// The record a typed modifier (a lambda taking `Settings&`) works on.
template <class F>
struct ModifiedRecord : ModifiedRecord<decltype(&F::operator())> {};
template <class C, class R, class S>
struct ModifiedRecord<R (C::*)(S&) const> {
  using type = S;
};
template <class C, class R, class S>
struct ModifiedRecord<R (C::*)(S&)> {
  using type = S;
};
}  // namespace detail

// The same, with the record type taken from the modifier's parameter.
template <class Modifier>
zel::result_t UpdateServiceSettingsSync(zel::ITracer* tracer, zel::IServiceLocator* sl, std::uint32_t serviceKey,
                                        Modifier modifier, bool sync = true) {
  return UpdateServiceSettingsSync<typename detail::ModifiedRecord<Modifier>::type>(tracer, sl, serviceKey,
                                                                                     std::move(modifier), sync);
}

namespace detail {

// One pass per attempt, each from a freshly read record; a write refused
// because the revision moved on starts over, as often as it takes: the other
// writer made progress, so the loop can't spin without somebody advancing.
template <class Settings, class Modifier>
zel::result_t ReadModifyWrite(app_core::facade::IServiceManager* esm, std::uint32_t serviceKey, Modifier& modifier,
                              bool sync) {
  for (;;) {
    Settings record{};
    app_core::facade::SettingsHolder holder{&record, zel::SerObjId<Settings>::value, nullptr};
    std::uint32_t revision = 0;
    const zel::result_t read = esm->GetServiceSettings2(serviceKey, &holder, &revision);
    // A descriptor the service filled in is ours to release, whatever the result.
    const auto descriptor = zel::RefPtr<zel::IObject>::Adopt(std::exchange(holder.descriptor, nullptr));
    if (ZEL_FAILED(read)) return read;
    if (!static_cast<bool>(modifier(record))) return zel::result::False;
    const zel::result_t written = esm->UpdateServiceSettings2(serviceKey, sync ? 1u : 0u, &holder, revision);
    if (written != app_core::facade::kSettingsRevisionChanged) return written;
  }
}

}  // namespace detail
}  // namespace tools
