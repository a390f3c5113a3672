// Zones named by TZID: IANA names, Windows names, and custom VTIMEZONEs
// matched by their offsets and changes of offset.

#include "host/ICalendarZones.h"

#include <libical/ical.h>
#include <unicode/basictz.h>
#include <unicode/strenum.h>
#include <unicode/timezone.h>

#include <algorithm>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "platform/Date.h"

namespace pc {
namespace {

constexpr long long kHour = 3600;

// The offset in force from `at` on, for each change of offset in a span
// (the first entry is the offset at the span's start).
using OffsetChanges = std::vector<std::pair<long long, int>>;

long long yearStartUTC(int year) {
  struct icaltimetype t = icaltime_null_time();
  t.year = year;
  t.month = 1;
  t.day = 1;
  return static_cast<long long>(icaltime_as_timet(t));
}

// The custom zone's changes, found by looking at it once a day and, where
// the offset changed, every hour of that day: a change is dated at the first
// whole hour that has the new offset, which is where the changes of real
// zones fall.
OffsetChanges customChanges(icaltimezone* zone, long long from, long long to) {
  icaltimezone* utc = icaltimezone_get_utc_timezone();
  auto offsetAt = [&](long long t) {
    struct icaltimetype at = icaltime_from_timet_with_zone(static_cast<time_t>(t), 0, utc);
    int daylight = 0;
    return icaltimezone_get_utc_offset_of_utc_time(zone, &at, &daylight);
  };
  OffsetChanges changes{{from, offsetAt(from)}};
  constexpr long long kDayStep = 24 * kHour;
  for (long long day = from + kDayStep; day < to + kDayStep; day += kDayStep) {
    const long long t = std::min(day, to - kHour);
    if (offsetAt(t) == changes.back().second) continue;
    for (long long hour = t - kDayStep + kHour; hour <= t; hour += kHour) {
      if (hour <= changes.back().first) continue;
      const int offset = offsetAt(hour);
      if (offset != changes.back().second) changes.emplace_back(hour, offset);
    }
  }
  return changes;
}

// The same for an ICU zone, from its list of transitions, each dated at the
// whole hour at or after it so that it compares with the hourly look.
OffsetChanges icuChanges(const icu::BasicTimeZone& zone, long long from, long long to) {
  OffsetChanges changes;
  UErrorCode status = U_ZERO_ERROR;
  int32_t raw = 0;
  int32_t dst = 0;
  zone.getOffset(static_cast<UDate>(from) * 1000.0, false, raw, dst, status);
  if (U_FAILURE(status)) return {};
  changes.emplace_back(from, (raw + dst) / 1000);
  icu::TimeZoneTransition transition;
  UDate at = static_cast<UDate>(from) * 1000.0;
  while (zone.getNextTransition(at, false, transition)) {
    at = transition.getTime();
    const long long seconds = static_cast<long long>(at / 1000.0);
    if (seconds >= to) break;
    const int offset = (transition.getTo()->getRawOffset() + transition.getTo()->getDSTSavings()) / 1000;
    if (offset == changes.back().second) continue;
    const long long hour = from + ((seconds - from + kHour - 1) / kHour) * kHour;
    changes.emplace_back(hour, offset);
  }
  return changes;
}

std::string fromUnicode(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

// Whether `id` is the zone ICU gives first for its Windows name: the zone
// people of that region mean (America/New_York rather than America/Detroit).
bool isLeadingZone(const icu::UnicodeString& id) {
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString windows;
  icu::TimeZone::getWindowsID(id, windows, status);
  if (U_FAILURE(status) || windows.isEmpty()) return false;
  icu::UnicodeString leading;
  icu::TimeZone::getIDForWindowsID(windows, "001", leading, status);
  return U_SUCCESS(status) && leading == id;
}

// The IANA zone whose changes over [from, to) are `wanted`, "" when none.
std::string matchingZone(const OffsetChanges& wanted, long long from, long long to) {
  std::set<int> offsets;
  for (const auto& [at, offset] : wanted) {
    // No zone is a day or more away from UTC; ICU takes milliseconds in an int.
    if (offset <= -86400 || offset >= 86400) return "";
    offsets.insert(offset);
  }
  std::string first;
  for (int offset : offsets) {
    // ICU lists zones by their raw (standard) offset, which is one of the
    // offsets the custom zone takes.
    UErrorCode status = U_ZERO_ERROR;
    const int32_t raw = offset * 1000;
    std::unique_ptr<icu::StringEnumeration> ids(
        icu::TimeZone::createTimeZoneIDEnumeration(UCAL_ZONE_TYPE_CANONICAL_LOCATION, nullptr, &raw, status));
    if (U_FAILURE(status) || !ids) continue;
    while (const icu::UnicodeString* id = ids->snext(status)) {
      if (U_FAILURE(status)) break;
      std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(*id));
      const auto* basic = dynamic_cast<const icu::BasicTimeZone*>(zone.get());
      if (!basic || icuChanges(*basic, from, to) != wanted) continue;
      if (isLeadingZone(*id)) return fromUnicode(*id);
      if (first.empty()) first = fromUnicode(*id);
    }
  }
  return first;
}

}  // namespace

std::string ianaZoneForWindowsName(const std::string& name) {
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString id;
  icu::TimeZone::getIDForWindowsID(icu::UnicodeString::fromUTF8(name), "001", id, status);
  if (U_FAILURE(status) || id.isEmpty()) return {};
  return fromUnicode(id);
}

const ICalendarZone& ICalendarZones::zoneForTZID(const std::string& tzid, long long startUTC, int firstYear,
                                                 int lastYear) {
  const std::string key = tzid + "\x1f" + std::to_string(firstYear) + "-" + std::to_string(lastYear);
  if (auto found = _cache.find(key); found != _cache.end()) return found->second;
  ICalendarZone& result = _cache[key];

  // Names of the IANA database, with the prefix some programs put before them
  // ("/mozilla.org/20050126_1/Europe/Paris", "/freeassociation.sourceforge.net/...").
  const std::string& name = tzid;
  if (!name.empty() && name[0] == '/')
    for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
      const std::string rest = name.substr(slash + 1);
      if (rest.find('/') == std::string::npos) break;
      if (TimeZonePtr zone = TimeZone::timeZoneWithName(rest)) {
        result.zone = zone;
        return result;
      }
    }
  if (TimeZonePtr zone = TimeZone::timeZoneWithName(name)) {
    result.zone = zone;
    return result;
  }
  if (const std::string iana = ianaZoneForWindowsName(name); !iana.empty())
    if (TimeZonePtr zone = TimeZone::timeZoneWithName(iana)) {
      result.zone = zone;
      return result;
    }

  icaltimezone* custom = _calendar ? icalcomponent_get_timezone(_calendar, tzid.c_str()) : nullptr;
  if (!custom) return result;
  firstYear = std::clamp(firstYear, 1900, 2200);
  lastYear = std::clamp(lastYear, firstYear, firstYear + 4);
  const long long from = yearStartUTC(firstYear);
  const long long to = yearStartUTC(lastYear + 1);
  const OffsetChanges changes = customChanges(custom, from, to);
  if (const std::string iana = matchingZone(changes, from, to); !iana.empty())
    if (TimeZonePtr zone = TimeZone::timeZoneWithName(iana)) {
      result.zone = zone;
      result.matched = true;
      return result;
    }
  icaltimezone* utc = icaltimezone_get_utc_timezone();
  struct icaltimetype at = icaltime_from_timet_with_zone(static_cast<time_t>(startUTC), 0, utc);
  int daylight = 0;
  result.zone = TimeZone::timeZoneForSecondsFromGMT(icaltimezone_get_utc_offset_of_utc_time(custom, &at, &daylight));
  result.fixedOffset = result.zone != nullptr;
  return result;
}

}  // namespace pc
