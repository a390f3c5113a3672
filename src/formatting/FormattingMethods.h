#pragma once
// FormattingMethods: the library of named formatting operations that a phone
// model's entity descriptions call by selector ("maxLength::",
// "putCompanyInFirstName:clearItAfter:"). One instance serves one phone; the
// entity formatter binds the description's constants and calls an operation
// with each record, sub-record or field value it formats.
//
// Calling conventions:
// - record operations receive the record (a dictionary, changed in place) and
//   answer it, or null to drop the record;
// - value operations receive the field's value and answer the new value, null
//   removing the field;
// - alarm filters receive the record being built and one alarm, and answer
//   the alarm or null.
// No operation raises: bad input is logged and answered with null or the
// input unchanged.
//
// Every operation a description may name is registered in the method table
// of "FormattingMethods" (see registeredSelectors); subclasses for phone
// families add theirs under their own class name.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Object.h"
#include "platform/Strings.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

class DeviceSyncService;
class SyncEngineClient;
class TruthSnapshot;

class FormattingMethods : public Object {
 public:
  FormattingMethods();
  ~FormattingMethods() override;
  std::string className() const override { return "FormattingMethods"; }

  // --- Creation ------------------------------------------------------------
  // `description`: the entity's formatting description (may be absent);
  // `service`: the device's synchronisation service; `client`: the phone's
  // client, whose "CurrentTimeZone" is the phone's time zone.
  // Keys of an entity's formatting description that this class reads besides
  // the entity formatter's own; any other key is a mistake in the description.
  virtual std::vector<std::string> ownDescriptionKeys() const { return {}; }
  virtual void initWithDictionary(const std::optional<Dictionary>& description,
                                  std::shared_ptr<DeviceSyncService> service,
                                  std::shared_ptr<SyncEngineClient> client);
  // The entity name is not used.
  void initWithDictionary(const std::optional<Dictionary>& description,
                          const std::string& entityName,
                          std::shared_ptr<DeviceSyncService> service,
                          std::shared_ptr<SyncEngineClient> client);
  // Called once when a synchronisation starts.
  virtual void awakeFromSynchronization() {}

  // The engine's truth for the current synchronisation (replaced, not copied);
  // the one operation of the PrivateFromatterBundle interface the entity
  // formatter calls.
  void _setSnapShot(std::shared_ptr<const TruthSnapshot> snapShot);
  const std::shared_ptr<const TruthSnapshot>& snapShot() const { return _snapShot; }
  // The phone's time zone, read from the client at creation (the system zone
  // without a client).
  TimeZonePtr phoneTimeZone() const;

  // --- Class operations on strings -------------------------------------------
  static void removeFromString(std::string& string, const CharacterSet& characters);
  // Each maximal run of characters of the set becomes one `byString`.
  static void replaceFromString(std::string& string, const CharacterSet& characters,
                                std::string_view byString);
  // Every character that is not a decimal digit, minus those of `keep`.
  static std::unique_ptr<CharacterSet> _newJunkCharacterSetWithString(std::string_view keep);
  static CharacterSet junkCharacterSetWithString(std::string_view keep);
  // Capital letters A-Z become their telephone keypad digits; nothing else changes.
  static std::string convertPhoneNameToPhoneNumber(std::string_view string);
  // Removes the junk characters, keeping a leading "+".
  static std::optional<std::string> removeAllButFirstPlus(const std::optional<std::string>& string,
                                                          const CharacterSet* junkCharacterSet);

  // --- Snapshot ----------------------------------------------------------------
  // Identifier -> record for the one identifier (a dictionary value).
  Value recordWithIdentifier(const Value& identifier);
  // The one record a relation (a list of one identifier) points at, else null.
  Value mainRecordFromRelation(const Value& relation);

  // --- Chaining invocations ------------------------------------------------------
  // Feeds the value through each invocation in turn; answers the last result.
  Value _catenateInvocation(const Value& value, const Value& invocations);
  // Calls each invocation with (object, sub-record), stopping at a null result.
  Value onObject(const Value& object, const Value& subRecord, const Value& doInvocations);

  // --- Values ----------------------------------------------------------------------
  Value clearField(const Value& value);
  Value setFieldToValue(const Value& value, const Value& constant);
  Value setIfNotSet(const Value& value, const Value& defaultVal);
  Value setStringIfNotSet(const Value& value, const Value& defaultVal);
  Value setClassificationIfNotSet(const Value& value);
  Value setStatusDefaultIfNotSet(const Value& value);
  Value mapString(const Value& value, const Value& map);
  Value maxLength(const Value& value, int length, const Value& modifiers);
  Value maxLength(const Value& value, int length);
  // Line feeds count twice.
  Value maxLengthForVObjectPropValue(const Value& value, int length);
  Value maxURLLength(const Value& value, int length);
  Value ensureNotEmpty(const Value& value);
  Value convertPhoneNameToPhoneNumber(const Value& value);
  Value removeBadCharactersFromString(const Value& value, const Value& andKeepCharactersFromList);
  Value replaceWhiteSpaceByHyphen(const Value& value);
  Value removeWhiteSpace(const Value& value);
  // Keeps digits, 'p', '*', '#' and a leading "+".
  Value removeAllNonDigitButFirstPlus(const Value& value);
  // Keeps digits, '*', '#' and a leading "+".
  Value removeAllNonDigitButFirstPlusS55(const Value& value);
  // Desktop priority (1 highest .. 9 lowest, 0 none) quantised to what a
  // phone with priorities 1..withPriorityMax can hold.
  Value mapPriorityLikeAlmanac(const Value& priority, int withPriorityMax, int noPriorityValue);

