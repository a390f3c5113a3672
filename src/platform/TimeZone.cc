#include "platform/TimeZone.h"

#include <fmt/format.h>
#include <unicode/basictz.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/tznames.h>
#include <unicode/tzrule.h>
#include <unicode/tztrans.h>
#include <unicode/ucal.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <vector>

#include "platform/Date.h"

namespace pc {
namespace {

UDate toUDate(const Date& date) {
  return (date.secondsSinceReferenceDate + kTimeIntervalBetween1970AndReferenceDate) * 1000.0;
}

double secondsSinceReferenceDate(UDate udate) {
  return udate / 1000.0 - kTimeIntervalBetween1970AndReferenceDate;
}

std::string toUTF8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
         });
}

// "GMT" for 0, else "GMT+hhmm" / "GMT-hhmm", with seconds appended when the
// offset has some (historical local mean times), so that the name parses back.
std::string fixedOffsetName(int seconds) {
  if (seconds == 0) return "GMT";
  const int magnitude = std::abs(seconds);
  std::string name =
      fmt::format("GMT{}{:02}{:02}", seconds < 0 ? '-' : '+', magnitude / 3600, magnitude / 60 % 60);
  if (magnitude % 60 != 0) name += fmt::format("{:02}", magnitude % 60);
  return name;
}

constexpr int kSecondsPerDay = 86400;

// "GMT" or "UTC" (in any case) followed by a sign: the fixed-offset forms,
// which this file reads itself rather than ICU (ICU knows no "UTC+2").
bool hasGMTOffsetForm(std::string_view name) {
  return name.size() > 3 &&
         (equalsIgnoringCase(name.substr(0, 3), "GMT") || equalsIgnoringCase(name.substr(0, 3), "UTC")) &&
         (name[3] == '+' || name[3] == '-');
}

// Reads the offset of "GMT+1", "GMT+0100", "GMT-05:30", "UTC+2", "GMT+010203".
std::optional<int> parseGMTOffset(std::string_view name) {
  if (!hasGMTOffsetForm(name)) return std::nullopt;
  // Hours, then optional minutes and seconds, with or without colons.
  static const std::regex kOffset("([0-9]{1,2})(?::?([0-9]{2}))?(?::?([0-9]{2}))?");
  std::match_results<std::string_view::const_iterator> match;
  const std::string_view digits = name.substr(4);
  if (!std::regex_match(digits.begin(), digits.end(), match, kOffset)) return std::nullopt;
  const auto part = [&](int i) { return match[i].matched ? std::stoi(match[i].str()) : 0; };
  const int hours = part(1), minutes = part(2), seconds = part(3);
  if (hours > 23 || minutes > 59 || seconds > 59) return std::nullopt;
  const int offset = hours * 3600 + minutes * 60 + seconds;
  return name[3] == '-' ? -offset : offset;
}

class FixedOffsetTimeZone final : public TimeZone {
 public:
  FixedOffsetTimeZone(std::string name, int offset) : _name(std::move(name)), _offset(offset) {}

  std::string name() const override { return _name; }
  int secondsFromGMT(const Date&) const override { return _offset; }
  bool isDaylightSavingTime(const Date&) const override { return false; }
  std::string abbreviation(const Date&) const override { return _name; }

 private:
  std::string _name;
  int _offset;
};

// The sources of short names, in order: the time-zone database's own
// abbreviations (CET/CEST, EST/EDT, JST ...), then British English names,
// which add the daylight names of the GMT zones (BST) that the database's
// metazone lacks.
const std::vector<std::unique_ptr<icu::TimeZoneNames>>& shortNameSources() {
  static const auto sources = [] {
    std::vector<std::unique_ptr<icu::TimeZoneNames>> list;
    UErrorCode status = U_ZERO_ERROR;
    list.emplace_back(icu::TimeZoneNames::createTZDBInstance(icu::Locale::getRoot(), status));
    status = U_ZERO_ERROR;
    list.emplace_back(icu::TimeZoneNames::createInstance(icu::Locale("en", "GB"), status));
    std::erase(list, nullptr);
    return list;
  }();
  return sources;
}

// A zone of ICU's database. Offsets from 1900 to 2100 come from a table of
// its transitions built once, so that the frequent offset queries are a
// binary search over immutable data (safe from any thread); instants outside
// that span ask ICU, whose const queries are thread-safe too.
class DatabaseTimeZone final : public TimeZone {
 public:
  DatabaseTimeZone(std::string name, std::unique_ptr<icu::TimeZone> zone)
      : _name(std::move(name)), _zone(std::move(zone)) {
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString id;
    _zone->getID(id);
    icu::TimeZone::getCanonicalID(id, _canonicalID, status);
    if (U_FAILURE(status)) _canonicalID = id;
    buildTransitionTable();
  }

