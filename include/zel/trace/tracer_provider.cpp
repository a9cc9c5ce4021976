#include "zel/trace/tracer_provider.h"

#include "zel/trace/prefix_tracer.h"

namespace zel {

TracerProvider::TracerProvider(IServiceLocator* serviceLocator, std::string_view className)
    : m_serviceLocator(serviceLocator),
      m_tracer(trace::MakePrefixTracer(serviceLocator, className.size(), className.data())) {}

}  // namespace zel
