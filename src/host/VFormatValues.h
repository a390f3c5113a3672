#pragma once
// Values that vCard and vCalendar lines share: dates and date-times in their
// basic ISO forms, and the record fields that neither format has a property
// for, kept in "X-PC-FIELD" lines so that what the phone store writes reads
// back whole.
//
// Dates: "20270131" (date only), "20270131T083000Z" (an instant),
// "20270131T083000" (a wall clock, read in a zone the caller supplies); the
// extended forms "2027-01-31" and "2027-01-31T08:30:00Z" read too. A date
// only stands for 12:00:00 GMT of its day, as all-day dates do in records.
// An instant whose date is in a zone other than GMT carries that zone in the
// parameter X-TZID, so that it reads back in the same zone.
//
// An extra field is "X-PC-FIELD;KEY=<record key>;VALUE=<kind>:<value>", kind
// one of TEXT (the default), INTEGER, REAL, BOOLEAN, DATE-TIME, URL, LIST (of
// texts, ";"-separated) and BINARY (base64). Other kinds (dictionaries, lists
// of records) are not written.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/ContentLines.h"
#include "platform/CalendarDate.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

inline constexpr const char* kExtraFieldProperty = "X-PC-FIELD";

struct VDateValue {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  bool dateOnly = false;
  bool utc = false;  // "Z": an instant; otherwise a wall clock (or a date)
};

// nullopt when the text is no date; years run from 1 to 9999.
std::optional<VDateValue> parseVDate(std::string_view text);
// The wall clock read in `zone` (nullptr: GMT); a date only is 12:00:00 GMT.
CalendarDate calendarDateFromVDate(const VDateValue& value, const TimeZonePtr& zone);

// Whether the instant falls in the years 1...9999 in GMT, which utcText writes.
bool isWithinWritableYears(const CalendarDate& date);
// parseVDate and calendarDateFromVDate in one, refusing an instant whose
// year in GMT is out of 1...9999 (it could not be written again).
std::optional<CalendarDate> readVDate(std::string_view text, const TimeZonePtr& zone, std::string& problem);
// Whether a text can be a 2.1 parameter value as it is, and read back the same.
bool isPlainParameter(std::string_view value);
// The TYPE of a photo by its first bytes ("JPEG", "PNG", "GIF", "BMP"), or
// empty when they name none of those.
std::string photoTypeOfBytes(std::string_view bytes);

// Whether a record date stands for a whole day: 12:00:00 in the zone GMT.
bool isDayAnchor(const CalendarDate& date);
// "20270131" of a day anchor's day.
std::string dateOnlyText(const CalendarDate& date);
// "20270131T083000Z"; an empty text for years outside 1...9999.
std::string utcText(const CalendarDate& date);
// "20270131T083000": the wall clock in `zone` (nullptr: the date's own).
std::string wallClockText(const CalendarDate& date, const TimeZonePtr& zone = nullptr);
// The X-TZID parameter an instant of `date` needs to come back in its zone.
std::vector<ContentParameter> zoneParameters(const CalendarDate& date);
// The zone named by a line's X-TZID parameter, else `fallback`.
TimeZonePtr zoneOfLine(const ContentLine& line, const TimeZonePtr& fallback);

// Writes `value` as an extra field; false (nothing written) for a kind that
// has no line form.
bool writeExtraField(ContentWriter& out, std::string_view key, const Value& value);
// Reads an extra-field line into `record`; false with `problem` set when the
// line does not read.
bool readExtraField(const ContentLine& line, Dictionary& record, std::string& problem);

// The days of the week as records name them ("monday") and as vObjects do ("MO").
std::optional<std::string> weekdayAbbreviation(std::string_view recordName);
std::optional<std::string> weekdayRecordName(std::string_view abbreviation);

}  // namespace pc
