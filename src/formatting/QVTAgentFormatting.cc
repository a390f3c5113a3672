#include "formatting/QVTAgentFormatting.h"

#include <mutex>

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "formatting/MethodRegistration.h"
#include "platform/LocalizedStrings.h"

namespace pc {

PC_REGISTER_CLASS(QVTAgentFormatting, "FormattingMethods");

namespace {

const std::string& agentLogDomain() {
  static const std::string domain = phcFormatLogDomain(".sync.", "AgentFormatter");
  return domain;
}

// The phone-number labels Symbian phones write themselves.
constexpr const char* kSymbianLabelKeys[] = {"fax",       "work mobile", "home mobile",
                                             "home pager", "work pager", "video"};

std::mutex sLocalizedTypesLock;
std::optional<Dictionary> sLocalizedTypes;
std::once_flag sInitialized;

void registerAgentFormatting() {
  using formatting_registration::registerMember;
  using A = QVTAgentFormatting;
  const std::string c = "QVTAgentFormatting";
  registerMember<A>(c, "series60PhoneNumbers:", &A::series60PhoneNumbers);
  registerMember<A>(c, "UIQPhoneNumbers:", &A::UIQPhoneNumbers);
  registerMember<A>(c, "changeRegularOtherTypeButKeepCustomType:toNewType:",
                    &A::changeRegularOtherTypeButKeepCustomType);
}

bool isEmptyText(const Value& value) {
  return value.isNull() || (value.isString() && value.string().empty());
}

}  // namespace

PC_REGISTRATION(registerAgentFormatting());

void QVTAgentFormatting::initialize() {
  Dictionary labels;
  for (const char* key : kSymbianLabelKeys) labels.set(key, localizedString("Synchro", key));
  std::lock_guard<std::mutex> guard(sLocalizedTypesLock);
  sLocalizedTypes = labels;
}

std::optional<Dictionary> QVTAgentFormatting::symbianLocalizer() {
  std::lock_guard<std::mutex> guard(sLocalizedTypesLock);
  if (!QVT_CHECK(sLocalizedTypes)) return std::nullopt;
  return sLocalizedTypes;
}

void QVTAgentFormatting::initWithDictionary(const std::optional<Dictionary>& description,
                                            std::shared_ptr<DeviceSyncService> service,
                                            std::shared_ptr<SyncEngineClient> client) {
  std::call_once(sInitialized, [] {
    bool built;
    {
      std::lock_guard<std::mutex> guard(sLocalizedTypesLock);
      built = sLocalizedTypes.has_value();
    }
    if (!built) initialize();
  });
  FormattingMethods::initWithDictionary(description, std::move(service), std::move(client));
}

Value QVTAgentFormatting::series60PhoneNumbers(const Value& record) {
  auto number = record.asDictionary();
  if (!number || !isEmptyText(number->get(kContactsPhoneNumberLabel))) return record;
  if (number->get(kContactsPhoneNumberType) == Value(kContactsPhoneNumberTypeOther))
    number->set(kContactsPhoneNumberType, kContactsPhoneNumberTypeMain);
  return record;
}

Value QVTAgentFormatting::UIQPhoneNumbers(const Value& record) {
  auto number = record.asDictionary();
  if (!number || number->get(kContactsPhoneNumberType) != Value(kContactsPhoneNumberTypeOther))
    return record;
  const std::optional<Dictionary> labels = symbianLocalizer();
  const Value label = number->get(kContactsPhoneNumberLabel);
  if (!isEmptyText(label) && labels && !labels->keysForValue(label).empty()) {
    QVT_LOG(kLogInfo, agentLogDomain(), "symbian label, keep it");
    return record;
  }
  QVT_LOG(kLogInfo, agentLogDomain(), "other label, drop it");
  number->remove(kContactsPhoneNumberLabel);
  number->set(kContactsPhoneNumberType, kContactsPhoneNumberTypeMain);
  return record;
}

Value QVTAgentFormatting::changeRegularOtherTypeButKeepCustomType(const Value& record,
                                                                  const Value&) {
  auto url = record.asDictionary();
  if (!url) return record;
  if (url->get(kContactsURLType) == Value(kContactsURLTypeOther) &&
      isEmptyText(url->get(kContactsURLLabel))) {
    url->set(kContactsURLType, kContactsURLTypeHomePage);
    url->remove(kContactsURLLabel);
  }
  return record;
}

}  // namespace pc
