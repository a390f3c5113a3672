#pragma once
// The nice plist: the XML property-list text of a value (usually a record)
// in which calendar dates and addresses, which the property-list format
// cannot hold with their time zone or at all, are replaced by tagged
// dictionaries:
//
//   calendar date  {"date": "31/12/2026 09:30:00 Europe/Paris", "_GRNType": "CalendarDate"}
//   address (URL)  {"value": "https://example.org/", "_GRNType": "URL"}
//
// Every other value is kept as it is; containers are processed to any depth.
// It is also the record file format of the command-line program.

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace pc {

namespace PHCMangling {

inline constexpr const char* kGRNTypeKey = "_GRNType";
inline constexpr const char* kCalendarDateTypeName = "CalendarDate";
inline constexpr const char* kURLTypeName = "URL";
inline constexpr const char* kTaggedDateKey = "date";
inline constexpr const char* kTaggedURLKey = "value";
// %Z prints the zone's full name, so that the zone reads back; %z the offset
// in force, so that the two readings of a wall clock repeated when daylight
// saving ends stay two instants. Text without the offset (the earlier form)
// still reads, a repeated wall clock then as its first reading.
inline constexpr const char* kNicePListDateFormat = "%d/%m/%Y %H:%M:%S %Z %z";
inline constexpr const char* kNicePListDateFormatWithoutOffset = "%d/%m/%Y %H:%M:%S %Z";
// A date with a fraction of a second (a property list's <date> keeps
// milliseconds) is written with its milliseconds, so that it reads back as
// the same instant.
inline constexpr const char* kNicePListDateFormatWithMilliseconds = "%d/%m/%Y %H:%M:%S.%F %Z %z";
inline constexpr const char* kNicePListDateFormatWithMillisecondsWithoutOffset = "%d/%m/%Y %H:%M:%S.%F %Z";

// The date a tagged dictionary's text stands for; nullopt with `problem`
// saying why for text of neither form, an unknown zone, an offset the zone
// does not have at that wall clock, or text after the date.
std::optional<CalendarDate> phc_dateFromNiceText(std::string_view text, std::string& problem);

// The nice plist text of `value`; nullopt (logged "cannot encode") when it
// holds a kind a property list cannot (null, an object, a non-string key).
std::optional<std::string> phc_nicePList(const Value& value);
// The dictionary a nice plist text holds, tagged values rebuilt; nullopt
// (logged "cannot parse data") when the text is not a property list of a
// dictionary.
std::optional<Dictionary> phc_dictionaryFromNiceString(std::string_view text);

// A calendar date or an address as its tagged dictionary; any other value as
// it is.
Value _phc_manglePlistForEncoding(const Value& value);
// Rebuilds tagged dictionaries inside `value`, replacing them in their
// containers (in place); answers the decoded value (a tagged dictionary at
// the top answers what it stands for). A tag that cannot be rebuilt is logged
// and its dictionary left as it is.
Value _phc_manglePlistForDecoding(const Value& value);
// What the type named `typeName` rebuilds from its tagged dictionary; null
// (logged) when it cannot.
Value _phc_unmangleWithDictionary(const std::string& typeName, const Dictionary& tagged);

using LeafOperation = Value (*)(const Value& leaf, void* context);
// Rebuilds dictionaries, arrays and sets with `operation` applied to every
// leaf (dictionary values, not keys); a leaf answers operation(leaf, context).
Value _phc_deepMapWithSelector(const Value& value, LeafOperation operation, void* context);

}  // namespace PHCMangling

// The record files of the command-line program (nice plist text). Each
// answers nullopt with `error` (optional) saying what went wrong and where: a
// file that does not read, text that is not a property list of a dictionary,
// or a tagged value that does not rebuild ("Events/0/startDate: ...").
std::optional<Dictionary> readRecordFile(const std::string& path, std::string* error = nullptr);
std::optional<Dictionary> recordFromText(std::string_view text, std::string* error = nullptr);
// The text of a record file for `record`.
std::optional<std::string> recordText(const Dictionary& record, std::string* error = nullptr);

}  // namespace pc
