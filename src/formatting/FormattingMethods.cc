#include "formatting/FormattingMethods.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>

#include "async/Log.h"
#include "calcore/CALEventExploder.h"
#include "conduit/SyncClientState.h"
#include "engine/SchemaNames.h"
#include "engine/SyncEngine.h"
#include "formatting/FormattingKeys.h"
#include "formatting/FormattingMethodsPrivate.h"
#include "formatting/Invocation.h"
#include "platform/Exception.h"
#include "calcore/CalendarDateExtension.h"
#include "util/QVTStringExtensions.h"
#include "util/StringEncoding.h"
#include "util/SyncCategory.h"

namespace pc {

using namespace formatting_keys;

PC_REGISTER_CLASS(FormattingMethods, "");

namespace {

// --- Helpers over records ---------------------------------------------------

std::optional<std::string> stringFor(const Dictionary& record, const char* key) {
  const Value* value = record.find(key);
  if (!value || !value->isString()) return std::nullopt;
  return value->string();
}

bool isEmptyString(const std::optional<std::string>& text) { return !text || text->empty(); }

// Stores a non-empty text, removes the key otherwise.
void storeOrRemove(Dictionary& record, const char* key, const std::optional<std::string>& text) {
  if (isEmptyString(text)) record.remove(key);
  else record.set(key, *text);
}

// Line ends become "\n", white space and newlines at both ends go; an empty
// result removes the key.
void cleanRecordForKey(Dictionary& record, const char* key) {
  static const CharacterSet blanks = CharacterSet::whitespaceAndNewlineCharacterSet();
  const Value* value = record.find(key);
  const std::string* text = value ? value->asString() : nullptr;
  if (!text) return;
  // Most texts are clean: no carriage return, and both ends an ASCII
  // character that is not blank. Those are left as they stand, uncopied.
  const auto cleanEnd = [](char c) {
    return static_cast<unsigned char>(c) < 0x80 && !blanks.characterIsMember(static_cast<char32_t>(c));
  };
  if (!text->empty() && cleanEnd(text->front()) && cleanEnd(text->back()) &&
      text->find('\r') == std::string::npos)
    return;
  std::string cleaned = *text;
  if (cleaned.find('\r') != std::string::npos) {
    cleaned = replaceOccurrences(cleaned, "\r\n", "\n");
    cleaned = replaceOccurrences(cleaned, "\r", "\n");
  }
  cleaned = trimCharacters(cleaned, blanks);
  // A clean text stays as it is: most are, and storing it again costs a copy.
  // An empty one still goes.
  if (cleaned.empty() || cleaned != *text) storeOrRemove(record, key, cleaned);
}

std::string trimmed(std::string_view text) {
  return trimCharacters(text, CharacterSet::whitespaceAndNewlineCharacterSet());
}

std::optional<std::string> removeCommaAndSemiColonAndEnsureNotEmptyIfNeeded(
    const std::optional<std::string>& text, bool removeSemiColon, bool ensureNotEmpty) {
  const std::optional<std::string> empty =
      ensureNotEmpty ? std::optional<std::string>("-") : std::nullopt;
  if (isEmptyString(text)) return empty;
  std::string result;
  for (char c : *text)
    if (c != ',' && !(removeSemiColon && c == ';')) result += c;
  return result.empty() ? empty : std::optional<std::string>(result);
}

std::size_t countOf(const Dictionary& record, const char* key) {
  const Value* value = record.find(key);
  if (!value) return 0;
  if (auto array = value->asArray()) return array->count();
  return 0;
}

// The integer of a number or numeric string.
std::optional<std::int64_t> integerOf(const Value& value) {
  if (value.isNumber() || value.isString()) return value.integerIfNumeric();
  return std::nullopt;
}

const CalendarDate* dateFor(const Dictionary& record, const char* key) {
  const Value* value = record.find(key);
  return value ? value->asDate() : nullptr;
}

bool sameDay(const CalendarDate& a, const CalendarDate& b) {
  return a.yearOfCommonEra() == b.yearOfCommonEra() && a.monthOfYear() == b.monthOfYear() &&
         a.dayOfMonth() == b.dayOfMonth();
}

// True when `later` is after `reference` on the same calendar day, each read
// at midday of its own zone so that zone offsets cannot move either day.
bool laterOnSameDay(const CalendarDate& later, const CalendarDate& reference) {
  const CalendarDate a = CalendarExtension::convertToMiddayInTimeZone(later, later.timeZone());
  const CalendarDate b =
      CalendarExtension::convertToMiddayInTimeZone(reference, reference.timeZone());
  return later > reference && sameDay(a, b);
}

// --- Registration -------------------------------------------------------------

struct SelectorCatalogue {
  std::mutex lock;
  std::vector<std::string> classes;
  std::map<std::string, std::vector<FormattingMethods::Selector>> selectors;
  static SelectorCatalogue& shared() {
    static SelectorCatalogue* catalogue = new SelectorCatalogue;  // lives until exit
    return *catalogue;
  }
};

}  // namespace

void FormattingMethods::registerSelector(const std::string& className, const std::string& selector,
                                         const std::string& argumentTypes,
                                         std::function<Value(Object&, std::vector<Value>&)> call) {
  MethodTable::registerMethod(className, selector, argumentTypes, std::move(call));
  SelectorCatalogue& catalogue = SelectorCatalogue::shared();
  std::lock_guard<std::mutex> guard(catalogue.lock);
  if (std::find(catalogue.classes.begin(), catalogue.classes.end(), className) ==
      catalogue.classes.end())
    catalogue.classes.push_back(className);
  catalogue.selectors[className].push_back({selector, argumentTypes});
}

std::vector<FormattingMethods::Selector> FormattingMethods::registeredSelectors(
    const std::string& className) {
  SelectorCatalogue& catalogue = SelectorCatalogue::shared();
  std::lock_guard<std::mutex> guard(catalogue.lock);
  auto found = catalogue.selectors.find(className);
  return found == catalogue.selectors.end() ? std::vector<Selector>() : found->second;
}

std::vector<std::string> FormattingMethods::formattingClassNames() {
  SelectorCatalogue& catalogue = SelectorCatalogue::shared();
  std::lock_guard<std::mutex> guard(catalogue.lock);
  std::vector<std::string> names = catalogue.classes;
  // The base first, then the families by name.
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    if ((a == "FormattingMethods") != (b == "FormattingMethods")) return a == "FormattingMethods";
    return a < b;
  });
  return names;
}

