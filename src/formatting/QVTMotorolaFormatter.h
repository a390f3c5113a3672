#pragma once
// Formatting for Motorola phones: names, numbers, e-mail addresses and event
// titles are cut to the lengths the connected phone reports (stored in the
// client under kMotorolaPhoneInformationKey), and text may be restricted to
// 7-bit characters.

#include <cstdint>
#include <memory>
#include <optional>

#include "formatting/FormattingMethods.h"

namespace pc {

inline constexpr const char* kMotorolaPhoneInformationKey = "kMotorolaPhoneInformationKey";
inline constexpr const char* kMaxNameLengthKey = "kMaxNameLengthKey";
inline constexpr const char* kMaxPhoneLengthKey = "kMaxPhoneLengthKey";
inline constexpr const char* kMaxEmailAddressLengthKey = "kMaxEmailAddressLengthKey";
inline constexpr const char* kMaxEventTitleLength = "kMaxEventTitleLength";
// The e-mail type every address is sent with.
inline constexpr const char* kMotorolaEmailTypeToSyncronize = "work";
// Description key: true when the phone shows only 7-bit characters.
inline constexpr const char* kOnlySupportASCIICharKey = "OnlySupportASCIIChar";

class QVTMotorolaFormatter : public FormattingMethods {
 public:
  std::string className() const override { return "QVTMotorolaFormatter"; }

  std::vector<std::string> ownDescriptionKeys() const override {
    return {kOnlySupportASCIICharKey};
  }
  using FormattingMethods::initWithDictionary;
  void initWithDictionary(const std::optional<Dictionary>& description,
                          std::shared_ptr<DeviceSyncService> service,
                          std::shared_ptr<SyncEngineClient> client) override;
  // Reads the phone's limits from the client (defaults 30, 20, 30, 30).
  void awakeFromSynchronization() override;

  Value formatContactRecord(const Value& record);
  Value formatPhoneRecord(const Value& record);
  Value formatEmailAddressRecord(const Value& record);
  Value formatEventRecord(const Value& record);

  std::uint32_t maxNameLength() const { return _maxNameLength; }
  std::uint32_t maxPhoneLength() const { return _maxPhoneLength; }
  std::uint32_t maxEmailAddressLength() const { return _maxEmailAddressLength; }
  std::uint32_t maxEventTitleLength() const { return _maxEventTitleLength; }

 private:
  std::uint32_t _maxNameLength = 30;
  std::uint32_t _maxPhoneLength = 20;
  std::uint32_t _maxEmailAddressLength = 30;
  std::uint32_t _maxEventTitleLength = 30;
  std::shared_ptr<SyncEngineClient> _tmpClient;
  // Every character outside U+0001..U+007E, when the phone is 7-bit only.
  std::optional<CharacterSet> junk;
};

}  // namespace pc
