#include "platform/Date.h"

#include <chrono>

namespace pc {

Date Date::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return dateWithTimeIntervalSince1970(std::chrono::duration<double>(sinceEpoch).count());
}

}  // namespace pc
