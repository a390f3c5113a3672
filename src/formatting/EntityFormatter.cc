#include "formatting/EntityFormatter.h"

#include <algorithm>

#include <fmt/format.h>

#include "async/Log.h"
#include "conduit/CFPhone.h"
#include "async/ConditionReport.h"
#include "engine/SchemaNames.h"
#include "formatting/DescriptionCheck.h"
#include "formatting/FormattingMethods.h"
#include "platform/HostInterfaces.h"
#include "platform/Exception.h"
#include "platform/Registry.h"
#include "util/SyncCategory.h"

namespace pc {

PC_REGISTER_CLASS(EntityFormatter, "");

namespace {

const std::string& entityLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("EntityFormatter"));
  return domain;
}

[[noreturn]] void logAndRaise(const std::string& text) {
  QVT_LOG(kLogError, entityLogDomain(), "{}", text);
  raiseException(kInvalidArgumentException, text);
}

struct StandardMethod {
  const char* entity;
  const char* selector;
  const char* logText;
};

// The standard formatting of each entity that has one, and its log line.
constexpr StandardMethod kStandardMethods[] = {
    {kCalendarsEvent, "standardFormatEvent:", "got event: {}"},
    {kCalendarsTask, "standardFormatTask:", "got task: {}"},
    {kCalendarsRecurrence, "standardFormatRecurrence:", "got recurrence: {}"},
    {kContactsContact, "standardFormatContact:", "got contact: {}"},
    {kContactsStreetAddress, "standardFormatStreetAddresses:", "got street address: {}"},
    {kContactsURL, "standardFormatURL:", "got url: {}"},
    {kContactsEmailAddress, "standardFormatEMail:", "got email: {}"},
    {kContactsPhoneNumber, "standardFormatPhoneNumber:", "got phone number: {}"},
};

// The keys of an entity's first-format description that the entity
// formatter reads.
const std::string kDescriptionKeys[] = {"FormatterClass",   "TypeKey",          "FieldFormatting",
                                        "MaxNumber",        "MaxNumberPerType", "RecordFormatting",
                                        "PreFiltering",     "GlobalFormatting"};

const StandardMethod* standardMethodFor(const std::string& entityName) {
  for (const StandardMethod& method : kStandardMethods)
    if (entityName == method.entity) return &method;
  return nullptr;
}

// A call of `selector` that must take `count` arguments.
InvocationPtr invocationTaking(const ObjectPtr& target, const std::string& selector,
                               std::size_t count) {
  InvocationPtr invocation = SyncInvocation::invocationForSelector(target, selector);
  if (invocation->argumentCount() != count)
    logAndRaise(fmt::format("not enough argument for method {}", selector));
  return invocation;
}

const MethodInfo* methodNamed(const std::shared_ptr<FormattingMethods>& formatter,
                              const Value& name) {
  const std::string* text = name.asString();
  return (formatter && text) ? MethodTable::lookup(formatter->className(), *text) : nullptr;
}

// Whether an array description is a chain of calls rather than one call: its
// first element names a one-argument method, the array is longer than that
// method takes, and every element is itself a call description.
bool isChain(const Array& description, const std::shared_ptr<FormattingMethods>& formatter) {
  if (description.empty()) return true;
  if (!description.first().isString()) return true;
  const MethodInfo* method = methodNamed(formatter, description.first());
  if (!method || method->argumentCount() == description.count() || method->argumentCount() != 1)
    return false;
  for (const Value& element : description)
    if (!element.isString() && !element.isArray()) return false;
  return true;
}

}  // namespace

// --- Building stored calls -------------------------------------------------------------

