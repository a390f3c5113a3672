#pragma once
// Formatting of whole records as one phone model will hold them, from either
// side, and the check of a device description.
//
// Phone side: a phone conduit built on the reference host from a device
// description and the engine's entities description, one entity formatter per
// entity the phone syncs, each with the data-class helper the phone has for
// it. Engine side: QVTSyncFormatter loaded by class name from the client in
// which the phone side archived itself (or from a client store file). Both
// sides format a master record the same way: the master through its entity's
// formatter, then each list of sub-records held in a relationship through the
// formatter of the target entity under its limits, then the assembled record.
//
//   auto phone = DeviceFormatting::phoneSide(description, entities);
//   FormattingOutcome result = phone->formatRecord(record);
//   if (!result.record) std::cerr << result.rejection;
//   auto engine = phone->engineSide();   // same records, through the client
//
//   for (const DescriptionProblem& p : checkDeviceDescription(description, entities))
//     std::cerr << p.keyPath << ": " << p.message << "\n";

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "formatting/DescriptionCheck.h"
#include "platform/Value.h"

namespace pc {

class CFPhone;
class EntityFormatter;
class QVTSyncFormatter;
class ReferenceConduitManager;
class SyncEngineClient;
class TruthSnapshot;

// The answer for one record: the formatted record, or nullopt with the reason
// it was rejected (the entity has no formatter, a field's value is not
// acceptable, a formatting call dropped the record, ...).
struct FormattingOutcome {
  std::optional<Dictionary> record;
  std::string rejection;
};

struct DeviceFormattingOptions {
  // 0: 2 when the description has "Formatting", else 1.
  std::int32_t version = 0;
  // The values of the device's "$name" variables.
  Dictionary variables;
  // Where the client keeps its values; empty: in memory only.
  std::string clientStorePath;
  std::string clientIdentifier = "phoneconduit.format";
};

class DeviceFormatting {
 public:
  // Raises invalid-argument (after its level-1 log line) when an entity
  // formatter cannot be built, and when `deviceDescription` or
  // `entitiesDescription` (a dictionary with "Entities") lacks what a phone
  // needs. The phone archives itself in its client.
  static std::unique_ptr<DeviceFormatting> phoneSide(const Dictionary& deviceDescription,
                                                     const Dictionary& entitiesDescription,
                                                     const DeviceFormattingOptions& options = {});
  // QVTSyncFormatter for this phone's client (loaded by class name).
  std::unique_ptr<DeviceFormatting> engineSide(
      std::shared_ptr<const TruthSnapshot> snapshot = nullptr) const;
  // QVTSyncFormatter for a client store an earlier phone side archived in;
  // nullptr when the store holds no phone.
  static std::unique_ptr<DeviceFormatting> engineSideFromClientStore(
      const std::string& clientStorePath, std::shared_ptr<const TruthSnapshot> snapshot = nullptr);

  ~DeviceFormatting();
  DeviceFormatting(const DeviceFormatting&) = delete;
  DeviceFormatting& operator=(const DeviceFormatting&) = delete;

  bool isEngineSide() const;
  Array supportedEntityNames() const;
  // nullptr when the entity has none.
  std::shared_ptr<EntityFormatter> formatterForEntity(const std::string& entityName) const;
  const std::shared_ptr<SyncEngineClient>& client() const;
  // The phone conduit behind the formatters (not owned by the caller), for a
  // host that wires its managers to the phone's helpers.
  CFPhone* phone() const;

  // Formats a copy of `record` (the input is left alone); its entity is its
  // "entityName" entry. Relationship entries holding dictionaries are the
  // sub-records; other elements (identifiers) are kept as they are, and an
  // entry that is not a list is logged and dropped.
  FormattingOutcome formatRecord(const Dictionary& record) const;
  // The same for a record the caller hands over: its own deep copy, which
  // nothing else refers to. The record and its sub-records are formatted
  // where they stand, so the answer shares their containers and the record
  // given is left changed; a caller with a copy of its own saves the copy
  // formatRecord makes.
  FormattingOutcome formatRecordTakingOwnership(Dictionary record) const;

 private:
  struct Impl;
  explicit DeviceFormatting(std::unique_ptr<Impl> impl);
  static std::unique_ptr<DeviceFormatting> engineSideForClient(
      std::shared_ptr<SyncEngineClient> client, std::shared_ptr<const TruthSnapshot> snapshot);
  std::unique_ptr<Impl> _impl;
};

// Builds every entity formatter and field formatter of the description and
// collects every problem instead of stopping at the first: unknown formatting
// methods or classes, wrong number or kind of arguments, an image threshold
// without its size, mappings that are not dictionaries, "$name" variables the
// device does not define, values of the wrong kind. Empty when the
// description is usable.
std::vector<DescriptionProblem> checkDeviceDescription(
    const Dictionary& deviceDescription, const Dictionary& entitiesDescription,
    const DeviceFormattingOptions& options = {});

}  // namespace pc
