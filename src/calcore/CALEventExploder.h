#pragma once
// CALEventExploder: one recurring event of the sync engine (an event record
// and its recurrence record) turned into its occurrence dates in a time
// range, minus exception dates and the dates of detached events. Its class
// operations rewrite a recurrence record between its three forms of ending:
// an until date, a count, and the date of the last occurrence.
//
// Log texts go to the domain ".sync.CALRecInit".

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "calcore/CALRecurrenceRule.h"
#include "engine/SyncEngine.h"
#include "platform/Value.h"

namespace pc {

class CALEventExploder : public Object {
 public:
  // Builds the rule from the recurrence record. Raises invalid-argument
  // ("Invalid frequency: <value>") for a missing or unknown frequency and
  // internal-inconsistency ("|bydayfreq| != |bydaydays|") for BYDAY arrays
  // of different lengths.
  CALEventExploder(const Dictionary& event, const Dictionary& recurrence);
  static std::unique_ptr<CALEventExploder> CALEventExploderWithEvent(const Dictionary& event,
                                                                     const Dictionary& recurrence) {
    return std::make_unique<CALEventExploder>(event, recurrence);
  }
  // From an assembled event holding its recurrence records under the
  // recurrences key; null (logged) unless it holds exactly one, non-empty.
  static std::unique_ptr<CALEventExploder> CALEventExploderWithAssembledEvent(
      const std::optional<Dictionary>& event);

  std::string className() const override { return "CALEventExploder"; }
  const Dictionary& event() const { return _event; }
  const Dictionary& recurrence() const { return _recurrence; }
  CALRecurrenceRule& rule() { return *_rule; }
  bool allDay() const { return _allDay; }

  // The occurrences in `range` (end excluded), in order. Unless exception
  // dates are ignored, every occurrence on the day of an exception date or
  // of the original date of a detached event (found in `snapshot` through
  // the record `recordId`; none without a snapshot) is removed.
  CALDateList produceDatesForTimeRange(const CALTimeRange& range, const TruthSnapshot* snapshot,
                                       const std::string& recordId, bool ignoreExDates = false);
  // One new event record per date, in order: a copy of the event without its
  // recurrence relations, moved to the date with the event's length. Raises
  // internal-inconsistency for an event without start date.
  Array eventsForDates(const CALDateList& dates) const;

  // The conversions answer the recurrence record, changed in place.
  static Dictionary convertRuleFromUntilDateToLastOcurrenceDate(Dictionary recurrence, const Dictionary& event);
  static Dictionary convertRuleFromUntilDateToCount(Dictionary recurrence, const Dictionary& event);
  static Dictionary convertRuleFromCountToUntilDate(Dictionary recurrence, const Dictionary& event);
  // Every date of a recurrence bounded by an until date, exceptions ignored.
  static CALDateList datesProducedForRecurrence(const Dictionary& recurrence, const Dictionary& event);
  // The last of those dates, found from the until date backwards without
  // listing the others; null (logged as there) when there are none.
  static CALDateRef lastDateProducedForRecurrence(const Dictionary& recurrence, const Dictionary& event);
  static std::size_t datesProducedCountForRecurrence(const Dictionary& recurrence, const Dictionary& event) {
    return datesProducedForRecurrence(recurrence, event).size();
  }

  // Engine day names ("sunday" ... "saturday") -> weekday numbers (0 = Sunday).
  static const std::map<std::string, int>& dayTable();
  // Engine frequencies ("daily" ... "yearly") -> rule factories.
  using RuleFactory = std::unique_ptr<CALRecurrenceRule> (*)();
  static const std::map<std::string, RuleFactory>& frequencyTable();

 private:
  void _readRuleParts();
  // The range that datesProducedForRecurrence() expands, from the day before
  // the start to the day after the until date (or the start when the until
  // date comes before it); nullopt, logged, without either date.
  static std::optional<CALTimeRange> _boundedRecurrenceRange(const Dictionary& recurrence,
                                                             const Dictionary& event, bool allDay);

  Dictionary _event;
  Dictionary _recurrence;
  std::unique_ptr<CALRecurrenceRule> _rule;
  bool _allDay = false;
};

}  // namespace pc