namespace SyncInvocation {

InvocationPtr invocationForSelector(const ObjectPtr& target, const std::string& selector) {
  InvocationPtr invocation = Invocation::invocationWithTarget(target, selector);
  if (!invocation) {
    logAndRaise(fmt::format("cannot find method signature for \"-[{} {}]\"",
                            target ? target->className() : std::string("nil"), selector));
  }
  return invocation;
}

Value reinterpretValueForService(const Value& value, const DeviceSyncService* service,
                                 bool* undefined) {
  const std::string* text = value.asString();
  if (!service || !text || text->empty() || (*text)[0] != '$') return value;
  const std::string name = text->substr(1);
  if (std::optional<Value> found = service->valueForVariable(name); found && !found->isNull())
    return *found;
  QVT_LOG(kLogWarning, entityLogDomain(), "the ivar {} is not defined", name);
  description_check::report(fmt::format("the ivar {} is not defined", name));
  if (undefined) *undefined = true;
  return value;
}

InvocationPtr _simpleInvocationFromObject(const Value& description,
                                          const DeviceSyncService* service,
                                          const std::shared_ptr<FormattingMethods>& formatter) {
  if (!QVT_CHECK(formatter)) return nullptr;
  InvocationPtr invocation;
  if (const std::string* name = description.asString()) {
    invocation = invocationForSelector(formatter, *name);
    if (invocation->argumentCount() != 1)
      logAndRaise(fmt::format("not enough argument for method {}", *name));
  } else if (auto list = description.asArray(); list && !list->empty() && list->first().isString()) {
    const std::string name = list->first().string();
    invocation = invocationForSelector(formatter, name);
    if (invocation->argumentCount() != list->count())
      logAndRaise(fmt::format("not enough argument for method {}", name));
    const std::string& types = invocation->argumentTypes();
    for (std::size_t i = 1; i < list->count(); ++i) {
      description_check::PathScope scope(std::to_string(i));
      const Value& element = list->at(i);
      const Value value = reinterpretValueForService(element, service);
      switch (types[i]) {
        case 'c':
        case 'i':
          if (!value.isNull() && !value.isNumber() && !value.isString())
            logAndRaise(fmt::format("argument {} of method {} must be a number, not {}", i + 1,
                                    name, value));
          if (types[i] == 'c') invocation->setArgument(Value(!value.isNull() && value.boolValue()), i);
          else invocation->setArgument(Value(value.isNull() ? 0 : value.integerValue()), i);
          break;
        case '@':
          // Objects take the element as written, not its substitution.
          invocation->setArgument(element, i);
          break;
        default:
          logAndRaise("this method signature is not correct");
      }
    }
  } else {
    logAndRaise(fmt::format("The object {} does not describe a proper invocation", description));
  }
  QVT_CHECK(invocation);
  return invocation;
}

}  // namespace SyncInvocation

// --- Construction -------------------------------------------------------------------

EntityFormatter::~EntityFormatter() = default;

const std::string& EntityFormatter::logDomain() { return entityLogDomain(); }

std::string EntityFormatter::description() const {
  return fmt::format("[{}-{}:{}]", className(), static_cast<const void*>(this),
                     _entityName.value_or("(null)"));
}

void EntityFormatter::initWithPhone(CFPhone& phone, const std::string& entityName) {
  // An entity's entry that is not a dictionary is no description at all.
  std::int32_t version = 0;
  if (auto device = phone.phoneConduitDescriptionWithVersion(&version)) {
    for (const char* key : {kEntityFormattersKey, kFormattingKey}) {
      auto entries = device->getDictionary(key);
      const Value* entry = entries ? entries->find(entityName) : nullptr;
      if (!entry || entry->isDictionary()) continue;
      QVT_LOG(kLogInfo, logDomain(), "ignored: {} -> {}", entityName, *entry);
      description_check::report(
          fmt::format("the description of an entity must be a dictionary, not {}", *entry),
          std::string(key) + "/" + entityName);
    }
  }
  initWithDescriptions(entityName, phone.formattingDescriptionForEntity(entityName),
                       phone.formattingDescriptionV2ForEntity(entityName),
                       phone.allKeysForEntity(entityName), phone.syncService(), phone.syncClient());
}

