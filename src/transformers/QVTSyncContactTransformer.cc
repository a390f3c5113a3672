#include "transformers/QVTSyncContactTransformer.h"

#include <cctype>
#include <functional>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "async/Log.h"
#include "conduit/SyncClientState.h"
#include "engine/SchemaNames.h"
#include "formatting/EntityFormatter.h"
#include "formatting/FormattingMethods.h"
#include "platform/CalendarDate.h"
#include "platform/Registry.h"
#include "platform/Strings.h"
#include "util/QVTStringExtensions.h"

namespace pc {

PC_REGISTER_CLASS(QVTSyncContactTransformer, "QVTSyncDataClassHelper");

namespace {

using Self = QVTSyncContactTransformer;

// Registers a setter under `key` that is called with the value when it is of
// an acceptable kind, else logs the entry as ignored.
void registerSetter(const char* key, bool (*accepts)(const Value&),
                    std::function<void(Self&, const Value&)> set) {
  PropertyTable::registerProperty(
      "QVTSyncContactTransformer", key,
      [key, accepts, set = std::move(set)](Object& object, const Value& value) {
        auto* self = dynamic_cast<Self*>(&object);
        if (!self) return;
        if (accepts(value)) set(*self, value);
        else self->setValueForUndefinedKey(value, key);
      });
}

bool numberOrText(const Value& value) { return value.isNumber() || value.isString(); }
bool number(const Value& value) { return value.isNumber(); }
bool anything(const Value&) { return true; }

void registerFlag(const char* key, void (Self::*setter)(bool)) {
  registerSetter(key, numberOrText, [setter](Self& self, const Value& value) {
    (self.*setter)(value.boolValue());
  });
}

void registerSize(const char* key, void (Self::*setter)(std::int32_t)) {
  registerSetter(key, number, [setter](Self& self, const Value& value) {
    (self.*setter)(value.intValue());
  });
}

PC_REGISTRATION({
  registerFlag("needsCompanyNameInFirstName", &Self::setNeedsCompanyNameInFirstName);
  registerFlag("needsFullAddressInStreetField", &Self::setNeedsFullAddressInStreetField);
  registerSetter("nokiaSeries40ContactMaxDetails", anything,
                 [](Self& self, const Value& value) { self.setNokiaSeries40ContactMaxDetails(value); });
  registerSetter("defaultBirthday", anything,
                 [](Self& self, const Value& value) { self.setDefaultBirthday(value); });
  registerFlag("noPlusCharIfAtLeastOneNonDigitChar", &Self::setNoPlusCharIfAtLeastOneNonDigitChar);
  registerFlag("supportsCompanyName", &Self::setSupportsCompanyName);
  registerFlag("firstAndLastNameIsJustOneField", &Self::setFirstAndLastNameIsJustOneField);
  registerSize("sizeNameField", &Self::setSizeNameField);
  registerSize("sizeStreetField", &Self::setSizeStreetField);
  registerFlag("removeInvalidEmailAddresses", &Self::setRemoveInvalidEmailAddresses);
  registerFlag("shouldReplaceCapitalLettersInPhoneNumbers",
               &Self::setShouldReplaceCapitalLettersInPhoneNumbers);
  registerSetter("defaultSchemaForURLs", anything,
                 [](Self& self, const Value& value) { self.setDefaultSchemaForURLs(value); });
});

// The relations of a contact that hold sub-records, with their entity and
// the relation by which the sub-records point back to the contact.
struct SubRelation {
  const char* relation;
  const char* entity;
  const char* backRelation;
};

constexpr SubRelation kSubRelations[] = {
    {kContactsContactPhoneNumbers, kContactsPhoneNumber, kContactsPhoneNumberContact},
    {kContactsContactEmailAddresses, kContactsEmailAddress, kContactsEmailAddressContact},
    {kContactsContactStreetAddresses, kContactsStreetAddress, kContactsStreetAddressContact},
    {kContactsContactURLs, kContactsURL, kContactsURLContact},
    {kContactsContactIMs, kContactsIM, kContactsIMContact},
    {kContactsContactCustomFields, kContactsCustomField, kContactsCustomFieldContact},
    {kContactsContactDates, kContactsDate, kContactsDateContact},
    {kContactsContactRelatedNames, kContactsRelatedName, kContactsRelatedNameContact},
};

// The sub-entities whose records the engine gives a default type.
constexpr const char* kTypedEntities[] = {kContactsPhoneNumber, kContactsEmailAddress,
                                          kContactsStreetAddress, kContactsURL,
                                          kContactsIM,           kContactsDate,
                                          kContactsRelatedName};

constexpr const char* kPhoneNumberTypeOrder[] = {
    kContactsPhoneNumberTypeMobile,  kContactsPhoneNumberTypeWork,
    kContactsPhoneNumberTypeHome,    kContactsPhoneNumberTypePager,
    kContactsPhoneNumberTypeWorkFax, kContactsPhoneNumberTypeHomeFax,
    kContactsPhoneNumberTypeMain,    kContactsPhoneNumberTypeOther};

constexpr const char* kBasicTypeOrder[] = {"home page", "work", "home", "other"};

bool isMissingOrEmpty(const Value* value) {
  if (!value || value->isNull()) return true;
  const std::string* text = value->asString();
  return text && text->empty();
}

// The two records' types compared through a priority list: the first entry
// equal to either type decides which record sorts first.
template <std::size_t N>
int compareTypes(const Value& left, const Value& right, const Dictionary& records,
                 const char* typeKey, const char* const (&order)[N]) {
  const std::optional<Dictionary> a = records.getDictionary(left);
  const std::optional<Dictionary> b = records.getDictionary(right);
  if (!a || !b) return 0;
  const Value typeA = a->get(typeKey);
  const Value typeB = b->get(typeKey);
  if (typeA == typeB) return 0;
  for (const char* type : order) {
    const Value entry(type);
    if (entry == typeA) return -1;
    if (entry == typeB) return 1;
  }
  return 0;
}

// A stable insertion sort: the comparisons above are not a strict weak order
// when a record is missing, which the library's sorts do not allow.
void stableSort(Array& identifiers, const std::function<int(const Value&, const Value&)>& compare) {
  std::vector<Value>& values = identifiers.mutableValues();
  for (std::size_t i = 1; i < values.size(); ++i) {
    Value moving = values[i];
    std::size_t j = i;
    while (j > 0 && compare(moving, values[j - 1]) < 0) {
      values[j] = values[j - 1];
      --j;
    }
    values[j] = std::move(moving);
  }
}

// Whether `text` begins with a scheme: letters, digits, "+", "-", "." before
// a colon, starting with a letter. "host:8080/path" has a port, not a scheme.
bool hasScheme(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  if (!std::isalpha(static_cast<unsigned char>(text[0]))) return false;
  for (std::size_t i = 0; i < colon; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
  }
  std::size_t end = colon + 1;
  while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) ++end;
  const bool port = end > colon + 1 && (end == text.size() || text[end] == '/');
  return !port;
}

// Whether `text` reads as a URL: printable ASCII without blanks and the
// characters URLs must escape, "%" only before two hexadecimal digits.
bool isValidURLText(const std::string& text) {
  if (text.empty()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c <= 0x20 || c >= 0x7f) return false;
    switch (c) {
      case '"': case '<': case '>': case '\\': case '^': case '`': case '{': case '|': case '}':
        return false;
      case '%':
        if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
          return false;
        break;
      default:
        break;
    }
  }
  return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

QVTSyncContactTransformer::QVTSyncContactTransformer() = default;
QVTSyncContactTransformer::~QVTSyncContactTransformer() = default;

const std::string& QVTSyncContactTransformer::logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncContactTransformer"));
  return domain;
}

