#include "util/PHCMangling.h"

#include <vector>

#include <fmt/format.h>

#include "async/Log.h"
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
  std::optional<CalendarDate> date =
      CalendarDate::dateWithString(text->string(), kNicePListDateFormat, nullptr, &error);
  if (!date) {
    problem = fmt::format("cannot read date \"{}\": {}", text->string(), error);
    return {};
  }
  return *date;
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

  Value decode(const Value& value, const std::string& path) {
    if (auto dictionary = value.asDictionary()) {
      if (const Value* type = dictionary->find(kGRNTypeKey)) return decodeTagged(value, *type, path);
      for (auto& [key, element] : *dictionary) element = decode(element, childPath(path, key));
    } else if (auto array = value.asArray()) {
      for (std::size_t i = 0; i < array->count(); ++i)
        (*array)[i] = decode((*array)[i], childPath(path, Value(i)));
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
    if (_problems) {
      _problems->push_back(path.empty() ? problem : fmt::format("{}: {}", path, problem));
    } else {
      QVT_LOG(kLogError, QVTLOG, "{}", problem);
    }
    return tagged;
  }

  static std::string childPath(const std::string& path, const Value& key) {
    return path.empty() ? key.stringValue() : fmt::format("{}/{}", path, key.stringValue());
  }

  std::vector<std::string>* _problems;
};

std::optional<std::string> niceText(const Value& value, PropertyListError* error) {
  const Value mangled = _phc_deepMapWithSelector(
      value, [](const Value& leaf, void*) { return _phc_manglePlistForEncoding(leaf); }, nullptr);
  return PropertyList::toXML(mangled, error);
}

}  // namespace

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
  std::optional<Dictionary> dictionary = _phc_manglePlistForDecoding(*plist).asDictionary();
  if (!dictionary)
    QVT_LOG(kLogError, QVTLOG, "cannot parse data: a {} is not a dictionary", plist->kindName());
  return dictionary;
}

Value _phc_manglePlistForEncoding(const Value& value) {
  if (const CalendarDate* date = value.asDate()) {
    return Dictionary{{kTaggedDateKey, date->descriptionWithCalendarFormat(kNicePListDateFormat)},
                      {kGRNTypeKey, kCalendarDateTypeName}};
  }
  if (const URL* address = value.asURL())
    return Dictionary{{kTaggedURLKey, address->absoluteString()}, {kGRNTypeKey, kURLTypeName}};
  return value;
}

Value _phc_manglePlistForDecoding(const Value& value) { return Decoder(nullptr).decode(value, {}); }

Value _phc_unmangleWithDictionary(const std::string& typeName, const Dictionary& tagged) {
  std::string problem;
  Value rebuilt = unmangle(typeName, tagged, problem);
  if (rebuilt.isNull()) QVT_LOG(kLogError, QVTLOG, "{}", problem);
  return rebuilt;
}

Value _phc_deepMapWithSelector(const Value& value, LeafOperation operation, void* context) {
  if (const auto dictionary = value.asDictionary()) {
    Dictionary mapped;
    for (const auto& [key, element] : *dictionary)
      mapped.set(key, _phc_deepMapWithSelector(element, operation, context));
    return mapped;
  }
  if (const auto array = value.asArray()) {
    Array mapped;
    for (const Value& element : *array) mapped.add(_phc_deepMapWithSelector(element, operation, context));
    return mapped;
  }
  if (const auto set = value.asSet()) {
    Set mapped;
    for (const Value& element : *set) mapped.add(_phc_deepMapWithSelector(element, operation, context));
    return mapped;
  }
  return operation(value, context);
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
  PropertyListError plistError;
  const std::optional<Value> plist = PropertyList::fromFile(path, &plistError);
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
  std::optional<std::string> text = PHCMangling::niceText(record, &plistError);
  if (!text) setError(error, plistError.description());
  return text;
}

}  // namespace pc