const std::string& FormattingMethods::logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncFormattingMethods"));
  return domain;
}

// --- Creation -----------------------------------------------------------------

FormattingMethods::FormattingMethods()
    : alljunk(*_newJunkCharacterSetWithString("*#")), reserved(std::make_unique<Reserved>()) {
  reserved->junk = *_newJunkCharacterSetWithString("p*#");
}

FormattingMethods::~FormattingMethods() { releaseContext(); }

void FormattingMethods::initWithDictionary(const std::optional<Dictionary>&,
                                           std::shared_ptr<DeviceSyncService>,
                                           std::shared_ptr<SyncEngineClient> client) {
  TimeZonePtr zone = client ? SyncClientState::currentTimeZone(*client) : nullptr;
  reserved->phoneTimeZone = zone ? zone : TimeZone::systemTimeZone();
}

void FormattingMethods::initWithDictionary(const std::optional<Dictionary>& description,
                                           const std::string&,
                                           std::shared_ptr<DeviceSyncService> service,
                                           std::shared_ptr<SyncEngineClient> client) {
  initWithDictionary(description, std::move(service), std::move(client));
}

void FormattingMethods::_setSnapShot(std::shared_ptr<const TruthSnapshot> snapShot) {
  if (snapShot == _snapShot) return;
  _snapShot = std::move(snapShot);
}

TimeZonePtr FormattingMethods::phoneTimeZone() const {
  return reserved->phoneTimeZone ? reserved->phoneTimeZone : TimeZone::systemTimeZone();
}

// --- Class operations on strings ------------------------------------------------

void FormattingMethods::removeFromString(std::string& string, const CharacterSet& characters) {
  QVTStringExtensions::deleteCharactersFromSet(string, characters);
}

void FormattingMethods::replaceFromString(std::string& string, const CharacterSet& characters,
                                          std::string_view byString) {
  QVTStringExtensions::replaceCharactersFromSet(string, characters, byString, true);
}

std::unique_ptr<CharacterSet> FormattingMethods::_newJunkCharacterSetWithString(
    std::string_view keep) {
  CharacterSet junk = CharacterSet::decimalDigitCharacterSet().invertedSet();
  junk.removeCharactersInString(keep);
  return std::make_unique<CharacterSet>(std::move(junk));
}

CharacterSet FormattingMethods::junkCharacterSetWithString(std::string_view keep) {
  return *_newJunkCharacterSetWithString(keep);
}

std::string FormattingMethods::convertPhoneNameToPhoneNumber(std::string_view string) {
  // The telephone keypad: ABC 2, DEF 3, GHI 4, JKL 5, MNO 6, PQRS 7, TUV 8, WXYZ 9.
  static constexpr char kKeypad[] = "22233344455566677778889999";
  std::string result(string);
  for (char& c : result)
    if (c >= 'A' && c <= 'Z') c = kKeypad[c - 'A'];
  return result;
}

std::optional<std::string> FormattingMethods::removeAllButFirstPlus(
    const std::optional<std::string>& string, const CharacterSet* junk) {
  if (!string) return std::nullopt;
  QVT_CHECK(junk);
  const bool plus = hasPrefix(*string, "+");
  std::string result = *string;
  if (junk) removeFromString(result, *junk);
  // Re-inserted only when removal took it away (a missing set removes nothing).
  if (plus && !hasPrefix(result, "+")) result = "+" + result;
  return result;
}

// --- Snapshot ---------------------------------------------------------------------

