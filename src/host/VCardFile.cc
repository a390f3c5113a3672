// Reading and writing a user's vCard files (2.1, 3.0, 4.0 in; 3.0 out) as
// engine contact records with their sub-records inlined.
//
// What a card says and what the record holds:
//   N / FN          lastName, firstName, middleName, title, suffix (FN only
//                   when there is no N: it becomes the last name, unless it
//                   repeats the organisation)
//   ORG, TITLE      companyName;department, jobTitle
//   NICKNAME, NOTE  nickname, notes
//   BDAY            birthday: the day at 12:00 GMT; a year-less "--MMDD"
//                   in kYearlessYear
//   ANNIVERSARY, X-ANNIVERSARY, X-ABDATE      dates
//   TEL, EMAIL, ADR, URL, IMPP (and X-AIM...) phoneNumbers, emailAddresses,
//                   streetAddresses, urls, ims
//   RELATED, X-ABRELATEDNAMES                 relatedNames
//   PHOTO           image (base64 or a data: address)
//   CATEGORIES      categories (a list of texts)
//   UID             the record's identifier
// A label given by a grouped "itemN.X-ABLabel" goes to the sub-record's
// "label", or to its type when it names one ("_$!<Mobile>!$_"). A preferred
// entry (TYPE=PREF or PREF=n) comes first in its list; the order of a list
// is all that keeps the preference, and export writes it back as order.
//
// Export writes vCard 3.0 that reads back into the same records: the record
// identifier as UID, labels as grouped X-ABLabel lines, a type the engine
// does not name in an X-TYPE parameter, the country code in X-COUNTRYCODE,
// anniversaries as X-ANNIVERSARY and other dates as X-ABDATE, related names
// as X-ABRELATEDNAMES, messaging addresses as IMPP with X-SERVICE-TYPE.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <unordered_map>

#include "engine/SchemaNames.h"
#include "host/ContentLines.h"
#include "host/UserFiles.h"
#include "host/VFormatValues.h"

namespace pc {

namespace {

// The year a birthday without one is kept in: the first leap year of the
// Gregorian calendar's first century, so that 29 February is a day of it and
// no date of it lies before the calendar change.
constexpr int kYearlessYear = 1604;

constexpr const char* kEntity = kEngineRecordEntityNameKey;
constexpr const char* kImageKey = "image";

std::string trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return std::string(text);
}

std::string stringField(const Dictionary& record, std::string_view key) {
  const Value* value = record.find(std::string(key));
  return value && value->isString() ? value->string() : std::string();
}

// --- Types ---------------------------------------------------------------------

// The kinds of sub-record a card holds in lists.
enum class Kind { Phone, Email, Address, Web, IM, Date, Related };

struct KindInfo {
  Kind kind;
  const char* relation;
  const char* entity;
  const char* property;  // what export writes
};

constexpr std::array<KindInfo, 7> kKinds{{
    {Kind::Phone, kContactsContactPhoneNumbers, kContactsPhoneNumber, "TEL"},
    {Kind::Email, kContactsContactEmailAddresses, kContactsEmailAddress, "EMAIL"},
    {Kind::Address, kContactsContactStreetAddresses, kContactsStreetAddress, "ADR"},
    {Kind::Web, kContactsContactURLs, kContactsURL, "URL"},
    {Kind::IM, kContactsContactIMs, kContactsIM, "IMPP"},
    {Kind::Date, kContactsContactDates, kContactsDate, "X-ABDATE"},
    {Kind::Related, kContactsContactRelatedNames, kContactsRelatedName, "X-ABRELATEDNAMES"},
}};

const KindInfo& info(Kind kind) { return kKinds[static_cast<std::size_t>(kind)]; }

// What a line's TYPE values say, compared without regard to case.
struct TypeWords {
  enum : unsigned { Fax = 1, Work = 2, Home = 4, Cell = 8, Pager = 16, Main = 32, Other = 64 };
  unsigned flags = 0;
  bool preferred = false;  // TYPE=PREF
  std::string first;       // the first word that is not PREF, lower case
};

bool sameWord(std::string_view text, std::string_view upperWord) {
  if (text.size() != upperWord.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c != upperWord[i]) return false;
  }
  return true;
}

