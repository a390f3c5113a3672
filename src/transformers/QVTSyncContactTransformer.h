#pragma once
// The data-class helper of the contacts data class. Its work happens while
// contacts are formatted for the phone: it folds the company name into the
// first name on phones without a company field, first and last name into one
// field on phones with a single name field, whole street addresses into the
// street field, limits the number of details of a contact on phones that
// count them, cleans phone numbers, drops invalid e-mail addresses, gives
// URLs a default scheme and contacts a default birthday. Every capability is
// a key of the data class's properties in the device description.
//
// Mangling changes nothing. Unmangling rebuilds the engine's contact from
// what the phone sent: phone values of mapped fields (a phone-number type
// "M") become the engine's again through the value mappings of the phone's
// field formatters, and sub-records the phone keeps without a type get the
// engine's default type. Values already in the engine's form are left alone,
// so unmangling a record twice changes nothing more.
//
// It also answers the host's record assembler for contacts and sorts the
// sub-records of a contact by type (mobile numbers first, home pages first).

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "formatting/QVTSyncMapping.h"
#include "platform/HostInterfaces.h"
#include "transformers/QVTSyncDataClassHelper.h"

namespace pc {

class QVTSyncContactTransformer : public QVTSyncDataClassHelper, public GenericAssemblerDelegate {
 public:
  QVTSyncContactTransformer();
  ~QVTSyncContactTransformer() override;

  std::string className() const override { return "QVTSyncContactTransformer"; }

  // --- Record transformer ----------------------------------------------------
  // Phone values back to engine values; engine default types for sub-records
  // without one; entity names put back.
  void unmangleRecordAfterReadingFromDevice(RecordHolder& holder) override;

  // --- Entity-formatter delegate -----------------------------------------------
  // Learns what the phone's contact, street-address and phone-number fields
  // hold, and shares formatters between fields the phone keeps as one.
  void willBeUsedByEntityFormatter(EntityFormatter& formatter) override;
  // Dispatches on the record's entity name; nullopt drops the record.
  std::optional<Dictionary> formatRecord(const Dictionary& record) override;
  // Limits the details of a contact when nokiaSeries40ContactMaxDetails is set.
  void formatAssembledRecord(Dictionary& record) override;
  Array allPossibleEntities() override;
  // The base's filters, then phone-number letters made digits and URLs
  // given the default scheme.
  Value preFormatField(const Value& value, const std::string& attribute,
                       const std::string& entity) override;

  // --- Record assembler delegate ------------------------------------------------
  Array masterRelationKeysForMasterEntity(const std::string& masterEntity) override;
  Dictionary relationKeysToSubEntitiesForMasterEntity(const std::string& masterEntity) override;
  Dictionary entityToBackRelationShipForMasterEntity(const std::string& masterEntity) override;
  std::string backRelationOfEntity(const std::string& entity, const std::string& masterEntity) override;
  Array extraKeysForMasterEntity(const std::string& masterEntity) override;
  // Phone numbers by comparePhoneNumbers; e-mail addresses, URLs and street
  // addresses by compareBasicTypes; a stable order otherwise kept.
  void sortRelation(const std::string& relation, Array& identifiers, const Dictionary& records,
                    const std::string& entity) override;
  void addCustomField(const Value&, const std::string&) override {}

  // Negative when the record of `left` sorts first, positive when the one of
  // `right` does, 0 when they compare equal (a record missing, the same type,
  // or types both outside the priority list).
  static int comparePhoneNumbers(const Value& left, const Value& right, const Dictionary& records);
  static int compareBasicTypes(const Value& left, const Value& right, const Dictionary& records);

  // --- Formatting steps (each answers the record, or nullopt to drop it) ----------
  std::optional<Dictionary> formatContactRecord(Dictionary record);
  std::optional<Dictionary> formatPhoneNumberRecord(Dictionary record);
  std::optional<Dictionary> formatEmailAddressRecord(Dictionary record);
  std::optional<Dictionary> formatStreetAddressRecord(Dictionary record);
  std::optional<Dictionary> formatRelatedNameRecord(Dictionary record) { return record; }
  std::optional<Dictionary> formatURLRecord(Dictionary record) { return record; }
  std::optional<Dictionary> formatIMRecord(Dictionary record) { return record; }
  Value formatPhoneNumberValue(const Value& value) const;
  Value formatURLValue(const Value& value) const;