Value FormattingMethods::recordWithIdentifier(const Value& identifier) {
  QVT_CHECK(_snapShot);
  if (!_snapShot) return Value();
  return _snapShot->recordsWithIdentifiers(Array{identifier});
}

Value FormattingMethods::mainRecordFromRelation(const Value& relation) {
  const std::optional<Array> identifiers = relation.asArray();
  if (!identifiers || identifiers->count() != 1) {
    QVT_LOG(kLogWarning, logDomain(), "strange relation");
    return Value();
  }
  const Value& target = identifiers->at(0);
  // An assembled record holds its related records in place of their identifiers.
  if (target.isDictionary()) return target;
  const Value found = recordWithIdentifier(target);
  if (auto records = found.asDictionary(); records && !records->empty())
    return records->values().first();
  return Value();
}

// --- Chaining invocations -----------------------------------------------------------

Value FormattingMethods::_catenateInvocation(const Value& value, const Value& invocations) {
  Value current = value;
  if (auto list = invocations.asArray()) {
    for (const Value& element : *list)
      if (auto invocation = element.objectAs<Invocation>()) current = invocation->invokeWithValue(current);
  }
  return current;
}

Value FormattingMethods::onObject(const Value& object, const Value& subRecord,
                                  const Value& doInvocations) {
  QVT_LOG(kLogInfo, logDomain(), "here");
  Value current = subRecord;
  if (auto list = doInvocations.asArray()) {
    for (const Value& element : *list) {
      auto invocation = element.objectAs<Invocation>();
      if (!invocation) continue;
      invocation->setArgument(object, 0);
      invocation->setArgument(current, 1);
      current = invocation->invoke();
      if (current.isNull()) break;
    }
  }
  return current;
}

// --- Values -------------------------------------------------------------------------

Value FormattingMethods::clearField(const Value&) { return Value(); }

// A description's constant goes into a record as a copy of its own: a later
// formatting step that changes the record in place must not change the
// constant for the records formatted after it.
Value FormattingMethods::setFieldToValue(const Value&, const Value& constant) {
  return constant.deepCopy();
}

Value FormattingMethods::setIfNotSet(const Value& value, const Value& defaultVal) {
  return value.isNull() ? defaultVal.deepCopy() : value;
}

Value FormattingMethods::setStringIfNotSet(const Value& value, const Value& defaultVal) {
  if (value.isNull()) return defaultVal.deepCopy();
  if (auto text = value.asString(); text && text->empty()) return defaultVal.deepCopy();
  return value;
}

Value FormattingMethods::setClassificationIfNotSet(const Value& value) {
  return setIfNotSet(value, "public");
}

Value FormattingMethods::setStatusDefaultIfNotSet(const Value& value) {
  return setIfNotSet(value, "needsaction");
}

Value FormattingMethods::mapString(const Value& value, const Value& map) {
  if (auto dictionary = map.asDictionary())
    if (const Value* mapped = dictionary->find(value)) return *mapped;
  return value;
}

Value FormattingMethods::maxLength(const Value& value, int length, const Value& modifiers) {
  if (const URL* address = value.asURL()) {
    std::optional<URL> cut = SyncCategory::qvt_truncationToMaxLength(*address, length);
    return cut ? Value(*cut) : Value();
  }
  const std::string* text = value.asString();
  if (!text) return value;
  // A text that fits is answered as the value it came in, not as a new copy.
  bool unchanged = false;
  std::optional<std::string> cut =
      SyncCategory::qvt_truncationToMaxLength(*text, length, modifiers.asArray(), &unchanged);
  if (unchanged) return value;
  return cut ? Value(std::move(*cut)) : Value();
}

Value FormattingMethods::maxLength(const Value& value, int length) {
  return maxLength(value, length, Value());
}

Value FormattingMethods::maxLengthForVObjectPropValue(const Value& value, int length) {
  static const Value kLineFeedCountsTwice =
      Array{Dictionary{{"stringModifier", "\n"}, {"lengthModifier", -1}}};
  return maxLength(value, length, kLineFeedCountsTwice);
}

Value FormattingMethods::maxURLLength(const Value& value, int length) {
  return maxLength(value, length);
}

Value FormattingMethods::ensureNotEmpty(const Value& value) {
  if (value.isNull()) return "-";
  if (auto text = value.asString(); text && text->empty()) return "-";
  return value;
}

Value FormattingMethods::convertPhoneNameToPhoneNumber(const Value& value) {
  const std::string* text = value.asString();
  return text ? Value(convertPhoneNameToPhoneNumber(std::string_view(*text))) : value;
}

Value FormattingMethods::removeBadCharactersFromString(const Value& value,
                                                       const Value& andKeepCharactersFromList) {
  const std::string* text = value.asString();
  if (!text) return value;
  const CharacterSet bad =
      CharacterSet::characterSetWithCharactersInString(andKeepCharactersFromList.stringValue())
          .invertedSet();
  std::string result = *text;
  removeFromString(result, bad);
  return result;
}

Value FormattingMethods::replaceWhiteSpaceByHyphen(const Value& value) {
  const std::string* text = value.asString();
  if (!text) return value;
  std::string result = *text;
  replaceFromString(result, CharacterSet::whitespaceCharacterSet(), "-");
  return result;
}