  std::string name() const override { return _name; }
  int secondsFromGMT(const Date& at) const override { return periodAt(at).offset; }
  bool isDaylightSavingTime(const Date& at) const override { return periodAt(at).daylight; }

  std::string abbreviation(const Date& at) const override {
    const Period period = periodAt(at);
    const UTimeZoneNameType type = period.daylight ? UTZNM_SHORT_DAYLIGHT : UTZNM_SHORT_STANDARD;
    for (const auto& names : shortNameSources()) {
      icu::UnicodeString text;
      names->getDisplayName(_canonicalID, type, toUDate(at), text);
      if (!text.isEmpty()) return toUTF8(text);
    }
    if (_canonicalID == icu::UnicodeString(u"Etc/UTC")) return "UTC";
    return fixedOffsetName(period.offset);
  }

 private:
  struct Period {
    double start;  // seconds since the reference date
    int offset;
    bool daylight;
  };

  static constexpr UDate kTableStart = -2208988800000.0;  // 1900-01-01 GMT
  static constexpr UDate kTableEnd = 4102444800000.0;     // 2100-01-01 GMT
  static constexpr double kFarSeconds = 1e13;             // about 300,000 years

  Period icuPeriodAt(UDate udate) const {
    int32_t raw = 0, dst = 0;
    UErrorCode status = U_ZERO_ERROR;
    _zone->getOffset(udate, false, raw, dst, status);
    return {secondsSinceReferenceDate(udate), (raw + dst) / 1000, dst != 0};
  }

  void buildTransitionTable() {
    const auto* basic = dynamic_cast<const icu::BasicTimeZone*>(_zone.get());
    if (!basic) return;
    _initial = icuPeriodAt(kTableStart);
    icu::TimeZoneTransition transition;
    UDate base = kTableStart;
    while (basic->getNextTransition(base, false, transition) && transition.getTime() < kTableEnd) {
      const icu::TimeZoneRule* to = transition.getTo();
      _transitions.push_back({secondsSinceReferenceDate(transition.getTime()),
                              (to->getRawOffset() + to->getDSTSavings()) / 1000, to->getDSTSavings() != 0});
      base = transition.getTime();
    }
    _tableStart = secondsSinceReferenceDate(kTableStart);
    _tableEnd = secondsSinceReferenceDate(kTableEnd);
  }

  Period periodAt(const Date& at) const {
    const double t = at.secondsSinceReferenceDate;
    if (t >= _tableStart && t < _tableEnd) {
      const auto next = std::upper_bound(_transitions.begin(), _transitions.end(), t,
                                         [](double value, const Period& p) { return value < p.start; });
      return next == _transitions.begin() ? _initial : *std::prev(next);
    }
    // ICU turns instants into 32-bit years internally: keep them within reach.
    const double reachable = std::isnan(t) ? 0 : std::clamp(t, -kFarSeconds, kFarSeconds);
    return icuPeriodAt(toUDate(Date{reachable}));
  }

  std::string _name;
  std::unique_ptr<icu::TimeZone> _zone;
  icu::UnicodeString _canonicalID;
  Period _initial{0, 0, false};
  std::vector<Period> _transitions;
  // An empty span (ICU answers everything) for a zone that lists no transitions.
  double _tableStart = 0;
  double _tableEnd = 0;
};

class LocalTimeZone final : public TimeZone {
 public:
  std::string name() const override { return systemTimeZone()->name(); }
  int secondsFromGMT(const Date& at) const override { return systemTimeZone()->secondsFromGMT(at); }
  bool isDaylightSavingTime(const Date& at) const override {
    return systemTimeZone()->isDaylightSavingTime(at);
  }
  std::string abbreviation(const Date& at) const override { return systemTimeZone()->abbreviation(at); }
  bool isLocalTimeZoneKind() const override { return true; }
};

// Zones by the name they were asked for. Zones are immutable, so one object
// per name serves every caller.
class ZoneCache {
 public:
  TimeZonePtr find(std::string_view name) {
    std::lock_guard lock(_mutex);
    const auto it = _zones.find(name);
    return it == _zones.end() ? nullptr : it->second;
  }
  // Answers the zone already cached under `name` when another thread got there first.
  TimeZonePtr insert(std::string_view name, TimeZonePtr zone) {
    std::lock_guard lock(_mutex);
    return _zones.try_emplace(std::string(name), std::move(zone)).first->second;
  }

 private:
  std::mutex _mutex;
  std::map<std::string, TimeZonePtr, std::less<>> _zones;
};

