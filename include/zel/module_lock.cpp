#include "zel/module_lock.h"

namespace zel {
std::atomic<std::uint32_t> ModuleLockCount{0};
}