Value FormattingMethods::removeWhiteSpace(const Value& value) {
  const std::string* text = value.asString();
  if (!text) return value;
  std::string result = *text;
  removeFromString(result, CharacterSet::whitespaceCharacterSet());
  return result;
}

Value FormattingMethods::removeAllNonDigitButFirstPlus(const Value& value) {
  const std::string* text = value.asString();
  if (!text) return value;
  return *removeAllButFirstPlus(*text, &reserved->junk);
}

Value FormattingMethods::removeAllNonDigitButFirstPlusS55(const Value& value) {
  const std::string* text = value.asString();
  if (!text) return value;
  return *removeAllButFirstPlus(*text, &alljunk);
}

Value FormattingMethods::mapPriorityLikeAlmanac(const Value& priority, int withPriorityMax,
                                                int noPriorityValue) {
  // Desktop priorities run 1 (highest) to 9 (lowest), 0 for none; the phone's
  // run 1 to withPriorityMax. Map to the phone and back, rounding half to even.
  const double f = withPriorityMax - 1;
  auto round = [](double x) { return static_cast<std::int64_t>(std::nearbyint(x)); };
  auto toDesktop = [&](std::int64_t phone) {
    return f > 0 ? 1 + round((phone - 1) * 8 / f) : 1;
  };
  std::int64_t p = integerOf(priority).value_or(0);
  if (p == 0) return noPriorityValue != 0 ? Value(toDesktop(noPriorityValue)) : priority;
  if (p > 9) {
    QVT_LOG(kLogError, QVTLOG, "{} parameter invalid", "strange val is too big");
    p = 9;
  }
  const std::int64_t q = f > 0 ? 1 + round((p - 1) * f / 8) : 1;
  const std::int64_t r = toDesktop(q);
  return r == integerOf(priority) ? priority : Value(r);
}

// --- Contacts ---------------------------------------------------------------------------

Value FormattingMethods::replaceFromStringValuesOfRecord(const Value& record, const Value& string,
                                                         const Value& withString) {
  auto dictionary = record.asDictionary();
  const std::string find = string.stringValue();
  if (!dictionary || find.empty()) return record;
  const std::string replacement = withString.isNull() ? "" : withString.stringValue();
  for (auto& [key, value] : *dictionary) {
    if (key == Value(kEngineRecordEntityNameKey)) continue;
    if (const std::string* text = value.asString())
      value = replaceOccurrences(*text, find, replacement);
  }
  return record;
}

Value FormattingMethods::replaceLineFeedFromStringValuesOfRecord(const Value& record,
                                                                 const Value& withString) {
  return replaceFromStringValuesOfRecord(record, "\n", withString);
}

Value FormattingMethods::standardFormatContact(const Value& record) {
  auto contact = record.asDictionary();
  if (!contact) return record;
  for (const char* key : {kContactsContactFirstName, kContactsContactLastName,
                          kContactsContactMiddleName, kContactsContactSuffix, kContactsContactTitle,
                          kContactsContactCompanyName, kContactsContactDepartment,
                          kContactsContactJobTitle, kContactsContactNotes})
    cleanRecordForKey(*contact, key);
  return record;
}

Value FormattingMethods::standardFormatStreetAddresses(const Value& record) {
  auto address = record.asDictionary();
  if (!address) return record;
  bool any = false;
  for (const char* key : {kContactsStreetAddressStreet, kContactsStreetAddressCity,
                          kContactsStreetAddressState, kContactsStreetAddressPostalCode,
                          kContactsStreetAddressCountry, kContactsStreetAddressCountryCode}) {
    cleanRecordForKey(*address, key);
    any = any || address->contains(key);
  }
  return any ? record : Value();
}

Value FormattingMethods::standardFormatURL(const Value& record) {
  auto url = record.asDictionary();
  if (!url || !url->contains(kContactsURLValue)) return Value();
  return record;
}

Value FormattingMethods::standardFormatEMail(const Value& record) {
  auto mail = record.asDictionary();
  if (!mail) return Value();
  cleanRecordForKey(*mail, kContactsEmailAddressValue);
  const std::optional<std::string> address = stringFor(*mail, kContactsEmailAddressValue);
  if (isEmptyString(address) ||
      !QVTStringExtensions::qvt_canReallyBeEncodedLosslessInEncoding(*address,
                                                                     StringEncoding::ASCII)) {
    QVT_LOG(kLogInfo, logDomain(), "Dropping illegal email address: {}", address.value_or(""));
    return Value();
  }
  return record;
}

Value FormattingMethods::standardFormatPhoneNumber(const Value& record) {
  auto number = record.asDictionary();
  if (!number) return Value();
  const Value* value = number->find(kContactsPhoneNumberValue);
  if (!value || value->isNull()) return Value();
  if (auto text = value->asString(); text && text->empty()) return Value();
  return record;
}

