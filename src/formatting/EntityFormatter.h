#pragma once
// EntityFormatter makes one record of one entity ("Calendars.Event",
// "Contacts.PhoneNumber", ...) fit one phone model. It is built from the
// entity's formatting description: the method names of the first format
// ("EntityFormatters"[entity]) become stored calls on the entity's
// FormattingMethods object, the field properties of the second format
// ("Formatting"[entity]) become field formatters. Formatting a record runs,
// in order: the per-field calls, the record call ("RecordFormatting"), the
// field formatters, the entity's standard formatting, the data-class helper's
// formatRecord, and finally keeps only the keys the phone syncs. A rejected
// record answers nullopt and must not reach the phone.
//
// It also decides, sub-record by sub-record, whether one more phone number,
// address, alarm, ... fits on the phone under the per-type limits.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "conduit/ConduitProtocols.h"
#include "formatting/Invocation.h"
#include "formatting/QVTSyncStringFieldFormatter.h"
#include "platform/Value.h"

namespace pc {

class DeviceSyncService;
class GenericAssemblerDelegate;
class SyncEngineClient;
class FormattingMethods;
class TruthSnapshot;

// --- Building stored calls from description values ------------------------------

namespace SyncInvocation {

// A call of `selector` on `target`. Raises invalid-argument (after the level-1
// line "cannot find method signature for "-[Class selector]"") when the
// target's class has no such method.
InvocationPtr invocationForSelector(const ObjectPtr& target, const std::string& selector);

// A "$name" string looked up in the device's synchronisation service; a name
// the service does not define is logged, the string kept and *undefined set.
// Every other value is answered unchanged.
Value reinterpretValueForService(const Value& value, const DeviceSyncService* service,
                                 bool* undefined = nullptr);

// The call a string (method taking the value) or an array (method name, then
// the constants bound to the further arguments) describes. Raises
// invalid-argument for an unknown method, a wrong number of elements or an
// argument type that cannot be bound.
InvocationPtr _simpleInvocationFromObject(const Value& description,
                                          const DeviceSyncService* service,
                                          const std::shared_ptr<FormattingMethods>& formatter);

}  // namespace SyncInvocation

using SyncInvocation::_simpleInvocationFromObject;
using SyncInvocation::invocationForSelector;
using SyncInvocation::reinterpretValueForService;

class EntityFormatter : public EntityFormatting, public QVTSyncFieldFormatterDelegate {
 public:
  EntityFormatter() = default;
  ~EntityFormatter() override;

  std::string className() const override { return "EntityFormatter"; }
  // "[EntityFormatter-0x...:entity]".
  std::string description() const override;

  // Builds everything from the phone's descriptions of the entity. Raises
  // invalid-argument, after the same text at level 1, for an unknown
  // formatter class or method, a malformed call description, a "MaxNumber"
  // below 1, a duplicate mapping or an image threshold without its size.
  void initWithPhone(CFPhone& phone, const std::string& entityName) override;
  // The same from the descriptions themselves (the phone's look-ups done by
  // the caller): `description` first format, `descriptionV2` second format,
  // `supportedKeys` the keys the phone keeps (absent: all are kept).
  void initWithDescriptions(const std::string& entityName,
                            const std::optional<Dictionary>& description,
                            const std::optional<Dictionary>& descriptionV2,
                            const std::optional<Array>& supportedKeys,
                            std::shared_ptr<DeviceSyncService> service,
                            std::shared_ptr<SyncEngineClient> client) override;

  // Gives the helper the formatting methods and, with field formatters,
  // announces this formatter to it. The same helper again changes nothing.
  void setHelper(DataClassHelperPtr helper) override;
  const DataClassHelperPtr& helper() const { return _helper; }

  void awakeFromSynchronization() override;
  void _setSnapShot(std::shared_ptr<const TruthSnapshot> snapShot) override;
  const std::shared_ptr<FormattingMethods>& _formattingMethods() const { return formatter; }
  const std::string& entityName() const;

  // --- Second-format field formatters ---------------------------------------
  bool fieldIsSupported(const std::string& fieldName) const;
  QVTSyncStringFieldFormatterPtr fieldFormatterForFieldName(const std::string& fieldName) const;
  // nullptr removes the field's formatter.
  void setFieldFormatter(QVTSyncStringFieldFormatterPtr fieldFormatter,
                         const std::string& forFieldName);
  QVTSyncMappingPtr mapperForFieldName(const std::string& fieldName) const;
  const std::map<std::string, QVTSyncStringFieldFormatterPtr>& fieldFormatters() const {
    return fieldToFormatterv2;
  }

  // --- Sub-record limits ---------------------------------------------------
  void setTypeKey(const std::optional<std::string>& typeKey);
  const std::optional<std::string>& typeKey() const { return _typeKey; }
  void setNumberPerType(const std::optional<Dictionary>& numberPerType);
  const std::optional<Dictionary>& numberPerType() const { return _numberPerType; }
  // The most sub-records of this entity one master record keeps; 0: no limit.
  void setMaxRecord(std::int32_t maxRecord) { maxRecords = maxRecord; }
  std::int32_t maxRecord() const { return maxRecords; }