// --- Configuration ---------------------------------------------------------------------

void QVTSyncContactTransformer::setNokiaSeries40ContactMaxDetails(const Value& number) {
  if (number.isNull() || number.isNumber()) _nokiaSeries40ContactMaxDetails = number.copy();
  else setValueForUndefinedKey(number, "nokiaSeries40ContactMaxDetails");
}

void QVTSyncContactTransformer::setDefaultBirthday(const Value& string) {
  if (string.isNull()) _defaultBirthday.reset();
  else if (const std::string* text = string.asString()) _defaultBirthday = *text;
  else setValueForUndefinedKey(string, "defaultBirthday");
}

void QVTSyncContactTransformer::setDefaultSchemaForURLs(const Value& string) {
  if (string.isNull()) _defaultSchemaForURLs.reset();
  else if (const std::string* text = string.asString()) _defaultSchemaForURLs = *text;
  else setValueForUndefinedKey(string, "defaultSchemaForURLs");
}

// --- Entity formatters ---------------------------------------------------------------------

void QVTSyncContactTransformer::willBeUsedByEntityFormatter(EntityFormatter& formatter) {
  const std::string& entity = formatter.entityName();
  for (const auto& [field, fieldFormatter] : formatter.fieldFormatters())
    if (QVTSyncMappingPtr mapping = fieldFormatter ? fieldFormatter->fieldMapper() : nullptr)
      _mappings[entity][field] = mapping;

  if (entity == kContactsStreetAddress) {
    if (!_needsFullAddressInStreetField) return;
    QVTSyncStringFieldFormatterPtr street =
        formatter.fieldFormatterForFieldName(kContactsStreetAddressStreet);
    if (!street) QVT_LOG(kLogError, QVTLOG, "there must be a fieldFormatter for the street field");
    _sizeStreetField = street ? street->maxLength() : 0;
  } else if (entity == kContactsContact) {
    _firstAndLastNameIsJustOneField = !formatter.fieldIsSupported(kContactsContactFirstName);
    if (_firstAndLastNameIsJustOneField) {
      QVTSyncStringFieldFormatterPtr last =
          formatter.fieldFormatterForFieldName(kContactsContactLastName);
      if (!last) QVT_LOG(kLogError, QVTLOG, "there must be a fieldFormatter for the last name");
      _sizeNameField = last ? last->maxLength() : 0;
      formatter.setFieldFormatter(last, kContactsContactFirstName);
    }
    _supportsCompanyName = formatter.fieldIsSupported(kContactsContactCompanyName);
    QVTSyncStringFieldFormatterPtr first =
        formatter.fieldFormatterForFieldName(kContactsContactFirstName);
    if (!_supportsCompanyName) {
      _needsCompanyNameInFirstName = true;
      if (!first) QVT_LOG(kLogError, QVTLOG, "there must be a fieldFormatter for the first name");
      formatter.setFieldFormatter(first, kContactsContactCompanyName);
    }
    if (_needsCompanyNameInFirstName && _sizeNameField == 0)
      _sizeNameField = first ? first->maxLength() : 0;
  }
}

