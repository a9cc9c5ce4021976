// zel::trace::IPrefixTracer: the face of a tracer that puts a fixed prefix
// in front of every line of the tracer underneath. Lets a new prefix tracer
// find and skip an enclosing class's prefix instead of stacking on it.
#pragma once

#include "zel/iobject.h"
#include "zel/itracer.h"

namespace zel::trace {

class IPrefixTracer : public IObject {
 public:
  static constexpr iid_t iid = 0xCE153B3B;

  // NUL-terminated prefix, including its closing "::" when it has one.
  virtual const char* GetPrefix() = 0;
  // The tracer underneath; no reference is added.
  virtual ITracer* GetTracer() = 0;

 protected:
  ~IPrefixTracer() = default;
};

}  // namespace zel::trace