TypeWords typeWords(const ContentLine& line) {
  static constexpr std::array<std::pair<std::string_view, unsigned>, 9> kWords{{
      {"FAX", TypeWords::Fax}, {"WORK", TypeWords::Work}, {"HOME", TypeWords::Home},
      {"CELL", TypeWords::Cell}, {"MOBILE", TypeWords::Cell}, {"IPHONE", TypeWords::Cell},
      {"PAGER", TypeWords::Pager}, {"MAIN", TypeWords::Main}, {"OTHER", TypeWords::Other}}};
  TypeWords words;
  for (const ContentParameter& parameter : line.parameters) {
    if (parameter.name != "TYPE") continue;
    std::string_view rest(parameter.value);
    for (;;) {
      const std::size_t comma = rest.find(',');
      std::string_view word = rest.substr(0, comma);
      while (!word.empty() && word.front() == ' ') word.remove_prefix(1);
      while (!word.empty() && word.back() == ' ') word.remove_suffix(1);
      if (sameWord(word, "PREF")) {
        words.preferred = true;
      } else if (!word.empty()) {
        if (words.first.empty()) words.first = lowerAscii(word);
        for (const auto& [name, flag] : kWords)
          if (sameWord(word, name)) words.flags |= flag;
      }
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  return words;
}

// The record type of a line's TYPE values.
std::string typeOf(Kind kind, const TypeWords& words) {
  auto has = [&](unsigned flag) { return (words.flags & flag) != 0; };
  switch (kind) {
    case Kind::Phone:
      if (has(TypeWords::Fax)) return has(TypeWords::Work) && !has(TypeWords::Home) ? "work fax" : "home fax";
      if (has(TypeWords::Cell)) return "mobile";
      if (has(TypeWords::Pager)) return "pager";
      if (has(TypeWords::Main)) return "main";
      if (has(TypeWords::Home)) return "home";
      if (has(TypeWords::Work)) return "work";
      return "other";
    case Kind::Web:
      if (has(TypeWords::Home)) return "home";
      if (has(TypeWords::Work)) return "work";
      if (has(TypeWords::Other)) return "other";
      return "home page";
    case Kind::Date:
      return "other";
    case Kind::Related:
      return words.first.empty() ? "other" : words.first;
    default:
      if (has(TypeWords::Home)) return "home";
      if (has(TypeWords::Work)) return "work";
      return "other";
  }
}

// The TYPE values export writes for a record type; nullopt when the type is
// none of the engine's (it then goes in X-TYPE as it is).
std::optional<std::string> typeTokens(Kind kind, const std::string& type) {
  static const std::map<std::string, std::string> kPhone{
      {"home", "HOME"},   {"work", "WORK"},         {"mobile", "CELL"},     {"pager", "PAGER"},
      {"main", "MAIN"},   {"home fax", "HOME,FAX"}, {"work fax", "WORK,FAX"}, {"other", ""}};
  static const std::map<std::string, std::string> kWeb{
      {"home", "HOME"}, {"work", "WORK"}, {"other", "OTHER"}, {"home page", ""}};
  static const std::map<std::string, std::string> kPlain{{"home", "HOME"}, {"work", "WORK"}, {"other", ""}};
  const std::map<std::string, std::string>* table = &kPlain;
  if (kind == Kind::Phone) table = &kPhone;
  else if (kind == Kind::Web) table = &kWeb;
  else if (kind == Kind::Date || kind == Kind::Related) return std::nullopt;
  const auto found = table->find(type);
  if (found == table->end()) return std::nullopt;
  return found->second;
}

// A label of the form "_$!<Name>!$_" names a standard type; the record type
// it stands for, or nullopt for a label of the user's own.
std::optional<std::string> typeOfLabel(Kind kind, std::string_view label) {
  if (label.size() < 8 || label.substr(0, 4) != "_$!<" || label.substr(label.size() - 4) != ">!$_")
    return std::nullopt;
  const std::string name = lowerAscii(label.substr(4, label.size() - 8));
  static const std::map<std::string, std::string> kNames{
      {"mobile", "mobile"}, {"iphone", "mobile"}, {"home", "home"},     {"work", "work"},
      {"main", "main"},     {"pager", "pager"},   {"homefax", "home fax"}, {"workfax", "work fax"},
      {"other", "other"},   {"homepage", "home page"}, {"anniversary", "anniversary"}};
  if (kind == Kind::Related) return isPlainParameter(name) ? std::optional<std::string>(name) : std::nullopt;
  const auto found = kNames.find(name);
  if (found == kNames.end()) return std::nullopt;
  if (kind == Kind::Date) return found->second;
  if (kind == Kind::Phone) return found->second == "home page" || found->second == "anniversary"
                                     ? std::nullopt : std::optional<std::string>(found->second);
  if (found->second == "home" || found->second == "work" || found->second == "other") return found->second;
  if (kind == Kind::Web && found->second == "home page") return found->second;
  return std::nullopt;
}

// --- Dates ---------------------------------------------------------------------

struct Day {
  int year = 0, month = 0, day = 0;
};

std::string withNewlines(std::string text) {
  if (text.find('\r') == std::string::npos) return text;
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') out += text[i];
    else if (i + 1 >= text.size() || text[i + 1] != '\n') out += '\n';
  }
  return out;
}

bool digits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int number(std::string_view text) {
  int n = 0;
  for (char c : text) n = n * 10 + (c - '0');
  return n;
}

int daysInMonth(int year, int month) {
  static constexpr std::array<int, 12> kDays{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[static_cast<std::size_t>(month - 1)];
}

// "1985-04-12", "19850412", "--0412", "--04-12", each possibly followed by a
// time ("T1430-0500"), which a day does not need.
std::optional<Day> parseDay(std::string_view text) {
  if (std::size_t t = text.find('T'); t != std::string_view::npos) text = text.substr(0, t);
  std::string compact;
  for (char c : text)
    if (c != '-') compact += c;
  Day day;
  if (text.substr(0, 2) == "--" && compact.size() == 4 && digits(compact)) {
    day = {kYearlessYear, number(compact.substr(0, 2)), number(compact.substr(2, 2))};
  } else if (compact.size() == 8 && digits(compact) && (text.size() == 8 || text.size() == 10)) {
    day = {number(compact.substr(0, 4)), number(compact.substr(4, 2)), number(compact.substr(6, 2))};
  } else {
    return std::nullopt;
  }
  if (day.year < 1 || day.month < 1 || day.month > 12 || day.day < 1 ||
      day.day > daysInMonth(day.year, day.month))
    return std::nullopt;
  return day;
}

CalendarDate dayAnchor(const Day& day) {
  VDateValue value;
  value.year = day.year;
  value.month = day.month;
  value.day = day.day;
  value.dateOnly = true;
  return calendarDateFromVDate(value, nullptr);
}

// "1985-04-12", or "--0412" for a day of the year-less year. A date that is
// not a day anchor is written as its day in its own zone.
std::string dayText(const CalendarDate& date) {
  char text[16];
  const int year = date.yearOfCommonEra();
  if (year == kYearlessYear)
    std::snprintf(text, sizeof text, "--%02d%02d", date.monthOfYear(), date.dayOfMonth());
  else
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", year, date.monthOfYear(), date.dayOfMonth());
  return text;
}

// --- Identifiers ---------------------------------------------------------------

// FNV-1a over the card's lines: the same card text gives the same identifier
// on every import.
std::string digestIdentifier(const ContentObject& card) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  auto mix = [&](std::string_view text) {
    for (unsigned char c : text) {
      hash ^= c;
      hash *= 0x100000001b3ULL;
    }
    hash ^= 0xff;
    hash *= 0x100000001b3ULL;
  };
  for (const ContentLine& line : card.lines) {
    mix(line.group);
    mix(line.name);
    for (const ContentParameter& p : line.parameters) {
      mix(p.name);
      mix(p.value);
    }
    mix(line.rawValue);
  }
  char text[32];
  std::snprintf(text, sizeof text, "vcard-%016llx", static_cast<unsigned long long>(hash));
  return text;
}

// --- Reading -------------------------------------------------------------------

const std::map<std::string, std::string>& imProperties() {
  static const std::map<std::string, std::string> kServices{
      {"X-AIM", "aim"},       {"X-ICQ", "icq"},     {"X-JABBER", "jabber"}, {"X-MSN", "msn"},
      {"X-YAHOO", "yahoo"},   {"X-SKYPE", "skype"}, {"X-SKYPE-USERNAME", "skype"},
      {"X-GOOGLE-TALK", "gtalk"}, {"X-QQ", "qq"},  {"X-GADUGADU", "gadugadu"}};
  return kServices;
}

// "xmpp", "sip": a letter, then letters, digits, "+", "-" or ".".
bool isScheme(std::string_view text) {
  auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  return !text.empty() && letter(text.front()) && std::all_of(text.begin(), text.end(), [&](char c) {
    return letter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  });
}

// Properties that say nothing a record keeps and are not worth counting.
bool isFileMetadata(const std::string& name) {
  return name == "VERSION" || name == "PRODID";
}

class CardReader {
 public:
  CardReader(const ContentObject& card, UserFileImport& file) : _card(card), _file(file) {
    _escaped = card.version.empty() || card.version[0] != '2';
    for (const ContentLine& line : card.lines)
      if (line.name == "X-ABLABEL" && !line.group.empty()) _labels[upperAscii(line.group)] = &line;
  }

  // The record; nullopt with `why` when the card holds nothing to keep.
  std::optional<Dictionary> read(std::string& uid, std::string& why);

 private:
  // A line's text, escapes undone; line breaks of any kind become "\n",
  // and NUL characters, which no text holds, are left out.
  std::string text(const ContentLine& line) {
    std::string problem;
    std::string value = decodedText(line, &problem);
    if (!problem.empty()) note(line, problem);
    value.erase(std::remove(value.begin(), value.end(), '\0'), value.end());
    if (_escaped && value.find('\\') != std::string::npos) value = unescapeText(value);
    return withNewlines(std::move(value));
  }
  // The components of a structured value, each as `text` gives it.
  std::vector<std::string> components(const ContentLine& line, char separator = ';') {
    std::string problem;
    std::string value = decodedText(line, &problem);
    if (!problem.empty()) note(line, problem);
    value.erase(std::remove(value.begin(), value.end(), '\0'), value.end());
    std::vector<std::string> parts = splitStructured(value, separator, _escaped);
    for (std::string& part : parts) part = withNewlines(std::move(part));
    return parts;
  }
  void note(const ContentLine& line, const std::string& message) {
    _file.reported.push_back({line.line, line.name + ": " + message});
  }
  void notKept(const ContentLine& line) { ++_file.propertiesNotKept[line.name]; }

  void addSub(Kind kind, const ContentLine& line, Dictionary sub);
  void readDate(const ContentLine& line);
  void readPhoto(const ContentLine& line);

  const ContentObject& _card;
  UserFileImport& _file;
  bool _escaped = true;
  std::map<std::string, const ContentLine*> _labels;  // by upper-case group
  std::set<std::string> _usedLabels;
  std::map<std::string, std::size_t> _addressByGroup;  // upper-case group -> index in the addresses
  Dictionary _record;
  // By kind: the sub-records with their preference rank, in card order.
  std::array<std::vector<std::pair<int, Dictionary>>, kKinds.size()> _subs;
};

void CardReader::addSub(Kind kind, const ContentLine& line, Dictionary sub) {
  const TypeWords words = typeWords(line);
  int rank = words.preferred ? 1 : 101;
  if (std::optional<std::string> pref = line.parameter("PREF"); pref && digits(trimmed(*pref)) && pref->size() < 4)
    rank = std::min(rank, number(trimmed(*pref)));
  std::string type = typeOf(kind, words);
  if (kind == Kind::Date && line.name == "ANNIVERSARY") type = "anniversary";
  if (kind == Kind::Date && line.name == "X-ANNIVERSARY") type = "anniversary";
  if (std::optional<std::string> own = line.parameter("X-TYPE"); own && !own->empty()) type = *own;
  if (!line.group.empty()) {
    const auto label = _labels.find(upperAscii(line.group));
    if (label != _labels.end()) {
      _usedLabels.insert(label->first);
      const std::string labelText = text(*label->second);
      if (std::optional<std::string> named = typeOfLabel(kind, labelText)) type = *named;
      else if (!labelText.empty()) sub.set("label", labelText);
    }
  }
  sub.set("type", type);
  sub.set(kEntity, info(kind).entity);
  _subs[static_cast<std::size_t>(kind)].emplace_back(rank, std::move(sub));
}

void CardReader::readDate(const ContentLine& line) {
  const std::string value = trimmed(text(line));
  const std::optional<Day> day = parseDay(value);
  if (!day) {
    note(line, "\"" + value + "\" is not a day; left out");
    notKept(line);
    return;
  }
  if (line.name == "BDAY") {
    _record.set(kContactsContactBirthday, dayAnchor(*day));
    return;
  }
  Dictionary sub;
  sub.set("value", dayAnchor(*day));
  addSub(Kind::Date, line, std::move(sub));
}

void CardReader::readPhoto(const ContentLine& line) {
  std::string bytes;
  const std::string& raw = line.rawValue;
  if (raw.compare(0, 5, "data:") == 0) {
    const std::size_t comma = raw.find(',');
    const std::string_view head = std::string_view(raw).substr(0, comma == std::string::npos ? 0 : comma);
    if (comma != std::string::npos && head.size() >= 7 && lowerAscii(head.substr(head.size() - 7)) == ";base64")
      bytes = base64Decode(std::string_view(raw).substr(comma + 1)).value_or(std::string());
  } else if (line.parameter("ENCODING")) {
    bytes = decodedBytes(line);
  } else {
    note(line, "a photo given by its address is not fetched");
    notKept(line);
    return;
  }
  if (bytes.empty()) {
    note(line, "the photo's data does not decode; left out");
    notKept(line);
    return;
  }
  _record.set(kImageKey, Data::fromString(bytes));
}

std::optional<Dictionary> CardReader::read(std::string& uid, std::string& why) {
  std::vector<std::string> names(5);
  bool hasName = false;
  std::string formattedName;
  for (const ContentLine& line : _card.lines) {
    const std::string& name = line.name;
    if (isFileMetadata(name) || (name == "X-ABLABEL" && !line.group.empty())) continue;
    if (name == "UID") {
      uid = trimmed(text(line));
    } else if (name == "N") {
      const std::vector<std::string> parts = components(line);
      for (std::size_t i = 0; i < names.size() && i < parts.size(); ++i) {
        names[i] = trimmed(parts[i]);
        if (!names[i].empty()) hasName = true;
      }
    } else if (name == "FN") {
      formattedName = trimmed(text(line));
    } else if (name == "ORG") {
      const std::vector<std::string> parts = components(line);
      if (!parts[0].empty()) _record.set(kContactsContactCompanyName, parts[0]);
      if (parts.size() > 1 && !parts[1].empty()) _record.set("department", parts[1]);
    } else if (name == "TITLE" || name == "NOTE" || name == "NICKNAME") {
      const std::string value = text(line);
      const char* key = name == "TITLE" ? "jobTitle" : name == "NOTE" ? "notes" : "nickname";
      if (!value.empty()) _record.set(key, value);
    } else if (name == "BDAY" || name == "ANNIVERSARY" || name == "X-ANNIVERSARY" || name == "X-ABDATE") {
      readDate(line);
    } else if (name == "PHOTO") {
      readPhoto(line);
    } else if (name == "CATEGORIES") {
      Array categories = _record.getArray("categories").value_or(Array());
      for (const std::string& item : components(line, ','))
        if (std::string category = trimmed(item); !category.empty()) categories.add(category);
      if (!categories.empty()) _record.set("categories", categories);
    } else if (name == "TEL" || name == "EMAIL" || name == "URL") {
      std::string value = trimmed(text(line));
      // A number given as an address ("VALUE=uri:tel:+1...") loses its scheme,
      // and the spaces after it, as a number written plainly would.
      const std::optional<std::string> valueKind = line.parameter("VALUE");
      if (name == "TEL" && valueKind && lowerAscii(*valueKind) == "uri" && lowerAscii(std::string_view(value).substr(0, 4)) == "tel:")
        value = trimmed(std::string_view(value).substr(4));
      if (value.empty()) continue;
      Dictionary sub;
      if (name == "URL") sub.set("value", URL(value));
      else sub.set("value", value);
      addSub(name == "TEL" ? Kind::Phone : name == "EMAIL" ? Kind::Email : Kind::Web, line, std::move(sub));
    } else if (name == "ADR") {
      const std::vector<std::string> parts = components(line);
      auto part = [&](std::size_t i) { return i < parts.size() ? parts[i] : std::string(); };
      // A post-office box or an extended address has no field of its own:
      // it goes before the street, on a line of its own.
      std::string street = part(2);
      for (std::size_t i : {1, 0})
        if (!part(i).empty()) street = part(i) + (street.empty() ? "" : "\n" + street);
      Dictionary sub;
      const std::array<std::pair<const char*, std::string>, 5> fields{{{"street", street},
                                                                       {"city", part(3)},
                                                                       {"state", part(4)},
                                                                       {"postalCode", part(5)},
                                                                       {"country", part(6)}}};
      for (const auto& [key, value] : fields)
        if (!value.empty()) sub.set(key, value);
      if (std::optional<std::string> code = line.parameter("X-COUNTRYCODE"); code && isPlainParameter(*code))
        sub.set("countryCode", *code);
      if (sub.empty()) continue;
      if (!line.group.empty())
        _addressByGroup[upperAscii(line.group)] = _subs[static_cast<std::size_t>(Kind::Address)].size();
      addSub(Kind::Address, line, std::move(sub));
    } else if (name == "X-ABADR") {
      // The country code of a grouped address: taken once all lines are read.
      continue;
    } else if (name == "IMPP" || imProperties().count(name)) {
      const std::string value = trimmed(text(line));
      if (value.empty()) continue;
      std::string service;
      if (std::optional<std::string> given = line.parameter("X-SERVICE-TYPE"); given && !given->empty())
        service = *given;
      else if (name != "IMPP")
        service = imProperties().at(name);
      else if (std::size_t colon = value.find(':'); colon != std::string::npos && isScheme(value.substr(0, colon)))
        service = lowerAscii(value.substr(0, colon));
      Dictionary sub;
      sub.set("value", value);
      sub.set(kContactsIMService, service);
      addSub(Kind::IM, line, std::move(sub));
    } else if (name == "RELATED" || name == "X-ABRELATEDNAMES") {
      const std::string value = trimmed(text(line));
      if (value.empty()) continue;
      Dictionary sub;
      sub.set("value", value);
      addSub(Kind::Related, line, std::move(sub));
    } else {
      notKept(line);
    }
  }

  // Country codes of grouped addresses ("item2.X-ABADR:de").
  for (const ContentLine& line : _card.lines) {
    if (line.name != "X-ABADR") continue;
    const auto address = _addressByGroup.find(upperAscii(line.group));
    if (line.group.empty() || address == _addressByGroup.end()) {
      notKept(line);
      continue;
    }
    Dictionary& sub = _subs[static_cast<std::size_t>(Kind::Address)][address->second].second;
    if (const std::string code = upperAscii(trimmed(text(line))); isPlainParameter(code) && !sub.contains("countryCode"))
      sub.set("countryCode", code);
  }
  for (const auto& [group, line] : _labels)
    if (!_usedLabels.count(group)) notKept(*line);

  const std::array<const char*, 5> nameKeys{kContactsContactLastName, kContactsContactFirstName, "middleName",
                                            "title", "suffix"};
  for (std::size_t i = 0; i < names.size(); ++i)
    if (!names[i].empty()) _record.set(nameKeys[i], names[i]);
  if (!hasName && !formattedName.empty() && formattedName != trimmed(stringField(_record, kContactsContactCompanyName)))
    _record.set(kContactsContactLastName, formattedName);

  for (std::size_t kind = 0; kind < _subs.size(); ++kind) {
    std::vector<std::pair<int, Dictionary>>& list = _subs[kind];
    if (list.empty()) continue;
    std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    Array records;
    for (auto& [rank, sub] : list) records.add(std::move(sub));
    _record.set(kKinds[kind].relation, records);
  }
  if (_record.empty()) {
    why = "nothing to import: no name, organisation, number or address";
    return std::nullopt;
  }
  _record.set(kEntity, kContactsContact);
  return std::move(_record);
}

bool readableVersion(const std::string& version) {
  return version.empty() || version == "2.1" || version == "3.0" || version == "4.0";
}

// The cards of `object` and of the cards nested in it (a card whose END is
// missing holds the cards after it).
void collectCards(const ContentObject& object, std::vector<const ContentObject*>& cards, UserFileImport& file) {
  if (object.name != "VCARD") {
    file.skipped.push_back({object.line, "not a vCard: BEGIN:" + object.name});
    return;
  }
  cards.push_back(&object);
  for (const ContentObject& child : object.children) collectCards(child, cards, file);
}

}  // namespace