void EntityFormatter::initWithDescriptions(const std::string& entityName,
                                           const std::optional<Dictionary>& description,
                                           const std::optional<Dictionary>& descriptionV2,
                                           const std::optional<Array>& supportedKeys,
                                           std::shared_ptr<DeviceSyncService> service,
                                           std::shared_ptr<SyncEngineClient> client) {
  namespace check = description_check;
  QVT_LOG(kLogInfo, logDomain(), "call with entityName = {}", entityName);
  const DeviceSyncService* syncService = service.get();
  const Dictionary first = description.value_or(Dictionary());
  // Key paths of reported problems: first-format keys, then second-format fields.
  std::optional<check::PathScope> formatScope, entityScope;
  auto enterFormat = [&](const char* key) {
    entityScope.reset();
    formatScope.reset();
    formatScope.emplace(key);
    entityScope.emplace(entityName);
  };
  enterFormat("EntityFormatters");

  if (supportedKeys) {
    supportedAttributes = Set();
    _supportedKeyTexts.clear();
    for (const Value& key : *supportedKeys) {
      supportedAttributes->add(key);
      if (const std::string* text = key.asString()) _supportedKeyTexts.insert(*text);
    }
  }

  // The formatting-methods object every call goes to.
  const Value classValue = first.get("FormatterClass");
  std::string className = classValue.isNull() ? "FormattingMethods" : classValue.stringValue();
  const bool known = classValue.isNull() || classValue.isString();
  check::step("FormatterClass", [&] {
    if (!known || !ClassRegistry::isSubclassOf(className, "FormattingMethods") ||
        !(formatter = ClassRegistry::createAs<FormattingMethods>(className)))
      logAndRaise(fmt::format("cannot find the formatting class {}", classValue));
  });
  // A check goes on with the base class, to find the description's other problems.
  if (!formatter) formatter = std::make_shared<FormattingMethods>();
  formatter->initWithDictionary(description, entityName, service, client);
  _entityName = entityName;
  QVT_CHECK_NAMED(formatter, "_formatter");

  // A misspelt key ("MaxNumbr") would otherwise leave its limit off silently.
  const std::vector<std::string> classKeys = formatter->ownDescriptionKeys();
  for (const auto& [key, value] : first) {
    const std::string name = key.stringValue();
    if (std::find(std::begin(kDescriptionKeys), std::end(kDescriptionKeys), name) !=
            std::end(kDescriptionKeys) ||
        std::find(classKeys.begin(), classKeys.end(), name) != classKeys.end())
      continue;
    QVT_LOG(kLogInfo, logDomain(), "ignored: {} -> {}", key, value);
    check::report(fmt::format("unknown entity formatting key \"{}\" (ignored)", name), name);
  }

  if (const Value* typeKey = first.find("TypeKey")) {
    if (typeKey->isString()) setTypeKey(typeKey->string());
    else check::report(fmt::format("\"TypeKey\" must be a string, not {}", *typeKey), "TypeKey");
  }

  if (descriptionV2) {
    enterFormat("Formatting");
    for (const auto& [field, properties] : *descriptionV2) {
      const std::string fieldName = field.stringValue();
      QVT_LOG(kLogInfo, logDomain(), "got for {}\n{}", fieldName, properties);
      check::PathScope scope(fieldName);
      auto dictionary = properties.asDictionary();
      if (!dictionary) {
        check::report(fmt::format("the properties of a field must be a dictionary, not {}",
                                  properties));
        QVT_CHECK_NAMED(false, "field properties");
        continue;
      }
      auto fieldFormatter = std::make_shared<QVTSyncStringFieldFormatter>();
      if (!check::step({}, [&] {
            fieldFormatter->initWithProperties(*dictionary, entityName, fieldName, this);
          }))
        continue;
      fieldFormatter->setFormattingMethods(formatter);
      _setupWithFieldFormatter(*fieldFormatter);
      fieldToFormatterv2[fieldName] = std::move(fieldFormatter);
    }
    enterFormat("EntityFormatters");
  }

  if (const StandardMethod* standard = standardMethodFor(entityName))
    standardFormatting = invocationForSelector(formatter, standard->selector);

  if (const Value* fields = first.find("FieldFormatting")) {
    check::PathScope scope("FieldFormatting");
    if (auto dictionary = fields->asDictionary()) {
      for (const auto& entry : *dictionary) {
        // A named reference, not a structured binding: clang 14 (the fuzz
        // build) cannot capture bindings in the lambda below.
        const Value& invocationDescription = entry.second;
        const std::string fieldName = entry.first.stringValue();
        check::PathScope fieldScope(fieldName);
        check::step({}, [&] {
          InvocationPtr invocation = _invocationFromObject(invocationDescription, syncService);
          if (QVT_CHECK(invocation)) fieldToInvocation[fieldName] = std::move(invocation);
        });
      }
    } else {
      check::report(fmt::format("\"FieldFormatting\" must be a dictionary, not {}", *fields));
    }
  }

  if (const Value* maxNumber = first.find("MaxNumber")) {
    check::PathScope scope("MaxNumber");
    check::step({}, [&] {
      const Value value = reinterpretValueForService(*maxNumber, syncService);
      if (!value.isNull()) {
        const std::optional<std::int64_t> n =
            (value.isNumber() || value.isString()) ? value.integerIfNumeric() : std::nullopt;
        maxRecords = static_cast<std::int32_t>(std::clamp<std::int64_t>(n.value_or(0), INT32_MIN, INT32_MAX));
        if (maxRecords < 1)
          logAndRaise(
              fmt::format("MaxNumber should be strictly positive.  Currently, it is {}", maxRecords));
        QVT_LOG(kLogInfo, logDomain(), "maxnumber for this entity is {}", maxRecords);
      }
    });
  }

  if (const Value* perType = first.find("MaxNumberPerType")) {
    check::PathScope scope("MaxNumberPerType");
    if (auto dictionary = perType->asDictionary()) {
      Dictionary numbers;
      for (const auto& [label, number] : *dictionary) {
        if (number.isNumber() || number.isString()) {
          numbers.set(label, Value(number.integerIfNumeric().value_or(0)));
        } else {
          check::report(fmt::format("the number of a type must be a number, not {}", number),
                        label.stringValue());
          QVT_CHECK_NAMED(false, "number per type");
        }
      }
      setNumberPerType(numbers);
    } else {
      check::report(fmt::format("\"MaxNumberPerType\" must be a dictionary, not {}", *perType));
    }
  }

  if (const Value* recordFormatting = first.find("RecordFormatting")) {
    QVT_LOG(kLogInfo, logDomain(), "postprocessing = {}", *recordFormatting);
    check::PathScope scope("RecordFormatting");
    check::step({}, [&] { postProcessing = _invocationFromObject(*recordFormatting, syncService); });
  }

  if (const Value* preFilteringDescription = first.find("PreFiltering")) {
    check::PathScope scope("PreFiltering");
    setupPreFiltering(*preFilteringDescription);
  }

  if (const Value* global = first.find("GlobalFormatting")) {
    QVT_LOG(kLogInfo, logDomain(), "global formatting with {}", *global);
    check::PathScope scope("GlobalFormatting");
    check::step({}, [&] {
      if (!global->isString())
        logAndRaise(fmt::format("The object {} does not describe a proper invocation", *global));
      globalProcessing = invocationTaking(formatter, global->string(), 1);
      QVT_LOG(kLogInfo, logDomain(), "global processing with {}", Value(globalProcessing));
    });
  }
}

