#include "host/VFormatParsers.h"

#include <initializer_list>

#include "conduit/CFPhone.h"
#include "engine/SchemaNames.h"
#include "platform/Registry.h"
#include "transformers/QVTSyncEventTransformer.h"

namespace pc {

PC_REGISTER_CLASS(VCardParser, "");
PC_REGISTER_CLASS(VCalendarParser, "");

namespace {

constexpr const char* kIdentifierKey = "identifier";

PhoneStoreContents contentsFromRecords(const Array& records, const std::string& dataClass) {
  PhoneStoreContents contents{dataClass, {}};
  for (const Value& value : records) {
    std::optional<Dictionary> record = value.asDictionary();
    if (!record) continue;
    Dictionary fields = record->copy();
    const std::string identifier = fields.getString(kIdentifierKey);
    const std::string entity = fields.getString(kEngineRecordEntityNameKey);
    fields.remove(kIdentifierKey);
    fields.remove(kEngineRecordEntityNameKey);
    contents.records.push_back({identifier, entity, fields});
  }
  return contents;
}

Array recordsFromResult(const VFormatReadResult& result) {
  Array records;
  for (const PhoneStoreRecord& entry : result.records) {
    Dictionary record = entry.fields.copy();
    record.set(kEngineRecordEntityNameKey, entry.entity);
    if (!entry.identifier.empty()) record.set(kIdentifierKey, entry.identifier);
    records.add(record);
  }
  return records;
}

// The objects that make up `text` one after another, each from its
// "BEGIN:<name>" line to its "END:<name>" line (CRLF ends, as the writers
// end lines); nullopt when anything else stands between or around them. A
// value never holds a raw line break (the writers encode it), so the first
// END line closes the object.
std::optional<std::vector<std::string_view>> entriesTiling(std::string_view text,
                                                           std::initializer_list<std::string_view> names) {
  std::vector<std::string_view> entries;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::string_view rest = text.substr(at);
    std::size_t end = std::string_view::npos;
    for (std::string_view name : names) {
      const std::string begin = "BEGIN:" + std::string(name) + "\r\n";
      if (rest.substr(0, begin.size()) != begin) continue;
      const std::string close = "\r\nEND:" + std::string(name) + "\r\n";
      const std::size_t found = rest.find(close);
      if (found != std::string_view::npos) end = found + close.size();
      break;
    }
    if (end == std::string_view::npos) return std::nullopt;
    entries.push_back(rest.substr(0, end));
    at += end;
  }
  return entries;
}

}  // namespace

std::string parserClassForMimeType(std::string_view mimeType) {
  if (mimeType == "text/x-vcard") return "VCardParser";
  if (mimeType == "text/x-vcalendar") return "VCalendarParser";
  return std::string();
}

void VCardParser::initWithPhone(CFPhone*, const std::optional<Dictionary>&) {
  // The records the phone holds carry the engine's type names (the value
  // mappings apply on the way back), which the codec writes and reads itself.
  _options = {};
}

Data VCardParser::dataFromRecords(const Array& records) {
  return Data::fromString(textForContents(contentsFromRecords(records, "Contacts")));
}

std::optional<Array> VCardParser::recordsFromData(const Data& data) {
  return recordsFromResult(contentsFromText(data.asString()));
}

std::string VCardParser::textForContents(const PhoneStoreContents& contents) const {
  return VCardCodec(_options).write(contents.records);
}

VFormatReadResult VCardParser::contentsFromText(std::string_view text) const {
  return VCardCodec(_options).read(text);
}

std::optional<std::string> VCardParser::entryText(const PhoneStoreRecord& record) const {
  return VCardCodec(_options).entryText(record);
}

std::optional<std::vector<std::string_view>> VCardParser::entryTextsOfFile(std::string_view text) const {
  return entriesTiling(text, {"VCARD"});
}

void VCalendarParser::initWithPhone(CFPhone* phone, const std::optional<Dictionary>&) {
  // Instants in UTC with their zones for a phone that keeps zones; the local
  // form (wall clocks with TZ and DAYLIGHT) for one that does not, in the
  // zone its transformer moves the dates to. Dates the transformer leaves in
  // another zone (all-day and floating ones in GMT) keep the UTC form, so
  // that they do not move to another day. Files in the local form read
  // whatever the phone, as a phone sends them.
  _options = {};
  if (!phone) return;
  const auto events = std::dynamic_pointer_cast<QVTSyncEventTransformer>(phone->canonicalHelperForEntity(kCalendarsEvent));
  if (!events || (events->supportsTZ() && events->supportsGMTDates())) return;
  // A phone whose transformer sends its local times labelled as GMT reads
  // them as instants too.
  if (events->motorolaLegacyCompatibility()) return;
  _options.localTimes = true;
  _options.phoneZone = events->phoneTimeZoneForFormatting();
  if (!_options.phoneZone) _options.phoneZone = phone->timeZone();
}

