#include "host/VCardCodec.h"

#include <algorithm>
#include <array>
#include <set>

#include "engine/SchemaNames.h"
#include "host/ContentLines.h"
#include "host/VFormatValues.h"

namespace pc {

namespace {

using Tokens = std::set<std::string>;

struct TypeEntry {
  std::string_view name;  // the engine's type name
  std::array<std::string_view, 2> tokens;  // the vCard parameters, empty ones unused
};

// In reading order: the first entry whose parameters are all present wins,
// so two-word types come before one-word ones. Writing takes the first
// entry of a name.
constexpr std::array<TypeEntry, 9> kPhoneTypes{{
    {"home fax", {"HOME", "FAX"}}, {"work fax", {"WORK", "FAX"}}, {"mobile", {"CELL", ""}},
    {"pager", {"PAGER", ""}}, {"home", {"HOME", ""}}, {"work", {"WORK", ""}},
    {"main", {"PREF", ""}}, {"other", {"VOICE", ""}}, {"home fax", {"FAX", ""}},
}};
constexpr std::array<TypeEntry, 3> kPlainTypes{{
    {"home", {"HOME", ""}}, {"work", {"WORK", ""}}, {"other", {"", ""}},
}};
constexpr std::array<TypeEntry, 4> kURLTypes{{
    {"home", {"HOME", ""}}, {"work", {"WORK", ""}}, {"other", {"X-OTHER", ""}},
    {"home page", {"", ""}},
}};

// One kind of sub-record: its relation key, its property and its type table.
struct SubRecordKind {
  std::string_view relation;
  std::string_view property;
  const TypeEntry* types;
  std::size_t typeCount;
};

const std::array<SubRecordKind, 4> kKinds{{
    {"phoneNumbers", "TEL", kPhoneTypes.data(), kPhoneTypes.size()},
    {"emailAddresses", "EMAIL", kPlainTypes.data(), kPlainTypes.size()},
    {"streetAddresses", "ADR", kPlainTypes.data(), kPlainTypes.size()},
    {"urls", "URL", kURLTypes.data(), kURLTypes.size()},
}};

Tokens entryTokens(const TypeEntry& entry) {
  Tokens tokens;
  for (std::string_view t : entry.tokens)
    if (!t.empty()) tokens.insert(std::string(t));
  return tokens;
}

bool isToken(std::string_view word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  });
}

// The parameters a record type is written as.
Tokens tokensForType(const SubRecordKind& kind, std::string_view type) {
  for (std::size_t i = 0; i < kind.typeCount; ++i)
    if (kind.types[i].name == type) return entryTokens(kind.types[i]);
  Tokens tokens;
  std::string word;
  for (char c : std::string(type) + " ") {
    if (c == ' ' || c == ';' || c == ',') {
      if (isToken(word)) tokens.insert(upperAscii(word));
      word.clear();
    } else {
      word += c;
    }
  }
  return tokens;
}

// The record type that a line's parameters stand for.
std::string typeForTokens(const SubRecordKind& kind, const Tokens& tokens,
                          const std::vector<std::string>* names) {
  if (names)
    for (const std::string& name : *names)
      if (tokensForType(kind, name) == tokens) return name;
  for (std::size_t i = 0; i < kind.typeCount; ++i)
    if (entryTokens(kind.types[i]) == tokens) return std::string(kind.types[i].name);
  for (std::size_t i = 0; i < kind.typeCount; ++i) {
    const Tokens wanted = entryTokens(kind.types[i]);
    if (!wanted.empty() && std::includes(tokens.begin(), tokens.end(), wanted.begin(), wanted.end()))
      return std::string(kind.types[i].name);
  }
  return "other";
}

bool fitsParameter(std::string_view value) { return isPlainParameter(value); }

std::string stringField(const Dictionary& record, std::string_view key) {
  const Value* value = record.find(std::string(key));
  return value && value->isString() ? value->string() : std::string();
}

constexpr std::array<std::string_view, 5> kNameKeys{"lastName", "firstName", "middleName", "title",
                                                     "suffix"};

}  // namespace

// --- Writing -----------------------------------------------------------------------

std::string VCardCodec::write(const std::vector<PhoneStoreRecord>& records) const {
  ContentWriter out;
  for (const PhoneStoreRecord& record : records) writeEntry(out, record);
  return out.take();
}

std::string VCardCodec::entryText(const PhoneStoreRecord& record) const {
  ContentWriter out;
  writeEntry(out, record);
  return out.take();
}