Value FormattingMethods::putFullAddressInStreetField(const Value& record, const Value& separator,
                                                     int maxLength, bool clearItAfter) {
  auto address = record.asDictionary();
  if (!address) return record;
  static const char* const kParts[] = {kContactsStreetAddressStreet, kContactsStreetAddressCity,
                                       kContactsStreetAddressState, kContactsStreetAddressPostalCode,
                                       kContactsStreetAddressCountry};
  const std::string between = separator.isNull() ? "" : separator.stringValue();
  std::string full;
  bool first = true;
  for (const char* key : kParts) {
    cleanRecordForKey(*address, key);
    if (auto part = stringFor(*address, key)) {
      full += (first ? "" : between) + *part;
      first = false;
    }
  }
  const Value cut = maxLengthForVObjectPropValue(full, maxLength);
  full = cut.isString() ? trimmed(cut.string()) : "";
  QVT_LOG(kLogInfo, logDomain(), "[putFullAddressInStreetField] Formatted address: {}", full);
  storeOrRemove(*address, kContactsStreetAddressStreet, full);
  if (clearItAfter)
    for (const char* key : kParts)
      if (key != kContactsStreetAddressStreet) address->remove(key);
  return record;
}

Value FormattingMethods::putCompanyInFirstName(const Value& record, bool removeSpace,
                                               bool clearItAfter, int maxLength) {
  auto contact = record.asDictionary();
  if (!contact) return record;
  const std::optional<std::string> first = stringFor(*contact, kContactsContactFirstName);
  const std::optional<std::string> last = stringFor(*contact, kContactsContactLastName);
  const std::optional<std::string> company = stringFor(*contact, kContactsContactCompanyName);
  const bool noName = (isEmptyString(first) && isEmptyString(last)) || (first == "-" && last == "-");
  if (noName && !isEmptyString(company)) {
    Value name = *company;
    if (removeSpace) name = replaceWhiteSpaceByHyphen(name);
    if (maxLength > 0) name = maxLengthForVObjectPropValue(name, maxLength);
    storeOrRemove(*contact, kContactsContactFirstName,
                  name.isString() ? std::optional<std::string>(trimmed(name.string())) : std::nullopt);
  }
  if (clearItAfter) contact->remove(kContactsContactCompanyName);
  return record;
}

Value FormattingMethods::putCompanyInFirstName(const Value& record, bool removeSpace,
                                               bool clearItAfter) {
  return putCompanyInFirstName(record, removeSpace, clearItAfter, 0);
}

Value FormattingMethods::putCompanyInFirstName(const Value& record, bool clearItAfter) {
  return putCompanyInFirstName(record, false, clearItAfter);
}

Value FormattingMethods::putCompanyInFirstName(const Value& record) {
  return putCompanyInFirstName(record, true);
}

Value FormattingMethods::formatContactSonyEricsson(const Value& record, bool clearCompanyName,
                                                   bool removeSemiColon) {
  auto contact = record.asDictionary();
  if (!contact) return record;
  putCompanyInFirstName(record, true, clearCompanyName);
  for (const char* key : {kContactsContactFirstName, kContactsContactLastName})
    storeOrRemove(*contact, key,
                  removeCommaAndSemiColonAndEnsureNotEmptyIfNeeded(stringFor(*contact, key),
                                                                   removeSemiColon, true));
  storeOrRemove(*contact, kContactsContactCompanyName,
                removeCommaAndSemiColonAndEnsureNotEmptyIfNeeded(
                    stringFor(*contact, kContactsContactCompanyName), removeSemiColon, false));
  return record;
}

Value FormattingMethods::maxFirstNameAndLastName(const Value& record, int length,
                                                 bool firstNameFirst, bool needsLFCount2X) {
  auto contact = record.asDictionary();
  if (!contact) return record;
  const Value hyphenated = replaceWhiteSpaceByHyphen(contact->get(kContactsContactFirstName));
  std::string first = hyphenated.isString() ? hyphenated.string() : "";
  std::string last = stringFor(*contact, kContactsContactLastName).value_or("");
  auto cut = [&](std::string& text, long units) {
    units = std::max(0L, units);
    if (needsLFCount2X) {
      const Value result = maxLengthForVObjectPropValue(text, static_cast<int>(units));
      text = result.isString() ? result.string() : "";
    } else {
      text = utf16Prefix(text, static_cast<std::size_t>(units));
    }
  };
  const long firstLength = static_cast<long>(utf16Length(first));
  const long lastLength = static_cast<long>(utf16Length(last));
  if (last.empty() && firstNameFirst) {
    if (firstLength > length) cut(first, length);
  } else if (!first.empty() || firstNameFirst) {
    if (firstLength + lastLength + 1 > length) {
      const long a = (length - 1) / 2;
      const long b = length - a - 1;
      if (firstLength > a && lastLength > b) {
        cut(first, a);
        cut(last, b);
      } else if (firstLength > a) {
        cut(first, length - lastLength - 1);
      } else {
        cut(last, length - firstLength - 1);
      }
    }
  } else if (lastLength > length) {
    cut(last, length);
  }
  storeOrRemove(*contact, kContactsContactFirstName, trimmed(first));
  storeOrRemove(*contact, kContactsContactLastName, trimmed(last));
  return record;
}

