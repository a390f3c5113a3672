#include "host/DeviceFormatting.h"

#include <fmt/format.h>

#include "async/Log.h"
#include "conduit/CFPhone.h"
#include "conduit/QVTSyncFormatter.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "formatting/DescriptionCheck.h"
#include "formatting/EntityFormatter.h"
#include "host/ReferenceHost.h"
#include "platform/Exception.h"

namespace pc {

namespace {

const std::string& deviceLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("DeviceFormatting"));
  return domain;
}

[[noreturn]] void logAndRaise(const std::string& text) {
  QVT_LOG(kLogError, deviceLogDomain(), "{}", text);
  raiseException(kInvalidArgumentException, text);
}

// The phone of a device description on the reference host; the host keeps
// what the phone borrows from it.
struct BuiltPhone {
  std::shared_ptr<MemorySyncEngineClient> client;
  std::shared_ptr<ReferenceConduitManager> host;
  std::unique_ptr<CFPhone> phone;
};

BuiltPhone buildPhone(const Dictionary& deviceDescription, const Dictionary& entitiesDescription,
                      const DeviceFormattingOptions& options) {
  const std::optional<Dictionary> entities =
      entitiesDescription.getDictionary(kEngineClientEntitiesKey);
  if (!entities)
    logAndRaise(fmt::format("no \"{}\" dictionary in the entities description",
                            kEngineClientEntitiesKey));
  const std::int32_t version =
      options.version ? options.version : (deviceDescription.contains(kFormattingKey) ? 2 : 1);
  BuiltPhone built;
  built.client = std::make_shared<MemorySyncEngineClient>(
      options.clientIdentifier, "Formatted phone", entities->keys(), options.clientStorePath);
  built.host = std::make_shared<ReferenceConduitManager>(
      std::make_shared<SimulatedPhone>("formatted-device", options.variables), built.client);
  built.host->setPhoneConduitDescription(deviceDescription, version);
  built.host->setSyncEnginePlist(entitiesDescription);
  built.phone = CFPhone::phoneWithDelegate(built.host.get());
  if (!built.phone) logAndRaise("no phone can be built from this description");
  built.phone->setManager(built.host.get());
  return built;
}

}  // namespace

struct DeviceFormatting::Impl {
  BuiltPhone built;  // phone side only
  std::unique_ptr<CFPhone> archivedPhone;  // engine side: relationship look-ups
  std::shared_ptr<SyncEngineClient> client;
  std::shared_ptr<const TruthSnapshot> snapshot;
  std::map<std::string, std::shared_ptr<EntityFormatter>> formatters;  // phone side
  std::shared_ptr<QVTSyncFormatter> engine;                            // engine side
  Array entities;

  CFPhone* phone() const { return built.phone ? built.phone.get() : archivedPhone.get(); }

  std::shared_ptr<EntityFormatter> formatterFor(const std::string& entityName) const {
    if (engine) return std::dynamic_pointer_cast<EntityFormatter>(engine->formatterForEntity(entityName));
    auto it = formatters.find(entityName);
    return it == formatters.end() ? nullptr : it->second;
  }

  Array relationsOf(const std::string& entityName) const {
    try {
      return phone() ? phone()->allRelationsForEntity(entityName) : Array();
    } catch (const Exception&) {
      return Array();
    }
  }

  // The master record formatted on this side; nullopt with the reason when
  // it is rejected.
  std::optional<Dictionary> formatMaster(const Dictionary& record, EntityFormatter& formatter,
                                         std::string& reason) const {
    std::optional<Dictionary> answer;
    if (engine) {
      answer = engine->formattedRecordForRecord(record, record.getString("identifier"));
    } else {
      answer = record;
      try {
        answer = formatter.formatRecord(record);
      } catch (const Exception& exception) {
        // As the engine side does: the record is kept as it is.
        QVT_LOG(kLogError, deviceLogDomain(), "exception {}", exception.description());
      }
    }
    if (!answer) {
      reason = formatter.lastRejectionReason();
      if (reason.empty()) reason = "rejected by the formatter of " + formatter.entityName();
    }
    return answer;
  }

