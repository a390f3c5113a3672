#pragma once
// The host's record assembler. The engine keeps a master record (an event, a
// task, a contact) and its sub-records (recurrences, alarms, phone numbers,
// addresses, ...) as separate records linked by identifiers; the phone side
// formats them as one assembled record in which each relationship holds the
// sub-record dictionaries themselves. The assembler builds that form from the
// engine's truth and splits it again into a master and its sub-records, each
// sub-record pointing back to its master.
//
// Which relations make up a master record is asked of a
// GenericAssemblerDelegate (the data-class helper of the record's data
// class). Without one, the engine's schema answers: a relationship leads to
// sub-records when its target entity is another entity whose records point
// back to the master by a relationship of their own.
//
//   RecordAssembler assembler(schema);
//   assembler.setDelegate(helperAsDelegate);          // optional
//   std::optional<Dictionary> event = assembler.assembledRecord("event-02", truth);
//   SplitRecord parts = assembler.split(*event, "event-02");

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/HostInterfaces.h"
#include "platform/Value.h"

namespace pc {

class EngineSchema;
class MemoryTruthSnapshot;

// How one master entity is assembled.
struct AssemblyRules {
  Array relations;              // relations holding sub-records, in order
  Dictionary relationToEntity;  // relation -> sub-entity
  Dictionary entityToBackRelation;  // sub-entity -> relation pointing to the master
  Array extraKeys;              // relations of the master carried as they are
  Dictionary backRelations;     // relation -> the back relation of its sub-records
};

// An assembled record split into engine records: the master (its relations
// holding identifiers) and each sub-record with its identifier.
struct SplitRecord {
  Dictionary master;
  std::vector<std::pair<std::string, Dictionary>> subRecords;
};

// The assembly rules the engine's schema gives, for hosts whose data class has
// no helper that answers them.
class SchemaAssemblerDelegate : public GenericAssemblerDelegate {
 public:
  explicit SchemaAssemblerDelegate(std::shared_ptr<const EngineSchema> schema)
      : _schema(std::move(schema)) {}

  Array masterRelationKeysForMasterEntity(const std::string& masterEntity) override;
  Dictionary relationKeysToSubEntitiesForMasterEntity(const std::string& masterEntity) override;
  Dictionary entityToBackRelationShipForMasterEntity(const std::string& masterEntity) override;
  Array extraKeysForMasterEntity(const std::string& masterEntity) override;
  void sortRelation(const std::string&, Array&, const Dictionary&, const std::string&) override {}
  void addCustomField(const Value&, const std::string&) override {}

 private:
  std::shared_ptr<const EngineSchema> _schema;
};

class RecordAssembler {
 public:
  explicit RecordAssembler(std::shared_ptr<const EngineSchema> schema);

  // The delegate asked for the rules (not owned); null: the schema answers.
  void setDelegate(GenericAssemblerDelegate* delegate) {
    if (delegate != _delegate) _rules.clear();
    _delegate = delegate;
  }
  GenericAssemblerDelegate* delegate() const { return _delegate; }

  // Asked once per entity and delegate, then kept.
  const AssemblyRules& rulesForMasterEntity(const std::string& masterEntity);

  // The master record `identifier` of the truth with its sub-records inlined
  // (sorted by the delegate, each keeping its back relation), its extra keys
  // carried as they are and its other relations left out; nullopt when the
  // truth has no such record. An identifier without a record is skipped.
  std::optional<Dictionary> assembledRecord(const std::string& identifier,
                                            const MemoryTruthSnapshot& truth);

  // The engine records of an assembled record. Each relation of the rules,
  // and any other relationship of the entity that holds dictionaries (a
  // record file's detached events), gives sub-records named
  // "<master>/<relation>/<index>", which point back to `identifier` and are
  // split in turn; identifiers in a relation are kept. The records are new
  // dictionaries whose values are shared with `assembled`: a caller that
  // keeps them and changes values in place copies them first.
  SplitRecord split(const Dictionary& assembled, const std::string& identifier);

  // Splits `assembled` and stores the master and every sub-record in `truth`.
  void addToTruth(const Dictionary& assembled, const std::string& identifier,
                  MemoryTruthSnapshot& truth);

 private:
  // The relationship by which records of `subEntity` held in `relation` of
  // `masterEntity` point back to the master.
  std::string backRelation(const std::string& masterEntity, const std::string& relation,
                           const std::string& subEntity, const AssemblyRules& rules) const;
  // `masterEntity`: the entity split at the top. The delegate answers for
  // records of that entity only (a detached event inside an event); the
  // schema answers for other sub-records (alarms, recurrences), which the
  // delegate does not know as masters.
  void splitInto(const Dictionary& assembled, const std::string& identifier, SplitRecord& out,
                 int depth, const std::string& masterEntity);
  const AssemblyRules& schemaRulesForEntity(const std::string& entity);

  std::shared_ptr<const EngineSchema> _schema;
  SchemaAssemblerDelegate _schemaDelegate;
  GenericAssemblerDelegate* _delegate = nullptr;
  std::map<std::string, AssemblyRules> _rules;
  std::map<std::string, AssemblyRules> _schemaRules;
  std::map<std::string, Array> _relationships;  // entity -> the schema's relationships
  const Array& relationshipsOf(const std::string& entity);
};

}  // namespace pc
