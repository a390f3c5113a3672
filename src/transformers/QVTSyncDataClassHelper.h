#pragma once
// The common base of the data-class helpers (the event and contact
// transformers). A helper is at once the record transformer of its data class
// (changes records before they go to the phone and after they come back) and
// the delegate of the entity formatters of that data class (pre-filters
// field values, truncates strings, may reformat whole records).
//
// The base holds what every data class shares: the text-repertoire flags
// read from the device description ("needsLFCount2X", "onlyAsciiCharacters",
// "noNewLines"), the host's data-class manager, and the phone's
// FormattingMethods, to which it leaves length measurement and time-zone
// questions. Its record operations do nothing; subclasses override them.
//
// Subclasses register under their own name with "QVTSyncDataClassHelper" as
// superclass, so that the three flags are assigned to them by key too.

#include <memory>
#include <optional>
#include <string>

#include "conduit/ConduitProtocols.h"
#include "formatting/QVTSyncStringFieldFormatter.h"
#include "platform/Object.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

class QVTSyncDataClassHelper : public Object,
                               public QVTSyncRecordTransformer,
                               public EntityFormatterDelegate,
                               public QVTSyncFieldFormatterDelegate {
 public:
  QVTSyncDataClassHelper() = default;
  ~QVTSyncDataClassHelper() override;

  std::string className() const override { return "QVTSyncDataClassHelper"; }

  // --- Record transformer --------------------------------------------------
  // needsLFCount2X on, then each entry assigned by key (unknown keys logged
  // and skipped).
  void initWithProperties(const Dictionary& properties) override;
  void setValueForUndefinedKey(const Value& value, const std::string& key) override;
  // Not owned.
  void setDataClassManager(DataClassManager* manager) override { dataClassManager = manager; }
  DataClassManager* getDataClassManager() const { return dataClassManager; }
  void mangleRecordBeforePushingToDevice(RecordHolder&) override {}
  void unmangleRecordAfterReadingFromDevice(RecordHolder&) override {}

  // --- Entity-formatter delegate ---------------------------------------------
  void setFormattingMethods(std::shared_ptr<FormattingMethods> methods) override;
  // Reports a missing object.
  const std::shared_ptr<FormattingMethods>& formattingMethods() const;
  void willBeUsedByEntityFormatter(EntityFormatter&) override {}
  // The record itself.
  std::optional<Dictionary> formatRecord(const Dictionary& record) override { return record; }
  void formatAssembledRecord(Dictionary&) override {}
  // Raises "NotImplementedInSubClass": each subclass names its entities.
  Array allPossibleEntities() override;

  // --- Field-formatter delegate -------------------------------------------------
  // Cut by the phone's measure: a line feed counts twice with needsLFCount2X.
  // Null without formatting methods.
  Value truncateString(const Value& string, std::int32_t toLength, const std::string& forFieldName,
                       const std::string& forEntityName) override;
  // ASCII-reduced with onlyAsciiCharacters, line feeds made blanks with
  // noNewLines; values other than strings pass unchanged.
  Value preFormatField(const Value& value, const std::string& attribute,
                       const std::string& entity) override;

  // --- Questions left to the formatting methods ----------------------------------
  // Null without formatting methods.
  TimeZonePtr phoneTimeZoneForFormatting() const;
  Value mainRecordFromRelation(const Value& relation) const;
  Array extraFiltersForClientIdentifier(const std::string&) const { return Array(); }

  bool needsLFCount2X() const { return _needsLFCount2X; }
  bool onlyAsciiCharacters() const { return _onlyAsciiCharacters; }
  bool noNewLines() const { return _noNewLines; }
  void setNeedsLFCount2X(bool value) { _needsLFCount2X = value; }
  void setOnlyAsciiCharacters(bool value) { _onlyAsciiCharacters = value; }
  void setNoNewLines(bool value) { _noNewLines = value; }

 protected:
  // ".sync.QVTSyncDataClassHelper".
  static const std::string& logDomain();

 private:
  bool _needsLFCount2X = true;
  bool _onlyAsciiCharacters = false;
  bool _noNewLines = false;
  DataClassManager* dataClassManager = nullptr;
  std::shared_ptr<FormattingMethods> methods;
};

}  // namespace pc