Value FormattingMethods::formatContactNokiaSeries40SecondEd(const Value& record) {
  return formatContactNokiaSeries40(record, 5, true);
}

Value FormattingMethods::formatContactNokiaSeries40(const Value& record, const Value& withMaxDetails,
                                                    bool streetAdrIsADetail) {
  auto contact = record.asDictionary();
  if (!contact) return record;
  const std::int64_t maxDetails = integerOf(withMaxDetails).value_or(0);
  const bool notes = !isEmptyString(stringFor(*contact, kContactsContactNotes));
  // The kinds of detail that share the budget, in the order they take turns.
  std::vector<const char*> kinds = {kContactsContactEmailAddresses, kContactsContactURLs};
  if (streetAdrIsADetail) kinds.push_back(kContactsContactStreetAddresses);
  std::vector<std::size_t> counts;
  std::int64_t total = notes ? 1 : 0;
  for (const char* kind : kinds) {
    counts.push_back(countOf(*contact, kind));
    total += static_cast<std::int64_t>(counts.back());
  }
  if (maxDetails >= total) return record;
  std::int64_t budget = maxDetails - (notes ? 1 : 0);
  std::vector<std::size_t> shares(kinds.size(), 0);
  for (bool given = true; budget > 0 && given;) {
    given = false;
    for (std::size_t i = 0; i < kinds.size() && budget > 0; ++i) {
      if (shares[i] < counts[i]) {
        ++shares[i];
        --budget;
        given = true;
      }
    }
  }
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    if (shares[i] >= counts[i]) continue;
    // Cut a list of the contact's own: the one it holds may be shared with
    // the engine's record.
    Array list = contact->get(kinds[i]).array().copy();
    list.removeRange(shares[i], counts[i] - shares[i]);
    contact->set(kinds[i], Value(list));
  }
  return record;
}

// --- Events, tasks, recurrences --------------------------------------------------------

Value FormattingMethods::standardFormatEvent(const Value& record) {
  auto event = record.asDictionary();
  if (!event || !event->contains(kCalendarsEventStartDate)) {
    QVT_LOG(kLogError, logDomain(), "record with no start date");
    return Value();
  }
  if (!event->contains(kCalendarsEventAllDay)) event->set(kCalendarsEventAllDay, false);
  if (!event->contains(kCalendarsEventEndDate))
    event->set(kCalendarsEventEndDate, event->get(kCalendarsEventStartDate));
  if (!event->contains(kCalendarsEventClassification))
    event->set(kCalendarsEventClassification, "public");
  for (const char* key : {kCalendarsEventSummary, kCalendarsEventDescription, kCalendarsEventLocation})
    cleanRecordForKey(*event, key);
  if (auto exDates = event->getArray(kCalendarsEventExceptionDates)) {
    Array normalized = CalendarUtilities::normalizedExDates(*exDates);
    if (normalized.empty()) event->remove(kCalendarsEventExceptionDates);
    else event->set(kCalendarsEventExceptionDates, normalized);
  } else {
    event->remove(kCalendarsEventExceptionDates);
  }
  return record;
}

Value FormattingMethods::standardFormatTask(const Value& record) {
  auto task = record.asDictionary();
  if (!task) return record;
  if (!task->contains(kCalendarsTaskStatus)) task->set(kCalendarsTaskStatus, "none");
  if (!task->contains(kCalendarsTaskClassification))
    task->set(kCalendarsTaskClassification, "public");
  if (!task->contains(kCalendarsTaskPriority)) task->set(kCalendarsTaskPriority, 0);
  for (const char* key : {kCalendarsTaskSummary, kCalendarsTaskDescription})
    cleanRecordForKey(*task, key);
  if (task->contains(kCalendarsTaskDueDate)) {
    if (!task->contains(kCalendarsTaskDueDateIsDateOnly))
      task->set(kCalendarsTaskDueDateIsDateOnly, false);
  } else {
    task->remove(kCalendarsTaskDueDateIsDateOnly);
  }
  return record;
}

Value FormattingMethods::formatRecurrenceSortByDayDays(const Value& recurrence) {
  auto rule = recurrence.asDictionary();
  if (!rule) return recurrence;
  const std::optional<Array> days = rule->getArray(kCalendarsRecurrenceBydaydays);
  const std::optional<Array> frequencies = rule->getArray(kCalendarsRecurrenceBydayfreq);
  if (!days || !frequencies || days->count() != frequencies->count()) return recurrence;
  static const char* const kWeek[] = {"sunday",   "monday", "tuesday", "wednesday",
                                      "thursday", "friday", "saturday"};
  std::optional<Value> frequencyOfDay[7];
  for (std::size_t i = 0; i < days->count(); ++i) {
    for (int d = 0; d < 7; ++d)
      if (days->at(i) == Value(kWeek[d])) frequencyOfDay[d] = frequencies->at(i);
  }
  Array sortedDays, sortedFrequencies;
  for (int d = 0; d < 7; ++d) {
    if (!frequencyOfDay[d]) continue;
    sortedDays.add(kWeek[d]);
    sortedFrequencies.add(*frequencyOfDay[d]);
  }
  rule->set(kCalendarsRecurrenceBydaydays, sortedDays);
  rule->set(kCalendarsRecurrenceBydayfreq, sortedFrequencies);
  return recurrence;
}

