#pragma once
// The engine's record-formatting plug-in for one client: it rebuilds the
// phone that an earlier synchronisation archived in the client, keeps one
// entity formatter per entity the phone supports, and answers each record as
// the phone would hold it, so that the engine can tell a change made on the
// phone from a loss caused by formatting. The engine loads it by class name
// ("QVTSyncFormatter", see loadRecordFormatter in engine/MemoryEngine.h).

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "engine/MemoryEngine.h"
#include "conduit/ConduitProtocols.h"
#include "engine/SyncEngine.h"
#include "platform/Value.h"

namespace pc {

// Where a phone side keeps the values of the device's "$name" variables in
// its client, so that the engine side, which has no device, resolves them the
// same way.
inline constexpr const char* kDeviceVariablesClientKey = "com.velmora.granite.DeviceVariables";

class QVTSyncFormatter : public EngineRecordFormattingPlugIn {
 public:
  QVTSyncFormatter() = default;
  QVTSyncFormatter(std::shared_ptr<SyncEngineClient> client,
                   std::shared_ptr<const TruthSnapshot> snapshot) {
    initWithClient(std::move(client), std::move(snapshot));
  }
  ~QVTSyncFormatter() override;

  std::string className() const override { return "QVTSyncFormatter"; }

  // An entity whose formatter cannot be built is logged and left out; a
  // client without an archived phone gives no entities at all.
  void initWithClient(std::shared_ptr<SyncEngineClient> client,
                      std::shared_ptr<const TruthSnapshot> snapshot) override;

  // A formatted copy of the record; nullopt when the phone rejects it or no
  // formatter serves its entity. A formatter that fails while formatting
  // answers the unformatted copy.
  std::optional<Dictionary> formattedRecordForRecord(const Dictionary& record,
                                                    const std::string& identifier) override;
  Array supportedEntityNames() const override { return entities; }

  // The formatter of one entity (nullptr when there is none), for callers
  // that assemble master records with their sub-records.
  EntityFormattingPtr formatterForEntity(const std::string& entityName) const;

 private:
  static const std::string& logDomain();

  std::shared_ptr<const TruthSnapshot> snapShot;
  std::shared_ptr<SyncEngineClient> client;
  std::optional<std::map<std::string, EntityFormattingPtr>> formatters;
  Array entities;
};

}  // namespace pc
