#include "host/ReferenceHost.h"

#include "async/Log.h"
#include "conduit/CFPhone.h"
#include "engine/SchemaNames.h"
#include "engine/SyncEngine.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"
#include "util/PHCMangling.h"

namespace pc {

PC_REGISTER_ABSTRACT_CLASS(ReferenceDataClassManager, "");
PC_REGISTER_CLASS(ContactManager, "ReferenceDataClassManager");
PC_REGISTER_CLASS(CalendarManager, "ReferenceDataClassManager");
PC_REGISTER_CLASS(PropertyListParser, "");

namespace {
const std::string& hostLogDomain() {
  static const std::string domain = phcFormatLogDomain(".sync.", "ReferenceHost");
  return domain;
}
}  // namespace

// --- Services and the simulated phone -------------------------------------------------

std::optional<Value> SimulatedSyncService::valueForVariable(const std::string& name) const {
  if (const Value* value = _variables.find(name)) return value->deepCopy();
  return std::nullopt;
}

void SimulatedPersistenceService::cleanupDomain(const std::string& domain) {
  QVT_LOG(kLogInfo, hostLogDomain(), "cleaning domain {}", domain);
  _domains.erase(domain);
}

Dictionary SimulatedPersistenceService::domain(const std::string& name) {
  return _domains[name];
}

SimulatedPhone::SimulatedPhone(std::string deviceUID, Dictionary variables)
    : _deviceUID(std::move(deviceUID)),
      _syncService(std::make_shared<SimulatedSyncService>(variables)),
      _persistenceService(std::make_shared<SimulatedPersistenceService>()) {}

std::shared_ptr<DeviceService> SimulatedPhone::serviceWithName(const std::string& name) const {
  if (name == kSynchronisationServiceName) return _syncService;
  if (name == kPersistenceServiceName) return _persistenceService;
  return nullptr;
}

Data SimulatedPhone::sendData(const std::string& dataClass) const {
  auto it = _stored.find(dataClass);
  return it == _stored.end() ? Data() : it->second;
}

// --- Data-class managers and the parser ------------------------------------------------

void ReferenceDataClassManager::initWithProperty(const Dictionary& properties,
                                                 const std::string& deviceDataClass,
                                                 SyncConduitManager* manager) {
  _properties = properties.deepCopy();
  _deviceDataClass = deviceDataClass;
  _conduitManager = manager;
}


TimeZonePtr CalendarManager::_nextTimeZone() {
  QVTSyncManager* sync = syncManager();
  CFPhone* phone = sync ? sync->phone() : nullptr;
  return phone ? phone->timeZone() : nullptr;
}

// --- Calendars, device stores and parsers ---------------------------------------------------

std::optional<Dictionary> ReferenceCalendarsList::calendarForRecord(
    const Dictionary& record, std::string* identifierPointer) {
  if (!_snapshot) return std::nullopt;
  Value relation = record.get(kCalendarsEventCalendar);
  if (auto identifiers = relation.asArray()) relation = identifiers->empty() ? Value() : identifiers->first();
  const std::string* identifier = relation.asString();
  if (!identifier) return std::nullopt;
  const Dictionary found = _snapshot->recordsWithIdentifiers(Array{*identifier});
  auto calendar = found.getDictionary(*identifier);
  if (!calendar) return std::nullopt;
  if (identifierPointer) *identifierPointer = *identifier;
  return calendar;
}

std::optional<Dictionary> ReferenceDeviceStore::getPrivateStorageDeviceRecordForKey(
    const std::string& key) const {
  auto it = _records.find(key);
  if (it == _records.end()) return std::nullopt;
  return it->second.deepCopy();
}

void ReferenceDeviceStore::setPrivateStorageDeviceRecord(const std::optional<Dictionary>& record,
                                                         const std::string& key) {
  if (record) _records[key] = record->deepCopy();
  else _records.erase(key);
}

DeviceParserPtr ReferenceDeviceManager::parserForDataClass(const std::string& deviceDataClass) {
  return _phone ? _phone->parserForDeviceDataClass(deviceDataClass) : nullptr;
}

std::shared_ptr<DeviceStore> ReferenceDeviceManager::storeForDeviceDataClass(
    const std::string& deviceDataClass) {
  return referenceStoreForDeviceDataClass(deviceDataClass);
}

std::shared_ptr<ReferenceDeviceStore> ReferenceDeviceManager::referenceStoreForDeviceDataClass(
    const std::string& deviceDataClass) {
  std::shared_ptr<ReferenceDeviceStore>& store = _stores[deviceDataClass];
  if (!store) store = std::make_shared<ReferenceDeviceStore>();
  return store;
}

void PropertyListParser::initWithPhone(CFPhone* phone, const std::optional<Dictionary>& context) {
  _phone = phone;
  _context = context ? std::optional(context->deepCopy()) : std::nullopt;
}

namespace {
// A property list has no address kind: URLs (a contact's web pages) are
// written as the record utilities' tagged dictionaries and rebuilt on reading.
Value tagAddress(const Value& leaf, void*) {
  return leaf.isURL() ? PHCMangling::_phc_manglePlistForEncoding(leaf) : leaf;
}
}  // namespace

Data PropertyListParser::dataFromRecords(const Array& records) {
  PropertyListError error;
  auto xml = PropertyList::toXML(PHCMangling::_phc_deepMapWithSelector(records, tagAddress, nullptr),
                                 &error);
  if (!xml) {
    QVT_LOG(kLogError, hostLogDomain(), "cannot write records for the phone: {}",
            error.description());
    return Data();
  }
  return Data::fromString(*xml);
}

std::optional<Array> PropertyListParser::recordsFromData(const Data& data) {
  PropertyListError error;
  auto contents = PropertyList::fromXML(data.asString(), &error);
  auto records = contents ? contents->asArray() : std::nullopt;
  if (records) PHCMangling::_phc_manglePlistForDecoding(*records);
  if (!records)
    QVT_LOG(kLogError, hostLogDomain(), "cannot read records from the phone: {}",
            contents ? std::string("not an array") : error.description());
  return records;
}

// --- The managers' assembler answers ----------------------------------------

bool ReferenceDataClassManager::setAssemblerDelegate(const std::shared_ptr<Object>& helper) {
  auto delegate = std::dynamic_pointer_cast<GenericAssemblerDelegate>(helper);
  _assemblerDelegate = delegate;
  return delegate != nullptr;
}

std::shared_ptr<GenericAssemblerDelegate> ReferenceDataClassManager::assemblerDelegate() const {
  return _assemblerDelegate.lock();
}

Array ReferenceDataClassManager::masterRelationKeysForMasterEntity(const std::string& masterEntity) {
  auto delegate = assemblerDelegate();
  return delegate ? delegate->masterRelationKeysForMasterEntity(masterEntity) : Array();
}

Dictionary ReferenceDataClassManager::relationKeysToSubEntitiesForMasterEntity(
    const std::string& masterEntity) {
  auto delegate = assemblerDelegate();
  return delegate ? delegate->relationKeysToSubEntitiesForMasterEntity(masterEntity)
                  : Dictionary();
}

Dictionary ReferenceDataClassManager::entityToBackRelationShipForMasterEntity(
    const std::string& masterEntity) {
  auto delegate = assemblerDelegate();
  return delegate ? delegate->entityToBackRelationShipForMasterEntity(masterEntity)
                  : Dictionary();
}

Array ReferenceDataClassManager::extraKeysForMasterEntity(const std::string& masterEntity) {
  auto delegate = assemblerDelegate();
  return delegate ? delegate->extraKeysForMasterEntity(masterEntity) : Array();
}

void ReferenceDataClassManager::sortRelation(const std::string& relation, Array& identifiers,
                                  const Dictionary& records, const std::string& entity) {
  if (auto delegate = assemblerDelegate())
    delegate->sortRelation(relation, identifiers, records, entity);
}

void ReferenceDataClassManager::addCustomField(const Value& field, const std::string& key) {
  if (auto delegate = assemblerDelegate()) delegate->addCustomField(field, key);
}

// --- ReferenceConduitManager -------------------------------------------------------------

ReferenceConduitManager::ReferenceConduitManager(std::shared_ptr<SimulatedPhone> device,
                                                 std::shared_ptr<SyncEngineClient> client)
    : _device(std::move(device)), _client(std::move(client)) {}

namespace {
std::optional<Dictionary> deepCopyOf(const std::optional<Dictionary>& dictionary) {
  return dictionary ? std::optional(dictionary->deepCopy()) : std::nullopt;
}
}  // namespace

void ReferenceConduitManager::setPhoneConduitDescription(
    const std::optional<Dictionary>& description, std::int32_t version) {
  _description = deepCopyOf(description);
  _version = version;
}

void ReferenceConduitManager::setSyncEnginePlist(const std::optional<Dictionary>& plist) {
  _syncEnginePlist = deepCopyOf(plist);
}

std::optional<Dictionary> ReferenceConduitManager::syncEnginePlist() {
  return deepCopyOf(_syncEnginePlist);
}

void ReferenceConduitManager::addParserService(const std::string& name,
                                               const std::string& parserClassName) {
  _parserServices[name] = parserClassName;
}

std::optional<Dictionary> ReferenceConduitManager::phoneConduitDescriptionWithVersion(
    std::int32_t* version) {
  if (version) *version = _version;
  return deepCopyOf(_description);
}

DeviceParserPtr ReferenceConduitManager::parserWithName(const std::string& name,
                                                        const Dictionary& info, CFPhone& phone) {
  auto it = _parserServices.find(name);
  if (it == _parserServices.end()) return nullptr;
  auto parser = ClassRegistry::createAs<DeviceParser>(it->second);
  if (parser) parser->initWithPhone(&phone, info);
  return parser;
}

}  // namespace pc
