// Small counting fixtures for object-model tests: test interfaces, and
// counters of constructions, destructions and calls that a test can reset
// and read.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "zel/iobject.h"

namespace testsupport {

struct LifeCounters {
  std::atomic<int> constructed{0};
  std::atomic<int> destroyed{0};
  std::atomic<int> finalConstructs{0};
  std::atomic<int> finalReleases{0};
  void Reset() {
    constructed = 0;
    destroyed = 0;
    finalConstructs = 0;
    finalReleases = 0;
  }
  int Alive() const { return constructed - destroyed; }
};

class IFoo : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x0F000001;
  virtual int Foo() = 0;

 protected:
  ~IFoo() = default;
};

class IBar : public zel::IObject {
 public:
  static constexpr zel::iid_t iid = 0x0F000002;
  virtual int Bar() = 0;

 protected:
  ~IBar() = default;
};

// Reads an object's count without changing it.
inline std::uint32_t RefCountOf(zel::IObject* o) {
  o->AddRef();
  return o->Release();
}

}  // namespace testsupport