Value FormattingMethods::standardFormatRecurrence(const Value& recurrence) {
  return formatRecurrenceSortByDayDays(recurrence);
}

namespace {

using RuleConversion = Dictionary (*)(Dictionary, const Dictionary&);

}  // namespace

// Converts the limit of a recurrence through the event exploder, given its
// owner event. A conversion that fails leaves the recurrence as it was.
static Value convertRecurrenceLimit(FormattingMethods& methods, const Value& recurrence,
                                    RuleConversion conversion, const std::string& domain) {
  auto rule = recurrence.asDictionary();
  if (!rule) return recurrence;
  const Value owner = methods.mainRecordFromRelation(rule->get(kCalendarsRecurrenceOwner));
  auto event = owner.asDictionary();
  if (!event) return Value();
  try {
    return conversion(*rule, *event);
  } catch (...) {
    QVT_LOG(kLogError, domain, "strange recurrence:\n{}", recurrence);
    return recurrence;
  }
}

Value FormattingMethods::convertRecurrenceLimitToDate(const Value& recurrence) {
  auto rule = recurrence.asDictionary();
  if (!rule || !rule->contains(kCalendarsRecurrenceCount)) return recurrence;
  const Value result = convertRecurrenceLimit(
      *this, recurrence, &CALEventExploder::convertRuleFromCountToUntilDate, logDomain());
  if (result.isNull()) QVT_LOG(kLogError, logDomain(), "strange recurrence:\n{}", recurrence);
  return result;
}

Value FormattingMethods::convertRecurrenceLimitToCount(const Value& recurrence) {
  const Value result = convertRecurrenceLimit(
      *this, recurrence, &CALEventExploder::convertRuleFromUntilDateToCount, logDomain());
  return result.isNull() ? recurrence : result;
}

Value FormattingMethods::convertRecurrenceLimitToLastOcurrenceDate(const Value& recurrence) {
  const Value result = convertRecurrenceLimit(
      *this, recurrence, &CALEventExploder::convertRuleFromUntilDateToLastOcurrenceDate,
      logDomain());
  return result.isNull() ? recurrence : result;
}

// --- Alarms ------------------------------------------------------------------------------

Value FormattingMethods::genericAlarmFilter(const Value& record, const Value& alarm) {
  if (auto built = record.asDictionary()) {
    if (countOf(*built, kCalendarsEventAudioAlarms) > 0 ||
        countOf(*built, kCalendarsEventDisplayAlarms) > 0)
      return Value();
  }
  return alarm;
}

Value FormattingMethods::genericAlarmFilterWithNoAlarmOnEventOrAfter(const Value& record,
                                                                     const Value& alarm) {
  if (genericAlarmFilter(record, alarm).isNull()) return Value();
  auto trigger = alarm.asDictionary();
  if (!trigger) return Value();
  if (const Value* offset = trigger->find(kCalendarsAudioAlarmTriggerduration)) {
    return integerOf(*offset).value_or(0) < 0 ? alarm : Value();
  }
  // The record being built keeps the entity and dates of the engine's record.
  const CalendarDate* reference = nullptr;
  if (auto source = record.asDictionary()) {
    const std::string entity = source->getString(kEngineRecordEntityNameKey);
    if (entity == kCalendarsEvent) reference = dateFor(*source, kCalendarsEventStartDate);
    else if (entity == kCalendarsTask) reference = dateFor(*source, kCalendarsTaskDueDate);
    else detail::checkCondition(false, "NO == YES", __PRETTY_FUNCTION__, __LINE__);
  }
  const CalendarDate* date = dateFor(*trigger, kCalendarsAudioAlarmTriggerdate);
  if (!reference || !date) {
    QVT_LOG(kLogError, logDomain(), "relative alarm and no due date");
    return Value();
  }
  return date->timeIntervalSinceReferenceDate() - reference->timeIntervalSinceReferenceDate() < 0
             ? alarm
             : Value();
}

Value FormattingMethods::dropAlarmInThePast(const Value&, const Value& alarm) { return alarm; }

Value FormattingMethods::dropAlarmIfTaskCompleted(const Value& record, const Value& alarm) {
  if (auto source = record.asDictionary()) {
    if (source->getString(kEngineRecordEntityNameKey) == kCalendarsTask &&
        source->get(kCalendarsTaskStatus) == Value("completed"))
      return Value();
  }
  return alarm;
}

// --- Dates ---------------------------------------------------------------------------------

Value FormattingMethods::roundToMidnight(const Value& date) {
  const CalendarDate* day = date.asDate();
  if (!day) return date;
  return CalendarExtension::convertToMidnightInTimeZone(*day, phoneTimeZone());
}

