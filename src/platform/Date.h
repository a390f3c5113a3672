#pragma once
// The platform's instant: seconds since the reference date 2001-01-01
// 00:00:00 GMT. Time zones answer offsets at instants and calendar dates read
// instants in zones; both build on this header alone.

#include <compare>

namespace pc {

// Seconds between 1970-01-01 and 2001-01-01.
inline constexpr double kTimeIntervalBetween1970AndReferenceDate = 978307200.0;

struct Date {
  double secondsSinceReferenceDate = 0;

  static Date now();
  static Date dateWithTimeIntervalSince1970(double seconds) {
    return Date{seconds - kTimeIntervalBetween1970AndReferenceDate};
  }
  double timeIntervalSinceReferenceDate() const { return secondsSinceReferenceDate; }
  double timeIntervalSince1970() const {
    return secondsSinceReferenceDate + kTimeIntervalBetween1970AndReferenceDate;
  }
  auto operator<=>(const Date&) const = default;
};

}  // namespace pc
