// sync --report html: the page holds every record and every reason of the
// report as a browser shows it (headless Chromium's DOM), keeps record texts
// as text, and says when it was made in UTC whatever the machine's zone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/ProgramRun.h"

namespace pc {
namespace {

using testing::ProgramRun;
using testing::examplePath;
using testing::runProgram;
using ::testing::HasSubstr;
using ::testing::Not;

class HtmlReportProgramTest : public testing::FolderProgramTest {
 protected:
  HtmlReportProgramTest() : FolderProgramTest("html-report") {}

  // sync of the flip phone into its own phone folder `phone`, with `extra`
  // arguments, on the example records below and a contact whose texts look
  // like markup.
  ProgramRun sync(const std::string& phone, const std::string& extra) const {
    const std::string device = examplePath("devices/flip-phone");
    return runProgram("sync --device " + device + ".plist --entities " + device + ".entities.plist --variables " +
                      device + ".variables.plist --anchor-date 20261101 --phone " + folder + "/" + phone + " " +
                      extra + " " + records());
  }
  std::string records() const {
    std::string list;
    for (const char* name : {"calendar/event-01.plist", "calendar/event-02.plist", "calendar/event-05.plist",
                             "calendar/task-01.plist", "contacts/01-latin-alicemartin.plist",
                             "contacts/19-cyrillic-contact.plist"})
      list += " " + examplePath("records/" + std::string(name));
    return list + " " + markupContact();
  }
  std::string markupContact() const {
    const std::string path = folder + "/markup-contact.plist";
    std::ofstream(path) << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>entityName</key><string>Contacts.Contact</string>
  <key>firstName</key><string>&lt;b id="injected"&gt;Bold&lt;/b&gt; &amp; co</string>
  <key>lastName</key><string>&lt;script&gt;document.title='replaced'&lt;/script&gt;</string>
</dict></plist>
)";
    return path;
  }

};

// The text of `text` as a DOM dump serialises a text node.
std::string asDomText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '&') out += "&amp;";
    else if (c == '<') out += "&lt;";
    else if (c == '>') out += "&gt;";
    else out += c;
  }
  return out;
}

TEST_F(HtmlReportProgramTest, TheBrowserShowsEveryRecordAndReason) {
  if (std::string(PC_CHROMIUM).empty()) GTEST_SKIP() << "chromium is not installed";
  const ProgramRun json = sync("phone-json", "--report json");
  ASSERT_TRUE(json.status == 0 || json.status == 3) << json.output;
  const std::string page = folder + "/report.html";
  const ProgramRun html = sync("phone-html", "--report html " + page);
  ASSERT_EQ(html.status, json.status) << html.output;
  ASSERT_TRUE(std::filesystem::exists(page));

  const std::string browser = std::string(PC_CHROMIUM) +
                              " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                              " --disable-background-networking --disable-component-update --disable-sync"
                              " --user-data-dir=" + folder + "/profile --dump-dom file://" + page;
  const ProgramRun rendered = testing::runShell("timeout 120 " + browser);
  ASSERT_EQ(rendered.status, 0) << rendered.standardError;
  const std::string& dom = rendered.standardOutput;
  ASSERT_THAT(dom, HasSubstr("<main>"));

  const nlohmann::json report = nlohmann::json::parse(json.standardOutput);
  ASSERT_GE(report.at("records").size(), 7u);
  std::set<std::string> outcomes;
  for (const auto& record : report.at("records")) {
    const std::string identifier = record.at("identifier");
    SCOPED_TRACE(identifier);
    outcomes.insert(record.at("outcome").get<std::string>());
    EXPECT_THAT(dom, HasSubstr("<span class=\"identifier\">" + asDomText(identifier) + "</span>"));
    EXPECT_THAT(dom, HasSubstr("data-outcome=\"" + record.at("outcome").get<std::string>() + "\""));
    if (record.contains("reason")) {
      EXPECT_THAT(dom, HasSubstr(asDomText(record.at("reason"))));
    }
    for (const auto& field : record.at("fields")) {
      EXPECT_THAT(dom, HasSubstr("<code>" + asDomText(field.at("field")) + "</code>"));
      if (field.contains("limit")) {
        EXPECT_THAT(dom, HasSubstr(asDomText(field.at("limit"))));
      }
    }
  }
  // The run has several outcomes; each is in the filter and counted.
  EXPECT_GE(outcomes.size(), 3u);
  for (const std::string& outcome : outcomes) {
    EXPECT_THAT(dom, HasSubstr("<option value=\"" + outcome + "\">"));
    EXPECT_THAT(dom, HasSubstr("<td data-outcome=\"" + outcome + "\">"));
  }
  // Record texts stay text: no element or script came from them.
  EXPECT_THAT(dom, HasSubstr("&lt;b id=\"injected\"&gt;Bold&lt;/b&gt; &amp; co"));
  EXPECT_THAT(dom, Not(HasSubstr("<b id=\"injected\">")));
  EXPECT_THAT(dom, HasSubstr("<title>Sync report: flip-phone</title>"));
}

// The page says when it was made in UTC, whatever the zone the program runs in.
TEST_F(HtmlReportProgramTest, TheTimeIsUtcInEveryZone) {
  const auto today = [] {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &utc);
    return std::string(text);
  };
  for (const char* zone :
       {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Pacific/Auckland", "America/Sao_Paulo"}) {
    SCOPED_TRACE(zone);
    const std::string page = folder + "/" + std::string(zone).substr(std::string(zone).find('/') + 1) + ".html";
    const std::string before = today();
    const ProgramRun run = testing::runShell("TZ=" + std::string(zone) + " " + std::string(PC_PROGRAM) +
                                             " sync --device " + examplePath("devices/basic-phone.plist") +
                                      " --entities " + examplePath("devices/basic-phone.entities.plist") +
                                      " --phone " + folder + "/" + zone + " --report html " + page + " " +
                                      examplePath("records/contacts/01-latin-alicemartin.plist"));
    ASSERT_EQ(run.status, 0) << run.output;
    const std::string text = testing::fileText(page);
    const std::string after = today();
    EXPECT_TRUE(text.find(" &middot; " + before + " ") != std::string::npos ||
                text.find(" &middot; " + after + " ") != std::string::npos);
    EXPECT_THAT(text, HasSubstr(" UTC &middot; 1 record</p>"));
  }
}

// A report that cannot be written, or an html report without its file, stops
// the command with nothing on standard output.
TEST_F(HtmlReportProgramTest, BadReportArguments) {
  struct Case {
    std::string report;
    int status;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"--report html " + folder + "/no/such/folder/page.html", 1, "cannot write the report"},
      {"--report pdf", 2, "\"pdf\" is not a report"},
      {"--report", 2, "--report"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.report);
    const std::string device = examplePath("devices/basic-phone");
    const ProgramRun run = runProgram("sync --device " + device + ".plist --entities " + device +
                                      ".entities.plist --phone " + folder + "/phone " +
                                      examplePath("records/contacts/01-latin-alicemartin.plist") + " " + c.report);
    EXPECT_EQ(run.status, c.status) << run.output;
    EXPECT_THAT(run.standardError, HasSubstr(c.error));
    EXPECT_EQ(run.standardOutput, "");
  }
}

}  // namespace
}  // namespace pc
