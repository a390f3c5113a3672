#pragma once
// CALWeekDayNumber: one entry of a rule's BYDAY list, a weekday with an
// optional ordinal ("every Monday", "the 2nd Monday", "the last Friday").

#include <string>

namespace pc {

class CALWeekDayNumber {
 public:
  CALWeekDayNumber() = default;
  // `day` 0 = Sunday .. 6 = Saturday; `number` 0 for every such weekday,
  // n for the n-th of the period, negative counting from its end.
  CALWeekDayNumber(int day, int number) : _day(day), _number(number) {}
  static CALWeekDayNumber weekDayNumberWithDay(int day, int number) {
    return CALWeekDayNumber(day, number);
  }

  int day() const { return _day; }
  void setDay(int day) { _day = day; }
  int number() const { return _number; }
  void setNumber(int number) { _number = number; }

  bool isEqual(const CALWeekDayNumber& other) const {
    return _day == other._day && _number == other._number;
  }
  bool operator==(const CALWeekDayNumber& other) const { return isEqual(other); }
  // "CALWeekNumber d:1 n:-1"
  std::string description() const;

 private:
  int _day = 0;
  int _number = 0;
};

}  // namespace pc
