#include "host/VCalendarRule.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <set>

#include "host/ContentLines.h"
#include "host/VFormatValues.h"
#include "platform/TimeZone.h"

namespace pc {

namespace {

// The record keys a rule's X- parameters may carry, and whether each is a list.
struct ExtraKey {
  std::string_view key;
  bool list;
  bool text;
};
constexpr std::array<ExtraKey, 10> kExtraKeys{{
    {"bydaydays", true, true}, {"bydayfreq", true, false}, {"bymonth", true, false},
    {"bymonthday", true, false}, {"bysetpos", true, false}, {"byweeknumber", true, false},
    {"byyearday", true, false}, {"weekstartday", false, true}, {"interval", false, false},
    {"count", false, false},
}};

std::optional<int> number(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// The integers of a record list; nullopt when an item is not one.
std::optional<std::vector<int>> integers(const Value& value) {
  const std::optional<Array> list = value.asArray();
  if (!list) return std::nullopt;
  std::vector<int> out;
  for (const Value& item : *list) {
    const std::optional<std::int64_t> n = item.integerIfNumeric();
    if (!n || item.isBoolean() || item.isString()) return std::nullopt;
    out.push_back(static_cast<int>(*n));
  }
  return out;
}

std::optional<std::vector<std::string>> weekdays(const Value& value) {
  const std::optional<Array> list = value.asArray();
  if (!list) return std::nullopt;
  std::vector<std::string> out;
  for (const Value& item : *list) {
    if (!item.isString()) return std::nullopt;
    std::optional<std::string> abbreviation = weekdayAbbreviation(item.string());
    if (!abbreviation) return std::nullopt;
    out.push_back(*abbreviation);
  }
  return out;
}

// "3" or "3-" (counted from the end) for a number of days or occurrences.
std::string ordinal(int n, bool plusSign) {
  if (n < 0) return fmt::format("{}-", -n);
  return plusSign ? fmt::format("{}+", n) : std::to_string(n);
}

// A number in a parameter is written "N<number>": readers of the 1.0
// grammar take a parameter value for a word only when it starts with a letter.
std::string parameterItem(const Value& item) {
  return item.isString() ? item.string() : "N" + item.stringValue();
}

std::string parameterValue(const Value& value) {
  if (const std::optional<Array> list = value.asArray()) {
    std::vector<std::string> items;
    for (const Value& item : *list) items.push_back(parameterItem(item));
    return fmt::format("{}", fmt::join(items, ","));
  }
  return parameterItem(value);
}

// Reads "3", "3+" or "3-" (and "LD", the last day) within [1, limit].
std::optional<int> readOrdinal(std::string_view token, int limit, bool allowPlain) {
  if (token == "LD") return -1;
  if (token.empty()) return std::nullopt;
  int sign = 1;
  if (token.back() == '+' || token.back() == '-') {
    sign = token.back() == '-' ? -1 : 1;
    token.remove_suffix(1);
  } else if (!allowPlain) {
    return std::nullopt;
  }
  const std::optional<int> n = number(token);
  if (!n || *n < 1 || *n > limit) return std::nullopt;
  return sign * *n;
}

}  // namespace

std::optional<VCalendarRuleText> vcalendarRuleFromRecurrence(
    const Dictionary& recurrence, const std::function<std::string(const CalendarDate&)>& dateText) {
  const std::string frequency = recurrence.getString("frequency");
  const Value intervalValue = recurrence.get("interval");
  const std::int64_t interval = std::max<std::int64_t>(1, intervalValue.integerIfNumeric().value_or(1));
  std::set<std::string> said{"frequency"};
  if (intervalValue.integerIfNumeric() && *intervalValue.integerIfNumeric() >= 1) said.insert("interval");
  std::string rule;
  std::vector<std::string> words;

  const Value days = recurrence.get("bydaydays");
  const std::optional<std::vector<std::string>> dayNames = weekdays(days);
  const std::optional<std::vector<int>> dayFrequencies = integers(recurrence.get("bydayfreq"));
  const bool daysAreWeekly = dayNames && dayFrequencies && dayFrequencies->size() == dayNames->size() &&
                             std::all_of(dayFrequencies->begin(), dayFrequencies->end(), [](int n) { return n == 0; });
  const bool daysAreMonthly = dayNames && !dayNames->empty() && dayFrequencies &&
                              dayFrequencies->size() == dayNames->size() &&
                              std::all_of(dayFrequencies->begin(), dayFrequencies->end(),
                                          [](int n) { return n != 0 && n >= -5 && n <= 5; });
  auto list = [&](std::string_view key, int limit) -> std::optional<std::vector<int>> {
    std::optional<std::vector<int>> values = integers(recurrence.get(std::string(key)));
    if (!values || values->empty()) return std::nullopt;
    for (int v : *values)
      if (v == 0 || v > limit || v < -limit) return std::nullopt;
    return values;
  };

  if (frequency == "daily") {
    rule = fmt::format("D{}", interval);
  } else if (frequency == "weekly") {
    rule = fmt::format("W{}", interval);
    if (daysAreWeekly && !dayNames->empty()) {
      words = *dayNames;
      said.insert({"bydaydays", "bydayfreq"});
    }
  } else if (frequency == "monthly") {
    if (daysAreMonthly) {
      rule = fmt::format("MP{}", interval);
      for (std::size_t i = 0; i < dayNames->size(); ++i) {
        if (i == 0 || (*dayFrequencies)[i] != (*dayFrequencies)[i - 1])
          words.push_back(ordinal((*dayFrequencies)[i], true));
        words.push_back((*dayNames)[i]);
      }
      said.insert({"bydaydays", "bydayfreq"});
    } else {
      rule = fmt::format("MD{}", interval);
      if (auto monthDays = list("bymonthday", 31); monthDays && !recurrence.contains("bydaydays")) {
        for (int d : *monthDays) words.push_back(ordinal(d, false));
        said.insert("bymonthday");
      }
    }
  } else if (frequency == "yearly") {
    const std::optional<std::vector<int>> months = list("bymonth", 12);
    const std::optional<std::vector<int>> yearDays = list("byyearday", 366);
    if (yearDays && !recurrence.contains("bymonth")) {
      rule = fmt::format("YD{}", interval);
      for (int d : *yearDays) words.push_back(ordinal(d, false));
      said.insert("byyearday");
    } else {
      rule = fmt::format("YM{}", interval);
      if (months && std::all_of(months->begin(), months->end(), [](int m) { return m > 0; })) {
        for (int m : *months) words.push_back(std::to_string(m));
        said.insert("bymonth");
      }
    }
  } else {
    return std::nullopt;
  }

  VCalendarRuleText text;
  const Value until = recurrence.get("until");
  std::string end = "#0";
  if (const std::optional<std::int64_t> count = recurrence.get("count").integerIfNumeric();
      count && *count > 0 && !recurrence.get("count").isString()) {
    end = fmt::format("#{}", *count);
    said.insert("count");
  } else if (until.isDate()) {
    if (std::string untilText = dateText(until.date()); !untilText.empty()) {
      end = untilText;
      said.insert("until");
      for (ContentParameter& p : zoneParameters(until.date()))
        text.parameters.push_back({"X-UNTIL-TZID", std::move(p.value)});
    }
  }
  words.push_back(end);
  text.rule = rule;
  for (const std::string& word : words) text.rule += " " + word;

  for (const auto& [key, value] : recurrence) {
    if (!key.isString() || said.count(key.string())) continue;
    const std::string& name = key.string();
    const auto known = std::find_if(kExtraKeys.begin(), kExtraKeys.end(),
                                    [&](const ExtraKey& k) { return k.key == name; });
    if (known == kExtraKeys.end()) continue;
    text.parameters.push_back({"X-" + upperAscii(key.string()), parameterValue(value)});
  }
  return text;
}

std::optional<Dictionary> recurrenceFromVCalendarRule(
    std::string_view rule, const std::vector<ContentParameter>& parameters,
    const std::function<std::optional<CalendarDate>(std::string_view)>& dateValue,
    std::string& problem) {
  std::vector<std::string> words;
  for (std::size_t at = 0; at < rule.size();) {
    const std::size_t end = std::min(rule.find_first_of(" \t", at), rule.size());
    if (const std::string_view word = rule.substr(at, end - at); !word.empty() && word != "$") words.push_back(upperAscii(word));
    at = end + 1;
  }
  auto fail = [&](std::string why) -> std::optional<Dictionary> {
    problem = "RRULE \"" + std::string(rule) + "\": " + why;
    return std::nullopt;
  };
  if (words.empty()) return fail("empty");
  std::string head = words.front();
  std::string kind;
  for (std::string_view k : {"MP", "MD", "YM", "YD", "D", "W"})
    if (head.compare(0, k.size(), k) == 0) {
      kind = std::string(k);
      break;
    }
  const std::optional<int> interval = kind.empty() ? std::nullopt : number(std::string_view(head).substr(kind.size()));
  if (!interval || *interval < 1) return fail("no frequency and interval");

  Dictionary recurrence;
  recurrence.set("frequency", kind == "D" ? "daily" : kind == "W" ? "weekly" : kind[0] == 'M' ? "monthly" : "yearly");
  recurrence.set("interval", *interval);
  // Lists made only when the rule has them.
  std::vector<Value> days, dayFrequencies, values;
  int occurrence = 0;
  bool ended = false;
  for (std::size_t i = 1; i < words.size(); ++i) {
    std::string word = words[i];
    if (ended) return fail("words after its end");
    if (word.size() > 1 && word.back() == '$') word.pop_back();
    if (word[0] == '#') {
      const std::optional<int> count = number(std::string_view(word).substr(1));
      if (!count || *count < 0) return fail("bad count");
      if (*count > 0) recurrence.set("count", *count);
      ended = true;
      continue;
    }
    if (word.size() >= 8 && word[0] >= '0' && word[0] <= '9' && word.find_first_of("T") != std::string::npos) {
      std::optional<CalendarDate> until = dateValue(word);
      if (!until) return fail("bad end date");
      for (const ContentParameter& p : parameters)
        if (p.name == "X-UNTIL-TZID")
          if (TimeZonePtr zone = TimeZone::timeZoneWithName(p.value)) until->setTimeZone(zone);
      recurrence.set("until", *until);
      ended = true;
      continue;
    }
    if (kind == "W" || kind == "MP") {
      if (std::optional<std::string> day = weekdayRecordName(word)) {
        if (kind == "MP" && occurrence == 0) return fail("a day without its occurrence");
        days.emplace_back(*day);
        dayFrequencies.emplace_back(kind == "W" ? 0 : occurrence);
        continue;
      }
      if (kind == "MP")
        if (std::optional<int> n = readOrdinal(word, 5, false)) {
          occurrence = *n;
          continue;
        }
      return fail("\"" + word + "\" is not a day");
    }
    const int limit = kind == "MD" ? 31 : kind == "YM" ? 12 : 366;
    const std::optional<int> n = readOrdinal(word, limit, true);
    if (!n || (kind == "YM" && *n < 0)) return fail("\"" + word + "\" is out of range");
    values.emplace_back(*n);
  }
  if (!ended) recurrence.set("count", 2);
  auto array = [](const std::vector<Value>& items) {
    Array out;
    for (const Value& item : items) out.add(item);
    return out;
  };
  if (!days.empty()) {
    recurrence.set("bydaydays", array(days));
    recurrence.set("bydayfreq", array(dayFrequencies));
  }
  if (!values.empty())
    recurrence.set(kind == "MD" ? "bymonthday" : kind == "YM" ? "bymonth" : "byyearday", array(values));

  for (const ContentParameter& p : parameters) {
    if (p.name.size() < 3 || p.name.compare(0, 2, "X-") != 0) continue;
    std::string key = p.name.substr(2);
    for (char& c : key)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    const auto known = std::find_if(kExtraKeys.begin(), kExtraKeys.end(),
                                    [&](const ExtraKey& k) { return k.key == key; });
    if (known == kExtraKeys.end()) continue;
    Array items;
    for (const std::string& item : splitStructured(p.value, ',')) {
      if (known->text) {
        items.add(item);
      } else if (std::optional<int> n = number(item.size() > 1 && item[0] == 'N' ? std::string_view(item).substr(1) : std::string_view(item))) {
        items.add(*n);
      } else {
        return fail("X-" + upperAscii(key) + " is not a number list");
      }
    }
    if (known->list) recurrence.set(key, items);
    else if (!items.empty()) recurrence.set(key, items.first());
  }
  return recurrence;
}

}  // namespace pc
