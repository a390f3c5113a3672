#include "html_report.h"

#include <ctime>
#include <map>
#include <set>

namespace pc::tools {

namespace {

// Appends the UTF-8 sequence at text[i] (advancing i past it), or U+FFFD
// and one byte when the bytes there are not a well-formed sequence.
void appendCharacter(const std::string& text, std::size_t& i, std::string& out) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char lead = byte(i);
  std::size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
  bool valid = length != 0 && i + length <= text.size() && lead != 0xC0 && lead != 0xC1 && lead <= 0xF4;
  for (std::size_t k = 1; valid && k < length; ++k) valid = (byte(i + k) & 0xC0) == 0x80;
  if (valid && length >= 3) {
    const unsigned char second = byte(i + 1);
    // Overlong forms, surrogates and code points past U+10FFFF.
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90))
      valid = false;
  }
  if (!valid) {
    out += "\xEF\xBF\xBD";
    ++i;
    return;
  }
  out.append(text, i, length);
  i += length;
}

// "changedOnPhone" -> "changed on phone": the outcome names read as words.
std::string outcomeLabel(const std::string& outcome) {
  std::string label;
  for (const char c : outcome) {
    if (c >= 'A' && c <= 'Z') {
      label += ' ';
      label += static_cast<char>(c - 'A' + 'a');
    } else {
      label += c;
    }
  }
  return label;
}

// A class name made of the outcome's letters and digits only.
std::string outcomeClass(const std::string& outcome) {
  std::string name = "o-";
  for (const char c : outcome)
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) name += c;
  return name;
}