void EntityFormatter::setupPreFiltering(const Value& description) {
  namespace check = description_check;
  if (const std::string* name = description.asString()) {
    QVT_LOG(kLogInfo, logDomain(), "prefiltering with method name {}", *name);
    // A filter takes the master record and the sub-record.
    check::step({}, [&] { preFiltering = invocationTaking(formatter, *name, 2); });
  } else if (auto names = description.asArray()) {
    Array invocations;
    for (std::size_t i = 0; i < names->count(); ++i) {
      check::step(std::to_string(i), [&] {
        const Value& name = names->at(i);
        if (!name.isString())
          logAndRaise(fmt::format("The object {} does not describe a proper invocation", name));
        invocations.add(Value(invocationTaking(formatter, name.string(), 2)));
      });
    }
    preFiltering = invocationForSelector(formatter, "onObject:subRecord:doInvocations:");
    preFiltering->setArgument(Value(invocations), 2);
    QVT_LOG(kLogInfo, logDomain(), "invocations are: {}", invocations);
  } else {
    QVT_LOG(kLogError, logDomain(), "what is it: {}", description);
    check::report(fmt::format("what is it: {}", description));
  }
  QVT_LOG(kLogInfo, logDomain(), "prefiltering with {}", Value(preFiltering));
}

InvocationPtr EntityFormatter::_invocationFromObject(const Value& description,
                                                     const DeviceSyncService* service) {
  InvocationPtr answer;
  if (description.isString()) {
    answer = _simpleInvocationFromObject(description, service, formatter);
  } else if (auto list = description.asArray()) {
    if (!isChain(*list, formatter)) {
      answer = _simpleInvocationFromObject(description, service, formatter);
    } else {
      Array invocations;
      for (std::size_t i = 0; i < list->count(); ++i) {
        description_check::PathScope scope(std::to_string(i));
        description_check::step({}, [&] {
          invocations.add(Value(_simpleInvocationFromObject(list->at(i), service, formatter)));
        });
      }
      if (invocations.count() == 1) {
        answer = invocations.first().objectAs<Invocation>();
      } else {
        answer = invocationForSelector(formatter, "_catenateInvocation:invocations:");
        answer->setArgument(Value(invocations), 1);
      }
    }
  } else {
    logAndRaise("Not implemented yet");
  }
  return answer;
}

