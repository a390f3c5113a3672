#include "transformers/QVTSyncDataClassHelper.h"

#include <fmt/format.h>

#include "async/Log.h"
#include "async/ConditionReport.h"
#include "formatting/FormattingMethods.h"
#include "platform/Strings.h"
#include "platform/Exception.h"
#include "platform/Registry.h"
#include "util/QVTStringExtensions.h"

namespace pc {

// Abstract for the registry: only subclasses are made by name, but they
// inherit the three flags' setters registered here.
PC_REGISTER_ABSTRACT_CLASS(QVTSyncDataClassHelper, "");

namespace {

using FlagSetter = void (QVTSyncDataClassHelper::*)(bool);

// A flag takes the truth value of a number or a "YES"-like string; other
// kinds are logged and leave the flag as it is.
void registerFlag(const char* key, FlagSetter setter) {
  PropertyTable::registerProperty(
      "QVTSyncDataClassHelper", key, [key, setter](Object& self, const Value& value) {
        auto* helper = dynamic_cast<QVTSyncDataClassHelper*>(&self);
        if (!helper) return;
        if (value.isNumber() || value.isString()) (helper->*setter)(value.boolValue());
        else helper->setValueForUndefinedKey(value, key);
      });
}

PC_REGISTRATION({
  registerFlag("needsLFCount2X", &QVTSyncDataClassHelper::setNeedsLFCount2X);
  registerFlag("onlyAsciiCharacters", &QVTSyncDataClassHelper::setOnlyAsciiCharacters);
  registerFlag("noNewLines", &QVTSyncDataClassHelper::setNoNewLines);
});

}  // namespace

QVTSyncDataClassHelper::~QVTSyncDataClassHelper() = default;

const std::string& QVTSyncDataClassHelper::logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncDataClassHelper"));
  return domain;
}

void QVTSyncDataClassHelper::initWithProperties(const Dictionary& properties) {
  _needsLFCount2X = true;
  if (properties.empty()) return;
  QVT_LOG(kLogInfo, logDomain(), "called setValues with {}", properties);
  for (const auto& [key, value] : properties) setValueForKey(value, key.stringValue());
}

void QVTSyncDataClassHelper::setValueForUndefinedKey(const Value& value, const std::string& key) {
  QVT_LOG(kLogInfo, logDomain(), "ignored: {} -> {}", key, value);
}

void QVTSyncDataClassHelper::setFormattingMethods(std::shared_ptr<FormattingMethods> m) {
  if (m != methods) methods = std::move(m);
}

const std::shared_ptr<FormattingMethods>& QVTSyncDataClassHelper::formattingMethods() const {
  QVT_CHECK_NAMED(methods, "_methods");
  return methods;
}

Array QVTSyncDataClassHelper::allPossibleEntities() {
  raiseException(kNotImplementedInSubClass,
                 fmt::format(
                     // clang-format off
                     "The method {} of class {}, a subClass of {}, is not implemented and it should be.",
                     // clang-format on
                             "allPossibleEntities", className(), "QVTSyncDataClassHelper"));
}

Value QVTSyncDataClassHelper::truncateString(const Value& string, std::int32_t toLength,
                                             const std::string&, const std::string&) {
  const std::shared_ptr<FormattingMethods>& m = formattingMethods();
  if (!m) return Value();
  return _needsLFCount2X ? m->maxLengthForVObjectPropValue(string, toLength)
                         : m->maxLength(string, toLength);
}

Value QVTSyncDataClassHelper::preFormatField(const Value& value, const std::string&,
                                             const std::string&) {
  const std::string* given = value.asString();
  if (!given) return value;
  // Each filter works on a copy only when it changes the text: most texts
  // are ASCII without new lines and come back as the value they came in.
  std::optional<std::string> changed;
  if (_onlyAsciiCharacters && !isASCII(*given)) {
    std::string ascii = QVTStringExtensions::stringWithLossyASCIIConversion(*given);
    if (!ascii.empty()) {
      if (ascii != *given)
        QVT_LOG(kLogInfo, logDomain(), "Kept only Ascii characters in: <{}>\nResult: <{}>", *given,
                ascii);
      changed = std::move(ascii);
    }
  }
  const std::string& text = changed ? *changed : *given;
  if (_noNewLines && (changed || text.find('\n') != std::string::npos)) {
    std::string joined = replaceOccurrences(text, "\n", " ");
    if (joined != *given)
      QVT_LOG(kLogInfo, logDomain(), "Removed new lines from: <{}>\nResult: <{}>", *given, joined);
    changed = std::move(joined);
  }
  return !changed || *changed == *given ? value : Value(std::move(*changed));
}

TimeZonePtr QVTSyncDataClassHelper::phoneTimeZoneForFormatting() const {
  const std::shared_ptr<FormattingMethods>& m = formattingMethods();
  return m ? m->phoneTimeZone() : nullptr;
}

Value QVTSyncDataClassHelper::mainRecordFromRelation(const Value& relation) const {
  const std::shared_ptr<FormattingMethods>& m = formattingMethods();
  return m ? m->mainRecordFromRelation(relation) : Value();
}

}  // namespace pc