constexpr const char* kStyle = R"(
body{font:14px/1.4 system-ui,sans-serif;margin:0;color:#1d2330;background:#f4f5f8}
header{background:#1d2330;color:#fff;padding:16px 24px}
header h1{margin:0 0 4px;font-size:20px}
header p{margin:0 0 12px;color:#c9cfdc}
.summary{border-collapse:collapse;margin-bottom:12px}
.summary td,.summary th{padding:2px 12px 2px 0;text-align:left}
.controls{display:flex;gap:12px;align-items:center}
.controls input{width:280px;padding:4px}
main{padding:16px 24px}
.record{background:#fff;border:1px solid #d8dce6;border-radius:6px;margin:0 0 12px;padding:10px 14px}
.record h2{font-size:15px;margin:0 0 6px}
.record .entity{color:#5b6478;font-weight:normal;margin-left:8px}
.badge{display:inline-block;border-radius:10px;padding:0 8px;margin-left:8px;font-size:12px;color:#1d2330;background:#e3e7ef}
.o-sent{background:#d7f0dd}.o-reduced{background:#fdf0c8}.o-exploded{background:#dbe7fb}
.o-rejected{background:#f9d6d5}.o-changedOnPhone{background:#ecdcf7}
.detail{margin:0 0 6px}
.fields{margin:0 0 8px;padding-left:18px}
.forms{display:grid;grid-template-columns:1fr 1fr;gap:12px}
.forms table{border-collapse:collapse;width:100%;table-layout:fixed}
.forms th,.forms td{border-top:1px solid #eceef3;padding:3px 6px;vertical-align:top;text-align:left}
.forms td{white-space:pre-wrap;word-break:break-word;font-family:ui-monospace,monospace;font-size:12px}
.forms .key{width:30%}
tr.removed td{background:#fbe3e2}tr.changed td{background:#fff4d1}tr.added td{background:#e2f3e6}
.why{display:block;color:#8a5a00;font-family:system-ui,sans-serif;white-space:normal}
.children{margin:8px 0 0 16px}
.hidden{display:none}
)";

// Filter by outcome and search; without the script every record shows.
constexpr const char* kScript = R"(
(function(){
  var outcome=document.getElementById('outcome'),search=document.getElementById('search');
  function apply(){
    var wanted=outcome.value,words=search.value.toLowerCase();
    document.querySelectorAll('main > .record').forEach(function(r){
      var show=(!wanted||r.dataset.outcome===wanted)&&(!words||r.textContent.toLowerCase().indexOf(words)>=0);
      r.classList.toggle('hidden',!show);
    });
  }
  outcome.addEventListener('change',apply);search.addEventListener('input',apply);
})();
)";

// A value as the page shows it: its description, except that bytes (photos)
// are counted rather than dumped.
std::string valueText(const Value* value) {
  if (!value) return std::string();
  if (value->isData()) return "(" + std::to_string(value->data().length()) + " bytes)";
  return value->description();
}

void appendForms(const HtmlRecord& record, std::string& out) {
  if (!record.engineForm && !record.phoneForm) return;
  const Dictionary engine = record.engineForm.value_or(Dictionary());
  const Dictionary phone = record.phoneForm.value_or(Dictionary());
  // Which fields the report names, by their first key.
  std::map<std::string, std::vector<std::string>> reasons;
  for (const auto& [path, limit] : record.fields)
    if (!limit.empty()) {
      const std::size_t slash = path.find('/');
      reasons[path.substr(0, slash)].push_back(slash == std::string::npos ? limit : path.substr(slash + 1) + ": " + limit);
    }
  std::vector<std::string> keys;
  std::set<std::string> seen;
  for (const Dictionary* form : {&engine, &phone})
    for (const Value& key : form->keys())
      if (seen.insert(key.stringValue()).second) keys.push_back(key.stringValue());

  std::string rows[2];
  for (const std::string& key : keys) {
    const Value* before = engine.find(key);
    const Value* after = phone.find(key);
    // Marked only when both forms are there to compare.
    const char* state = "";
    if (record.engineForm && record.phoneForm) {
      if (!after) state = "removed";
      else if (!before) state = "added";
      else if (!(*before == *after)) state = "changed";
    }
    // What did it, under the phone's value.
    std::string why;
    if (auto found = reasons.find(key); found != reasons.end())
      for (const std::string& reason : found->second) why += "<span class=\"why\">" + htmlEscaped(reason) + "</span>";
    for (int side = 0; side < 2; ++side) {
      rows[side] += std::string("<tr") + (*state ? std::string(" class=\"") + state + "\"" : "") +
                    "><th class=\"key\">" + htmlEscaped(key) + "</th><td>" +
                    htmlEscaped(valueText(side == 0 ? before : after)) + (side == 1 ? why : std::string()) +
                    "</td></tr>\n";
    }
  }
  out += "<div class=\"forms\">\n";
  const char* titles[2] = {"Engine", "Phone"};
  const bool present[2] = {record.engineForm.has_value(), record.phoneForm.has_value()};
  for (int side = 0; side < 2; ++side) {
    out += std::string("<div><h3>") + titles[side] + "</h3>";
    out += present[side] ? "<table>\n" + rows[side] + "</table>" : std::string("<p>(none)</p>");
    out += "</div>\n";
  }
  out += "</div>\n";
}

void appendRecord(const HtmlRecord& record, std::string& out) {
  out += "<section class=\"record\" data-outcome=\"" + htmlEscaped(record.outcome) + "\">\n";
  out += "<h2><span class=\"identifier\">" + htmlEscaped(record.identifier) + "</span><span class=\"entity\">" +
         htmlEscaped(record.entity) + "</span><span class=\"badge " + outcomeClass(record.outcome) + "\">" +
         htmlEscaped(outcomeLabel(record.outcome)) + "</span></h2>\n";
  if (!record.detail.empty()) out += "<p class=\"detail\">" + htmlEscaped(record.detail) + "</p>\n";
  if (!record.fields.empty()) {
    out += "<ul class=\"fields\">\n";
    for (const auto& [path, limit] : record.fields)
      out += "<li><code>" + htmlEscaped(path) + "</code>" + (limit.empty() ? "" : " &mdash; " + htmlEscaped(limit)) +
             "</li>\n";
    out += "</ul>\n";
  }
  appendForms(record, out);
  if (!record.children.empty()) {
    out += "<details class=\"children\" open><summary>" + std::to_string(record.children.size()) +
           (record.children.size() == 1 ? " record" : " records") + " under this one</summary>\n";
    for (const HtmlRecord& child : record.children) appendRecord(child, out);
    out += "</details>\n";
  }
  out += "</section>\n";
}

}  // namespace

std::string htmlEscaped(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    switch (text[i]) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: appendCharacter(text, i, out); continue;
    }
    ++i;
  }
  return out;
}

std::string reportTimeNow() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &utc);
  return text;
}

std::string htmlReport(const HtmlPage& page) {
  // Outcomes in the order they first occur.
  std::vector<std::pair<std::string, std::size_t>> counts;
  for (const HtmlRecord& record : page.records) {
    auto it = counts.begin();
    while (it != counts.end() && it->first != record.outcome) ++it;
    if (it == counts.end()) counts.emplace_back(record.outcome, 1);
    else ++it->second;
  }

  std::string out = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  out += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
  out += "<title>" + htmlEscaped(page.title + ": " + page.model) + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n";
  out += "<header>\n<h1>" + htmlEscaped(page.title) + "</h1>\n<p>Phone model <b id=\"model\">" +
         htmlEscaped(page.model) + "</b> &middot; " + htmlEscaped(page.generated) + " &middot; " +
         std::to_string(page.records.size()) + (page.records.size() == 1 ? " record" : " records") + "</p>\n";
  out += "<table class=\"summary\" id=\"summary\">\n";
  for (const auto& [outcome, count] : counts)
    out += "<tr><th><span class=\"badge " + outcomeClass(outcome) + "\">" + htmlEscaped(outcomeLabel(outcome)) +
           "</span></th><td data-outcome=\"" + htmlEscaped(outcome) + "\">" + std::to_string(count) + "</td></tr>\n";
  out += "</table>\n<div class=\"controls\">\n<label>Outcome <select id=\"outcome\"><option value=\"\">all</option>";
  for (const auto& [outcome, count] : counts)
    out += "<option value=\"" + htmlEscaped(outcome) + "\">" + htmlEscaped(outcomeLabel(outcome)) + "</option>";
  out += "</select></label>\n<input type=\"search\" id=\"search\" placeholder=\"Search records\" "
         "aria-label=\"Search records\">\n</div>\n</header>\n<main>\n";
  for (const HtmlRecord& record : page.records) appendRecord(record, out);
  out += "</main>\n<script>" + std::string(kScript) + "</script>\n</body>\n</html>\n";
  return out;
}

}  // namespace pc::tools