void EntityFormatter::_setupWithFieldFormatter(const QVTSyncStringFieldFormatter& fieldFormatter) {
  switch (fieldFormatter.filteringType()) {
    case QVTSyncStringFieldFormatter::kFilteringPerSubType: {
      const QVTSyncMappingPtr mapper = fieldFormatter.fieldMapper();
      if (!mapper) {
        QVT_LOG(kLogError, logDomain(), "no mapper, check the plistv2");
        description_check::report("no mapper, check the plistv2");
      }
      setTypeKey(fieldFormatter.fieldName());
      Dictionary numbers;
      if (mapper)
        for (const Value& label : mapper->allAcceptableValues()) numbers.set(label, Value(1));
      setNumberPerType(numbers);
      break;
    }
    case QVTSyncStringFieldFormatter::kFilteringMaxPerRecord:
      maxRecords = fieldFormatter.maxSubRecord();
      break;
    default:
      break;
  }
}

// --- Accessors ----------------------------------------------------------------------------

void EntityFormatter::setHelper(DataClassHelperPtr helper) {
  if (helper == _helper) return;
  _helper = std::move(helper);
  _fieldDelegate = dynamic_cast<QVTSyncFieldFormatterDelegate*>(_helper.get());
  _assembler = dynamic_cast<GenericAssemblerDelegate*>(_helper.get());
  if (!_helper) return;
  _helper->setFormattingMethods(formatter);
  if (!fieldToFormatterv2.empty()) _helper->willBeUsedByEntityFormatter(*this);
}

void EntityFormatter::awakeFromSynchronization() {
  if (formatter) formatter->awakeFromSynchronization();
}

void EntityFormatter::_setSnapShot(std::shared_ptr<const TruthSnapshot> snapShot) {
  if (QVT_CHECK_NAMED(formatter, "_formatter")) formatter->_setSnapShot(std::move(snapShot));
}