ZoneCache& zoneCache() {
  static ZoneCache cache;
  return cache;
}

TimeZonePtr makeZone(std::string_view name) {
  if (equalsIgnoringCase(name, "GMT")) return TimeZone::gmt();
  if (equalsIgnoringCase(name, "UTC")) return std::make_shared<FixedOffsetTimeZone>("UTC", 0);
  if (hasGMTOffsetForm(name)) {
    const auto offset = parseGMTOffset(name);
    return offset ? TimeZone::timeZoneForSecondsFromGMT(*offset) : nullptr;
  }

  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(
      icu::UnicodeString::fromUTF8(icu::StringPiece(name.data(), static_cast<int32_t>(name.size())))));
  icu::UnicodeString id;
  if (!zone || zone->getID(id) == icu::UnicodeString(UCAL_UNKNOWN_ZONE_ID)) return nullptr;
  return std::make_shared<DatabaseTimeZone>(std::string(name), std::move(zone));
}

// Common abbreviations and the zone each one stands for; where an abbreviation
// is shared (CST, IST), the zone most users of it mean.
constexpr std::pair<std::string_view, std::string_view> kAbbreviations[] = {
    {"ACDT", "Australia/Adelaide"},  {"ACST", "Australia/Adelaide"},
    {"ADT", "America/Halifax"},      {"AEDT", "Australia/Sydney"},
    {"AEST", "Australia/Sydney"},    {"AKDT", "America/Anchorage"},
    {"AKST", "America/Anchorage"},   {"ART", "America/Argentina/Buenos_Aires"},
    {"AST", "America/Halifax"},      {"AWST", "Australia/Perth"},
    {"BDT", "Asia/Dhaka"},           {"BRST", "America/Sao_Paulo"},
    {"BRT", "America/Sao_Paulo"},    {"BST", "Europe/London"},
    {"CAT", "Africa/Maputo"},        {"CDT", "America/Chicago"},
    {"CEST", "Europe/Paris"},        {"CET", "Europe/Paris"},
    {"CLST", "America/Santiago"},    {"CLT", "America/Santiago"},
    {"COT", "America/Bogota"},       {"CST", "America/Chicago"},
    {"EAT", "Africa/Nairobi"},       {"EDT", "America/New_York"},
    {"EEST", "Europe/Athens"},       {"EET", "Europe/Athens"},
    {"EST", "America/New_York"},     {"GST", "Asia/Dubai"},
    {"HDT", "America/Adak"},         {"HKT", "Asia/Hong_Kong"},
    {"HST", "Pacific/Honolulu"},     {"ICT", "Asia/Bangkok"},
    {"IDT", "Asia/Jerusalem"},       {"IRST", "Asia/Tehran"},
    {"IST", "Asia/Kolkata"},         {"JST", "Asia/Tokyo"},
    {"KST", "Asia/Seoul"},           {"MDT", "America/Denver"},
    {"MSD", "Europe/Moscow"},        {"MSK", "Europe/Moscow"},
    {"MST", "America/Denver"},       {"NDT", "America/St_Johns"},
    {"NST", "America/St_Johns"},     {"NZDT", "Pacific/Auckland"},
    {"NZST", "Pacific/Auckland"},    {"PDT", "America/Los_Angeles"},
    {"PET", "America/Lima"},         {"PHT", "Asia/Manila"},
    {"PKT", "Asia/Karachi"},         {"PST", "America/Los_Angeles"},
    {"SAST", "Africa/Johannesburg"}, {"SGT", "Asia/Singapore"},
    {"WAT", "Africa/Lagos"},         {"WEST", "Europe/Lisbon"},
    {"WET", "Europe/Lisbon"},        {"WIB", "Asia/Jakarta"},
};

// "/usr/share/zoneinfo/Europe/Paris" (also under posix/ or right/) -> the zone.
TimeZonePtr zoneFromZoneInfoPath(std::string_view path) {
  constexpr std::string_view kMarker = "zoneinfo/";
  const size_t at = path.find(kMarker);
  if (at == std::string_view::npos) return nullptr;
  std::string_view name = path.substr(at + kMarker.size());
  for (std::string_view prefix : {"posix/", "right/"})
    if (name.starts_with(prefix)) name.remove_prefix(prefix.size());
  return TimeZone::timeZoneWithName(name);
}

TimeZonePtr zoneFromTZVariable() {
  const char* variable = std::getenv("TZ");
  if (!variable) return nullptr;
  std::string_view value = variable;
  if (value.starts_with(':')) value.remove_prefix(1);
  if (value.empty()) return TimeZone::timeZoneWithName("UTC");  // as the C library reads it
  if (value.starts_with('/')) return zoneFromZoneInfoPath(value);
  return TimeZone::timeZoneWithName(value);
}