  // --- Contacts ----------------------------------------------------------------------
  Value replaceFromStringValuesOfRecord(const Value& record, const Value& string,
                                        const Value& withString);
  Value replaceLineFeedFromStringValuesOfRecord(const Value& record, const Value& withString);
  Value standardFormatContact(const Value& record);
  Value standardFormatStreetAddresses(const Value& record);
  Value standardFormatURL(const Value& record);
  Value standardFormatEMail(const Value& record);
  Value standardFormatPhoneNumber(const Value& record);
  Value putFullAddressInStreetField(const Value& record, const Value& separator, int maxLength,
                                    bool clearItAfter);
  Value putCompanyInFirstName(const Value& record, bool removeSpace, bool clearItAfter,
                              int maxLength);
  Value putCompanyInFirstName(const Value& record, bool removeSpace, bool clearItAfter);
  Value putCompanyInFirstName(const Value& record, bool clearItAfter);
  Value putCompanyInFirstName(const Value& record);
  Value formatContactSonyEricsson(const Value& record, bool clearCompanyName,
                                  bool removeSemiColon);
  Value maxFirstNameAndLastName(const Value& record, int length, bool firstNameFirst,
                                bool needsLFCount2X = false);
  Value formatContactNokiaSeries40SecondEd(const Value& record);
  Value formatContactNokiaSeries40(const Value& record, const Value& withMaxDetails,
                                   bool streetAdrIsADetail);

  // --- Images ------------------------------------------------------------------------
  // Prepares the drawing buffer of maxWidth x maxHeight pixels; false when it
  // cannot be had.
  bool _setupContextWithWidth(int width, int height);
  // Image bytes longer than maxLength, scaled down to fit width x height and
  // encoded as JPEG; the input itself when it fits, or cannot be read.
  Value reduceImage(const Value& image, int maxWidth, int maxheight, int maxLength);

  // --- Events, tasks, recurrences, alarms --------------------------------------------
  Value standardFormatEvent(const Value& record);
  Value standardFormatTask(const Value& record);
  Value formatRecurrenceSortByDayDays(const Value& recurrence);
  Value standardFormatRecurrence(const Value& recurrence);
  Value genericAlarmFilter(const Value& record, const Value& alarm);
  Value genericAlarmFilterWithNoAlarmOnEventOrAfter(const Value& record, const Value& alarm);
  Value dropAlarmInThePast(const Value& record, const Value& alarm);
  Value dropAlarmIfTaskCompleted(const Value& record, const Value& alarm);
  Value convertRecurrenceLimitToDate(const Value& recurrence);
  Value convertRecurrenceLimitToCount(const Value& recurrence);
  Value convertRecurrenceLimitToLastOcurrenceDate(const Value& recurrence);
  Value fixAlarmTimeIfDateOnlyDueDate(const Value& alarm);
  Value roundToMidnight(const Value& date);
  Value roundCompletionDate(const Value& date);
  Value middayGMT(const Value& date);
  Value setDefaultDueDateIfNotSet(const Value& date);
  Value setTimedDueDate(const Value& record);
  Value setDueDateToCompletionDateIfCompleted(const Value& record);

  // --- What descriptions can name ------------------------------------------------------
  struct Selector {
    std::string selector;
    std::string argumentTypes;
  };
  // The selectors registered for a formatting class itself (not inherited),
  // in registration order; empty for other classes.
  static std::vector<Selector> registeredSelectors(const std::string& className);
  // The formatting classes, base first.
  static std::vector<std::string> formattingClassNames();
  // Registers `selector` for `className` in the method table and in the list
  // above. Used by this class and its subclasses at start-up.
  static void registerSelector(const std::string& className, const std::string& selector,
                               const std::string& argumentTypes,
                               std::function<Value(Object&, std::vector<Value>&)> call);

 protected:
  // ".sync.FormattingMethods".
  static const std::string& logDomain();

 private:
  struct Reserved;
  // Leaves the image context as it was before setup: nothing held.
  void releaseContext();

  std::shared_ptr<const TruthSnapshot> _snapShot;
  // Junk of S55 phones: everything but digits, '*' and '#'.
  CharacterSet alljunk;
  std::unique_ptr<Reserved> reserved;
};

}  // namespace pc