Value FormattingMethods::roundCompletionDate(const Value& date) {
  const CalendarDate* day = date.asDate();
  if (!day) return date;
  return roundToMidnight(day->dateWithTimeZone(phoneTimeZone()));
}

Value FormattingMethods::middayGMT(const Value& date) {
  const CalendarDate* day = date.asDate();
  if (!day) return date;
  return CalendarExtension::convertToMiddayInTimeZone(*day, TimeZone::timeZoneWithName("GMT"));
}

Value FormattingMethods::setDefaultDueDateIfNotSet(const Value& date) {
  if (!date.isNull()) return date;
  return middayGMT(CalendarDate::now(TimeZone::systemTimeZone()));
}

Value FormattingMethods::fixAlarmTimeIfDateOnlyDueDate(const Value& alarm) {
  auto trigger = alarm.asDictionary();
  if (!trigger) return alarm;
  const Value owner = mainRecordFromRelation(trigger->get(kCalendarsAudioAlarmOwner));
  auto task = owner.asDictionary();
  if (!task || !task->getBool(kCalendarsTaskDueDateIsDateOnly)) return alarm;
  const CalendarDate* due = dateFor(*task, kCalendarsTaskDueDate);
  if (!due) return alarm;
  const TimeZonePtr zone = phoneTimeZone();
  const CalendarDate noon = CalendarExtension::convertToMiddayInTimeZone(*due, zone);
  QVT_LOG(kLogInfo, logDomain(), "Converting DateOnly due date ({}) alarm: {}\nPhone Timezone: {}",
          *due, alarm, zone->name());
  const CalendarDate base = CalendarExtension::convertToMidnightInTimeZone(noon, zone);
  const Value* offset = trigger->find(kCalendarsAudioAlarmTriggerduration);
  if (!offset) return alarm;
  const CalendarDate fire =
      base.dateByAddingTimeInterval(static_cast<double>(integerOf(*offset).value_or(0)));
  std::int64_t newOffset = static_cast<std::int64_t>(
      fire.timeIntervalSinceReferenceDate() - noon.timeIntervalSinceReferenceDate());
  if (laterOnSameDay(fire, noon)) newOffset = 0;
  trigger->set(kCalendarsAudioAlarmTriggerduration, newOffset);
  return alarm;
}

Value FormattingMethods::setTimedDueDate(const Value& record) {
  auto task = record.asDictionary();
  if (!task) return record;
  const CalendarDate* dueDate = dateFor(*task, kCalendarsTaskDueDate);
  if (!dueDate) return record;
  const TimeZonePtr zone = phoneTimeZone();
  CalendarDate due = *dueDate;
  if (task->getBool(kCalendarsTaskDueDateIsDateOnly)) {
    task->set(kCalendarsTaskDueDateIsDateOnly, false);
    due = CalendarExtension::convertToMiddayInTimeZone(due, zone);
    task->set(kCalendarsTaskDueDate, due);
  }
  // The first audio alarm, else the first display alarm.
  Value alarm;
  for (const char* relation : {kCalendarsTaskAudioAlarms, kCalendarsTaskDisplayAlarms}) {
    const std::optional<Array> alarms = task->getArray(relation);
    if (!alarms || alarms->empty()) continue;
    alarm = alarms->first();
    if (!alarm.isDictionary()) {
      const Value found = recordWithIdentifier(alarm);
      auto records = found.asDictionary();
      alarm = records && !records->empty() ? records->values().first() : Value();
    }
    break;
  }
  auto trigger = alarm.asDictionary();
  if (!trigger) return record;
  std::optional<CalendarDate> alarmDate;
  if (const CalendarDate* date = dateFor(*trigger, kCalendarsAudioAlarmTriggerdate)) {
    alarmDate = *date;
  } else if (const Value* offset = trigger->find(kCalendarsAudioAlarmTriggerduration)) {
    alarmDate = CalendarExtension::convertToMidnightInTimeZone(due, zone)
                    .dateByAddingTimeInterval(static_cast<double>(integerOf(*offset).value_or(0)));
  } else {
    QVT_LOG(kLogWarning, logDomain(), "No alarm duration in : {}", alarm);
    return record;
  }
  if (laterOnSameDay(*alarmDate, due)) {
    task->set(kCalendarsTaskDueDate, *alarmDate);
    QVT_LOG(kLogInfo, logDomain(), "DueDate ({}) set to Alarm date ({})", due, *alarmDate);
  }
  return record;
}

Value FormattingMethods::setDueDateToCompletionDateIfCompleted(const Value& record) {
  auto task = record.asDictionary();
  if (!task || task->get(kCalendarsTaskStatus) != Value("completed")) return record;
  if (const Value* due = task->find(kCalendarsTaskDueDate); due && !due->isNull())
    task->set(kCalendarsTaskCompletionDate, *due);
  else
    task->remove(kCalendarsTaskCompletionDate);
  return record;
}

}  // namespace pc