Array QVTSyncContactTransformer::allPossibleEntities() {
  return Array{kContactsContact,       kContactsGroup, kContactsPhoneNumber, kContactsEmailAddress,
               kContactsStreetAddress, kContactsDate,  kContactsRelatedName, kContactsURL,
               kContactsIM,            kContactsCustomField};
}

// --- Formatting -----------------------------------------------------------------------------

std::optional<Dictionary> QVTSyncContactTransformer::formatRecord(const Dictionary& record) {
  const std::string entity = record.getString(kEngineRecordEntityNameKey);
  if (entity == kContactsContact) return formatContactRecord(record);
  if (entity == kContactsPhoneNumber) return formatPhoneNumberRecord(record);
  if (entity == kContactsEmailAddress) return formatEmailAddressRecord(record);
  if (entity == kContactsStreetAddress) return formatStreetAddressRecord(record);
  if (entity == kContactsRelatedName) return formatRelatedNameRecord(record);
  if (entity == kContactsURL) return formatURLRecord(record);
  if (entity == kContactsIM) return formatIMRecord(record);
  return record;
}

std::optional<Dictionary> QVTSyncContactTransformer::formatContactRecord(Dictionary record) {
  const std::shared_ptr<FormattingMethods>& methods = formattingMethods();
  if (_needsCompanyNameInFirstName && methods) {
    std::optional<Dictionary> folded =
        methods
            ->putCompanyInFirstName(record, _firstAndLastNameIsJustOneField, !_supportsCompanyName,
                                    _sizeNameField)
            .asDictionary();
    if (folded) record = *folded;
  }
  if (_firstAndLastNameIsJustOneField) {
    for (const char* key : {kContactsContactFirstName, kContactsContactLastName})
      if (isMissingOrEmpty(record.find(key))) record.set(key, "-");
    if (_sizeNameField > 0 && methods) {
      std::optional<Dictionary> cut =
          methods->maxFirstNameAndLastName(record, _sizeNameField, true, needsLFCount2X())
              .asDictionary();
      if (cut) record = *cut;
    }
  }

  // A birthday must be a date; text in the default's form is read as one.
  if (const Value* birthday = record.find(kContactsContactBirthday);
      birthday && !birthday->isNull() && !birthday->isDate()) {
    const std::string* text = birthday->asString();
    std::optional<CalendarDate> read =
        text ? CalendarDate::dateWithString(*text, "%Y-%m-%d") : std::nullopt;
    if (read) {
      record.set(kContactsContactBirthday,
                 CalendarDate::dateWithYear(read->yearOfCommonEra(), read->monthOfYear(),
                                            read->dayOfMonth(), 12, 0, 0));
    } else {
      QVT_LOG(kLogWarning, logDomain(), "birthday is not a date, removed: {}", *birthday);
      record.remove(kContactsContactBirthday);
    }
  }
  if (!record.contains(kContactsContactBirthday) && _defaultBirthday &&
      !_defaultBirthday->empty()) {
    if (std::optional<CalendarDate> day = CalendarDate::dateWithString(*_defaultBirthday, "%Y-%m-%d"))
      record.set(kContactsContactBirthday,
                 CalendarDate::dateWithYear(day->yearOfCommonEra(), day->monthOfYear(),
                                            day->dayOfMonth(), 12, 0, 0));
  }
  return record;
}