const std::string& EntityFormatter::entityName() const {
  static const std::string none;
  return QVT_CHECK(_entityName) ? *_entityName : none;
}

bool EntityFormatter::fieldIsSupported(const std::string& fieldName) const {
  return fieldToFormatterv2.count(fieldName) != 0;
}

QVTSyncStringFieldFormatterPtr EntityFormatter::fieldFormatterForFieldName(
    const std::string& fieldName) const {
  auto it = fieldToFormatterv2.find(fieldName);
  return it == fieldToFormatterv2.end() ? nullptr : it->second;
}

void EntityFormatter::setFieldFormatter(QVTSyncStringFieldFormatterPtr fieldFormatter,
                                        const std::string& forFieldName) {
  if (fieldFormatter) fieldToFormatterv2[forFieldName] = std::move(fieldFormatter);
  else fieldToFormatterv2.erase(forFieldName);
}

QVTSyncMappingPtr EntityFormatter::mapperForFieldName(const std::string& fieldName) const {
  auto fieldFormatter = fieldFormatterForFieldName(fieldName);
  return fieldFormatter ? fieldFormatter->fieldMapper() : nullptr;
}

void EntityFormatter::setTypeKey(const std::optional<std::string>& typeKey) { _typeKey = typeKey; }

void EntityFormatter::setNumberPerType(const std::optional<Dictionary>& numberPerType) {
  if (numberPerType && _numberPerType && numberPerType->isIdenticalTo(*_numberPerType)) return;
  _numberPerType = numberPerType ? std::optional(numberPerType->copy()) : std::nullopt;
}

// --- Formatting ---------------------------------------------------------------------------

void EntityFormatter::reject(std::string reason) {
  _lastRejectionReason = std::move(reason);
  QVT_LOG(kLogInfo, logDomain(), "Somehow, the record has been rejected");
}

namespace {

// A call's answer as a record: nullopt for null (the record dropped) or
// for anything that is not a dictionary.
std::optional<Dictionary> recordAnswer(const Value& answer) { return answer.asDictionary(); }

}  // namespace

std::optional<Dictionary> EntityFormatter::formatRecord(const Dictionary& input) {
  _lastRejectionReason.clear();
  Dictionary record = input;
  const std::string& entity = _entityName ? *_entityName : std::string();

  // A first-format call runs even for a field the record lacks: those come
  // after the record's own fields, in the order of the calls.
  std::vector<const std::string*> lacking;
  for (const auto& [field, invocation] : fieldToInvocation)
    if (!record.contains(field)) lacking.push_back(&field);
  // The record's fields are formatted where they stand: a value is stored
  // back into its entry, and only a field that became null is looked up
  // again, to be removed.
  for (std::size_t at = 0; at < record.count();) {
    const Value& key = (record.begin() + static_cast<std::ptrdiff_t>(at))->first;
    const std::string* text = key.asString();
    const std::string field = text ? std::string() : key.stringValue();
    const std::string& name = text ? *text : field;
    Value value = preFormatField((record.begin() + static_cast<std::ptrdiff_t>(at))->second, name, entity);
    if (auto it = fieldToInvocation.find(name); it != fieldToInvocation.end())
      value = it->second->invokeWithValue(value);
    auto entry = record.begin() + static_cast<std::ptrdiff_t>(at);
    if (value.isNull()) {
      const Value leaving = entry->first;
      record.remove(leaving);
    } else {
      entry->second = std::move(value);
      ++at;
    }
  }
  for (const std::string* field : lacking) {
    Value value = preFormatField(Value(), *field, entity);
    value = fieldToInvocation.at(*field)->invokeWithValue(value);
    if (!value.isNull()) record.set(*field, std::move(value));
  }

  if (postProcessing) {
    std::optional<Dictionary> answer = recordAnswer(postProcessing->invokeWithValue(Value(record)));
    if (!answer) {
      reject(fmt::format("the record formatting {} dropped the record", Value(postProcessing)));
      return std::nullopt;
    }
    record = *answer;
  }

  for (const auto& [field, fieldFormatter] : fieldToFormatterv2) {
    bool rejectRecord = false;
    // The field formatter reads the value alone, so the entry stays where it is.
    Value* slot = record.find(field);
    Value value = fieldFormatter->formatField(slot ? *slot : Value(), &rejectRecord);
    if (rejectRecord) {
      reject(fmt::format("the value {} of \"{}\" is not one the phone accepts",
                         slot ? *slot : Value(), field));
      return std::nullopt;
    }
    if (value.isNull()) {
      if (slot) record.remove(field);
    } else if (slot) {
      *slot = std::move(value);
    } else {
      record.set(field, std::move(value));
    }
  }

  std::optional<Dictionary> formatted = standardFormatOnRecord(record);
  if (!formatted) {
    reject(fmt::format("the standard formatting of {} dropped the record", entity));
    return std::nullopt;
  }
  record = *formatted;

  if (_helper) {
    formatted = _helper->formatRecord(record);
    QVT_LOG(kLogInfo, logDomain(), "helper returns:{}", formatted ? Value(*formatted) : Value());
    if (!formatted) {
      reject("the data-class helper dropped the record");
      return std::nullopt;
    }
    record = *formatted;
  }

  if (supportedAttributes) keepSupportedKeys(record);
  return record;
}

