#pragma once
// What the phone conduit needs of the objects it creates by class name from a
// device description: data-class helpers (registered as
// "QVTSyncContactTransformer", "QVTSyncEventTransformer"), entity formatters
// ("EntityFormatter") and value mappings ("QVTSyncMapping"). Those classes
// register themselves and implement these interfaces; the phone reaches them
// only through the registry.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Object.h"
#include "platform/Value.h"

namespace pc {

class CFPhone;
class DataClassManager;
class DeviceSyncService;
class EntityFormatter;
class FormattingMethods;
class RecordHolder;
class SyncEngineClient;
class TruthSnapshot;

// A data-class helper as a record transformer: it changes each record of its
// data class before it goes to the phone and after it comes back.
class QVTSyncRecordTransformer {
 public:
  virtual ~QVTSyncRecordTransformer() = default;
  // Configures the helper from its data class's properties in the device
  // description (key-value assignment).
  virtual void initWithProperties(const Dictionary& properties) = 0;
  // `manager` is not owned.
  virtual void setDataClassManager(DataClassManager* manager) = 0;
  virtual void mangleRecordBeforePushingToDevice(RecordHolder& holder) = 0;
  virtual void unmangleRecordAfterReadingFromDevice(RecordHolder& holder) = 0;
};

// A data-class helper as the delegate of the entity formatters of its data
// class.
class EntityFormatterDelegate {
 public:
  virtual ~EntityFormatterDelegate() = default;
  virtual void setFormattingMethods(std::shared_ptr<FormattingMethods> methods) = 0;
  virtual void willBeUsedByEntityFormatter(EntityFormatter& formatter) = 0;
  // nullopt rejects the record.
  virtual std::optional<Dictionary> formatRecord(const Dictionary& record) = 0;
  virtual void formatAssembledRecord(Dictionary& record) = 0;
  // The entities this helper is responsible for.
  virtual Array allPossibleEntities() = 0;
};

// The phone hands helpers out as entity-formatter delegates; the same object
// is a QVTSyncRecordTransformer too.
using DataClassHelperPtr = std::shared_ptr<EntityFormatterDelegate>;

// An entity formatter as the phone and the engine record formatter build it
// for one entity.
class EntityFormatting : public Object {
 public:
  // May raise an invalid-argument exception for an unusable description.
  virtual void initWithPhone(CFPhone& phone, const std::string& entityName) = 0;
  // The same from the descriptions themselves (the phone's look-ups done by
  // the caller): `description` first format, `descriptionV2` second format,
  // `supportedKeys` the keys the phone keeps (absent: all are kept).
  virtual void initWithDescriptions(const std::string& entityName,
                                    const std::optional<Dictionary>& description,
                                    const std::optional<Dictionary>& descriptionV2,
                                    const std::optional<Array>& supportedKeys,
                                    std::shared_ptr<DeviceSyncService> service,
                                    std::shared_ptr<SyncEngineClient> client) = 0;
  virtual void setHelper(DataClassHelperPtr helper) = 0;
  virtual void awakeFromSynchronization() = 0;
  virtual void _setSnapShot(std::shared_ptr<const TruthSnapshot> snapShot) = 0;
  // Formats `record` in place; answers it (or the record that replaced it),
  // nullopt when the record is rejected.
  virtual std::optional<Dictionary> formatRecord(const Dictionary& record) = 0;
};

using EntityFormattingPtr = std::shared_ptr<EntityFormatting>;

// A two-way table between the engine's values of an attribute and the
// phone's, built from a "mappings" array of the device description.
class ValueMapping : public Object {
 public:
  // `defaultValue`: the engine's default for the attribute (may be null).
  virtual void initWithArray(const Array& mappings, const Value& defaultValue) = 0;
};

using ValueMappingPtr = std::shared_ptr<ValueMapping>;

}  // namespace pc
