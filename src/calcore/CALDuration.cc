#include "calcore/CALDuration.h"

#include <fmt/format.h>

namespace pc {

namespace {

// The stored spans are 32-bit sums: a sum past the 32-bit range wraps.
double wrappedSum(std::int64_t seconds) { return static_cast<std::int32_t>(seconds); }

}  // namespace

CALDuration CALDuration::durationWithDays(std::int16_t days, std::int16_t hours,
                                          std::int16_t minutes, std::int16_t seconds) {
  return CALDuration(wrappedSum(std::int64_t{days} * 86400 + std::int64_t{hours} * 3600 +
                                std::int64_t{minutes} * 60 + seconds));
}

CALDuration CALDuration::durationWithDurationWithoutDayPart(const CALDuration& duration) {
  return CALDuration(static_cast<double>(duration._truncated() % 86400));
}

CALDuration CALDuration::durationRoundedToDay() const {
  const std::int64_t days = daysPart() + (_truncated() % 86400 > 0 ? 1 : 0);
  return CALDuration(static_cast<double>(days * 86400));
}

std::string CALDuration::description() const {
  return fmt::format("CALDuration {} {}:{}:{} ({:f})", daysPart(), hoursPart(), minutesPart(),
                     secondsPart(), _duration);
}

std::optional<CALDuration> CALDuration::decode(const Value& archive) {
  if (!archive.isNumber()) return std::nullopt;
  return CALDuration(archive.doubleValue());
}

CALWeekDuration::CALWeekDuration(std::int16_t weeks)
    : CALDuration(wrappedSum(std::int64_t{weeks} * 604800)) {}

}  // namespace pc