void VCardCodec::writeEntry(ContentWriter& out, const PhoneStoreRecord& record) const {
  const Dictionary& fields = record.fields;
  std::set<std::string> written{kEngineRecordEntityNameKey};
  out.begin("VCARD");
  out.line("VERSION", {}, "2.1");
  if (!record.identifier.empty()) out.line("X-IRMC-LUID", {}, record.identifier);

  std::vector<std::string> names;
  std::string display;
  for (std::string_view key : kNameKeys) {
    names.push_back(stringField(fields, key));
    if (fields.contains(std::string(key)) && fields.get(std::string(key)).isString())
      written.insert(std::string(key));
  }
  for (std::size_t i : {3, 1, 2, 0, 4})
    if (!names[i].empty()) display += (display.empty() ? "" : " ") + names[i];
  if (display.empty()) display = stringField(fields, "companyName");
  out.line("N", {}, joinComponents(names));
  out.line("FN", {}, display);

  auto text = [&](std::string_view property, std::string_view key) {
    const Value* value = fields.find(std::string(key));
    if (!value || !value->isString()) return;
    out.line(property, {}, value->string());
    written.insert(std::string(key));
  };
  const Value* company = fields.find("companyName");
  const Value* department = fields.find("department");
  if ((company && company->isString()) || (department && department->isString())) {
    std::vector<std::string> org{stringField(fields, "companyName")};
    if (department && department->isString()) org.push_back(department->string());
    out.line("ORG", {}, joinComponents(org));
    if (company && company->isString()) written.insert("companyName");
    if (department && department->isString()) written.insert("department");
  }
  text("TITLE", "jobTitle");
  text("NOTE", "notes");
  if (const Value* birthday = fields.find("birthday"); birthday && birthday->isDate()) {
    const CalendarDate& date = birthday->date();
    if (isDayAnchor(date)) {
      const std::string day = dateOnlyText(date);
      out.line("BDAY", {}, day.substr(0, 4) + "-" + day.substr(4, 2) + "-" + day.substr(6, 2));
      written.insert("birthday");
    } else if (std::string instant = utcText(date); !instant.empty()) {
      out.line("BDAY", zoneParameters(date), instant);
      written.insert("birthday");
    }
  }

  for (const SubRecordKind& kind : kKinds) {
    const Value* list = fields.find(std::string(kind.relation));
    if (!list || !list->isArray() ||
        !std::all_of(list->array().begin(), list->array().end(), [](const Value& v) { return v.isDictionary(); }))
      continue;
    written.insert(std::string(kind.relation));
    for (const Value& item : list->array()) {
      const std::optional<Dictionary> sub = item.asDictionary();
      if (!sub) continue;
      std::vector<ContentParameter> parameters;
      if (kind.property == "EMAIL") parameters.push_back({"", "INTERNET"});
      if (const Value* type = sub->find("type"); type && type->isString())
        for (const std::string& token : tokensForType(kind, type->string())) parameters.push_back({"", token});
      if (std::string label = stringField(*sub, "label"); fitsParameter(label))
        parameters.push_back({"X-LABEL", label});
      const Value value = sub->get("value");
      if (kind.property == "ADR") {
        if (std::string code = stringField(*sub, "countryCode"); fitsParameter(code))
          parameters.push_back({"X-COUNTRYCODE", code});
        out.line("ADR", parameters,
                 joinComponents({"", "", stringField(*sub, "street"), stringField(*sub, "city"),
                                 stringField(*sub, "state"), stringField(*sub, "postalCode"),
                                 stringField(*sub, "country")}));
      } else if (value.isURL()) {
        out.line(kind.property, parameters, value.url().absoluteString());
      } else if (value.isString()) {
        out.line(kind.property, parameters, value.string());
      }
    }
  }

  if (const Value* image = fields.find("image"); image && image->isData()) {
    const std::string bytes = image->data().asString();
    std::vector<ContentParameter> parameters;
    if (std::string type = photoTypeOfBytes(bytes); !type.empty()) parameters.push_back({"TYPE", type});
    out.binary("PHOTO", parameters, bytes);
    written.insert("image");
  }

  for (const auto& [key, value] : fields) {
    if (!key.isString() || written.count(key.string())) continue;
    writeExtraField(out, key.string(), value);
  }
  out.end("VCARD");
}

// --- Reading ------------------------------------------------------------------------

VFormatReadResult VCardCodec::read(std::string_view text) const {
  VFormatReadResult result;
  ContentReader reader(text);
  while (std::optional<ContentObject> object = reader.nextObject()) {
    if (object->name != "VCARD") {
      result.problems.push_back({object->line, "not a vCard: BEGIN:" + object->name});
      continue;
    }
    result.records.push_back(readEntry(*object, result));
  }
  result.problems.insert(result.problems.end(), reader.problems().begin(), reader.problems().end());
  result.cutShort = reader.endedInsideObject();
  std::stable_sort(result.problems.begin(), result.problems.end(),
                   [](const ContentProblem& a, const ContentProblem& b) { return a.line < b.line; });
  return result;
}

