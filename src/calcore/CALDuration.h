#pragma once
// CALDuration: a signed span of time in seconds; CALWeekDuration builds one
// from weeks. Durations are small values: copy them freely.

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace pc {

class CALDuration {
 public:
  CALDuration() = default;
  explicit CALDuration(double rawInterval) : _duration(rawInterval) {}

  // The parts are summed in 32-bit arithmetic, as the stored spans always were.
  static CALDuration durationWithDays(std::int16_t days, std::int16_t hours = 0,
                                      std::int16_t minutes = 0, std::int16_t seconds = 0);
  static CALDuration durationWithHours(std::int16_t hours) { return durationWithDays(0, hours); }
  static CALDuration durationWithMinutes(std::int16_t minutes) {
    return durationWithDays(0, 0, minutes);
  }
  static CALDuration durationWithSeconds(std::int16_t seconds) {
    return durationWithDays(0, 0, 0, seconds);
  }
  static CALDuration durationWithRawInterval(double seconds) { return CALDuration(seconds); }
  static CALDuration durationWithDurationRoundedToDay(const CALDuration& duration) {
    return duration.durationRoundedToDay();
  }
  // The part of `duration` below one day (same sign).
  static CALDuration durationWithDurationWithoutDayPart(const CALDuration& duration);

  double rawInterval() const { return _duration; }
  void setRawInterval(double seconds) { _duration = seconds; }

  // Parts of the interval truncated towards zero: all zero or negative for a
  // negative span.
  int daysPart() const { return static_cast<int>(_truncated() / 86400); }
  int hoursPart() const { return static_cast<int>((_truncated() % 86400) / 3600); }
  int minutesPart() const { return static_cast<int>((_truncated() % 3600) / 60); }
  int secondsPart() const { return static_cast<int>(_truncated() % 60); }

  // Whole days: a positive remainder rounds up, a negative one towards zero.
  CALDuration durationRoundedToDay() const;

  bool isEqualTo(const CALDuration& other) const { return _duration == other._duration; }
  bool isLongerThan(const CALDuration& other) const { return _duration > other._duration; }
  bool isNegative() const { return _duration < 0; }
  // Negates this duration in place.
  void inverse() { _duration = -_duration; }

  // "CALDuration 1 1:1:1 (90061.000000)"
  std::string description() const;

  // The archive is the one double.
  Value encode() const { return Value(_duration); }
  // Null unless the archive is a number.
  static std::optional<CALDuration> decode(const Value& archive);

 protected:
  std::int64_t _truncated() const { return static_cast<std::int64_t>(_duration); }

 private:
  double _duration = 0;
};

class CALWeekDuration : public CALDuration {
 public:
  CALWeekDuration() = default;
  explicit CALWeekDuration(std::int16_t weeks);
  static CALWeekDuration durationWithWeeks(std::int16_t weeks) { return CALWeekDuration(weeks); }

  int weeksPart() const { return static_cast<int>(_truncated() / 604800); }
};

}  // namespace pc
