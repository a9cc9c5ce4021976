// Lets a test make the global operator new fail on the calling thread, to
// drive the out-of-memory paths of code that allocates with plain new.
#pragma once

namespace testsupport {

// While alive, every global operator new on this thread throws bad_alloc.
class FailingNewScope {
 public:
  FailingNewScope();
  ~FailingNewScope();
  FailingNewScope(const FailingNewScope&) = delete;
  FailingNewScope& operator=(const FailingNewScope&) = delete;
};

}  // namespace testsupport