std::optional<Dictionary> EntityFormatter::standardFormatOnRecord(const Dictionary& record) {
  if (!standardFormatting) return record;
  if (const StandardMethod* standard = standardMethodFor(entityName()))
    QVT_LOG(kLogInfo, logDomain(), fmt::runtime(standard->logText), record);
  return recordAnswer(standardFormatting->invokeWithValue(Value(record)));
}

std::string EntityFormatter::backRelationFrom(const Dictionary& masterRecord) const {
  if (!_assembler || !_entityName) return std::string();
  const Value* masterEntity = masterRecord.find(kEngineRecordEntityNameKey);
  const std::string* name = masterEntity ? masterEntity->asString() : nullptr;
  if (!name || name->empty()) return std::string();
  return _assembler->backRelationOfEntity(*_entityName, *name);
}

Dictionary EntityFormatter::ownerView(const Dictionary& masterRecord) {
  // Without the lists of sub-records: an admitted sub-record that kept its
  // owner would otherwise hold the list that holds it. Containers are
  // copied all the way down so that a hook cannot change the record being
  // built through the view; scalars are values and are shared as they are.
  // The view starts as a copy of the entries (keys known to be distinct, so
  // none is looked up) and loses the lists afterwards.
  Dictionary owner = masterRecord.copy();
  std::vector<Value> subRecordLists;
  for (auto& [key, value] : owner) {
    if (auto list = value.asArray()) {
      if (std::any_of(list->begin(), list->end(),
                      [](const Value& element) { return element.isDictionary(); })) {
        subRecordLists.push_back(key);
        continue;
      }
    }
    if (value.isCollection()) value = value.deepCopy();
  }
  for (const Value& key : subRecordLists) owner.remove(key);
  return owner;
}

std::optional<Dictionary> EntityFormatter::canAppendAndFormatSubRecord(
    const Dictionary& subRecord, const Dictionary& masterRecord, Dictionary& typesInRecord,
    Value* effectiveType) {
  // The filters and hooks work on a copy: the caller's sub-record is left alone.
  return canAppendAndFormatOwnedSubRecord(subRecord.deepCopy(), masterRecord, typesInRecord,
                                          effectiveType, nullptr);
}

