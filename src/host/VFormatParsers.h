#pragma once
// The parsers of the phone's own formats, registered by class name:
// "VCardParser" (contacts, vCard 2.1, the parser of "text/x-vcard") and
// "VCalendarParser" (events and tasks, vCalendar 1.0, the parser of
// "text/x-vcalendar"). Each is also the file form of its data class in the
// phone store ("Contacts.vcf", "Calendars.vcs"; PhoneStore.h).
//
// The vCalendar parser writes instants in UTC with their zones (X-TZID) for
// phones that keep zones, and the local form (wall clocks with TZ and
// DAYLIGHT) for phones without zones (their transformer's supportsTZ or
// supportsGMTDates unset); it reads both.
//
// As DeviceParsers they take and give records that carry their entity
// under "entityName" and the phone's identifier under "identifier".

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/PhoneStore.h"
#include "host/PhoneStoreFormat.h"
#include "host/VCalendarCodec.h"
#include "host/VCardCodec.h"
#include "platform/HostInterfaces.h"

namespace pc {

// The parser for a MIME type: "VCardParser", "VCalendarParser", else empty.
std::string parserClassForMimeType(std::string_view mimeType);

// Keeps each data class of the phone in `store` in its parser's format: the
// parser the description names ("Parser", or "ParserService" when the host
// serves it), else the one of the data class's MIME type. A parser without a file form of its own (the
// property-list parser) leaves the store's property list.
void usePhoneParsers(PhoneStore& store, CFPhone* phone);
// The same from a device description alone (the parsers set up without a
// phone, the vCalendar one in the times the description gives the phone),
// for a store read outside a run.
void usePhoneParsers(PhoneStore& store, const Dictionary& description, CFPhone* phone = nullptr);

class VCardParser : public DeviceParser, public PhoneStoreFormat {
 public:
  std::string className() const override { return "VCardParser"; }
  void initWithPhone(CFPhone* phone, const std::optional<Dictionary>& context) override;
  Data dataFromRecords(const Array& records) override;
  std::optional<Array> recordsFromData(const Data& data) override;

  std::string fileExtension() const override { return "vcf"; }
  std::string textForContents(const PhoneStoreContents& contents) const override;
  VFormatReadResult contentsFromText(std::string_view text) const override;
  std::optional<std::string> entryText(const PhoneStoreRecord& record) const override;
  std::optional<std::vector<std::string_view>> entryTextsOfFile(std::string_view text) const override;

  const VCardOptions& options() const { return _options; }
  void setOptions(VCardOptions options) { _options = std::move(options); }

 private:
  VCardOptions _options;
};

class VCalendarParser : public DeviceParser, public PhoneStoreFormat {
 public:
  std::string className() const override { return "VCalendarParser"; }
  void initWithPhone(CFPhone* phone, const std::optional<Dictionary>& context) override;
  Data dataFromRecords(const Array& records) override;
  std::optional<Array> recordsFromData(const Data& data) override;

  std::string fileExtension() const override { return "vcs"; }
  std::string textForContents(const PhoneStoreContents& contents) const override;
  VFormatReadResult contentsFromText(std::string_view text) const override;
  std::optional<std::string> entryText(const PhoneStoreRecord& record) const override;
  std::string textForEntryTexts(const std::vector<std::string>& entries) const override;
  std::optional<std::vector<std::string_view>> entryTextsOfFile(std::string_view text) const override;

  const VCalendarOptions& options() const { return _options; }
  void setOptions(VCalendarOptions options) { _options = std::move(options); }
  // The times of a phone described by `description` whose calendar data
  // class has `info`, for a parser set up without the phone: the local form
  // in the machine's zone when its transformer keeps no zones.
  void useTimesOfDescription(const Dictionary& info, const Dictionary& description);

 private:
  VCalendarOptions _options;
};

}  // namespace pc
