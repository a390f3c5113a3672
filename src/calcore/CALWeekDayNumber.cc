#include "calcore/CALWeekDayNumber.h"

#include <fmt/format.h>

namespace pc {

std::string CALWeekDayNumber::description() const {
  return fmt::format("CALWeekNumber d:{} n:{}", _day, _number);
}

}  // namespace pc