std::optional<Dictionary> EntityFormatter::canAppendAndFormatOwnedSubRecord(
    Dictionary offered, const Dictionary& masterRecord, Dictionary& typesInRecord,
    Value* effectiveType, std::optional<Dictionary>* sharedOwnerView) {
  const std::string back = backRelationFrom(masterRecord);
  Value* came = back.empty() ? nullptr : offered.find(back);
  const bool cameWithBack = came != nullptr;
  const Value cameWith = came ? std::move(*came) : Value();
  if (!back.empty()) {
    Dictionary owner;
    if (!sharedOwnerView) {
      owner = ownerView(masterRecord);
    } else {
      if (!*sharedOwnerView) *sharedOwnerView = ownerView(masterRecord);
      owner = **sharedOwnerView;
    }
    offered.set(back, Array{Value(owner)});
  }
  std::optional<Dictionary> sub = offered;
  if (preFiltering) {
    preFiltering->setArgument(Value(masterRecord), 0);
    preFiltering->setArgument(Value(offered), 1);
    sub = recordAnswer(preFiltering->invoke());
  }
  if (sub) sub = formatRecord(*sub);
  if (!sub) return std::nullopt;
  // The owner view is not the phone's: a kept back relation is the one the
  // sub-record came with, and no record refers to the record being built.
  if (!back.empty() && sub->contains(back)) {
    if (cameWithBack) sub->set(back, cameWith);
    else sub->remove(back);
  }

  Value type;
  if (_typeKey) {
    type = sub->get(*_typeKey);
    if (type.isNull())
      QVT_LOG(kLogWarning, logDomain(), "record {} has no {} value", *sub, *_typeKey);
    if (effectiveType) *effectiveType = type;
  }
  if (!_numberPerType) return sub;

  const Value* limit = type.isNull() ? nullptr : _numberPerType->find(type);
  if (!limit) {
    QVT_LOG(kLogWarning, logDomain(),
            "mapping may be incorrect because {} is not an acceptable label for the device\n{}",
            type, *_numberPerType);
    return std::nullopt;
  }
  const std::int64_t maximum = limit->integerIfNumeric().value_or(0);
  if (maximum <= 0) {
    QVT_LOG(kLogWarning, logDomain(), "hum, plist may be incorrect");
    return std::nullopt;
  }
  const Value* counted = typesInRecord.find(type);
  const std::int64_t count = counted ? counted->integerIfNumeric().value_or(0) : 0;
  if (count >= maximum) return std::nullopt;
  typesInRecord.set(type, Value(count + 1));
  return sub;
}

void EntityFormatter::formatAssembledRecord(Dictionary& record) {
  if (globalProcessing) globalProcessing->invokeWithValue(Value(record));
  if (_helper) _helper->formatAssembledRecord(record);
}

void EntityFormatter::onlyKeepSyncEngineKey(Dictionary& record) const {
  if (!supportedAttributes) {
    QVT_LOG(kLogError, logDomain(), "we should have initialized that correctly");
    return;
  }
  keepSupportedKeys(record);
}

void EntityFormatter::keepSupportedKeys(Dictionary& record) const {
  // A string key is kept when a supported key is the same text (a string
  // equals only a string); a key of another kind is looked up in the set.
  std::vector<Value> leaving;
  for (const auto& [key, value] : record) {
    const std::string* text = key.asString();
    if (text ? !_supportedKeyTexts.contains(std::string_view(*text)) : !supportedAttributes->contains(key))
      leaving.push_back(key);
  }
  for (const Value& key : leaving) record.remove(key);
}

// --- Field-formatter delegate ---------------------------------------------------------------

Value EntityFormatter::truncateString(const Value& string, std::int32_t toLength,
                                      const std::string& forFieldName,
                                      const std::string& forEntityName) {
  if (_fieldDelegate) return _fieldDelegate->truncateString(string, toLength, forFieldName, forEntityName);
  return formatter ? formatter->maxLength(string, toLength) : string;
}

Value EntityFormatter::preFormatField(const Value& value, const std::string& attribute,
                                      const std::string& entity) {
  if (_fieldDelegate) return _fieldDelegate->preFormatField(value, attribute, entity);
  return value;
}

}  // namespace pc