  // Appends to `master`'s list `relation` (already in it, shared) the
  // sub-records of `elements` that the phone keeps, formatted; identifiers
  // are kept as they are.
  // The sub-records are the caller's own (its copy of the record), so each
  // is formatted itself. `ownerView` is the view of the master record the
  // sub-records' hooks find, shared while the master's other entries stay
  // the same: the view leaves out lists holding sub-records, so it changes
  // only when one of its lists (identifiers only so far) grows.
  void admitSubRecords(const Array& elements, Dictionary& master, const std::string& relation,
                       const std::string& masterEntity,
                       std::optional<Dictionary>& ownerView) const {
    Array kept = master.get(relation).array();
    bool keptHoldsSubRecords = false;
    const auto keep = [&](const Value& element) {
      if (!keptHoldsSubRecords) ownerView.reset();
      keptHoldsSubRecords = keptHoldsSubRecords || element.isDictionary();
      kept.add(element);
    };
    Dictionary typesInRecord;
    std::size_t admitted = 0;
    for (const Value& element : elements) {
      auto sub = element.asDictionary();
      if (!sub) {
        keep(element);
        continue;
      }
      std::string subEntity = sub->getString(kEngineRecordEntityNameKey);
      if (subEntity.empty() && phone())
        subEntity = phone()->targetEntityForRelationKey(relation, masterEntity).value_or("");
      std::shared_ptr<EntityFormatter> formatter = formatterFor(subEntity);
      if (!formatter) {
        QVT_LOG(kLogWarning, deviceLogDomain(), "no formatter for the {} of {}: dropped",
                relation, masterEntity);
        continue;
      }
      if (formatter->maxRecord() > 0 &&
          admitted >= static_cast<std::size_t>(formatter->maxRecord()))
        continue;
      try {
        if (auto formatted = formatter->canAppendAndFormatOwnedSubRecord(
                std::move(*sub), master, typesInRecord, nullptr, &ownerView)) {
          keep(Value(*formatted));
          ++admitted;
        }
      } catch (const Exception& exception) {
        QVT_LOG(kLogError, deviceLogDomain(), "exception {}", exception.description());
      }
    }
  }
};

DeviceFormatting::DeviceFormatting(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}
DeviceFormatting::~DeviceFormatting() = default;

std::unique_ptr<DeviceFormatting> DeviceFormatting::phoneSide(
    const Dictionary& deviceDescription, const Dictionary& entitiesDescription,
    const DeviceFormattingOptions& options) {
  auto impl = std::make_unique<Impl>();
  impl->built = buildPhone(deviceDescription, entitiesDescription, options);
  CFPhone& phone = *impl->built.phone;
  impl->client = impl->built.client;
  impl->snapshot = std::make_shared<MemoryTruthSnapshot>();
  impl->entities = phone.supportedEntityNames();
  for (const Value& entity : impl->entities) {
    const std::string entityName = entity.stringValue();
    auto formatter = std::make_shared<EntityFormatter>();
    formatter->initWithPhone(phone, entityName);
    formatter->_setSnapShot(impl->snapshot);
    if (DataClassHelperPtr helper = phone.canonicalHelperForEntity(entityName))
      formatter->setHelper(std::move(helper));
    impl->formatters[entityName] = formatter;
    formatter->awakeFromSynchronization();
  }
  phone.archiveInClient();
  impl->client->setObject(Value(options.variables), kDeviceVariablesClientKey);
  return std::unique_ptr<DeviceFormatting>(new DeviceFormatting(std::move(impl)));
}

std::unique_ptr<DeviceFormatting> DeviceFormatting::engineSideForClient(
    std::shared_ptr<SyncEngineClient> client, std::shared_ptr<const TruthSnapshot> snapshot) {
  auto impl = std::make_unique<Impl>();
  impl->archivedPhone = CFPhone::phoneWithClient(client);
  if (!impl->archivedPhone) return nullptr;
  impl->client = client;
  impl->snapshot = snapshot ? snapshot : std::make_shared<MemoryTruthSnapshot>();
  impl->engine = std::dynamic_pointer_cast<QVTSyncFormatter>(
      loadRecordFormatter("QVTSyncFormatter", client, impl->snapshot));
  if (!impl->engine) return nullptr;
  impl->entities = impl->engine->supportedEntityNames();
  return std::unique_ptr<DeviceFormatting>(new DeviceFormatting(std::move(impl)));
}

std::unique_ptr<DeviceFormatting> DeviceFormatting::engineSide(
    std::shared_ptr<const TruthSnapshot> snapshot) const {
  return engineSideForClient(_impl->client, snapshot ? snapshot : _impl->snapshot);
}

