// zel::TracerProvider: the base through which a class traces with its own
// name in front of every line. It keeps the locator it was made with and a
// prefix tracer over the locator's tracer, both for the life of the object;
// a locator without a tracer makes the constructor throw. GetTracer() gives a
// handle that tests the level inline before the tracer is called, and passes
// as a plain ITracer* wherever one is asked for.
//
//   class AppControlTask : ..., public zel::TracerProvider {
//     explicit AppControlTask(zel::IServiceLocator* sl)
//         : zel::TracerProvider(sl, "AppControlTask") {}
//   };
#pragma once

#include <cstdint>
#include <string_view>

#include "zel/iservice_locator.h"
#include "zel/itracer.h"
#include "zel/rtl/objclient.h"
#include "zel/trace/trace_stream.h"

namespace zel {

class TracerProvider {
 public:
  // `className` becomes the prefix, followed by "::".
  TracerProvider(IServiceLocator* serviceLocator, std::string_view className);
  TracerProvider(const TracerProvider&) = delete;
  TracerProvider& operator=(const TracerProvider&) = delete;

  TraceHandle GetTracer() const noexcept { return {m_tracer.Get(), m_levelLimit}; }
  IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }

 protected:
  ~TracerProvider() = default;

 private:
  RefPtr<IServiceLocator> m_serviceLocator;
  RefPtr<ITracer> m_tracer;
  const std::uint32_t* m_levelLimit = nullptr;  // the prefix tracer's, valid while m_tracer lives
};

}  // namespace zel
