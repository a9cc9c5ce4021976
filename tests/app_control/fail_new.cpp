#include "app_control/fail_new.h"

#include <cstdlib>
#include <new>

namespace {
thread_local int g_failDepth = 0;
}

namespace testsupport {
FailingNewScope::FailingNewScope() { ++g_failDepth; }
FailingNewScope::~FailingNewScope() { --g_failDepth; }
}  // namespace testsupport

void* operator new(std::size_t size) {
  if (g_failDepth > 0) throw std::bad_alloc();
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