std::unique_ptr<DeviceFormatting> DeviceFormatting::engineSideFromClientStore(
    const std::string& clientStorePath, std::shared_ptr<const TruthSnapshot> snapshot) {
  auto client = std::make_shared<MemorySyncEngineClient>("phoneconduit.format", "Formatted phone",
                                                         Array(), clientStorePath);
  return engineSideForClient(std::move(client), std::move(snapshot));
}

bool DeviceFormatting::isEngineSide() const { return _impl->engine != nullptr; }

Array DeviceFormatting::supportedEntityNames() const { return _impl->entities.copy(); }

std::shared_ptr<EntityFormatter> DeviceFormatting::formatterForEntity(
    const std::string& entityName) const {
  return _impl->formatterFor(entityName);
}

const std::shared_ptr<SyncEngineClient>& DeviceFormatting::client() const { return _impl->client; }

CFPhone* DeviceFormatting::phone() const { return _impl->phone(); }

FormattingOutcome DeviceFormatting::formatRecord(const Dictionary& input) const {
  // The engine side formats a copy of its own (QVTSyncFormatter copies the
  // record it is given); the phone side formats the copy made here.
  return formatRecordTakingOwnership(isEngineSide() ? input : input.deepCopy());
}

FormattingOutcome DeviceFormatting::formatRecordTakingOwnership(Dictionary record) const {
  FormattingOutcome outcome;
  const Value entityValue = record.get(kEngineRecordEntityNameKey);
  if (!entityValue.isString()) {
    outcome.rejection = fmt::format("the record has no \"{}\" string", kEngineRecordEntityNameKey);
    return outcome;
  }
  const std::string entity = entityValue.string();
  std::shared_ptr<EntityFormatter> formatter = _impl->formatterFor(entity);
  if (!formatter) {
    outcome.rejection = fmt::format("the phone has no formatter for {}", entity);
    return outcome;
  }

  std::optional<Dictionary> master = _impl->formatMaster(record, *formatter, outcome.rejection);
  if (!master) return outcome;

  // The record being built for the phone: the formatted master, named by its
  // entity, whose lists hold only the sub-records admitted so far; the alarm
  // filters and the sub-records' hooks read it.
  const bool keepsEntityName = master->contains(kEngineRecordEntityNameKey);
  master->set(kEngineRecordEntityNameKey, entity);
  std::vector<std::pair<std::string, Array>> offered;
  for (const Value& relation : _impl->relationsOf(entity)) {
    const Value* value = master->find(relation);
    if (!value || value->isNull()) continue;
    if (auto elements = value->asArray()) {
      offered.emplace_back(relation.stringValue(), *elements);
      master->set(relation, Value(Array()));
    } else {
      QVT_LOG(kLogWarning, deviceLogDomain(), "{} of {} is not a list: {}; dropped", relation,
              entity, *value);
      master->remove(relation);
    }
  }
  std::optional<Dictionary> ownerView;
  for (const auto& [relation, elements] : offered)
    _impl->admitSubRecords(elements, *master, relation, entity, ownerView);
  if (!keepsEntityName) master->remove(kEngineRecordEntityNameKey);
  try {
    formatter->formatAssembledRecord(*master);
  } catch (const Exception& exception) {
    QVT_LOG(kLogError, deviceLogDomain(), "exception {}", exception.description());
  }
  outcome.record = master;
  return outcome;
}

// --- Check --------------------------------------------------------------------------------

std::vector<DescriptionProblem> checkDeviceDescription(const Dictionary& deviceDescription,
                                                       const Dictionary& entitiesDescription,
                                                       const DeviceFormattingOptions& options) {
  namespace check = description_check;
  check::Collector collector;
  if (!deviceDescription.getDictionary(kSyncDataClassesKey))
    check::report(fmt::format("no \"{}\" dictionary", kSyncDataClassesKey), kSyncDataClassesKey);
  for (const char* key : {kEntityFormattersKey, kFormattingKey}) {
    const Value* entry = deviceDescription.find(key);
    if (entry && !entry->isDictionary())
      check::report(fmt::format("\"{}\" must be a dictionary, not {}", key, *entry), key);
  }
  std::optional<BuiltPhone> built;
  check::step({}, [&] { built = buildPhone(deviceDescription, entitiesDescription, options); });
  if (!built) return collector.take();

  for (const Value& entity : built->phone->supportedEntityNames()) {
    const std::string entityName = entity.stringValue();
    check::step(entityName, [&] {
      auto formatter = std::make_shared<EntityFormatter>();
      formatter->initWithPhone(*built->phone, entityName);
    });
  }
  return collector.take();
}

}  // namespace pc
