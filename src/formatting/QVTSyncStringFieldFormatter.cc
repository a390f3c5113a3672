#include "formatting/QVTSyncStringFieldFormatter.h"

#include <set>

#include <fmt/format.h>

#include "async/Log.h"
#include "async/ConditionReport.h"
#include "conduit/SyncClientState.h"
#include "formatting/DescriptionCheck.h"
#include "formatting/EntityFormatter.h"
#include "formatting/FormattingMethods.h"
#include "platform/Exception.h"
#include "platform/Registry.h"
#include "util/QVTStringExtensions.h"

namespace pc {

PC_REGISTER_CLASS(QVTSyncStringFieldFormatter, "");

namespace {

const std::string& fieldLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncFieldFormatterV2"));
  return domain;
}

// A number, or a string read as one; anything else is reported and reads 0.
std::int32_t intEntry(const Dictionary& properties, const char* key) {
  const Value* value = properties.find(key);
  if (!value || value->isNull()) return 0;
  if (value->isNumber() || value->isString()) {
    const std::int64_t n = value->integerIfNumeric().value_or(0);
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(n, INT32_MIN, INT32_MAX));
  }
  description_check::report(fmt::format("\"{}\" must be a number, not {}", key, *value), key);
  QVT_CHECK_NAMED(false, "number value");
  return 0;
}

// The characters of a string entry, with the written \r and \n made real;
// nothing when the entry is absent (reported when it is not a string).
std::optional<std::string> charactersEntry(const Dictionary& properties, const char* key) {
  const Value* value = properties.find(key);
  if (!value || value->isNull()) return std::nullopt;
  const std::string* text = value->asString();
  if (!text) {
    description_check::report(fmt::format("\"{}\" must be a string, not {}", key, *value), key);
    QVT_CHECK_NAMED(false, "string value");
    return std::nullopt;
  }
  std::string characters = *text;
  QVTStringExtensions::interpretCRLF(characters);
  return characters;
}

std::optional<CharacterSet> setEntry(const Dictionary& properties, const char* key) {
  auto characters = charactersEntry(properties, key);
  if (!characters) return std::nullopt;
  return CharacterSet::characterSetWithCharactersInString(*characters);
}

const CharacterSet& lineBreaks() {
  static const CharacterSet set = CharacterSet::characterSetWithCharactersInString("\r\n");
  return set;
}

[[noreturn]] void logAndRaise(const std::string& text) {
  QVT_LOG(kLogError, fieldLogDomain(), "{}", text);
  raiseException(kInvalidArgumentException, text);
}

}  // namespace

QVTSyncStringFieldFormatter::QVTSyncStringFieldFormatter(const Dictionary& properties,
                                                         const std::string& forEntity,
                                                         const std::string& fieldName,
                                                         EntityFormatter* parent) {
  initWithProperties(properties, forEntity, fieldName, parent);
}

std::string QVTSyncStringFieldFormatter::description() const {
  return fmt::format("<QVTSyncStringFieldFormatter {}.{} maxLength {} filtering {}>", _entityName,
                     _fieldName, _maxLength, _filteringType);
}

void QVTSyncStringFieldFormatter::initWithProperties(const Dictionary& properties,
                                                     const std::string& forEntity,
                                                     const std::string& fieldName,
                                                     EntityFormatter* parent) {
  QVT_CHECK_NAMED(!forEntity.empty(), "_entityName");
  QVT_CHECK_NAMED(!fieldName.empty(), "_fieldName");
  _entityName = forEntity;
  _fieldName = fieldName;
  // A misspelt key would otherwise leave its limit off without a word.
  static const std::set<std::string> kKnownKeys = {
      "defaultValWhenEmpty", "mappings",          "charsToStrip",         "charsToKeep",
      "charsToReplaceByWSP", "charsToTrimWSP",    "maxLength",            "relationshipConstraint",
      "relationshipSize",    "imageThresholdSize", "imageMaxWidth",        "imageMaxHeight"};
  for (const auto& [key, value] : properties) {
    const std::string name = key.stringValue();
    if (kKnownKeys.count(name)) continue;
    QVT_LOG(kLogInfo, fieldLogDomain(), "ignored: {} -> {}", key, value);
    description_check::report(fmt::format("unknown field formatting key \"{}\" (ignored)", name),
                              name);
  }
  defaultVal = properties.get("defaultValWhenEmpty");
  owner = parent;

  if (const Value* mappings = properties.find("mappings"); mappings && !mappings->isNull()) {
    if (auto list = mappings->asArray()) {
      description_check::PathScope scope("mappings");
      for (std::size_t i = 0; i < list->count(); ++i) {
        if (!list->at(i).isDictionary())
          description_check::report(
              fmt::format("a mapping must be a dictionary, not {}", list->at(i)),
              std::to_string(i));
      }
      mapping = std::make_shared<QVTSyncMapping>();
      description_check::step({}, [&] {
        mapping->initWithArray(*list,
                               SyncClientState::defaultValueForAttribute(fieldName, forEntity));
      });
    } else {
      description_check::report(fmt::format("\"mappings\" must be a list, not {}", *mappings),
                                "mappings");
      QVT_CHECK_NAMED(false, "mappings");
    }
  }

  const auto strip = charactersEntry(properties, "charsToStrip");
  const auto keep = charactersEntry(properties, "charsToKeep");
  if (strip || keep) {
    CharacterSet set;
    if (strip) set = CharacterSet::characterSetWithCharactersInString(*strip);
    if (keep) set.formUnion(CharacterSet::characterSetWithCharactersInString(*keep).invertedSet());
    junk = std::move(set);
  }
  junkToWSP = setEntry(properties, "charsToReplaceByWSP");
  junkTrimWSP = setEntry(properties, "charsToTrimWSP");
  _maxLength = intEntry(properties, "maxLength");

  if (const Value* constraint = properties.find("relationshipConstraint")) {
    const std::string kind = constraint->isString() ? constraint->string() : std::string();
    if (kind == "perSubType") {
      _filteringType = kFilteringPerSubType;
    } else if (kind == "global") {
      _filteringType = kFilteringMaxPerRecord;
      _maxSubRecord = intEntry(properties, "relationshipSize");
      if (_maxSubRecord < 1) {
        QVT_LOG(kLogError, fieldLogDomain(), "this is absurd, fix the plist");
        description_check::report("this is absurd, fix the plist", "relationshipSize");
      }
    } else {
      description_check::report(
          fmt::format("\"relationshipConstraint\" is \"perSubType\" or \"global\", not {}",
                      *constraint),
          "relationshipConstraint");
    }
  }

  _thresold = intEntry(properties, "imageThresholdSize");
  _maxWidth = intEntry(properties, "imageMaxWidth");
  _maxHeight = intEntry(properties, "imageMaxHeight");
  if (_thresold >= 1 && (_maxWidth <= 0 || _maxHeight <= 0)) {
    description_check::step("imageThresholdSize", [] {
      // clang-format off
      logAndRaise("can't have a positive threshold and a non positive dimension.  Fix the client formatting description");
      // clang-format on
    });
  }
}