std::optional<Dictionary> QVTSyncContactTransformer::formatPhoneNumberRecord(Dictionary record) {
  const Value value = record.get(kContactsPhoneNumberValue);
  if (value.isNull()) return record;
  const std::string* text = value.asString();
  if (!text) {
    QVT_LOG(kLogWarning, logDomain(), "phone number is not a text, removed: {}", value);
    return std::nullopt;
  }
  if (*text == "+") return std::nullopt;
  if (_noPlusCharIfAtLeastOneNonDigitChar && hasPrefix(*text, "+")) {
    const std::string rest = text->substr(1);
    bool nonDigit = false;
    for (char c : rest) nonDigit = nonDigit || !isDigit(c);
    if (nonDigit) record.set(kContactsPhoneNumberValue, rest);
  }
  return record;
}

std::optional<Dictionary> QVTSyncContactTransformer::formatEmailAddressRecord(Dictionary record) {
  if (!_removeInvalidEmailAddresses) return record;
  const Value value = record.get(kContactsEmailAddressValue);
  const std::string* text = value.asString();
  if (!text) return std::nullopt;
  const std::size_t at = text->find('@');
  const bool twoParts = at != std::string::npos && text->find('@', at + 1) == std::string::npos;
  if (!twoParts || text->find('.', at + 1) == std::string::npos) return std::nullopt;
  return record;
}

std::optional<Dictionary> QVTSyncContactTransformer::formatStreetAddressRecord(Dictionary record) {
  if (!_needsFullAddressInStreetField) return record;
  const std::shared_ptr<FormattingMethods>& methods = formattingMethods();
  if (!methods) return record;
  std::optional<Dictionary> full =
      methods->putFullAddressInStreetField(record, noNewLines() ? " " : "\n", _sizeStreetField, true)
          .asDictionary();
  return full ? full : std::optional<Dictionary>(record);
}

void QVTSyncContactTransformer::formatAssembledRecord(Dictionary& record) {
  const std::optional<std::int64_t> maxDetails = _nokiaSeries40ContactMaxDetails.integerIfNumeric();
  if (!maxDetails || *maxDetails == 0) return;
  const std::shared_ptr<FormattingMethods>& methods = formattingMethods();
  if (methods)
    methods->formatContactNokiaSeries40(record, _nokiaSeries40ContactMaxDetails,
                                        _needsFullAddressInStreetField);
}

Value QVTSyncContactTransformer::preFormatField(const Value& value, const std::string& attribute,
                                                const std::string& entity) {
  const Value filtered = QVTSyncDataClassHelper::preFormatField(value, attribute, entity);
  if (entity == kContactsPhoneNumber && attribute == kContactsPhoneNumberValue)
    return formatPhoneNumberValue(filtered);
  if (entity == kContactsURL && attribute == kContactsURLValue) return formatURLValue(filtered);
  return filtered;
}

Value QVTSyncContactTransformer::formatPhoneNumberValue(const Value& value) const {
  const std::string* text = value.asString();
  if (!text || !_shouldReplaceCapitalLettersInPhoneNumbers) return value;
  return Value(FormattingMethods::convertPhoneNameToPhoneNumber(std::string_view(*text)));
}

Value QVTSyncContactTransformer::formatURLValue(const Value& value) const {
  if (!_defaultSchemaForURLs || _defaultSchemaForURLs->empty()) return value;
  const URL* url = value.asURL();
  const std::string* string = value.asString();
  if (!url && !string) return value;
  const std::string& text = url ? url->absoluteString() : *string;
  if (text.empty() || hasScheme(text)) return value;
  std::string withScheme = fmt::format("{}://{}", *_defaultSchemaForURLs, text);
  if (!isValidURLText(withScheme)) return value;
  return url ? Value(URL(std::move(withScheme))) : Value(std::move(withScheme));
}