UserFileImport importVCardText(std::string_view text, const std::string& path) {
  UserFileImport file;
  file.path = path;
  ContentReader reader(text);
  std::unordered_map<std::string, std::size_t> seen;  // identifier -> line of its card
  std::size_t cardCount = 0;
  // Each object is read into records and let go before the next is read.
  std::vector<const ContentObject*> cards;
  while (std::optional<ContentObject> object = reader.nextObject()) {
    cards.clear();
    collectCards(*object, cards, file);
    cardCount += cards.size();
    for (const ContentObject* card : cards) {
      if (!readableVersion(card->version)) {
        file.skipped.push_back(
            {card->line, "VERSION " + card->version + " is not a vCard version this program reads"});
        continue;
      }
      std::string uid, why;
      std::optional<Dictionary> record = CardReader(*card, file).read(uid, why);
      if (!record) {
        file.skipped.push_back({card->line, why});
        continue;
      }
      std::string identifier = uid.empty() ? digestIdentifier(*card) : uid;
      if (auto [it, added] = seen.emplace(identifier, card->line); !added) {
        file.skipped.push_back({card->line, "the same UID as the card at line " + std::to_string(it->second) +
                                                " (" + identifier + ")"});
        continue;
      }
      file.records.push_back({std::move(identifier), std::move(*record), card->line});
    }
  }
  if (cardCount == 0) {
    const std::vector<ContentProblem>& problems = reader.problems();
    if (!problems.empty())
      file.failure = UserFileNote{problems.front().line, "not a vCard file: " + problems.front().message};
    else
      file.failure = UserFileNote{1, "no BEGIN:VCARD in the file"};
    file.skipped.clear();
    file.reported.clear();
    file.propertiesNotKept.clear();
    return file;
  }
  for (const ContentProblem& problem : reader.problems()) file.reported.push_back({problem.line, problem.message});
  auto byLine = [](const UserFileNote& a, const UserFileNote& b) { return a.line < b.line; };
  std::stable_sort(file.skipped.begin(), file.skipped.end(), byLine);
  std::stable_sort(file.reported.begin(), file.reported.end(), byLine);
  return file;
}