void QVTSyncStringFieldFormatter::setFormattingMethods(std::shared_ptr<FormattingMethods> m) {
  if (m != methods) methods = std::move(m);
}

std::int32_t QVTSyncStringFieldFormatter::maxSubRecord() const {
  QVT_CHECK_NAMED(kFilteringMaxPerRecord == _filteringType,
                  "FilteringMaxPerRecord == _filteringType");
  return _maxSubRecord;
}

void QVTSyncStringFieldFormatter::trimWSP(std::string& string, const CharacterSet* atCharacters) {
  if (!atCharacters || string.empty()) return;
  std::u16string text = toUTF16(string);
  std::u16string out;
  out.reserve(text.size());
  bool changed = false;
  for (std::size_t i = 0; i < text.size();) {
    // The whole code point at i.
    char32_t c = text[i];
    std::size_t width = 1;
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      width = 2;
    }
    if (c != u' ' && atCharacters->characterIsMember(c)) {
      while (!out.empty() && out.back() == u' ') {
        out.pop_back();
        changed = true;
      }
      out.append(text, i, width);
      i += width;
      while (i < text.size() && text[i] == u' ') {
        ++i;
        changed = true;
      }
      continue;
    }
    out.append(text, i, width);
    i += width;
  }
  if (changed) string = fromUTF16(out);
}

Value QVTSyncStringFieldFormatter::formatField(const Value& input, bool* rejectRecord) {
  Value value = input;
  if (!value.isNull() && (junk || junkToWSP || junkTrimWSP)) {
    const bool isURL = value.isURL();
    if (QVT_CHECK_NAMED(value.isString() || isURL, "value is a string or an address")) {
      std::string text = isURL ? value.url().absoluteString() : value.string();
      if (junk) FormattingMethods::removeFromString(text, *junk);
      if (junkToWSP) FormattingMethods::replaceFromString(text, *junkToWSP, " ");
      trimWSP(text, junkTrimWSP ? &*junkTrimWSP : nullptr);
      // An unchanged text stays the value it was.
      const std::string& original = isURL ? value.url().absoluteString() : value.string();
      if (text != original) value = isURL ? Value(URL(std::move(text))) : Value(std::move(text));
    }
  }

  if (value.isNull()) value = defaultVal.deepCopy();

  if (mapping) {
    bool reject = false;
    value = mapping->formatValue(value, &reject);
    if (reject) {
      if (rejectRecord) *rejectRecord = true;
      return Value();
    }
  }

  if (const std::string* text = value.asString();
      text && text->find_first_of("\r\n") != std::string::npos) {
    std::string trimmed = *text;
    trimWSP(trimmed, &lineBreaks());
    value = trimmed;
  }

  if (_maxLength >= 1 && !value.isNull()) {
    if (QVT_CHECK_NAMED(owner, "_owner"))
      value = owner->truncateString(value, _maxLength, _fieldName, _entityName);
  }

  if (_thresold >= 1 && !value.isNull()) {
    const bool isData = QVT_CHECK_NAMED(value.isData(), "value is a byte buffer");
    const bool sized = QVT_CHECK_NAMED(_maxWidth > 0, "_maxWidth > 0") &
                       QVT_CHECK_NAMED(_maxHeight > 0, "_maxHeight > 0");
    std::shared_ptr<FormattingMethods> target = owner ? owner->_formattingMethods() : methods;
    if (!target) target = methods;
    if (isData && sized && target)
      value = target->reduceImage(value, _maxWidth, _maxHeight, _thresold);
  }
  return value;
}

}  // namespace pc