// --- Unmangling ---------------------------------------------------------------------------------

void QVTSyncContactTransformer::unmangleRecordAfterReadingFromDevice(RecordHolder& holder) {
  Dictionary record = holder.mutableDictionary();
  const std::string entity = record.contains(kEngineRecordEntityNameKey)
                                 ? record.getString(kEngineRecordEntityNameKey)
                                 : std::string(kContactsContact);
  unmangleOneRecord(record, entity);
  if (entity != kContactsContact) return;
  for (const SubRelation& sub : kSubRelations) {
    const std::optional<Array> list = record.getArray(sub.relation);
    if (!list) continue;
    for (const Value& element : *list)
      if (std::optional<Dictionary> subRecord = element.asDictionary())
        unmangleOneRecord(*subRecord, sub.entity);
  }
}

void QVTSyncContactTransformer::unmangleOneRecord(Dictionary& record,
                                                  const std::string& entity) const {
  if (!record.contains(kEngineRecordEntityNameKey)) record.set(kEngineRecordEntityNameKey, entity);
  if (auto fields = _mappings.find(entity); fields != _mappings.end()) {
    for (const auto& [field, mapping] : fields->second) {
      const Value* value = record.find(field);
      if (!value || value->isNull()) {
        if (!mapping->defaultValue().isNull()) record.set(field, mapping->defaultValue().deepCopy());
      } else if (mapping->allTransportValues().contains(*value)) {
        const Value engineValue = mapping->SSValueFomTransportValue(*value);
        if (engineValue.isNull()) record.remove(field);
        else record.set(field, engineValue);
      }
    }
  }
  for (const char* typed : kTypedEntities) {
    if (entity != typed) continue;
    const Value* type = record.find("type");
    if (type && !type->isNull()) break;
    const Value fallback = SyncClientState::defaultValueForAttribute("type", entity);
    if (!fallback.isNull()) record.set("type", fallback);
    break;
  }
}

// --- Record assembler -------------------------------------------------------------------------

Array QVTSyncContactTransformer::masterRelationKeysForMasterEntity(const std::string&) {
  Array keys;
  for (const SubRelation& sub : kSubRelations) keys.add(sub.relation);
  return keys;
}

Dictionary QVTSyncContactTransformer::relationKeysToSubEntitiesForMasterEntity(const std::string&) {
  Dictionary relations;
  for (const SubRelation& sub : kSubRelations) relations.set(sub.relation, sub.entity);
  return relations;
}

Dictionary QVTSyncContactTransformer::entityToBackRelationShipForMasterEntity(const std::string&) {
  Dictionary back;
  for (const SubRelation& sub : kSubRelations) back.set(sub.entity, sub.backRelation);
  return back;
}

std::string QVTSyncContactTransformer::backRelationOfEntity(const std::string& entity,
                                                            const std::string&) {
  for (const SubRelation& sub : kSubRelations)
    if (entity == sub.entity) return sub.backRelation;
  return std::string();
}

Array QVTSyncContactTransformer::extraKeysForMasterEntity(const std::string&) { return Array(); }

int QVTSyncContactTransformer::comparePhoneNumbers(const Value& left, const Value& right,
                                                   const Dictionary& records) {
  return compareTypes(left, right, records, kContactsPhoneNumberType, kPhoneNumberTypeOrder);
}

int QVTSyncContactTransformer::compareBasicTypes(const Value& left, const Value& right,
                                                 const Dictionary& records) {
  return compareTypes(left, right, records, "type", kBasicTypeOrder);
}

void QVTSyncContactTransformer::sortRelation(const std::string&, Array& identifiers,
                                             const Dictionary& records, const std::string& entity) {
  if (identifiers.empty() || identifiers.count() != records.count()) return;
  auto byRecords = [&records](int (*compare)(const Value&, const Value&, const Dictionary&)) {
    return [&records, compare](const Value& a, const Value& b) { return compare(a, b, records); };
  };
  if (entity == kContactsPhoneNumber)
    stableSort(identifiers, byRecords(&comparePhoneNumbers));
  else if (entity == kContactsEmailAddress || entity == kContactsURL ||
           entity == kContactsStreetAddress)
    stableSort(identifiers, byRecords(&compareBasicTypes));
}

}  // namespace pc