Data VCalendarParser::dataFromRecords(const Array& records) {
  return Data::fromString(textForContents(contentsFromRecords(records, "Calendars")));
}

std::optional<Array> VCalendarParser::recordsFromData(const Data& data) {
  return recordsFromResult(contentsFromText(data.asString()));
}

std::string VCalendarParser::textForContents(const PhoneStoreContents& contents) const {
  return VCalendarCodec(_options).write(contents.records);
}

VFormatReadResult VCalendarParser::contentsFromText(std::string_view text) const {
  return VCalendarCodec(_options).read(text);
}

std::optional<std::string> VCalendarParser::entryText(const PhoneStoreRecord& record) const {
  return VCalendarCodec(_options).entryText(record);
}

std::string VCalendarParser::textForEntryTexts(const std::vector<std::string>& entries) const {
  return VCalendarCodec(_options).textForEntryTexts(entries);
}

std::optional<std::vector<std::string_view>> VCalendarParser::entryTextsOfFile(std::string_view text) const {
  if (_options.localTimes) return std::nullopt;
  const VCalendarCodec codec(_options);
  const std::string frame = codec.textForEntryTexts({});
  constexpr std::string_view tail = "END:VCALENDAR\r\n";
  const std::string_view head = std::string_view(frame).substr(0, frame.size() - tail.size());
  if (text.size() < frame.size() || text.substr(0, head.size()) != head ||
      text.substr(text.size() - tail.size()) != tail)
    return std::nullopt;
  return entriesTiling(text.substr(head.size(), text.size() - frame.size()), {"VEVENT", "VTODO"});
}

void VCalendarParser::useTimesOfDescription(const Dictionary& info, const Dictionary& description) {
  // The event transformer's properties: the data class's info in the second
  // format, its manager's attributes in the first.
  Dictionary properties = info;
  if (!description.contains("Formatting"))
    properties = info.getDictionary("DataClassManager").value_or(Dictionary());
  bool supportsTZ = false;
  bool supportsGMTDates = false;
  // In the order the transformer assigns them; the last word wins.
  for (const auto& [key, value] : properties) {
    if (!key.isString()) continue;
    const std::string& name = key.string();
    if (name == "supportsTZ" && value.isBoolean()) supportsTZ = value.boolValue();
    if ((name == "supportsGMTDates" || name == "hasTimeZone") && value.isBoolean()) supportsGMTDates = value.boolValue();
    if (name == "treatEventsTimeAs" && value.isString()) {
      if (value.string() == "GMT") supportsGMTDates = true;
      if (value.string() == "LocalTime") supportsGMTDates = false;
    }
  }
  _options = {};
  if (supportsTZ && supportsGMTDates) return;
  _options.localTimes = true;
  _options.phoneZone = TimeZone::systemTimeZone();
}

void usePhoneParsers(PhoneStore& store, CFPhone* phone) {
  if (!phone) return;
  if (std::optional<Dictionary> description = phone->phoneConduitDescriptionWithVersion(nullptr))
    usePhoneParsers(store, *description, phone);
}

void usePhoneParsers(PhoneStore& store, const Dictionary& description, CFPhone* phone) {
  std::optional<Dictionary> classes = description.getDictionary("SyncDataClasses");
  if (!classes) return;
  for (const auto& [name, value] : *classes) {
    const std::optional<Dictionary> info = value.asDictionary();
    if (!name.isString() || !info) continue;
    DeviceParserPtr parser;
    if (phone && (info->contains("Parser") || info->contains("ParserService"))) {
      parser = phone->parserForDeviceDataClass(name.string());
    } else if (const Value named = info->get("Parser"); named.isString()) {
      if ((parser = ClassRegistry::createAs<DeviceParser>(named.string()))) parser->initWithPhone(nullptr, std::nullopt);
    }
    if (!parser) {
      // No parser named, or a service the host does not serve: the MIME type's.
      std::string mimeType = info->getString("MimeType");
      if (mimeType.empty() && name.string() == "Contacts") mimeType = "text/x-vcard";
      if (mimeType.empty() && name.string() == "Calendars") mimeType = "text/x-vcalendar";
      if (std::string className = parserClassForMimeType(mimeType); !className.empty())
        if ((parser = ClassRegistry::createAs<DeviceParser>(className))) parser->initWithPhone(phone, std::nullopt);
    }
    // Without a phone, the times a vCalendar file takes follow what the
    // description tells the transformer (the local form in the machine's
    // zone for a phone without zones), as a phone's own parser would.
    if (!phone)
      if (auto calendar = std::dynamic_pointer_cast<VCalendarParser>(parser)) calendar->useTimesOfDescription(*info, description);
    store.setFormat(name.string(), std::dynamic_pointer_cast<const PhoneStoreFormat>(parser));
  }
}

}  // namespace pc
