// explode: the occurrences of a recurring event in a date range.
// convert-limit: a recurrence record rewritten to end by count, until date or
// last occurrence.

#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "calcore/CALEventExploder.h"
#include "command_support.h"
#include "commands.h"
#include "engine/SchemaNames.h"
#include "explode.h"
#include "util/PHCMangling.h"
#include "validation.h"

namespace pc::tools {

namespace {

// Counts and intervals are 32-bit in the recurrence rules.
constexpr std::int64_t kLargestCount = std::numeric_limits<std::int32_t>::max();

// A list of non-zero whole numbers within ±limit.
void checkNumberList(const Field& list, std::int64_t low, std::int64_t limit) {
  if (!list.present()) return;
  const std::size_t count = list.array().count();
  for (std::size_t i = 0; i < count; ++i) {
    const Field element = list.at(i);
    const std::int64_t number = element.integer(low < 0 ? -limit : 1, limit);
    if (number == 0) element.fail(fmt::format("0 is not a whole number from 1 to {} or -1 to -{}", limit, limit));
  }
}

std::string dayName(const Field& field) {
  return field.member({"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"});
}

// Everything of a recurrence record that the rules read.
void checkRecurrence(const Field& recurrence, const CalendarDate& start) {
  recurrence.dictionary();
  recurrence[kCalendarsRecurrenceFrequency].required("one of daily, weekly, monthly or yearly");
  recurrence[kCalendarsRecurrenceFrequency].member({"daily", "weekly", "monthly", "yearly"});
  for (const char* key : {kCalendarsRecurrenceInterval, kCalendarsRecurrenceCount})
    if (recurrence[key].present()) recurrence[key].integer(1, kLargestCount);
  const Field until = recurrence[kCalendarsRecurrenceUntil];
  if (until.present()) {
    if (until.date() < start) until.fail("the until date is before the event's start date");
    if (recurrence[kCalendarsRecurrenceCount].present())
      recurrence.fail("a recurrence ends by a count or by an until date, not both");
  }
  if (recurrence[kCalendarsRecurrenceWeekstartday].present()) dayName(recurrence[kCalendarsRecurrenceWeekstartday]);
  checkNumberList(recurrence[kCalendarsRecurrenceBymonth], 1, 12);
  checkNumberList(recurrence[kCalendarsRecurrenceByweeknumber], -1, 53);
  checkNumberList(recurrence[kCalendarsRecurrenceByyearday], -1, 366);
  checkNumberList(recurrence[kCalendarsRecurrenceBymonthday], -1, 31);
  checkNumberList(recurrence[kCalendarsRecurrenceBysetpos], -1, 366);

  // BYDAY: day names with their ordinals (0: every such day) side by side.
  const Field days = recurrence[kCalendarsRecurrenceBydaydays];
  const Field ordinals = recurrence[kCalendarsRecurrenceBydayfreq];
  if (days.present())
    for (std::size_t i = 0; i < days.array().count(); ++i) dayName(days.at(i));
  if (ordinals.present()) {
    if (!days.present()) ordinals.fail(fmt::format("ordinals without the day names of \"{}\"", kCalendarsRecurrenceBydaydays));
    const std::size_t count = ordinals.array().count();
    for (std::size_t i = 0; i < count; ++i) ordinals.at(i).integer(-53, 53);
    if (count != days.array().count())
      ordinals.fail(fmt::format("{} ordinals for {} day names in \"{}\"", count, days.array().count(),
                                kCalendarsRecurrenceBydaydays));
  }
}

// An event record with exactly one recurrence, checked.
struct RecurringEvent {
  Dictionary event;
  Field recurrence;
  CalendarDate start;
  bool allDay;
};

RecurringEvent readRecurringEvent(const Field& record) {
  const CalendarDate start = record[kCalendarsEventStartDate].required("a calendar date").date();
  const Field end = record[kCalendarsEventEndDate];
  if (end.present() && end.date() < start) end.fail("the end date is before the start date");
  const bool allDay = record[kCalendarsEventAllDay].present() && record[kCalendarsEventAllDay].boolean();
  const Field exceptionDates = record[kCalendarsEventExceptionDates];
  if (exceptionDates.present())
    for (std::size_t i = 0; i < exceptionDates.array().count(); ++i) exceptionDates.at(i).date();

  const Field recurrences = record[kCalendarsEventRecurrences];
  const std::size_t count = recurrences.required("an array of one recurrence record").array().count();
  if (count != 1)
    recurrences.fail(fmt::format("{} recurrence records; the command works on an event with exactly one", count));
  checkRecurrence(recurrences.at(0), start);
  return {record.dictionary(), recurrences.at(0), start, allDay};
}

std::string textOfRecord(const Dictionary& record) {
  return recordFileText(record).orFail();
}

void printRecord(const Dictionary& record) { std::cout << textOfRecord(record); }

}  // namespace

std::string explodedText(const Field& record, const CALDateRef& from, const CALDateRef& to,
                         bool ignoreExceptionDates, bool events) {
  const RecurringEvent recurring = readRecurringEvent(record);
  CALEventExploder exploder(recurring.event, recurring.recurrence.dictionary());
  // Without a truth there are no detached events: only exception dates apply.
  const CALDateList dates = exploder.produceDatesForTimeRange(CALTimeRange(from.get(), to.get()), nullptr,
                                                              std::string(), ignoreExceptionDates);
  if (events) return textOfRecord(Dictionary{{"Events", exploder.eventsForDates(dates)}});
  std::string text;
  for (const CALDateRef& date : dates) text += date->isoStringRepresentation() + "\n";
  return text;
}

namespace {

struct ExplodeOptions {
  std::string eventPath, from, to;
  bool ignoreExceptionDates = false;
  bool events = false;
};

void explode(const ExplodeOptions& options) {
  const CALDateRef from = dateOption(options.from, "--from");
  const CALDateRef to = dateOption(options.to, "--to");
  if (!from->isBefore(to.get()))
    throw CommandLineError(fmt::format("--to: {} is not after --from {}", options.to, options.from));
  std::cout << explodedText(readRecordInput(options.eventPath), from, to, options.ignoreExceptionDates,
                            options.events);
}

struct ConvertOptions {
  std::string eventPath, to;
};

void convertLimit(const ConvertOptions& options) {
  const RecurringEvent recurring = readRecurringEvent(readRecordInput(options.eventPath));
  const Field& recurrenceField = recurring.recurrence;
  const Dictionary recurrence = recurrenceField.dictionary().copy();
  const bool toUntil = options.to == "until";
  const char* needed = toUntil ? kCalendarsRecurrenceCount : kCalendarsRecurrenceUntil;
  if (!recurrence.contains(needed))
    recurrenceField.fail(fmt::format("no \"{}\" to convert from", needed));

  Dictionary converted;
  if (toUntil) {
    // A count the rule does not reach has no last occurrence to end on.
    CALEventExploder exploder(recurring.event, recurrence);
    const CALDateRef start = CALDate::CALDateFromCalendarDate(recurring.start, recurring.allDay);
    if (!exploder.rule().cachedEndDateForRecurrenceStart(*start))
      recurrenceField[kCalendarsRecurrenceCount].fail(
          fmt::format("the recurrence does not reach {} occurrences before 2050",
                      recurrence.get(kCalendarsRecurrenceCount).integerValue()));
    converted = CALEventExploder::convertRuleFromCountToUntilDate(recurrence, recurring.event);
  } else if (options.to == "count") {
    converted = CALEventExploder::convertRuleFromUntilDateToCount(recurrence, recurring.event);
  } else {
    converted = CALEventExploder::convertRuleFromUntilDateToLastOcurrenceDate(recurrence, recurring.event);
  }
  // The conversion to an until date or a count removes the other ending.
  if (options.to != "last" && converted.contains(needed))
    recurrenceField.fail(fmt::format("the recurrence could not be converted to end by {}", options.to));
  printRecord(converted);
}

}  // namespace

void addRecurrenceCommands(CLI::App& app) {
  auto explodeOptions = std::make_shared<ExplodeOptions>();
  CLI::App* explodeCommand = app.add_subcommand(
      "explode", "Lists the occurrences of a recurring event between two dates (end excluded), "
                 "without its exception dates.");
  explodeCommand->add_option("EVENT", explodeOptions->eventPath, "Event record file with one recurrence")
      ->required();
  explodeCommand->add_option("--from", explodeOptions->from, "First date: 20060315, 20060315T101500 or "
                                                             "20060315T101500+0100")
      ->required();
  explodeCommand->add_option("--to", explodeOptions->to, "Date after the last one, same forms")->required();
  explodeCommand->add_flag("--ignore-exdates", explodeOptions->ignoreExceptionDates,
                           "Keep the occurrences on exception dates");
  explodeCommand->add_flag("--events", explodeOptions->events,
                           "Print one event record per occurrence instead of the dates");
  explodeCommand->footer(
      "Example:\n  phoneconduit explode examples/events/weekly-team-meeting.plist --from 20261101 --to 20261201");
  explodeCommand->callback([explodeOptions] { explode(*explodeOptions); });

  auto convertOptions = std::make_shared<ConvertOptions>();
  CLI::App* convertCommand = app.add_subcommand(
      "convert-limit", "Prints the event's recurrence record rewritten to end by a count, an until date "
                       "or the date of its last occurrence.");
  convertCommand->add_option("--to", convertOptions->to, "count, until or last")
      ->required()
      ->check(CLI::IsMember({"count", "until", "last"}));
  convertCommand->add_option("EVENT", convertOptions->eventPath, "Event record file with one recurrence")
      ->required();
  convertCommand->footer(
      "Example:\n  phoneconduit convert-limit --to until examples/events/monthly-on-the-31st.plist");
  convertCommand->callback([convertOptions] { convertLimit(*convertOptions); });
}

}  // namespace pc::tools
