#include "zel/system/datetime.h"

#include <cerrno>
#include <ctime>

namespace zel::datetime {

TimeSystemError::TimeSystemError(const char* file, int line, int errnoValue)
    : SystemException(file, line, std::u16string_view(u"Cannot get system time")) {
  SetResult(ResultFromErrno(static_cast<unsigned>(errnoValue)));
}

std::uint64_t now() {
  timespec ts{};
  if (clock_gettime(CLOCK_REALTIME, &ts) != 0) throw TimeSystemError(__FILE__, __LINE__, errno);
  return FromTimespec(ts);
}

}  // namespace zel::datetime
