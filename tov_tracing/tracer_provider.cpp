#include "tov_tracing/tracer_provider.h"

#include <utility>

#include "tov_tracing/prefix_tracer.h"

namespace zel {

TracerProvider::TracerProvider(IServiceLocator* serviceLocator, std::string_view className)
    : m_serviceLocator(serviceLocator) {
  trace::PrefixTracerSetUp setUp = trace::SetUpPrefixTracer(serviceLocator, className.size(), className.data());
  m_tracer = std::move(setUp.tracer);
  m_levelLimit = setUp.levelLimit;
}

}  // namespace zel
