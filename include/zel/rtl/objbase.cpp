#include "zel/rtl/objbase.h"

#include "zel/rtl/error_handling/exceptions.h"

namespace zel {

RefPtr<IAllocator> DirectServiceStrategy::AcquireReleaseAllocator() const {
  RefPtr<IAllocator> allocator;
  if (ZEL_FAILED(GetInterface(m_serviceLocator.Get(), allocator.Ref()))) {
    // The object cannot give its memory back; its release path is noexcept,
    // so this ends the process.
    throw RuntimeError(__FILE__, __LINE__, u"GetAllocator error: can't get interface");
  }
  return allocator;
}

}  // namespace zel