TimeZonePtr zoneFromLocaltime() {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::read_symlink("/etc/localtime", error);
  if (!error) return zoneFromZoneInfoPath(target.string());
  // A copied /etc/localtime: the distribution may name the zone beside it.
  std::ifstream file("/etc/timezone");
  std::string name;
  if (file && std::getline(file, name)) return TimeZone::timeZoneWithName(name);
  return nullptr;
}

TimeZonePtr detectSystemTimeZone() {
  if (auto zone = zoneFromTZVariable()) return zone;
  if (auto zone = zoneFromLocaltime()) return zone;
  return TimeZone::gmt();
}

std::atomic<TimeZonePtr>& systemZoneSlot() {
  static std::atomic<TimeZonePtr> slot;
  return slot;
}

}  // namespace

TimeZone::~TimeZone() = default;

TimeZonePtr TimeZone::timeZoneWithName(std::string_view name) {
  if (name.empty()) return nullptr;
  if (auto zone = zoneCache().find(name)) return zone;
  // Built outside the lock: a database zone's table takes a moment, and fixed
  // offsets go through the cache again.
  auto zone = makeZone(name);
  return zone ? zoneCache().insert(name, std::move(zone)) : nullptr;
}

TimeZonePtr TimeZone::timeZoneWithAbbreviation(std::string_view abbreviation) {
  if (equalsIgnoringCase(abbreviation, "GMT") || equalsIgnoringCase(abbreviation, "UTC") ||
      hasGMTOffsetForm(abbreviation))
    return timeZoneWithName(abbreviation);
  for (const auto& [known, zoneName] : kAbbreviations)
    if (equalsIgnoringCase(known, abbreviation)) return timeZoneWithName(zoneName);
  return nullptr;
}

TimeZonePtr TimeZone::timeZoneForSecondsFromGMT(int seconds) {
  if (seconds <= -kSecondsPerDay || seconds >= kSecondsPerDay) return nullptr;
  if (seconds == 0) return gmt();
  const std::string name = fixedOffsetName(seconds);
  if (auto zone = zoneCache().find(name)) return zone;
  return zoneCache().insert(name, std::make_shared<FixedOffsetTimeZone>(name, seconds));
}

TimeZonePtr TimeZone::gmt() {
  static const TimeZonePtr zone = std::make_shared<FixedOffsetTimeZone>("GMT", 0);
  return zone;
}

TimeZonePtr TimeZone::systemTimeZone() {
  auto& slot = systemZoneSlot();
  if (auto zone = slot.load()) return zone;
  TimeZonePtr detected = detectSystemTimeZone();
  TimeZonePtr current;
  // Another thread may have detected or set the zone meanwhile: keep its answer.
  if (slot.compare_exchange_strong(current, detected)) return detected;
  return current;
}

void TimeZone::resetSystemTimeZone() { systemZoneSlot().store(nullptr); }

void TimeZone::setSystemTimeZone(TimeZonePtr zone) {
  // The local kind answers through the system zone: it cannot be the system zone.
  if (zone && zone->isLocalTimeZoneKind()) return;
  systemZoneSlot().store(std::move(zone));
}

TimeZonePtr TimeZone::localTimeZone() {
  static const TimeZonePtr zone = std::make_shared<LocalTimeZone>();
  return zone;
}

int TimeZone::secondsFromGMTForWallClock(const Date& wall) const {
  const double w = wall.secondsSinceReferenceDate;
  // The offsets a day before and a day after bracket any change near `wall`.
  const int before = secondsFromGMT(Date{w - kSecondsPerDay});
  const int after = secondsFromGMT(Date{w + kSecondsPerDay});
  if (before == after) return before;
  // Valid with the earlier offset: a plain reading, or the first of two.
  if (secondsFromGMT(Date{w - before}) == before) return before;
  if (secondsFromGMT(Date{w - after}) == after) return after;
  return before;  // skipped by the change
}

bool TimeZone::isEqualToTimeZone(const TimeZone& other) const {
  if (isLocalTimeZoneKind() || other.isLocalTimeZoneKind())
    return isLocalTimeZoneKind() == other.isLocalTimeZoneKind();
  return name() == other.name();
}

std::string TimeZone::description() const {
  const Date now = Date::now();
  std::string text = fmt::format("{} ({}) offset {}", name(), abbreviation(now), secondsFromGMT(now));
  return isLocalTimeZoneKind() ? "Local Time Zone (" + text + ")" : text;
}

}  // namespace pc
