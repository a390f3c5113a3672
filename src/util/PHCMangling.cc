#include "util/PHCMangling.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <fmt/format.h>

#include "async/Log.h"
#include "platform/FileIO.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"

namespace pc {

namespace PHCMangling {

namespace {

// Each rebuilds its value from a tagged dictionary, or answers null and says
// why in `problem`.
using Unmangle = Value (*)(const Dictionary& tagged, std::string& problem);

Value unmangleCalendarDate(const Dictionary& tagged, std::string& problem) {
  const Value* text = tagged.find(kTaggedDateKey);
  if (!text || !text->isString()) {
    problem = fmt::format("tagged date without a \"{}\" text", kTaggedDateKey);
    return {};
  }
  std::string error;
  std::optional<CalendarDate> date = phc_dateFromNiceText(text->string(), error);
  if (!date) {
    problem = fmt::format("cannot read date \"{}\": {}", text->string(), error);
    return {};
  }
  return *date;
}

std::vector<std::string_view> blankSeparatedWords(std::string_view text) {
  std::vector<std::string_view> words;
  std::size_t at = 0;
  while (true) {
    at = text.find_first_not_of(" \t\n\r", at);
    if (at == std::string_view::npos) return words;
    const std::size_t end = std::min(text.find_first_of(" \t\n\r", at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
}

// "+hhmm", "-hhmm" or "+hh:mm", the forms "%z" reads.
bool isOffsetText(std::string_view text) {
  const auto digits = [&](std::size_t at) { return std::isdigit(static_cast<unsigned char>(text[at])) != 0; };
  if (text.size() < 5 || (text[0] != '+' && text[0] != '-') || !digits(1) || !digits(2)) return false;
  if (text.size() == 5) return digits(3) && digits(4);
  return text.size() == 6 && text[3] == ':' && digits(4) && digits(5);
}

// An offset as "%z" prints it: whole minutes, the seconds dropped.
int printedOffset(int seconds) {
  const int magnitude = std::abs(seconds);
  return (seconds < 0 ? -1 : 1) * (magnitude / 3600 * 3600 + magnitude / 60 % 60 * 60);
}

std::string offsetText(int seconds) {
  const int magnitude = std::abs(seconds);
  return fmt::format("{}{:02}{:02}", seconds < 0 ? '-' : '+', magnitude / 3600, magnitude / 60 % 60);
}

Value unmangleURL(const Dictionary& tagged, std::string& problem) {
  const Value* text = tagged.find(kTaggedURLKey);
  if (!text || !text->isString()) {
    problem = fmt::format("tagged address without a \"{}\" text", kTaggedURLKey);
    return {};
  }
  return URL(text->string());
}

// The types that rebuild themselves from a tagged dictionary, by the name
// written under "_GRNType".
struct Unmangler {
  std::string_view typeName;
  Unmangle unmangle;
};
constexpr Unmangler kUnmanglers[] = {
    {kCalendarDateTypeName, unmangleCalendarDate},
    {kURLTypeName, unmangleURL},
};

Value unmangle(const std::string& typeName, const Dictionary& tagged, std::string& problem) {
  for (const Unmangler& unmangler : kUnmanglers)
    if (unmangler.typeName == typeName) return unmangler.unmangle(tagged, problem);
  // A class known by name but unable to rebuild itself.
  if (ClassRegistry::hasClass(typeName)) {
    problem = fmt::format("should be redefined for type {}", typeName);
  } else {
    problem = fmt::format("unknown {} \"{}\"", kGRNTypeKey, typeName);
  }
  return {};
}

// Decodes tagged dictionaries in place. Problems are collected with the key
// path they occur at, or logged when nobody collects them; the dictionary
// that could not be rebuilt stays, so nothing of the record is lost.
class Decoder {
 public:
  explicit Decoder(std::vector<std::string>* problems) : _problems(problems) {}

  Value decode(const Value& value, const std::string& path, int depth = 0) {
    if (auto dictionary = value.asDictionary()) {
      if (const Value* type = dictionary->find(kGRNTypeKey)) return decodeTagged(value, *type, path);
      for (auto& [key, element] : *dictionary) element = decode(element, childPath(path, key), depth + 1);
    } else if (auto array = value.asArray()) {
      for (std::size_t i = 0; i < array->count(); ++i)
        (*array)[i] = decode((*array)[i], childPath(path, Value(i)), depth + 1);
    } else if ((value.isDate() || value.isURL()) && depth >= PropertyList::kMaxDepth) {
      // Written back, a plain date or address becomes a tagged dictionary
      // whose text lies one level deeper, which no reader would take back.
      report(fmt::format("values nested more than {} deep", PropertyList::kMaxDepth), path);
    }
    return value;
  }

 private:
  Value decodeTagged(const Value& tagged, const Value& type, const std::string& path) {
    std::string problem;
    Value rebuilt;
    if (const std::string* typeName = type.asString()) {
      rebuilt = unmangle(*typeName, tagged.dictionary(), problem);
    } else {
      problem = fmt::format("{} is not a type name: {}", kGRNTypeKey, type);
    }
    if (!rebuilt.isNull()) return rebuilt;
    report(problem, path);
    return tagged;
  }

  void report(const std::string& problem, const std::string& path) {
    if (_problems) {
      _problems->push_back(path.empty() ? problem : fmt::format("{}: {}", path, problem));
    } else {
      QVT_LOG(kLogError, QVTLOG, "{}", problem);
    }
  }

  static std::string childPath(const std::string& path, const Value& key) {
    return path.empty() ? key.stringValue() : fmt::format("{}/{}", path, key.stringValue());
  }

  std::vector<std::string>* _problems;
};


}  // namespace

std::optional<std::string> niceText(const Value& value, PropertyListError* error);

std::optional<std::string> phc_nicePList(const Value& value) {
  PropertyListError error;
  std::optional<std::string> text = niceText(value, &error);
  if (!text) QVT_LOG(kLogError, QVTLOG, "cannot encode ({})\n{}", error.description(), value);
  return text;
}

std::optional<Dictionary> phc_dictionaryFromNiceString(std::string_view text) {
  PropertyListError error;
  const std::optional<Value> plist = PropertyList::fromXML(text, &error);
  if (!plist) {
    QVT_LOG(kLogError, QVTLOG, "cannot parse data: {}", error.description());
    return std::nullopt;
  }
  const Value decoded = _phc_manglePlistForDecoding(*plist);
  std::optional<Dictionary> dictionary = decoded.asDictionary();
  if (!dictionary)
    QVT_LOG(kLogError, QVTLOG, "cannot parse data: a {} is not a dictionary", decoded.kindName());
  return dictionary;
}

Value _phc_manglePlistForEncoding(const Value& value) {
  if (const CalendarDate* date = value.asDate()) {
    const bool fraction = std::llround(date->timeIntervalSinceReferenceDate() * 1000.0) % 1000 != 0;
    return Dictionary{{kTaggedDateKey, date->descriptionWithCalendarFormat(
                                           fraction ? kNicePListDateFormatWithMilliseconds : kNicePListDateFormat)},
                      {kGRNTypeKey, kCalendarDateTypeName}};
  }
  if (const URL* address = value.asURL())
    return Dictionary{{kTaggedURLKey, address->absoluteString()}, {kGRNTypeKey, kURLTypeName}};
  return value;
}

std::optional<CalendarDate> phc_dateFromNiceText(std::string_view text, std::string& problem) {
  const std::vector<std::string_view> words = blankSeparatedWords(text);
  if (words.size() != 3 && words.size() != 4) {
    problem = "expected \"day/month/year hours:minutes:seconds zone offset\"";
    return std::nullopt;
  }
  // The parser ignores text after what it reads; the zone and the offset
  // are the last words, so they must be read whole.
  const auto isZoneCharacter = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || std::string_view("_/+-:").find(c) != std::string_view::npos;
  };
  if (!std::all_of(words[2].begin(), words[2].end(), isZoneCharacter)) {
    problem = fmt::format("\"{}\" is not a time zone name", words[2]);
    return std::nullopt;
  }
  if (words.size() == 4 && !isOffsetText(words[3])) {
    problem = fmt::format("\"{}\" is not an offset (+hhmm or -hhmm)", words[3]);
    return std::nullopt;
  }
  // Without an offset the zone decides the instant.
  const bool milliseconds = words[1].find('.') != std::string_view::npos;
  const std::string_view format =
      words.size() == 3 ? (milliseconds ? kNicePListDateFormatWithMillisecondsWithoutOffset : kNicePListDateFormatWithoutOffset)
                        : (milliseconds ? kNicePListDateFormatWithMilliseconds : kNicePListDateFormat);
  std::optional<CalendarDate> date = CalendarDate::dateWithString(text, format, nullptr, &problem);
  if (date && !date->isWithinSupportedRange()) {
    problem = "outside the years the calendar supports";
    return std::nullopt;
  }
  if (!date || words.size() == 3) return date;

  // With one, the instant is the reading of the wall clock that has that
  // offset in the zone. The offset is written to the minute, while zones of
  // the past have seconds in theirs: take the zone's exact offset near the
  // written one, and check that it is in force at the wall clock.
  const TimeZone& zone = *date->timeZone();
  const double wallClock =
      CalendarDate::dateWithString(text, milliseconds ? "%d/%m/%Y %H:%M:%S.%F" : "%d/%m/%Y %H:%M:%S")->timeIntervalSinceReferenceDate();
  const int written = static_cast<int>(std::lround(wallClock - date->timeIntervalSinceReferenceDate()));
  const int exact = zone.secondsFromGMT(date->date());
  const Date instant{wallClock - exact};
  if (zone.secondsFromGMT(instant) != exact || printedOffset(exact) != written) {
    problem = fmt::format("offset {} is not one {} has at {} {}", offsetText(written), zone.name(), words[0],
                          words[1]);
    return std::nullopt;
  }
  return CalendarDate(instant, date->timeZone());
}

Value _phc_manglePlistForDecoding(const Value& value) { return Decoder(nullptr).decode(value, {}); }

Value _phc_unmangleWithDictionary(const std::string& typeName, const Dictionary& tagged) {
  std::string problem;
  Value rebuilt = unmangle(typeName, tagged, problem);
  if (rebuilt.isNull()) QVT_LOG(kLogError, QVTLOG, "{}", problem);
  return rebuilt;
}

namespace {

// The deep map, refusing a container that holds itself (it has no finite
// rebuild) and nesting deeper than a property list can hold, rather than
// recursing until the stack runs out. `problem` says which, with the key path.
class DeepMapper {
 public:
  DeepMapper(LeafOperation operation, void* context) : _operation(operation), _context(context) {}

  // Refuses dates the calendar cannot read fields of (their text would name
  // another date).
  void refuseDatesOutsideTheCalendar() { _checkDates = true; }

  std::optional<Value> map(const Value& value) {
    if (_checkDates && value.isDate() && !value.date().isWithinSupportedRange())
      return fail("a date outside the years the calendar supports");
    if (!value.isCollection()) return _operation(value, _context);
    if (_ancestors.size() >= static_cast<std::size_t>(PropertyList::kMaxDepth) + 1)
      return fail(fmt::format("values nested more than {} deep", PropertyList::kMaxDepth));
    for (const Value& ancestor : _ancestors)
      if (ancestor.isIdenticalTo(value)) return fail("a container holds itself");
    _ancestors.push_back(value);
    std::optional<Value> mapped = mapContainer(value);
    _ancestors.pop_back();
    return mapped;
  }

  const std::string& problem() const { return _problem; }

 private:
  std::optional<Value> mapContainer(const Value& value) {
    if (const auto dictionary = value.asDictionary()) {
      Dictionary mapped;
      for (const auto& [key, element] : *dictionary) {
        std::optional<Value> leaf = child(element, key);
        if (!leaf) return std::nullopt;
        mapped.set(key, std::move(*leaf));
      }
      return mapped;
    }
    const bool isArray = value.isArray();
    const std::vector<Value> elements = isArray ? value.array().values() : value.set().allObjects().values();
    Array mapped;
    for (std::size_t i = 0; i < elements.size(); ++i) {
      std::optional<Value> leaf = child(elements[i], Value(i));
      if (!leaf) return std::nullopt;
      mapped.add(std::move(*leaf));
    }
    if (isArray) return mapped;
    Set set;
    for (const Value& element : mapped) set.add(element);
    return set;
  }

  std::optional<Value> child(const Value& element, const Value& key) {
    std::optional<Value> mapped = map(element);
    if (!mapped) _path.insert(_path.begin(), key.stringValue());
    return mapped;
  }

  std::nullopt_t fail(std::string problem) {
    _problem = std::move(problem);
    return std::nullopt;
  }

  LeafOperation _operation;
  void* _context;
  std::vector<Value> _ancestors;
  std::vector<std::string> _path;  // filled from the failing leaf upwards
  std::string _problem;
  bool _checkDates = false;

 public:
  std::string where() const {
    if (_path.empty()) return "the top level";
    std::string text = "\"" + _path.front();
    for (std::size_t i = 1; i < _path.size(); ++i) text += "/" + _path[i];
    return text + "\"";
  }
};

}  // namespace

Value _phc_deepMapWithSelector(const Value& value, LeafOperation operation, void* context) {
  DeepMapper mapper(operation, context);
  std::optional<Value> mapped = mapper.map(value);
  if (!mapped) {
    QVT_LOG(kLogError, QVTLOG, "cannot map ({} at {})", mapper.problem(), mapper.where());
    return {};
  }
  return std::move(*mapped);
}

// The nice plist text: tagged values in place, then the property-list writer.
std::optional<std::string> niceText(const Value& value, PropertyListError* error) {
  DeepMapper mapper([](const Value& leaf, void*) { return _phc_manglePlistForEncoding(leaf); }, nullptr);
  mapper.refuseDatesOutsideTheCalendar();
  std::optional<Value> mangled = mapper.map(value);
  if (!mangled) {
    if (error) *error = PropertyListError{fmt::format("{} (at {})", mapper.problem(), mapper.where())};
    return std::nullopt;
  }
  return PropertyList::toXML(*mangled, error);
}

}  // namespace PHCMangling

namespace {

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

// The record a parsed property list holds, tagged values rebuilt.
std::optional<Dictionary> recordFromPlist(const Value& plist, std::string* error) {
  std::vector<std::string> problems;
  const Value decoded = PHCMangling::Decoder(&problems).decode(plist, {});
  if (!problems.empty()) {
    setError(error, problems.front());
    return std::nullopt;
  }
  std::optional<Dictionary> record = decoded.asDictionary();
  if (!record) setError(error, fmt::format("a record is a dictionary, not a {}", decoded.kindName()));
  return record;
}

}  // namespace

std::optional<Dictionary> readRecordFile(const std::string& path, std::string* error) {
  const std::optional<std::string> bytes = readWholeFile(path, error);  // its error names the file
  if (!bytes) return std::nullopt;
  PropertyListError plistError;
  const std::optional<Value> plist = PropertyList::fromXML(*bytes, &plistError);
  if (!plist) {
    setError(error, fmt::format("{}: {}", path, plistError.description()));
    return std::nullopt;
  }
  std::optional<Dictionary> record = recordFromPlist(*plist, error);
  if (!record && error) *error = fmt::format("{}: {}", path, *error);
  return record;
}

std::optional<Dictionary> recordFromText(std::string_view text, std::string* error) {
  PropertyListError plistError;
  const std::optional<Value> plist = PropertyList::fromXML(text, &plistError);
  if (!plist) {
    setError(error, plistError.description());
    return std::nullopt;
  }
  return recordFromPlist(*plist, error);
}

std::optional<std::string> recordText(const Dictionary& record, std::string* error) {
  PropertyListError plistError;
  std::optional<std::string> text = PHCMangling::niceText(Value(record), &plistError);
  if (!text) setError(error, plistError.description());
  return text;
}

}  // namespace pc
