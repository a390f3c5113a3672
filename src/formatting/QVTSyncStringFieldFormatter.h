#pragma once
// The formatter of one field of one entity, built from the field's properties
// in the second description format ("Formatting"[entity][field]): characters
// stripped, kept, replaced by a blank or trimmed around, a default for an
// empty value, a table of acceptable values, a length limit counted in UTF-16
// units, photo reduction above a size, and the limits on sub-records
// ("relationshipConstraint") that its entity formatter applies.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "formatting/QVTSyncMapping.h"
#include "platform/Object.h"
#include "platform/Strings.h"
#include "platform/Value.h"

namespace pc {

class EntityFormatter;
class FormattingMethods;

// What a field formatter asks of its owner (the entity formatter, which passes
// the questions on to its data-class helper when the helper answers them).
class QVTSyncFieldFormatterDelegate {
 public:
  virtual ~QVTSyncFieldFormatterDelegate() = default;
  // `string` cut to `length` UTF-16 units as the phone counts them.
  virtual Value truncateString(const Value& string, std::int32_t toLength,
                               const std::string& forFieldName,
                               const std::string& forEntityName) = 0;
  // The value a field formatter sees for the attribute.
  virtual Value preFormatField(const Value& value, const std::string& attribute,
                               const std::string& entity) = 0;
};

// A field formatter as an entity formatter drives it.
class QVTSyncFieldFormatter {
 public:
  virtual ~QVTSyncFieldFormatter() = default;
  // The formatted value; null removes the field. Sets *rejectRecord when the
  // whole record must not reach the phone.
  virtual Value formatField(const Value& value, bool* rejectRecord) = 0;
};

class QVTSyncStringFieldFormatter : public Object, public QVTSyncFieldFormatter {
 public:
  // Values of filteringType.
  static constexpr std::int32_t kNoFiltering = 0;
  static constexpr std::int32_t kFilteringPerSubType = 1;  // "perSubType"
  static constexpr std::int32_t kFilteringMaxPerRecord = 2;  // "global"

  QVTSyncStringFieldFormatter() = default;
  // See initWithProperties.
  QVTSyncStringFieldFormatter(const Dictionary& properties, const std::string& forEntity,
                              const std::string& fieldName, EntityFormatter* parent);

  std::string className() const override { return "QVTSyncStringFieldFormatter"; }
  std::string description() const override;

  // `parent` is not owned. Raises invalid-argument (after a level-1 log
  // line) for a duplicate mapping or an image threshold without both
  // dimensions. Entries of the wrong kind are reported and read as absent.
  void initWithProperties(const Dictionary& properties, const std::string& forEntity,
                          const std::string& fieldName, EntityFormatter* parent);
  void setFormattingMethods(std::shared_ptr<FormattingMethods> methods);

  const std::string& fieldName() const { return _fieldName; }
  const std::string& entityName() const { return _entityName; }
  QVTSyncMappingPtr fieldMapper() const { return mapping; }
  std::int32_t maxLength() const { return _maxLength; }
  std::int32_t filteringType() const { return _filteringType; }
  // Reported when the filtering is not "global".
  std::int32_t maxSubRecord() const;
  std::int32_t thresold() const { return _thresold; }
  std::int32_t maxWidth() const { return _maxWidth; }
  std::int32_t maxHeight() const { return _maxHeight; }
  const Value& defaultValue() const { return defaultVal; }

  Value formatField(const Value& value, bool* rejectRecord) override;

  // Removes the blanks (U+0020) directly before and after every character of
  // `characters`, in place. No set: no change.
  static void trimWSP(std::string& string, const CharacterSet* atCharacters);

 private:
  std::string _entityName;
  std::string _fieldName;
  Value defaultVal;
  QVTSyncMappingPtr mapping;
  std::optional<CharacterSet> junk;
  std::optional<CharacterSet> junkToWSP;
  std::optional<CharacterSet> junkTrimWSP;
  std::int32_t _maxLength = 0;
  bool delegateCanTruncate = false;
  std::shared_ptr<FormattingMethods> methods;
  EntityFormatter* owner = nullptr;
  std::int32_t _filteringType = kNoFiltering;
  std::int32_t _maxSubRecord = 0;
  std::int32_t _thresold = 0;
  std::int32_t _maxWidth = 0;
  std::int32_t _maxHeight = 0;
};

using QVTSyncStringFieldFormatterPtr = std::shared_ptr<QVTSyncStringFieldFormatter>;

}  // namespace pc
