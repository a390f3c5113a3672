// Recurrence rules between libical and the engine's recurrence records.

#include "host/ICalendarRules.h"

#include <cstdlib>

#include "platform/Date.h"

namespace pc {
namespace {

const char* const kDayNames[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};

bool present(const short* list) { return list[0] != ICAL_RECURRENCE_ARRAY_MAX; }

Array numbers(const short* list, std::size_t size) {
  Array out;
  for (std::size_t i = 0; i < size && list[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i) out.add(static_cast<int>(list[i]));
  return out;
}

void setNumbers(short* list, std::size_t size, const Dictionary& recurrence, const char* key) {
  std::size_t n = 0;
  if (std::optional<Array> values = recurrence.getArray(key))
    for (const Value& v : *values)
      if (n + 1 < size && v.isNumber()) list[n++] = static_cast<short>(v.integerValue());
  list[n] = ICAL_RECURRENCE_ARRAY_MAX;
}

int dayIndex(const std::string& name) {
  for (int i = 0; i < 7; ++i)
    if (name == kDayNames[i]) return i;
  return -1;
}

// The wall clock of a date in its own zone.
struct icaltimetype wallClock(const CalendarDate& date) {
  struct icaltimetype t = icaltime_null_time();
  t.year = date.yearOfCommonEra();
  t.month = date.monthOfYear();
  t.day = date.dayOfMonth();
  t.hour = date.hourOfDay();
  t.minute = date.minuteOfHour();
  t.second = date.secondOfMinute();
  return t;
}

}  // namespace

struct icaltimetype icalTimeFromCalendarDate(const CalendarDate& date, bool day) {
  if (day) {
    struct icaltimetype t = wallClock(date.dateWithTimeZone(TimeZone::gmt()));
    t.hour = t.minute = t.second = 0;
    t.is_date = 1;
    return t;
  }
  const TimeZonePtr& zone = date.timeZone();
  if (!zone || zone->name() == "GMT" || zone->name() == "UTC") {
    struct icaltimetype t = wallClock(date.dateWithTimeZone(TimeZone::gmt()));
    t.zone = icaltimezone_get_utc_timezone();
    return t;
  }
  return wallClock(date);
}

std::optional<Dictionary> recurrenceFromICalendarRule(const struct icalrecurrencetype& rule, const CalendarDate& start,
                                                      bool allDay, std::string& why) {
  const char* frequency = nullptr;
  switch (rule.freq) {
    case ICAL_DAILY_RECURRENCE: frequency = "daily"; break;
    case ICAL_WEEKLY_RECURRENCE: frequency = "weekly"; break;
    case ICAL_MONTHLY_RECURRENCE: frequency = "monthly"; break;
    case ICAL_YEARLY_RECURRENCE: frequency = "yearly"; break;
    case ICAL_NO_RECURRENCE: why = "no frequency"; return std::nullopt;
    default: why = "a frequency below a day"; return std::nullopt;
  }
  if (rule.rscale && *rule.rscale) {
    why = "RSCALE";
    return std::nullopt;
  }
  if (present(rule.by_hour) || present(rule.by_minute) || present(rule.by_second)) {
    why = "BYHOUR, BYMINUTE or BYSECOND";
    return std::nullopt;
  }
  const bool byMonth = present(rule.by_month);
  const bool byWeekNo = present(rule.by_week_no);
  const bool byYearDay = present(rule.by_year_day);
  const bool byMonthDay = present(rule.by_month_day);
  const bool byDay = present(rule.by_day);
  bool ordinalDays = false;
  for (int i = 0; i < ICAL_BY_DAY_SIZE && rule.by_day[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i)
    if (icalrecurrencetype_day_position(rule.by_day[i]) != 0) ordinalDays = true;

  // The calendar core expands some combinations otherwise than the rule
  // means them; those are not held as records.
  const icalrecurrencetype_frequency f = rule.freq;
  if (byWeekNo) why = "BYWEEKNO";
  else if (byYearDay && f != ICAL_YEARLY_RECURRENCE) why = "BYYEARDAY below a year";
  else if (byDay && byMonthDay) why = "BYDAY together with BYMONTHDAY";
  else if (ordinalDays && (f == ICAL_DAILY_RECURRENCE || f == ICAL_WEEKLY_RECURRENCE)) why = "numbered BYDAY below a month";
  else if (ordinalDays && f == ICAL_YEARLY_RECURRENCE && !byMonth) why = "numbered BYDAY over a whole year";
  else if (byMonthDay && f == ICAL_WEEKLY_RECURRENCE) why = "BYMONTHDAY in a weekly rule";
  else if (byYearDay && (byMonth || byDay || byMonthDay)) why = "BYYEARDAY with other BY parts";
  else if (present(rule.by_set_pos) && f != ICAL_YEARLY_RECURRENCE && f != ICAL_MONTHLY_RECURRENCE) why = "BYSETPOS below a month";
  if (!why.empty()) return std::nullopt;

  Dictionary recurrence{{"entityName", "Calendars.Recurrence"}, {"frequency", frequency},
                        {"interval", rule.interval > 0 ? static_cast<int>(rule.interval) : 1}};
  if (rule.count > 0) recurrence.set("count", rule.count);
  if (!icaltime_is_null_time(rule.until)) {
    const struct icaltimetype u = rule.until;
    if (allDay) {
      recurrence.set("until", CalendarDate::dateWithYear(u.year, u.month, u.day, 12, 0, 0, TimeZone::gmt()));
    } else if (u.is_date) {
      recurrence.set("until", CalendarDate::dateWithYear(u.year, u.month, u.day, 23, 59, 59, start.timeZone()));
    } else if (icaltime_is_utc(u)) {
      recurrence.set("until",
                     CalendarDate::dateWithYear(u.year, u.month, u.day, u.hour, u.minute, u.second, TimeZone::gmt()));
    } else {
      recurrence.set("until",
                     CalendarDate::dateWithYear(u.year, u.month, u.day, u.hour, u.minute, u.second, start.timeZone()));
    }
  }
  if (rule.week_start != ICAL_NO_WEEKDAY && rule.week_start != ICAL_MONDAY_WEEKDAY)
    recurrence.set("weekstartday", kDayNames[static_cast<int>(rule.week_start) - 1]);
  Array months;
  for (int i = 0; i < ICAL_BY_MONTH_SIZE && rule.by_month[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i)
    months.add(icalrecurrencetype_month_month(rule.by_month[i]));
  // Over a year, days of the week or of the month without months mean every
  // month; the core would take the start's month alone.
  if (f == ICAL_YEARLY_RECURRENCE && !byMonth && !byYearDay && (byDay || byMonthDay))
    for (int m = 1; m <= 12; ++m) months.add(m);
  // Likewise a daily rule on days of the month: the core reads those only
  // within months.
  if (f == ICAL_DAILY_RECURRENCE && !byMonth && byMonthDay)
    for (int m = 1; m <= 12; ++m) months.add(m);
  if (!months.empty()) recurrence.set("bymonth", months);
  if (byMonthDay) recurrence.set("bymonthday", numbers(rule.by_month_day, ICAL_BY_MONTHDAY_SIZE));
  if (byYearDay) recurrence.set("byyearday", numbers(rule.by_year_day, ICAL_BY_YEARDAY_SIZE));
  if (present(rule.by_set_pos)) recurrence.set("bysetpos", numbers(rule.by_set_pos, ICAL_BY_SETPOS_SIZE));
  if (byDay) {
    Array days;
    Array ordinals;
    for (int i = 0; i < ICAL_BY_DAY_SIZE && rule.by_day[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i) {
      days.add(kDayNames[static_cast<int>(icalrecurrencetype_day_day_of_week(rule.by_day[i])) - 1]);
      ordinals.add(icalrecurrencetype_day_position(rule.by_day[i]));
    }
    recurrence.set("bydaydays", days);
    recurrence.set("bydayfreq", ordinals);
  }
  return recurrence;
}

std::vector<CalendarDate> icalendarRuleOccurrences(const struct icalrecurrencetype& rule, const CalendarDate& start,
                                                   bool allDay, bool& cut) {
  std::vector<CalendarDate> dates;
  cut = false;
  // Expanded on the wall clock of the start's zone; an UNTIL in UTC is
  // moved to that wall clock first.
  struct icalrecurrencetype local = rule;
  const TimeZonePtr zone = allDay ? TimeZone::gmt() : start.timeZone();
  if (!icaltime_is_null_time(rule.until) && !rule.until.is_date && !allDay) {
    const struct icaltimetype u = rule.until;
    CalendarDate until = CalendarDate::dateWithYear(u.year, u.month, u.day, u.hour, u.minute, u.second,
                                                    icaltime_is_utc(u) ? TimeZone::gmt() : zone);
    local.until = wallClock(until.dateWithTimeZone(zone));
  } else if (!icaltime_is_null_time(rule.until)) {
    local.until = wallClock(CalendarDate::dateWithYear(rule.until.year, rule.until.month, rule.until.day, 23, 59, 59,
                                                       TimeZone::gmt()));
    if (allDay) local.until.is_date = 0;
  }
  struct icaltimetype dtstart = wallClock(allDay ? start.dateWithTimeZone(TimeZone::gmt()) : start);
  if (allDay) dtstart.hour = 12;

  // libical looks for the next occurrence step by step of the frequency
  // until the rule's UNTIL, or else for centuries: a rule no date satisfies
  // ("every minute of the 30th of February") would never return. The search
  // is bounded by an UNTIL of our own at the end of the window, and for
  // rules repeating within a day also at kExplodedSteps steps; a COUNT is
  // counted here, as libical gives no occurrences to a rule with both.
  CalendarDate bound = start.dateByAddingYears(kExplodedYears, 0, 0, 0, 0, 0);
  const long interval = std::max<long>(1, rule.interval);
  const long unit = rule.freq == ICAL_SECONDLY_RECURRENCE   ? 1
                    : rule.freq == ICAL_MINUTELY_RECURRENCE ? 60
                    : rule.freq == ICAL_HOURLY_RECURRENCE   ? 3600
                                                            : 0;
  // Ten years are some 3.2e8 seconds: a span of steps longer than that
  // leaves the window's end as the bound.
  if (const long long span = static_cast<long long>(kExplodedSteps) * interval * unit; unit && span < 400'000'000) {
    const CalendarDate steps = start.dateByAddingYears(0, 0, 0, 0, 0, static_cast<int>(span));
    if (steps < bound) bound = steps;
  }
  const struct icaltimetype boundClock = wallClock(bound.dateWithTimeZone(zone));
  const bool ruleEndsFirst = !icaltime_is_null_time(local.until) && icaltime_compare(local.until, boundClock) <= 0;
  const std::size_t count = local.count > 0 ? static_cast<std::size_t>(local.count) : 0;
  if (!ruleEndsFirst) {
    local.until = boundClock;
    local.until.is_date = 0;
    local.count = 0;
  }

  icalrecur_iterator* iterator = icalrecur_iterator_new(local, dtstart);
  if (!iterator) {
    dates.push_back(start);
    return dates;
  }
  std::size_t given = 0;
  for (struct icaltimetype t = icalrecur_iterator_next(iterator); !icaltime_is_null_time(t);
       t = icalrecur_iterator_next(iterator)) {
    if (count && given == count) break;
    ++given;
    const CalendarDate at = CalendarDate::dateWithYear(t.year, t.month, t.day, t.hour, t.minute, t.second, zone);
    if (!(at < bound) || dates.size() >= kExplodedOccurrences) {
      cut = true;
      break;
    }
    dates.push_back(at);
  }
  // Ended at our own bound, not at the rule's end: the rule goes on.
  if (!cut && !ruleEndsFirst && !(count && given == count)) cut = true;
  icalrecur_iterator_free(iterator);
  if (dates.empty() || !(dates.front() == start)) dates.insert(dates.begin(), start);
  return dates;
}

std::string icalendarRuleText(const Dictionary& recurrence, bool allDay) {
  struct icalrecurrencetype rule;
  icalrecurrencetype_clear(&rule);
  const std::string frequency = recurrence.getString("frequency");
  if (frequency == "daily") rule.freq = ICAL_DAILY_RECURRENCE;
  else if (frequency == "weekly") rule.freq = ICAL_WEEKLY_RECURRENCE;
  else if (frequency == "monthly") rule.freq = ICAL_MONTHLY_RECURRENCE;
  else if (frequency == "yearly") rule.freq = ICAL_YEARLY_RECURRENCE;
  else return {};
  rule.interval = static_cast<short>(std::max<std::int64_t>(1, recurrence.getInteger("interval", 1)));
  if (recurrence.contains("count")) rule.count = static_cast<int>(recurrence.getInteger("count"));
  if (const Value until = recurrence.get("until"); until.isDate()) rule.until = icalTimeFromCalendarDate(
      allDay ? until.date() : until.date().dateWithTimeZone(TimeZone::gmt()), allDay);
  if (const int day = dayIndex(recurrence.getString("weekstartday")); day >= 0)
    rule.week_start = static_cast<icalrecurrencetype_weekday>(day + 1);
  setNumbers(rule.by_month, ICAL_BY_MONTH_SIZE, recurrence, "bymonth");
  setNumbers(rule.by_month_day, ICAL_BY_MONTHDAY_SIZE, recurrence, "bymonthday");
  setNumbers(rule.by_year_day, ICAL_BY_YEARDAY_SIZE, recurrence, "byyearday");
  setNumbers(rule.by_week_no, ICAL_BY_WEEKNO_SIZE, recurrence, "byweeknumber");
  setNumbers(rule.by_set_pos, ICAL_BY_SETPOS_SIZE, recurrence, "bysetpos");
  const Array days = recurrence.getArray("bydaydays").value_or(Array());
  const Array ordinals = recurrence.getArray("bydayfreq").value_or(Array());
  std::size_t n = 0;
  for (std::size_t i = 0; i < days.count() && n + 1 < ICAL_BY_DAY_SIZE; ++i) {
    const int day = dayIndex(days[i].stringValue());
    if (day < 0) continue;
    const int position = i < ordinals.count() ? ordinals[i].intValue() : 0;
    rule.by_day[n++] = static_cast<short>((std::abs(position) * 8 + day + 1) * (position < 0 ? -1 : 1));
  }
  rule.by_day[n] = ICAL_RECURRENCE_ARRAY_MAX;
  char* text = icalrecurrencetype_as_string_r(&rule);
  std::string out = text ? text : "";
  icalmemory_free_buffer(text);
  return out;
}

}  // namespace pc
