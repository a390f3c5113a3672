#include "formatting/QVTMotorolaFormatter.h"

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "engine/SyncEngine.h"
#include "formatting/FormattingKeys.h"
#include "formatting/MethodRegistration.h"
#include "util/QVTStringExtensions.h"

namespace pc {

PC_REGISTER_CLASS(QVTMotorolaFormatter, "FormattingMethods");

namespace {

const std::string& motorolaLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTMotorolaFormatter"));
  return domain;
}

std::uint32_t limitFor(const Dictionary& information, const char* key) {
  const Value value = information.get(key);
  if (!value.isNumber() && !value.isString()) return 0;
  return static_cast<std::uint32_t>(value.integerIfNumeric().value_or(0));
}

int asLength(std::uint32_t limit) { return static_cast<int>(std::min<std::uint32_t>(limit, 0x7fffffff)); }

void registerMotorolaFormatter() {
  using formatting_registration::registerMember;
  using M = QVTMotorolaFormatter;
  const std::string c = "QVTMotorolaFormatter";
  registerMember<M>(c, "formatContactRecord:", &M::formatContactRecord);
  registerMember<M>(c, "formatPhoneRecord:", &M::formatPhoneRecord);
  registerMember<M>(c, "formatEmailAddressRecord:", &M::formatEmailAddressRecord);
  registerMember<M>(c, "formatEventRecord:", &M::formatEventRecord);
}

}  // namespace

PC_REGISTRATION(registerMotorolaFormatter());

void QVTMotorolaFormatter::initWithDictionary(const std::optional<Dictionary>& description,
                                              std::shared_ptr<DeviceSyncService> service,
                                              std::shared_ptr<SyncEngineClient> client) {
  FormattingMethods::initWithDictionary(description, std::move(service), client);
  _tmpClient = std::move(client);
  junk.reset();
  if (description) {
    const Value only = description->get(kOnlySupportASCIICharKey);
    if ((only.isNumber() || only.isString()) && only.boolValue())
      junk = CharacterSet::characterSetWithRange(0x01, 0x7e).invertedSet();
  }
}

void QVTMotorolaFormatter::awakeFromSynchronization() {
  QVT_CHECK(_tmpClient);
  const Value stored = _tmpClient ? _tmpClient->objectForKey(kMotorolaPhoneInformationKey) : Value();
  if (auto information = stored.asDictionary()) {
    _maxNameLength = limitFor(*information, kMaxNameLengthKey);
    _maxPhoneLength = limitFor(*information, kMaxPhoneLengthKey);
    _maxEmailAddressLength = limitFor(*information, kMaxEmailAddressLengthKey);
    _maxEventTitleLength = limitFor(*information, kMaxEventTitleLength);
  } else {
    _maxNameLength = 30;
    _maxPhoneLength = 20;
    _maxEmailAddressLength = 30;
    _maxEventTitleLength = 30;
    QVT_LOG(kLogError, motorolaLogDomain(), "phone information should be provided");
  }
  QVT_LOG(kLogInfo, motorolaLogDomain(),
          "got _maxNameLength={} _maxPhoneLength={} _maxEmailAddressLength={} "
          "_maxEventTitleLength={}",
          _maxNameLength, _maxPhoneLength, _maxEmailAddressLength, _maxEventTitleLength);
}

Value QVTMotorolaFormatter::formatContactRecord(const Value& record) {
  auto contact = record.asDictionary();
  if (!contact) return record;
  putCompanyInFirstName(record, true);
  const Value* firstName = contact->find(kContactsContactFirstName);
  Value first = firstName && !firstName->isNull() ? replaceWhiteSpaceByHyphen(*firstName)
                                                   : ensureNotEmpty(Value());
  Value last = contact->get(kContactsContactLastName);
  if (junk) {
    // One "?" per character the phone cannot show.
    for (Value* name : {&first, &last})
      if (const std::string* text = name->asString())
        *name = QVTStringExtensions::qvt_stringByReplacingCharactersFromSet(*text, *junk, "?", false);
  }
  if (!last.isNull()) contact->set(kContactsContactLastName, last);
  contact->set(kContactsContactFirstName, first);
  return maxFirstNameAndLastName(record, asLength(_maxNameLength), true);
}

Value QVTMotorolaFormatter::formatPhoneRecord(const Value& record) {
  auto number = record.asDictionary();
  if (!number) return record;
  const Value type = number->get(kContactsPhoneNumberType);
  if (type == Value(kContactsPhoneNumberTypeHomeFax))
    number->set(kContactsPhoneNumberType, kContactsPhoneNumberTypeWorkFax);
  else if (type == Value(kContactsPhoneNumberTypeOther))
    number->set(kContactsPhoneNumberType, kContactsPhoneNumberTypeHome);
  const Value value = maxLength(
      removeAllNonDigitButFirstPlus(convertPhoneNameToPhoneNumber(number->get(kContactsPhoneNumberValue))),
      asLength(_maxPhoneLength));
  if (value.isNull()) number->remove(kContactsPhoneNumberValue);
  else number->set(kContactsPhoneNumberValue, value);
  return record;
}

Value QVTMotorolaFormatter::formatEmailAddressRecord(const Value& record) {
  auto mail = record.asDictionary();
  if (!mail) return record;
  mail->set(kContactsEmailAddressType, kMotorolaEmailTypeToSyncronize);
  const Value value =
      maxLength(mail->get(kContactsEmailAddressValue), asLength(_maxEmailAddressLength));
  if (value.isNull()) mail->remove(kContactsEmailAddressValue);
  else mail->set(kContactsEmailAddressValue, value);
  return record;
}

Value QVTMotorolaFormatter::formatEventRecord(const Value& record) {
  auto event = record.asDictionary();
  if (!event) return record;
  using formatting_keys::kCalendarsEventSummary;
  Value summary = event->get(kCalendarsEventSummary);
  if (!summary.isNull()) summary = maxLength(summary, asLength(_maxEventTitleLength));
  event->set(kCalendarsEventSummary, ensureNotEmpty(summary));
  return record;
}

}  // namespace pc
