#include "host/RecordAssembler.h"

#include "async/Log.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"

namespace pc {

namespace {

const std::string& assemblerLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("RecordAssembler"));
  return domain;
}

// Assembled records nest (an event's detached events are events with their
// own alarms); deeper nesting than this is a record made to loop, not data.
constexpr int kMaxNesting = 8;

}  // namespace

// --- Rules from the schema ------------------------------------------------------------

// A relationship of the master leads to sub-records when its target is
// another entity whose records point back: by a relationship to the master
// entity, or by their only relationship (alarms and recurrences of a task
// point back with the relationship they use for events).
Array SchemaAssemblerDelegate::masterRelationKeysForMasterEntity(const std::string& masterEntity) {
  Array relations;
  for (const Value& relation : _schema->relationshipNamesForEntityName(masterEntity)) {
    const auto target = _schema->targetEntityForRelationship(masterEntity, relation.stringValue());
    if (!target || *target == masterEntity) continue;
    if (_schema->relationshipNamesForEntityName(*target).count() == 1) relations.add(relation);
  }
  return relations;
}

Dictionary SchemaAssemblerDelegate::relationKeysToSubEntitiesForMasterEntity(
    const std::string& masterEntity) {
  Dictionary answer;
  for (const Value& relation : masterRelationKeysForMasterEntity(masterEntity))
    if (auto target = _schema->targetEntityForRelationship(masterEntity, relation.stringValue()))
      answer.set(relation, Value(*target));
  return answer;
}

Dictionary SchemaAssemblerDelegate::entityToBackRelationShipForMasterEntity(
    const std::string& masterEntity) {
  Dictionary answer;
  for (const auto& [relation, entity] : relationKeysToSubEntitiesForMasterEntity(masterEntity)) {
    const Array back = _schema->relationshipNamesForEntityName(entity.stringValue());
    if (back.count() == 1) answer.set(entity, back.at(0));
  }
  return answer;
}

Array SchemaAssemblerDelegate::extraKeysForMasterEntity(const std::string& masterEntity) {
  const Array subRelations = masterRelationKeysForMasterEntity(masterEntity);
  Array extra;
  for (const Value& relation : _schema->relationshipNamesForEntityName(masterEntity))
    if (!subRelations.contains(relation)) extra.add(relation);
  return extra;
}

// --- Assembler ------------------------------------------------------------------------

RecordAssembler::RecordAssembler(std::shared_ptr<const EngineSchema> schema)
    : _schema(schema), _schemaDelegate(schema) {}

const Array& RecordAssembler::relationshipsOf(const std::string& entity) {
  auto found = _relationships.find(entity);
  if (found == _relationships.end())
    found = _relationships.emplace(entity, _schema->relationshipNamesForEntityName(entity)).first;
  return found->second;
}

namespace {

void askRules(GenericAssemblerDelegate& delegate, const std::string& masterEntity,
              AssemblyRules& rules) {
  rules.relations = delegate.masterRelationKeysForMasterEntity(masterEntity);
  rules.relationToEntity = delegate.relationKeysToSubEntitiesForMasterEntity(masterEntity);
  rules.entityToBackRelation = delegate.entityToBackRelationShipForMasterEntity(masterEntity);
  rules.extraKeys = delegate.extraKeysForMasterEntity(masterEntity);
}

}  // namespace

const AssemblyRules& RecordAssembler::rulesForMasterEntity(const std::string& masterEntity) {
  if (!_delegate) return schemaRulesForEntity(masterEntity);
  if (auto found = _rules.find(masterEntity); found != _rules.end()) return found->second;
  AssemblyRules& rules = _rules[masterEntity];
  askRules(*_delegate, masterEntity, rules);
  for (const auto& [relation, subEntity] : rules.relationToEntity)
    rules.backRelations.set(relation, Value(backRelation(masterEntity, relation.stringValue(),
                                                         subEntity.stringValue(), rules)));
  return rules;
}

const AssemblyRules& RecordAssembler::schemaRulesForEntity(const std::string& entity) {
  if (auto found = _schemaRules.find(entity); found != _schemaRules.end()) return found->second;
  AssemblyRules& rules = _schemaRules[entity];
  askRules(_schemaDelegate, entity, rules);
  for (const auto& [relation, subEntity] : rules.relationToEntity)
    rules.backRelations.set(relation, Value(backRelation(entity, relation.stringValue(),
                                                         subEntity.stringValue(), rules)));
  return rules;
}

std::string RecordAssembler::backRelation(const std::string& masterEntity,
                                          const std::string& relation,
                                          const std::string& subEntity,
                                          const AssemblyRules& rules) const {
  if (const Value* back = rules.entityToBackRelation.find(subEntity); back && back->isString())
    return back->string();
  // A relation the rules do not name (detached events): the sub-entity's
  // other relationship that leads to the master entity.
  const Array candidates = _schema->relationshipNamesForEntityName(subEntity);
  for (const Value& candidate : candidates) {
    const std::string name = candidate.stringValue();
    if (name != relation && _schema->targetEntityForRelationship(subEntity, name) == masterEntity)
      return name;
  }
  return candidates.count() == 1 ? candidates.at(0).stringValue() : std::string();
}