  // --- Capabilities (device-description key = name) ---------------------------------
  bool needsCompanyNameInFirstName() const { return _needsCompanyNameInFirstName; }
  bool needsFullAddressInStreetField() const { return _needsFullAddressInStreetField; }
  const Value& nokiaSeries40ContactMaxDetails() const { return _nokiaSeries40ContactMaxDetails; }
  const std::optional<std::string>& defaultBirthday() const { return _defaultBirthday; }
  bool noPlusCharIfAtLeastOneNonDigitChar() const { return _noPlusCharIfAtLeastOneNonDigitChar; }
  bool supportsCompanyName() const { return _supportsCompanyName; }
  bool firstAndLastNameIsJustOneField() const { return _firstAndLastNameIsJustOneField; }
  std::int32_t sizeNameField() const { return _sizeNameField; }
  std::int32_t sizeStreetField() const { return _sizeStreetField; }
  bool removeInvalidEmailAddresses() const { return _removeInvalidEmailAddresses; }
  bool shouldReplaceCapitalLettersInPhoneNumbers() const {
    return _shouldReplaceCapitalLettersInPhoneNumbers;
  }
  const std::optional<std::string>& defaultSchemaForURLs() const { return _defaultSchemaForURLs; }

  void setNeedsCompanyNameInFirstName(bool value) { _needsCompanyNameInFirstName = value; }
  void setNeedsFullAddressInStreetField(bool value) { _needsFullAddressInStreetField = value; }
  // Keeps its own copy of a number; anything else is logged as ignored.
  void setNokiaSeries40ContactMaxDetails(const Value& number);
  // A string; anything else is logged as ignored.
  void setDefaultBirthday(const Value& string);
  void setNoPlusCharIfAtLeastOneNonDigitChar(bool value) {
    _noPlusCharIfAtLeastOneNonDigitChar = value;
  }
  void setSupportsCompanyName(bool value) { _supportsCompanyName = value; }
  void setFirstAndLastNameIsJustOneField(bool value) { _firstAndLastNameIsJustOneField = value; }
  void setSizeNameField(std::int32_t value) { _sizeNameField = value; }
  void setSizeStreetField(std::int32_t value) { _sizeStreetField = value; }
  void setRemoveInvalidEmailAddresses(bool value) { _removeInvalidEmailAddresses = value; }
  void setShouldReplaceCapitalLettersInPhoneNumbers(bool value) {
    _shouldReplaceCapitalLettersInPhoneNumbers = value;
  }
  void setDefaultSchemaForURLs(const Value& string);

 protected:
  // ".sync.QVTSyncContactTransformer".
  static const std::string& logDomain();

 private:
  // Phone values of one record back to the engine's; defaults for what is missing.
  void unmangleOneRecord(Dictionary& record, const std::string& entity) const;

  bool _needsCompanyNameInFirstName = false;
  bool _needsFullAddressInStreetField = false;
  Value _nokiaSeries40ContactMaxDetails;
  std::optional<std::string> _defaultBirthday;
  bool _noPlusCharIfAtLeastOneNonDigitChar = false;
  bool _supportsCompanyName = true;
  bool _firstAndLastNameIsJustOneField = false;
  std::int32_t _sizeNameField = 0;
  std::int32_t _sizeStreetField = 0;
  bool _removeInvalidEmailAddresses = false;
  bool _shouldReplaceCapitalLettersInPhoneNumbers = true;
  std::optional<std::string> _defaultSchemaForURLs;

  // entity -> field -> the phone's value mapping, learnt from the entity
  // formatters that announced themselves.
  std::map<std::string, std::map<std::string, QVTSyncMappingPtr>> _mappings;
};

}  // namespace pc
