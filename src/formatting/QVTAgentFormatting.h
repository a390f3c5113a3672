#pragma once
// Formatting for Symbian phones (UIQ and Series 60): phone-number and URL
// label rules. A number of type "other" keeps its label only when it is one
// of the phone's own labels, which come localised from the "Synchro" table.

#include <memory>
#include <optional>
#include <string>

#include "formatting/FormattingMethods.h"

namespace pc {

class QVTAgentFormatting : public FormattingMethods {
 public:
  std::string className() const override { return "QVTAgentFormatting"; }

  // Builds the table of the phone's labels in the user's language. Runs on
  // first use; calling it again rebuilds the table (after a change of language).
  static void initialize();
  // Key ("fax", "work mobile", ...) -> localised label; null (reported) when
  // the table was never built.
  static std::optional<Dictionary> symbianLocalizer();

  using FormattingMethods::initWithDictionary;
  void initWithDictionary(const std::optional<Dictionary>& description,
                          std::shared_ptr<DeviceSyncService> service,
                          std::shared_ptr<SyncEngineClient> client) override;

  Value series60PhoneNumbers(const Value& record);
  Value UIQPhoneNumbers(const Value& record);
  // The new type is always the home page type; the argument is accepted for
  // descriptions that name one.
  Value changeRegularOtherTypeButKeepCustomType(const Value& record, const Value& toNewType);

  const std::string& phoneId() const { return _phoneId; }

 private:
  std::string _phoneId;
};

}  // namespace pc
