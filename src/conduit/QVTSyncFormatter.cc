#include "conduit/QVTSyncFormatter.h"

#include <mutex>

#include "async/AYLogger.h"
#include "async/Log.h"
#include "conduit/CFPhone.h"
#include "async/ConditionReport.h"
#include "engine/SchemaNames.h"
#include "platform/HostInterfaces.h"
#include "platform/Exception.h"
#include "platform/Registry.h"

namespace pc {

PC_REGISTER_CLASS(QVTSyncFormatter, "");

namespace {

std::once_flag sLogsRegistered;

// The device's variables as the phone side stored them in the client.
class StoredVariablesService : public DeviceSyncService {
 public:
  explicit StoredVariablesService(Dictionary variables) : _variables(std::move(variables)) {}
  std::string className() const override { return "StoredVariablesService"; }
  std::string serviceName() const override { return kSynchronisationServiceName; }
  std::optional<Value> valueForVariable(const std::string& name) const override {
    const Value* value = _variables.find(name);
    return value ? std::optional(*value) : std::nullopt;
  }

 private:
  Dictionary _variables;
};

}  // namespace

QVTSyncFormatter::~QVTSyncFormatter() = default;

const std::string& QVTSyncFormatter::logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncFormatter"));
  return domain;
}

void QVTSyncFormatter::initWithClient(std::shared_ptr<SyncEngineClient> aClient,
                                      std::shared_ptr<const TruthSnapshot> snapshot) {
  std::call_once(sLogsRegistered, [] { QVTRegisterLogsUnlessRegistered(); });
  QVT_LOG(kLogInfo, logDomain(), "heho {} {}",
          aClient ? aClient->clientIdentifier() : std::string("(null)"),
          aClient ? aClient->displayName() : std::string("(null)"));
  client = std::move(aClient);
  snapShot = std::move(snapshot);
  formatters.emplace();
  entities = Array();

  std::unique_ptr<CFPhone> phone = CFPhone::phoneWithClient(client);
  if (!phone) return;
  entities = phone->supportedEntityNames();
  std::shared_ptr<DeviceSyncService> service = phone->syncService();
  if (!service) {
    const auto stored = client->objectForKey(kDeviceVariablesClientKey).asDictionary();
    service = std::make_shared<StoredVariablesService>(stored.value_or(Dictionary()));
  }
  for (const Value& entity : entities) {
    const std::string entityName = entity.stringValue();
    try {
      // The formatter class registers itself by name; the conduit knows it
      // only through its interface.
      auto formatter = ClassRegistry::createAs<EntityFormatting>("EntityFormatter");
      if (!formatter) {
        QVT_LOG(kLogError, logDomain(), "cannot load class {}", "EntityFormatter");
        break;
      }
      formatter->initWithDescriptions(entityName, phone->formattingDescriptionForEntity(entityName),
                                      phone->formattingDescriptionV2ForEntity(entityName),
                                      phone->allKeysForEntity(entityName), service,
                                      phone->syncClient());
      formatter->_setSnapShot(snapShot);
      if (DataClassHelperPtr helper = phone->canonicalHelperForEntity(entityName))
        formatter->setHelper(std::move(helper));
      else
        QVT_LOG(kLogInfo, logDomain(), "no helper for {}", entityName);
      (*formatters)[entityName] = formatter;
      formatter->awakeFromSynchronization();
    } catch (const Exception&) {
      QVT_LOG(kLogError, logDomain(), "some methods are not in the bundle");
      formatters->erase(entityName);
    }
  }
  phone->invalidate();
}

EntityFormattingPtr QVTSyncFormatter::formatterForEntity(
    const std::string& entityName) const {
  if (!formatters) return nullptr;
  auto it = formatters->find(entityName);
  return it == formatters->end() ? nullptr : it->second;
}

std::optional<Dictionary> QVTSyncFormatter::formattedRecordForRecord(
    const Dictionary& record, const std::string& identifier) {
  QVT_CHECK_NAMED(formatters, "_formatters");
  QVT_LOG(kLogInfo, logDomain(), "ask to format {}\n{}", identifier, record);
  EntityFormattingPtr formatter =
      formatterForEntity(record.get(kEngineRecordEntityNameKey).stringValue());
  if (!formatter) {
    QVT_LOG(kLogWarning, logDomain(), "no formatter!!");
    return std::nullopt;
  }
  // A deep copy: formatting changes records and their lists in place, and
  // the engine's record and its sub-records are not the formatter's to change.
  std::optional<Dictionary> answer = record.deepCopy();
  try {
    answer = formatter->formatRecord(*answer);
  } catch (const Exception& exception) {
    QVT_LOG(kLogError, logDomain(), "exception {}", exception.description());
  }
  QVT_LOG(kLogInfo, logDomain(), "result is\n{}", answer ? Value(*answer) : Value());
  return answer;
}

}  // namespace pc