PhoneStoreRecord VCardCodec::readEntry(const ContentObject& card, VFormatReadResult& result) const {
  PhoneStoreRecord record{std::string(), kContactsContact, Dictionary()};
  Dictionary& fields = record.fields;
  const bool escaped = !card.version.empty() && card.version[0] >= '3';
  auto textOf = [&](const ContentLine& line) {
    std::string problem;
    std::string value = decodedText(line, &problem);
    if (!problem.empty()) result.problems.push_back({line.line, problem});
    return escaped ? unescapeText(value) : value;
  };
  auto componentsOf = [&](const ContentLine& line) {
    std::string problem;
    std::vector<std::string> parts = splitStructured(decodedText(line, &problem), ';', escaped);
    if (!problem.empty()) result.problems.push_back({line.line, problem});
    return parts;
  };
  auto setText = [&](Dictionary& into, std::string_view key, const std::string& value) {
    if (!value.empty()) into.set(std::string(key), value);
  };
  std::string uid;
  std::string formattedName;
  bool hasName = false;

  for (const ContentLine& line : card.lines) {
    const std::string& name = line.name;
    if (name == "VERSION") continue;
    if (name == "X-IRMC-LUID") {
      record.identifier = textOf(line);
    } else if (name == "UID") {
      uid = textOf(line);
    } else if (name == "N") {
      hasName = true;
      const std::vector<std::string> parts = componentsOf(line);
      for (std::size_t i = 0; i < kNameKeys.size() && i < parts.size(); ++i)
        setText(fields, kNameKeys[i], parts[i]);
    } else if (name == "FN") {
      formattedName = textOf(line);
    } else if (name == "ORG") {
      const std::vector<std::string> parts = componentsOf(line);
      setText(fields, "companyName", parts[0]);
      if (parts.size() > 1) setText(fields, "department", parts[1]);
    } else if (name == "TITLE") {
      setText(fields, "jobTitle", textOf(line));
    } else if (name == "NOTE") {
      setText(fields, "notes", textOf(line));
    } else if (name == "BDAY") {
      std::string problem;
      if (std::optional<CalendarDate> date = readVDate(textOf(line), zoneOfLine(line, nullptr), problem))
        fields.set("birthday", *date);
      else
        result.problems.push_back({line.line, "BDAY: " + problem});
    } else if (name == "PHOTO") {
      std::string bytes;
      if (line.rawValue.compare(0, 5, "data:") == 0) {
        const std::size_t comma = line.rawValue.find(',');
        if (comma != std::string::npos)
          bytes = base64Decode(line.rawValue.substr(comma + 1)).value_or(std::string());
      } else if (line.parameter("ENCODING")) {
        bytes = decodedBytes(line);
      }
      if (bytes.empty()) {
        ++result.ignoredProperties[name];
        continue;
      }
      fields.set("image", Data::fromString(bytes));
    } else if (name == kExtraFieldProperty) {
      std::string problem;
      if (!readExtraField(line, fields, problem)) result.problems.push_back({line.line, problem});
    } else if (auto kind = std::find_if(kKinds.begin(), kKinds.end(),
                                        [&](const SubRecordKind& k) { return k.property == name; });
               kind != kKinds.end()) {
      Dictionary sub;
      Tokens tokens;
      for (const std::string& type : line.types())
        if (type != "INTERNET" && !(kind->property == "EMAIL" && type == "PREF") &&
            type != "JPEG")
          tokens.insert(type);
      const auto names = _options.typeNames.find(std::string(kind->relation));
      if (kind->property == "ADR") {
        const std::vector<std::string> parts = componentsOf(line);
        auto part = [&](std::size_t i) { return i < parts.size() ? parts[i] : std::string(); };
        std::string street = part(2);
        // A post-office box or extended address has no field of its own: it
        // goes before the street, on its own line.
        for (std::size_t i : {1, 0})
          if (!part(i).empty()) street = part(i) + (street.empty() ? "" : "\n" + street);
        setText(sub, "street", street);
        setText(sub, "city", part(3));
        setText(sub, "state", part(4));
        setText(sub, "postalCode", part(5));
        setText(sub, "country", part(6));
        if (std::optional<std::string> code = line.parameter("X-COUNTRYCODE"); code && fitsParameter(*code))
          sub.set("countryCode", *code);
      } else {
        std::string value = textOf(line);
        // A 4.0 number given as a URI ("VALUE=uri:tel:+1..."); a plain text
        // that starts with the scheme is kept as it is.
        const std::optional<std::string> valueKind = line.parameter("VALUE");
        if (kind->property == "TEL" && valueKind && (*valueKind == "uri" || *valueKind == "URI") &&
            value.compare(0, 4, "tel:") == 0)
          value.erase(0, 4);
        if (kind->property == "URL") sub.set("value", URL(value));
        else sub.set("value", value);
      }
      sub.set("type", typeForTokens(*kind, tokens,
                                    names == _options.typeNames.end() ? nullptr : &names->second));
      if (std::optional<std::string> label = line.parameter("X-LABEL"); label && fitsParameter(*label))
        sub.set("label", *label);
      Array list = fields.getArray(std::string(kind->relation)).value_or(Array());
      list.add(sub);
      fields.set(std::string(kind->relation), list);
    } else {
      ++result.ignoredProperties[name];
    }
  }
  if (!hasName && !formattedName.empty()) fields.set("lastName", formattedName);
  if (record.identifier.empty()) record.identifier = uid;
  return record;
}

}  // namespace pc