// --- Writing -------------------------------------------------------------------

namespace {

class CardWriter {
 public:
  explicit CardWriter(ContentWriter3& out) : _out(out) {}
  void write(const std::string& identifier, const Dictionary& record);

 private:
  void sub(Kind kind, const Dictionary& record);
  std::string nextGroup() { return "item" + std::to_string(++_groups); }

  ContentWriter3& _out;
  int _groups = 0;
};

// Numbers, addresses and handles are not text values: only what reading
// would undo (a backslash, a line break) is escaped.
std::string escapeAddress(std::string_view value) {
  std::string out;
  for (char c : value) {
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else if (c != '\r') out += c;
  }
  return out;
}

void CardWriter::sub(Kind kind, const Dictionary& record) {
  const std::string type = stringField(record, "type");
  const std::string label = stringField(record, "label");
  std::vector<ContentParameter> parameters;
  if (kind == Kind::Email) parameters.push_back({"TYPE", "INTERNET"});
  if (record.contains("type")) {
    if (std::optional<std::string> tokens = typeTokens(kind, type)) {
      if (!tokens->empty()) {
        if (kind == Kind::Email) parameters.back().value += "," + *tokens;
        else parameters.push_back({"TYPE", *tokens});
      }
    } else if (!(kind == Kind::Date && type == "other") && !(kind == Kind::Related && type == "other")) {
      parameters.push_back({"X-TYPE", type});
    }
  }
  std::string value;
  const Value field = record.get("value");
  const char* property = info(kind).property;
  if (kind == Kind::Address) {
    std::vector<std::string> parts{"", ""};
    for (const char* key : {"street", "city", "state", "postalCode", "country"})
      parts.push_back(escapeText(stringField(record, key)));
    for (std::size_t i = 0; i < parts.size(); ++i) value += (i ? ";" : "") + parts[i];
    if (std::string code = stringField(record, "countryCode"); !code.empty())
      parameters.push_back({"X-COUNTRYCODE", code});
  } else if (kind == Kind::Date) {
    if (!field.isDate()) return;
    value = dayText(field.date());
    if (type == "anniversary" && label.empty()) {
      property = "X-ANNIVERSARY";
      parameters.clear();
    }
  } else if (kind == Kind::IM) {
    if (!field.isString()) return;
    value = escapeAddress(field.string());
    if (std::string service = stringField(record, kContactsIMService); !service.empty())
      parameters.push_back({"X-SERVICE-TYPE", service});
  } else if (field.isURL()) {
    value = escapeAddress(field.url().absoluteString());
  } else if (field.isString()) {
    value = escapeAddress(field.string());
    // A number that itself starts with the scheme is written as an address,
    // whose scheme reading takes off again.
    if (kind == Kind::Phone && lowerAscii(std::string_view(value).substr(0, 4)) == "tel:") {
      parameters.push_back({"VALUE", "uri"});
      value = "tel:" + value;
    }
  } else {
    return;
  }
  if (label.empty()) {
    _out.line("", property, parameters, value);
    return;
  }
  const std::string group = nextGroup();
  _out.line(group, property, parameters, value);
  _out.line(group, "X-ABLabel", {}, escapeText(label));
}

void CardWriter::write(const std::string& identifier, const Dictionary& record) {
  _groups = 0;
  _out.begin("VCARD");
  _out.line("", "VERSION", {}, "3.0");
  _out.line("", "UID", {}, escapeText(identifier));

  const std::array<const char*, 5> nameKeys{kContactsContactLastName, kContactsContactFirstName, "middleName",
                                            "title", "suffix"};
  std::string n;
  for (std::size_t i = 0; i < nameKeys.size(); ++i) n += (i ? ";" : "") + escapeText(stringField(record, nameKeys[i]));
  _out.line("", "N", {}, n);
  std::string display;
  for (std::size_t i : {3, 1, 2, 0, 4})
    if (std::string part = stringField(record, nameKeys[i]); !part.empty()) display += (display.empty() ? "" : " ") + part;
  if (display.empty()) display = stringField(record, kContactsContactCompanyName);
  _out.line("", "FN", {}, escapeText(display));

  auto text = [&](const char* property, const char* key) {
    if (const Value* value = record.find(key); value && value->isString() && !value->string().empty())
      _out.line("", property, {}, escapeText(value->string()));
  };
  text("NICKNAME", "nickname");
  const std::string company = stringField(record, kContactsContactCompanyName);
  const std::string department = stringField(record, "department");
  if (!company.empty() || !department.empty())
    _out.line("", "ORG", {}, escapeText(company) + (department.empty() ? "" : ";" + escapeText(department)));
  text("TITLE", "jobTitle");
  if (const Value* birthday = record.find(kContactsContactBirthday); birthday && birthday->isDate())
    _out.line("", "BDAY", {}, dayText(birthday->date()));

  for (Kind kind : {Kind::Phone, Kind::Email, Kind::Address, Kind::Web, Kind::IM, Kind::Date, Kind::Related}) {
    const Value* list = record.find(info(kind).relation);
    if (!list || !list->isArray()) continue;
    for (const Value& item : list->array())
      if (const std::optional<Dictionary> sub = item.asDictionary()) this->sub(kind, *sub);
  }
  if (const Value* categories = record.find("categories"); categories && categories->isArray()) {
    std::string value;
    for (const Value& item : categories->array())
      if (item.isString() && !item.string().empty()) value += (value.empty() ? "" : ",") + escapeText(item.string());
    if (!value.empty()) _out.line("", "CATEGORIES", {}, value);
  }
  text("NOTE", "notes");
  if (const Value* image = record.find(kImageKey); image && image->isData() && !image->data().empty()) {
    const std::string bytes = image->data().asString();
    std::vector<ContentParameter> parameters;
    if (std::string type = photoTypeOfBytes(bytes); !type.empty()) parameters.push_back({"TYPE", type});
    _out.binary("", "PHOTO", parameters, bytes);
  }
  _out.end("VCARD");
}

}  // namespace

std::string exportVCardText(const std::vector<std::pair<std::string, Dictionary>>& records) {
  ContentWriter3 out;
  CardWriter writer(out);
  for (const auto& [identifier, record] : records)
    if (stringField(record, kEntity) == kContactsContact) writer.write(identifier, record);
  return out.take();
}

}  // namespace pc
