#pragma once
// CALTimeRange: the span between two dates, with its duration. A missing
// start stands for minus infinity, a missing end for plus infinity (an
// unbounded range, which has no duration). A range never changes once built:
// it holds copies of the dates it was given, shared between copies of the
// range. CALMutableTimeRange lets its bounds be replaced.

#include <optional>
#include <string>
#include <vector>

#include "calcore/CALDate.h"
#include "calcore/CALDuration.h"

namespace pc {

struct CALTimeRangeSubstractionResult;

class CALTimeRange {
 public:
  // Copies both dates; either may be null.
  CALTimeRange(const CALDate* startDate, const CALDate* endDate);
  // The end is the start plus the duration.
  CALTimeRange(const CALDate& startDate, const CALDuration& duration);

  static CALTimeRange timeRangeWithStartDate(const CALDate& startDate, const CALDate& endDate) {
    return CALTimeRange(&startDate, &endDate);
  }
  static CALTimeRange timeRangeWithStartDate(const CALDate& startDate, const CALDuration& duration) {
    return CALTimeRange(startDate, duration);
  }
  // The local day holding `date`: from its midnight, one day long.
  static CALTimeRange timeRangeForDayEnglobing(const CALDate& date);
  // From `startDate` on, without end.
  static CALTimeRange timeRangeUnboundedWithStartDate(const CALDate& startDate) {
    return CALTimeRange(&startDate, nullptr);
  }
  // From the distant past on.
  static CALTimeRange timeRangeUnbounded();
  // Both bounds moved by `shift`.
  static CALTimeRange timeRangeFromTimeRange(const CALTimeRange& range, const CALDuration& shift);
  // Widened to whole local days: the start to its midnight, an end that is
  // not already at midnight to the next one.
  static CALTimeRange timeRangeFromTimeRangeRoundedToFullDays(const CALTimeRange& range);

  const CALDate* startDate() const { return _startDate.get(); }
  const CALDate* endDate() const { return _endDate.get(); }
  // None for an unbounded range.
  const std::optional<CALDuration>& duration() const { return _duration; }
  bool isInfinite() const { return !_duration || !_endDate; }
  bool isPonctual() const { return _duration && _duration->rawInterval() == 0; }

  // Inclusion of a date (false for a null date, and for any date when the
  // start is missing).
  bool includesDate(const CALDate* date) const;
  bool includesDateExcludingBounds(const CALDate* date) const;
  bool includesDateExcludingEndDate(const CALDate* date) const;
  bool intersectsTimeRange(const CALTimeRange& other) const;
  bool intersectsTimeRangeExcludingUpperBound(const CALTimeRange& other) const;
  bool intersectsTimeRangeExcludingBounds(const CALTimeRange& other) const;
  // Both bounds of `other` lie in this range (bounds included / excluded).
  bool includesOrEqualsTimeRange(const CALTimeRange& other) const;
  bool strictlyIncludesTimeRange(const CALTimeRange& other) const;
  bool isEqualTo(const CALTimeRange& other) const;
  // Compares the start dates (-1, 0, 1).
  int compareStartDate(const CALTimeRange& other) const;

  // From the earlier start to the later end, whether or not the ranges meet.
  CALTimeRange union_(const CALTimeRange& other) const;
  // None when the ranges do not meet.
  std::optional<CALTimeRange> intersection(const CALTimeRange& other) const;
  // What remains of this range outside `other`: up to two pieces.
  CALTimeRangeSubstractionResult minus(const CALTimeRange& other) const;
  // Merges overlapping neighbours of ranges sorted by start.
  static std::vector<CALTimeRange> simplifyOverlappingTimeRanges(const std::vector<CALTimeRange>& ranges);

  // "CALTimeRange [<start>,<end>]", "-inf" / "+inf" for missing bounds.
  std::string description() const;

  // Keyed archive: "startDate" and "endDate" (date archives that also name
  // their kind under "classKey"), absent for missing bounds.
  Dictionary encode() const;
  // None when a bound is present but cannot be read.
  static std::optional<CALTimeRange> decode(const Dictionary& archive);

 protected:
  // Shares the given dates without copying them.
  CALTimeRange(CALDateRef startDate, CALDateRef endDate, std::nullptr_t noCopy);
  void _updateDuration();

  CALDateRef _startDate;
  CALDateRef _endDate;
  std::optional<CALDuration> _duration;
};

class CALMutableTimeRange : public CALTimeRange {
 public:
  using CALTimeRange::CALTimeRange;
  explicit CALMutableTimeRange(const CALTimeRange& range) : CALTimeRange(range) {}

  // Take the given date without copying it (the caller must not change it
  // afterwards) and recompute the duration.
  void setStartDateNoCopy(CALDateRef startDate);
  void setEndDateNoCopy(CALDateRef endDate);
  void setStartDateNoCopy(CALDateRef startDate, CALDateRef endDate);
};

struct CALTimeRangeSubstractionResult {
  std::optional<CALTimeRange> first;
  std::optional<CALTimeRange> second;
};

}  // namespace pc
