// The selectors of FormattingMethods that device descriptions can name, with
// their argument type codes.

#include "formatting/MethodRegistration.h"

namespace pc {

namespace {

using formatting_registration::registerMember;
using FM = FormattingMethods;

void registerFormattingMethods() {
  const std::string c = "FormattingMethods";
  auto simple = [&](const char* selector, Value (FM::*member)(const Value&)) {
    registerMember<FM>(c, selector, member);
  };
  auto pair = [&](const char* selector, Value (FM::*member)(const Value&, const Value&)) {
    registerMember<FM>(c, selector, member);
  };

  FM::registerSelector(c, "awakeFromSynchronization", "", [](Object& self, std::vector<Value>&) {
    if (auto* methods = dynamic_cast<FM*>(&self)) methods->awakeFromSynchronization();
    return Value();
  });
  FM::registerSelector(c, "phoneTimeZone", "", [](Object& self, std::vector<Value>&) {
    auto* methods = dynamic_cast<FM*>(&self);
    return methods ? Value(methods->phoneTimeZone()->name()) : Value();
  });
  simple("recordWithIdentifier:", &FM::recordWithIdentifier);
  simple("mainRecordFromRelation:", &FM::mainRecordFromRelation);
  pair("_catenateInvocation:invocations:", &FM::_catenateInvocation);
  registerMember<FM>(c, "onObject:subRecord:doInvocations:", &FM::onObject);

  // Values.
  simple("clearField:", &FM::clearField);
  pair("setFieldToValue::", &FM::setFieldToValue);
  pair("setIfNotSet:defaultVal:", &FM::setIfNotSet);
  pair("setStringIfNotSet:defaultVal:", &FM::setStringIfNotSet);
  simple("setClassificationIfNotSet:", &FM::setClassificationIfNotSet);
  simple("setStatusDefaultIfNotSet:", &FM::setStatusDefaultIfNotSet);
  pair("mapString::", &FM::mapString);
  registerMember<FM>(c, "maxLength::modifiers:",
                     PC_FORMATTING_MEMBER(FM, maxLength, (const Value&, int, const Value&)));
  registerMember<FM>(c, "maxLength::", PC_FORMATTING_MEMBER(FM, maxLength, (const Value&, int)));
  registerMember<FM>(c, "maxLengthForVObjectPropValue::", &FM::maxLengthForVObjectPropValue);
  registerMember<FM>(c, "maxURLLength::", &FM::maxURLLength);
  simple("ensureNotEmpty:", &FM::ensureNotEmpty);
  simple("convertPhoneNameToPhoneNumber:",
         PC_FORMATTING_MEMBER(FM, convertPhoneNameToPhoneNumber, (const Value&)));
  pair("removeBadCharactersFromString:andKeepCharactersFromList:",
       &FM::removeBadCharactersFromString);
  simple("replaceWhiteSpaceByHyphen:", &FM::replaceWhiteSpaceByHyphen);
  simple("removeWhiteSpace:", &FM::removeWhiteSpace);
  simple("removeAllNonDigitButFirstPlus:", &FM::removeAllNonDigitButFirstPlus);
  simple("removeAllNonDigitButFirstPlusS55:", &FM::removeAllNonDigitButFirstPlusS55);
  registerMember<FM>(c, "mapPriorityLikeAlmanac:withPriorityMax:noPriorityValue:",
                     &FM::mapPriorityLikeAlmanac);

  // Contacts.
  registerMember<FM>(c, "replaceFromStringValuesOfRecord:string:withString:",
                     &FM::replaceFromStringValuesOfRecord);
  pair("replaceLineFeedFromStringValuesOfRecord:withString:",
       &FM::replaceLineFeedFromStringValuesOfRecord);
  simple("standardFormatContact:", &FM::standardFormatContact);
  simple("standardFormatStreetAddresses:", &FM::standardFormatStreetAddresses);
  simple("standardFormatURL:", &FM::standardFormatURL);
  simple("standardFormatEMail:", &FM::standardFormatEMail);
  simple("standardFormatPhoneNumber:", &FM::standardFormatPhoneNumber);
  registerMember<FM>(c, "putFullAddressInStreetField:separator:maxLength:clearItAfter:",
                     &FM::putFullAddressInStreetField);
  registerMember<FM>(c, "putCompanyInFirstName:removeSpace:clearItAfter:maxLength:",
                     PC_FORMATTING_MEMBER(FM, putCompanyInFirstName, (const Value&, bool, bool, int)));
  registerMember<FM>(c, "putCompanyInFirstName:removeSpace:clearItAfter:",
                     PC_FORMATTING_MEMBER(FM, putCompanyInFirstName, (const Value&, bool, bool)));
  registerMember<FM>(c, "putCompanyInFirstName:clearItAfter:",
                     PC_FORMATTING_MEMBER(FM, putCompanyInFirstName, (const Value&, bool)));
  simple("putCompanyInFirstName:", PC_FORMATTING_MEMBER(FM, putCompanyInFirstName, (const Value&)));
  registerMember<FM>(c, "formatContactSonyEricsson:clearCompanyName:removeSemiColon:",
                     &FM::formatContactSonyEricsson);
  FM::registerSelector(c, "maxFirstNameAndLastName:length:firstNameFirst:", "@ic",
                       [](Object& self, std::vector<Value>& arguments) {
                         auto* methods = dynamic_cast<FM*>(&self);
                         if (!methods || arguments.size() != 3) return Value();
                         using formatting_registration::Argument;
                         return methods->maxFirstNameAndLastName(
                             arguments[0], Argument<int>::from(arguments[1]),
                             Argument<bool>::from(arguments[2]));
                       });
  registerMember<FM>(c, "maxFirstNameAndLastName:length:firstNameFirst:needsLFCount2X:",
                     &FM::maxFirstNameAndLastName);
  simple("formatContactNokiaSeries40SecondEd:", &FM::formatContactNokiaSeries40SecondEd);
  registerMember<FM>(c, "formatContactNokiaSeries40:withMaxDetails:streetAdrIsADetail:",
                     &FM::formatContactNokiaSeries40);

  // Images.
  FM::registerSelector(c, "_setupContextWithWidth:height:", "ii",
                       [](Object& self, std::vector<Value>& arguments) {
                         auto* methods = dynamic_cast<FM*>(&self);
                         if (!methods || arguments.size() != 2) return Value();
                         using formatting_registration::Argument;
                         return Value(methods->_setupContextWithWidth(
                             Argument<int>::from(arguments[0]), Argument<int>::from(arguments[1])));
                       });
  registerMember<FM>(c, "reduceImage:maxWidth:maxheight:maxLength:", &FM::reduceImage);

  // Events, tasks, recurrences, alarms.
  simple("standardFormatEvent:", &FM::standardFormatEvent);
  simple("standardFormatTask:", &FM::standardFormatTask);
  simple("formatRecurrenceSortByDayDays:", &FM::formatRecurrenceSortByDayDays);
  simple("standardFormatRecurrence:", &FM::standardFormatRecurrence);
  pair("genericAlarmFilter:alarm:", &FM::genericAlarmFilter);
  pair("genericAlarmFilterWithNoAlarmOnEventOrAfter:alarm:",
       &FM::genericAlarmFilterWithNoAlarmOnEventOrAfter);
  pair("dropAlarmInThePast:alarm:", &FM::dropAlarmInThePast);
  pair("dropAlarmIfTaskCompleted:alarm:", &FM::dropAlarmIfTaskCompleted);
  simple("convertRecurrenceLimitToDate:", &FM::convertRecurrenceLimitToDate);
  simple("convertRecurrenceLimitToCount:", &FM::convertRecurrenceLimitToCount);
  simple("convertRecurrenceLimitToLastOcurrenceDate:", &FM::convertRecurrenceLimitToLastOcurrenceDate);
  simple("fixAlarmTimeIfDateOnlyDueDate:", &FM::fixAlarmTimeIfDateOnlyDueDate);
  simple("roundToMidnight:", &FM::roundToMidnight);
  simple("roundCompletionDate:", &FM::roundCompletionDate);
  simple("middayGMT:", &FM::middayGMT);
  simple("setDefaultDueDateIfNotSet:", &FM::setDefaultDueDateIfNotSet);
  simple("setTimedDueDate:", &FM::setTimedDueDate);
  simple("setDueDateToCompletionDateIfCompleted:", &FM::setDueDateToCompletionDateIfCompleted);
}

}  // namespace

PC_REGISTRATION(registerFormattingMethods());

}  // namespace pc
