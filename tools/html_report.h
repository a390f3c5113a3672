#pragma once
// The --report html page of sync and format: one self-contained file (styles
// and script inline, nothing fetched) that a person opens in a browser. It is
// built from plain data, so a new outcome of a command shows on the page (in
// the summary, the filter and its records' badges) without new code here.
// Every text from records and files is escaped: it is data, never markup.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Value.h"

namespace pc::tools {

struct HtmlRecord {
  std::string identifier;
  std::string entity;
  // The command's name for what happened ("sent", "reduced", "rejected",
  // ...); the summary counts and the filter offer each one that occurs.
  std::string outcome;
  // A line under the heading: the reason of a rejection, "exploded into 3
  // events", ...; empty for none.
  std::string detail;
  // Each removed or changed field (a key path such as "phoneNumbers/2/value")
  // with the part of the description that did it (may be empty).
  std::vector<std::pair<std::string, std::string>> fields;
  // The engine's form and the phone's form, shown side by side.
  std::optional<Dictionary> engineForm;
  std::optional<Dictionary> phoneForm;
  // Records listed under this one: the single events of an exploded event.
  std::vector<HtmlRecord> children;
};

struct HtmlPage {
  std::string title;      // "Sync report"
  std::string model;      // the phone model (its description's file name)
  std::string generated;  // when, as text
  std::vector<HtmlRecord> records;
};

// The page as text.
std::string htmlReport(const HtmlPage& page);

// Text with &, <, >, " and ' replaced by character references; bytes that are
// not UTF-8 become U+FFFD, so the page is always valid UTF-8.
std::string htmlEscaped(const std::string& text);

// Now in UTC, "2026-11-24 18:30 UTC": the page says when it was made
// whatever the zone of the machine that made it.
std::string reportTimeNow();

}  // namespace pc::tools
