#pragma once
// Time zones on ICU's time-zone database: by IANA name, by fixed offset
// ("GMT+0100", "UTC-05:00"), by abbreviation, the system zone, and the "local
// time zone" kind: a zone object that follows whatever the system zone is.

#include <memory>
#include <string>
#include <string_view>

namespace pc {

struct Date;
class TimeZone;
using TimeZonePtr = std::shared_ptr<const TimeZone>;

class TimeZone {
 public:
  virtual ~TimeZone();

  // nullptr when the name is unknown. Accepts IANA identifiers ("Europe/Paris"),
  // "GMT"/"UTC", and fixed offsets such as "GMT+0100", "GMT-05:30", "UTC+2".
  static TimeZonePtr timeZoneWithName(std::string_view name);
  // nullptr when the abbreviation is unknown ("CET", "PST", "GMT", ...).
  static TimeZonePtr timeZoneWithAbbreviation(std::string_view abbreviation);
  // A fixed-offset zone; its name is "GMT+hhmm" / "GMT-hhmm" ("GMT" for 0),
  // with the seconds appended when there are some. nullptr beyond +-24 hours.
  static TimeZonePtr timeZoneForSecondsFromGMT(int seconds);
  static TimeZonePtr gmt();

  // The zone of the machine: the TZ environment variable, else /etc/localtime,
  // else GMT; read once and kept until resetSystemTimeZone().
  static TimeZonePtr systemTimeZone();
  static void resetSystemTimeZone();
  // Makes `zone` the system zone of this process (nullptr: read it again).
  static void setSystemTimeZone(TimeZonePtr zone);
  // A zone that answers as the system zone does at each call.
  static TimeZonePtr localTimeZone();

  // The IANA identifier or "GMT+hhmm" form; for the local kind, the current
  // system zone's name.
  virtual std::string name() const = 0;
  virtual int secondsFromGMT(const Date& at) const = 0;
  virtual bool isDaylightSavingTime(const Date& at) const = 0;
  // The short name in force at `at` ("CET", "CEST", "EST"); "GMT+hhmm" when the
  // database knows no abbreviation for it.
  virtual std::string abbreviation(const Date& at) const = 0;
  virtual bool isLocalTimeZoneKind() const { return false; }

  // The offset that turns a wall-clock reading of this zone into an instant:
  // instant = wall - offset, `wall` being the reading counted as if it were
  // GMT. A reading skipped by a change of offset takes the offset in force
  // before the change (02:30 on a spring-forward night becomes 03:30); a
  // reading that occurs twice takes the first one (the daylight reading).
  int secondsFromGMTForWallClock(const Date& wall) const;

  // Same name (the local kind equals only another local-kind zone).
  bool isEqualToTimeZone(const TimeZone& other) const;
  // "Europe/Paris (CET) offset 3600" style, at the current date.
  std::string description() const;
};

inline bool operator==(const TimeZone& a, const TimeZone& b) { return a.isEqualToTimeZone(b); }

}  // namespace pc