std::optional<Dictionary> RecordAssembler::assembledRecord(const std::string& identifier,
                                                           const MemoryTruthSnapshot& truth) {
  std::optional<Dictionary> master = truth.recordWithIdentifier(identifier);
  if (!master) return std::nullopt;
  const std::string entity = master->getString(kEngineRecordEntityNameKey);
  const AssemblyRules& rules = rulesForMasterEntity(entity);
  const Array& relationships = relationshipsOf(entity);

  Dictionary assembled;
  for (const auto& [key, value] : *master) {
    if (relationships.contains(key) && !rules.relations.contains(key) &&
        !rules.extraKeys.contains(key))
      continue;
    assembled.set(key, value);
  }
  GenericAssemblerDelegate& delegate = _delegate ? *_delegate : _schemaDelegate;
  for (const Value& relationValue : rules.relations) {
    const std::string relation = relationValue.stringValue();
    const Value* held = master->find(relation);
    if (!held) continue;
    auto identifiers = held->asArray();
    if (!identifiers) {
      QVT_LOG(kLogWarning, assemblerLogDomain(), "{} of {} is not a list of identifiers; dropped",
              relation, identifier);
      assembled.remove(relation);
      continue;
    }
    Array order = identifiers->copy();
    const Dictionary records = truth.recordsWithIdentifiers(order);
    const std::string subEntity = rules.relationToEntity.getString(relation);
    delegate.sortRelation(relation, order, records, subEntity);
    Array inlined;
    for (const Value& subIdentifier : order) {
      auto sub = records.getDictionary(subIdentifier);
      if (!sub) {
        QVT_LOG(kLogWarning, assemblerLogDomain(), "{} of {}: no record {}; skipped", relation,
                identifier, subIdentifier);
        continue;
      }
      // The back relation stays: the formatting hooks find the sub-record's
      // owner through it (an alarm's event, a recurrence's event).
      inlined.add(Value(*sub));
    }
    assembled.set(relation, Value(inlined));
  }
  return assembled;
}

SplitRecord RecordAssembler::split(const Dictionary& assembled, const std::string& identifier) {
  SplitRecord out;
  splitInto(assembled, identifier, out, 0, assembled.getString(kEngineRecordEntityNameKey));
  return out;
}

void RecordAssembler::splitInto(const Dictionary& assembled, const std::string& identifier,
                                SplitRecord& out, int depth, const std::string& masterEntity) {
  const std::string entity = assembled.getString(kEngineRecordEntityNameKey);
  const AssemblyRules& rules =
      entity == masterEntity ? rulesForMasterEntity(entity) : schemaRulesForEntity(entity);
  const Array relationships = relationshipsOf(entity);
  // New dictionaries for the records; the values inside are the input's.
  Dictionary master = assembled.copy();
  for (const Value& relationValue : relationships) {
    const std::string relation = relationValue.stringValue();
    auto elements = master.getArray(relation);
    if (!elements) continue;
    std::string subEntity = rules.relationToEntity.getString(relation);
    if (subEntity.empty())
      subEntity = _schema->targetEntityForRelationship(entity, relation).value_or("");
    const std::string back = rules.backRelations.contains(relation)
                                 ? rules.backRelations.getString(relation)
                                 : backRelation(entity, relation, subEntity, rules);
    Array identifiers;
    std::size_t index = 0;
    for (const Value& element : *elements) {
      auto sub = element.asDictionary();
      if (!sub) {
        identifiers.add(element);
        continue;
      }
      const std::string subIdentifier = identifier + "/" + relation + "/" + std::to_string(index++);
      Dictionary record = sub->copy();
      if (!record.contains(kEngineRecordEntityNameKey) && !subEntity.empty())
        record.set(kEngineRecordEntityNameKey, Value(subEntity));
      if (!back.empty()) record.set(back, Value(Array{Value(identifier)}));
      identifiers.add(Value(subIdentifier));
      if (depth < kMaxNesting) {
        // A sub-record may hold sub-records of its own (a detached event's alarms).
        SplitRecord nested;
        splitInto(record, subIdentifier, nested, depth + 1, masterEntity);
        out.subRecords.emplace_back(subIdentifier, nested.master);
        for (auto& entry : nested.subRecords) out.subRecords.push_back(std::move(entry));
      } else {
        QVT_LOG(kLogError, assemblerLogDomain(), "{} nests too deeply; kept as it is",
                subIdentifier);
        out.subRecords.emplace_back(subIdentifier, record);
      }
    }
    master.set(relation, Value(identifiers));
  }
  out.master = master;
}

void RecordAssembler::addToTruth(const Dictionary& assembled, const std::string& identifier,
                                 MemoryTruthSnapshot& truth) {
  SplitRecord parts = split(assembled, identifier);
  truth.addRecord(identifier, parts.master);
  for (const auto& [subIdentifier, record] : parts.subRecords) truth.addRecord(subIdentifier, record);
}

}  // namespace pc
