// explode: the occurrences of a recurring event in a date range.
// convert-limit: a recurrence record rewritten to end by count, until date or
// last occurrence.

#include <iostream>
#include <memory>
#include <string>

#include "calcore/CALEventExploder.h"
#include "commands.h"
#include "engine/SchemaNames.h"
#include "util/PHCMangling.h"

namespace pc::tools {

namespace {

Dictionary readEvent(const std::string& path) {
  std::string error;
  std::optional<Dictionary> event = readRecordFile(path, &error);
  if (!event) throw CommandError(error);
  if (!event->get(kCalendarsEventStartDate).isDate()) throw CommandError(path + ": the event has no start date");
  return *event;
}

// The single recurrence record of an assembled event.
Dictionary recurrenceOf(const Dictionary& event, const std::string& path) {
  const std::optional<Array> recurrences = event.getArray(kCalendarsEventRecurrences);
  if (!recurrences || recurrences->count() != 1 || !recurrences->at(0).asDictionary())
    throw CommandError(path + ": the event needs exactly one recurrence record under \"" +
                       kCalendarsEventRecurrences + "\"");
  return recurrences->at(0).dictionary();
}

CALDateRef dateArgument(const std::string& text, const char* option) {
  CALDateRef date = CALDate::dateFromIsoString(text);
  if (!date)
    throw CommandError(std::string(option) + ": \"" + text +
                       "\" is not a date (20060315, 20060315T101500 or 20060315T101500+0100)");
  return date;
}

void printRecord(const Dictionary& record) {
  std::string error;
  const std::optional<std::string> text = recordText(record, &error);
  if (!text) throw CommandError(error);
  std::cout << *text;
}

struct ExplodeOptions {
  std::string eventPath, from, to;
  bool ignoreExceptionDates = false;
  bool events = false;
};

void explode(const ExplodeOptions& options) {
  const Dictionary event = readEvent(options.eventPath);
  recurrenceOf(event, options.eventPath);
  const CALDateRef from = dateArgument(options.from, "--from");
  const CALDateRef to = dateArgument(options.to, "--to");
  std::unique_ptr<CALEventExploder> exploder = CALEventExploder::CALEventExploderWithAssembledEvent(event);
  if (!exploder) throw CommandError(options.eventPath + ": the recurrence record is empty");
  // Without a truth there are no detached events: only exception dates apply.
  const CALDateList dates = exploder->produceDatesForTimeRange(CALTimeRange(from.get(), to.get()), nullptr,
                                                               std::string(), options.ignoreExceptionDates);
  if (options.events) {
    printRecord(Dictionary{{"Events", exploder->eventsForDates(dates)}});
    return;
  }
  for (const CALDateRef& date : dates) std::cout << date->isoStringRepresentation() << "\n";
}

struct ConvertOptions {
  std::string eventPath, to;
};

void convertLimit(const ConvertOptions& options) {
  const Dictionary event = readEvent(options.eventPath);
  const Dictionary recurrence = recurrenceOf(event, options.eventPath).copy();
  const bool toUntil = options.to == "until";
  const char* needed = toUntil ? kCalendarsRecurrenceCount : kCalendarsRecurrenceUntil;
  if (!recurrence.contains(needed))
    throw CommandError(options.eventPath + ": the recurrence has no " + needed + " to convert from");
  Dictionary converted;
  if (toUntil)
    converted = CALEventExploder::convertRuleFromCountToUntilDate(recurrence, event);
  else if (options.to == "count")
    converted = CALEventExploder::convertRuleFromUntilDateToCount(recurrence, event);
  else
    converted = CALEventExploder::convertRuleFromUntilDateToLastOcurrenceDate(recurrence, event);
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
  convertCommand->callback([convertOptions] { convertLimit(*convertOptions); });
}

}  // namespace pc::tools