  // --- Formatting ----------------------------------------------------------
  // Formats `record` in place; answers it (or the record that replaced it),
  // nullopt when the record is rejected (see lastRejectionReason).
  std::optional<Dictionary> formatRecord(const Dictionary& record) override;
  // Why the last formatRecord rejected its record: which field or which step.
  const std::string& lastRejectionReason() const { return _lastRejectionReason; }
  // The entity's standard formatting of the record; the record itself when the
  // entity has none.
  std::optional<Dictionary> standardFormatOnRecord(const Dictionary& record);
  // The formatted sub-record when one more of its type fits in the master
  // record, nullopt when it must be dropped. `typesInRecord` (type label ->
  // count) is the caller's, empty for each master record; `effectiveType`
  // receives the sub-record's type label (null without one). `masterRecord`
  // is the record being built for the phone (its entity name and the
  // sub-records admitted so far); while it is filtered and formatted the
  // sub-record's back relation holds a copy of it without its sub-record
  // lists, so that the hooks find the owner (an alarm's event, a rule's
  // event). The answer keeps the back relation the sub-record came with.
  std::optional<Dictionary> canAppendAndFormatSubRecord(const Dictionary& subRecord,
                                                        const Dictionary& masterRecord,
                                                        Dictionary& typesInRecord,
                                                        Value* effectiveType);
  // The same for a sub-record the caller hands over: nothing else refers to
  // it or to its containers, so it is filtered and formatted itself, without
  // a copy, and whatever it becomes is the caller's again. With
  // `sharedOwnerView`, the view of the master record the hooks find is made
  // there when it is empty and reused when it holds one: the caller shares it
  // between sub-records while the master record keeps the same entries
  // outside its lists of sub-records, and empties it when they change.
  std::optional<Dictionary> canAppendAndFormatOwnedSubRecord(
      Dictionary subRecord, const Dictionary& masterRecord, Dictionary& typesInRecord,
      Value* effectiveType, std::optional<Dictionary>* sharedOwnerView);
  // Runs the global formatting call on the assembled record (in place), then
  // the helper's formatAssembledRecord.
  void formatAssembledRecord(Dictionary& record);
  // Removes every key the phone does not keep for this entity.
  void onlyKeepSyncEngineKey(Dictionary& record) const;

  // --- Field-formatter delegate ----------------------------------------------
  Value truncateString(const Value& string, std::int32_t toLength, const std::string& forFieldName,
                       const std::string& forEntityName) override;
  Value preFormatField(const Value& value, const std::string& attribute,
                       const std::string& entity) override;

  // Any description value made into a stored call on this formatter's
  // methods: a string or an array as _simpleInvocationFromObject, a list of
  // those chained one after the other. Raises invalid-argument otherwise.
  InvocationPtr _invocationFromObject(const Value& description, const DeviceSyncService* service);

 private:
  void _setupWithFieldFormatter(const QVTSyncStringFieldFormatter& fieldFormatter);
  void setupPreFiltering(const Value& description);
  void reject(std::string reason);
  // The relation by which a sub-record of this entity points to its master
  // (the delegate's assembly rules); empty when there is none.
  std::string backRelationFrom(const Dictionary& masterRecord) const;
  static Dictionary ownerView(const Dictionary& masterRecord);
  // Removes every key that is not among supportedAttributes.
  void keepSupportedKeys(Dictionary& record) const;
  static const std::string& logDomain();

  std::optional<std::string> _entityName;
  std::optional<Set> supportedAttributes;
  // The texts of the string keys among supportedAttributes, looked up
  // without a value being made for each key of each record.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  std::unordered_set<std::string, TextHash, std::equal_to<>> _supportedKeyTexts;
  std::map<std::string, InvocationPtr> fieldToInvocation;
  std::map<std::string, QVTSyncStringFieldFormatterPtr> fieldToFormatterv2;
  InvocationPtr postProcessing;
  InvocationPtr globalProcessing;
  InvocationPtr preFiltering;
  InvocationPtr standardFormatting;
  std::int32_t maxRecords = 0;
  std::optional<std::string> _typeKey;
  std::optional<Dictionary> _numberPerType;
  std::shared_ptr<FormattingMethods> formatter;
  DataClassHelperPtr _helper;
  // The helper's other roles, found once when it is set rather than per
  // field and per sub-record; nullptr when it does not play them.
  QVTSyncFieldFormatterDelegate* _fieldDelegate = nullptr;
  GenericAssemblerDelegate* _assembler = nullptr;
  std::string _lastRejectionReason;
};

using EntityFormatterPtr = std::shared_ptr<EntityFormatter>;

}  // namespace pc
