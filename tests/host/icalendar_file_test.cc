// Reading and writing a user's iCalendar files: fields, dates and zones,
// alarms, rules, overrides, what is reported, and the round trip.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "host/UserFiles.h"
#include "platform/CalendarDate.h"

namespace pc {
namespace {

std::string calendar(const std::string& body) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//test//EN\r\n" + body + "END:VCALENDAR\r\n";
}

std::string event(const std::string& lines, const std::string& uid = "e1") {
  return "BEGIN:VEVENT\r\nUID:" + uid + "\r\nDTSTAMP:20260101T000000Z\r\n" + lines + "END:VEVENT\r\n";
}

UserFileImport importOne(const std::string& body) { return importICalendarText(calendar(body), "test.ics"); }

Dictionary onlyRecord(const UserFileImport& file) {
  EXPECT_FALSE(file.failure) << (file.failure ? file.failure->message : "");
  EXPECT_EQ(file.records.size(), 1u);
  return file.records.empty() ? Dictionary() : file.records[0].record;
}

std::string dateText(const Value& value) {
  if (!value.isDate()) return "(none)";
  return value.date().descriptionWithCalendarFormat("%Y-%m-%d %H:%M:%S %Z");
}

bool mentions(const std::vector<UserFileNote>& notes, const std::string& text) {
  for (const UserFileNote& note : notes)
    if (note.message.find(text) != std::string::npos) return true;
  return false;
}

TEST(ICalendarImportTest, TextFieldsBecomeEngineFields) {
  struct Case {
    std::string line;
    std::string key;
    Value expected;
  } cases[] = {
      {"SUMMARY:Budget\\, final\\nround", "summary", "Budget, final\nround"},
      {"LOCATION:Room 4", "location", "Room 4"},
      {"DESCRIPTION:Bring; the slides", "description", "Bring; the slides"},
      {"CLASS:CONFIDENTIAL", "classification", "confidential"},
      {"STATUS:TENTATIVE", "status", "tentative"},
      {"PRIORITY:3", "priority", 3},
      {"URL:https://example.org/x", "url", URL("https://example.org/x")},
      {"CATEGORIES:WORK,TRAVEL", "categories", Array{"WORK", "TRAVEL"}},
      // Longer than the parser's line buffer, and folded.
      {"SUMMARY:" + std::string(3000, 'x') + "y", "summary", std::string(3000, 'x') + "y"},
      {"LOCATION:Hall\r\n  B", "location", "Hall B"},
  };
  for (const Case& c : cases) {
    const Dictionary record = onlyRecord(importOne(event("DTSTART:20260310T090000Z\r\n" + c.line + "\r\n")));
    EXPECT_EQ(record.get(c.key), c.expected) << c.line;
  }
}

TEST(ICalendarImportTest, DateFormsAndZones) {
  const std::string customZone =
      "BEGIN:VTIMEZONE\r\nTZID:My Office\r\n"
      "BEGIN:STANDARD\r\nDTSTART:19701025T030000\r\nRRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\n"
      "TZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nEND:STANDARD\r\n"
      "BEGIN:DAYLIGHT\r\nDTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\n"
      "TZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nEND:DAYLIGHT\r\nEND:VTIMEZONE\r\n";
  const std::string oddZone =
      "BEGIN:VTIMEZONE\r\nTZID:Mars Base\r\nBEGIN:STANDARD\r\nDTSTART:19700101T000000\r\n"
      "TZOFFSETFROM:+0517\r\nTZOFFSETTO:+0517\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";
  struct Case {
    const char* label;
    std::string zones;
    std::string dates;
    std::string start, end;
    bool allDay;
    const char* reported;
  } cases[] = {
      {"UTC", "", "DTSTART:20260310T090000Z\r\nDTEND:20260310T100000Z\r\n", "2026-03-10 09:00:00 GMT",
       "2026-03-10 10:00:00 GMT", false, nullptr},
      {"IANA TZID", "", "DTSTART;TZID=Europe/Berlin:20260710T090000\r\nDURATION:PT90M\r\n",
       "2026-07-10 09:00:00 Europe/Berlin", "2026-07-10 10:30:00 Europe/Berlin", false, nullptr},
      {"prefixed IANA TZID", "", "DTSTART;TZID=/mozilla.org/20050126_1/Asia/Tokyo:20260710T090000\r\n",
       "2026-07-10 09:00:00 Asia/Tokyo", "2026-07-10 09:00:00 Asia/Tokyo", false, nullptr},
      {"Windows zone name", "", "DTSTART;TZID=Eastern Standard Time:20260110T090000\r\n",
       "2026-01-10 09:00:00 America/New_York", "2026-01-10 09:00:00 America/New_York", false, nullptr},
      {"custom zone matched", customZone, "DTSTART;TZID=My Office:20260710T090000\r\n",
       "2026-07-10 09:00:00 Europe/Berlin", "2026-07-10 09:00:00 Europe/Berlin", false, nullptr},
      {"custom zone kept as an offset", oddZone, "DTSTART;TZID=Mars Base:20260710T090000\r\n",
       "2026-07-10 09:00:00 GMT+0517", "2026-07-10 09:00:00 GMT+0517", false, "fixed offset"},
      {"unknown zone read as floating", "", "DTSTART;TZID=Nowhere:20260710T090000\r\n", "", "", false,
       "read as floating"},
      {"one day", "", "DTSTART;VALUE=DATE:20260310\r\n", "2026-03-10 12:00:00 GMT", "2026-03-11 12:00:00 GMT",
       true, nullptr},
      {"three days, end exclusive", "", "DTSTART;VALUE=DATE:20260310\r\nDTEND;VALUE=DATE:20260313\r\n",
       "2026-03-10 12:00:00 GMT", "2026-03-13 12:00:00 GMT", true, nullptr},
      {"end before start", "", "DTSTART:20260310T090000Z\r\nDTEND:20260310T080000Z\r\n",
       "2026-03-10 09:00:00 GMT", "2026-03-10 09:00:00 GMT", false, "DTEND before DTSTART"},
  };
  for (const Case& c : cases) {
    const UserFileImport file = importOne(c.zones + event(c.dates));
    const Dictionary record = onlyRecord(file);
    if (!c.start.empty()) {
      EXPECT_EQ(dateText(record.get("startDate")), c.start) << c.label;
      EXPECT_EQ(dateText(record.get("endDate")), c.end) << c.label;
    }
    EXPECT_EQ(record.getBool("allDay"), c.allDay) << c.label;
    if (c.reported) {
      EXPECT_TRUE(mentions(file.reported, c.reported)) << c.label;
    } else {
      EXPECT_TRUE(file.reported.empty()) << c.label;
    }
  }
}

TEST(ICalendarImportTest, FloatingTimesKeepTheirWallClockInTheLocalKind) {
  const Dictionary record = onlyRecord(importOne(event("DTSTART:20260310T090000\r\n")));
  const CalendarDate start = record.get("startDate").date();
  EXPECT_TRUE(start.timeZone()->isLocalTimeZoneKind());
  EXPECT_EQ(start.hourOfDay(), 9);
}

TEST(ICalendarImportTest, TasksTakeDueCompletionAndStatus) {
  const UserFileImport file = importOne(
      "BEGIN:VTODO\r\nUID:t1\r\nDUE;VALUE=DATE:20260401\r\nCOMPLETED:20260330T120000Z\r\n"
      "STATUS:NEEDS-ACTION\r\nPRIORITY:1\r\nBEGIN:VALARM\r\nACTION:DISPLAY\r\nTRIGGER;RELATED=END:-PT1H\r\n"
      "END:VALARM\r\nEND:VTODO\r\n"
      "BEGIN:VTODO\r\nUID:t2\r\nDTSTART:20260401T080000Z\r\nDURATION:PT2H\r\n"
      "BEGIN:VALARM\r\nACTION:AUDIO\r\nTRIGGER:PT0S\r\nEND:VALARM\r\nEND:VTODO\r\n");
  ASSERT_EQ(file.records.size(), 2u);
  const Dictionary& dated = file.records[0].record;
  EXPECT_EQ(dated.getString("entityName"), "Calendars.Task");
  EXPECT_EQ(dateText(dated.get("dueDate")), "2026-04-01 12:00:00 GMT");
  EXPECT_TRUE(dated.getBool("dueDateIsDateOnly"));
  EXPECT_EQ(dateText(dated.get("completionDate")), "2026-03-30 12:00:00 GMT");
  EXPECT_EQ(dated.getString("status"), "needsaction");
  EXPECT_EQ(dated.getArray("displayAlarms")->at(0).dictionary().getInteger("triggerduration"), -3600);
  const Dictionary& timed = file.records[1].record;
  EXPECT_EQ(dateText(timed.get("dueDate")), "2026-04-01 10:00:00 GMT");
  EXPECT_FALSE(timed.getBool("dueDateIsDateOnly"));
  // Relative to the start, which lies two hours before the due date.
  EXPECT_EQ(timed.getArray("audioAlarms")->at(0).dictionary().getInteger("triggerduration"), -7200);
}

TEST(ICalendarImportTest, Alarms) {
  struct Case {
    const char* label;
    std::string alarm;
    const char* relation;
    Value duration;
    std::string date;
    const char* reported;
  } cases[] = {
      {"display before start", "ACTION:DISPLAY\r\nDESCRIPTION:Go\r\nTRIGGER:-PT15M\r\n", "displayAlarms", -900, "",
       nullptr},
      {"audio relative to end", "ACTION:AUDIO\r\nTRIGGER;RELATED=END:-PT5M\r\n", "audioAlarms", 3300, "", nullptr},
      {"absolute", "ACTION:DISPLAY\r\nTRIGGER;VALUE=DATE-TIME:20260310T083000Z\r\n", "displayAlarms", Value(),
       "2026-03-10 08:30:00 GMT", nullptr},
      {"email as display", "ACTION:EMAIL\r\nTRIGGER:-P1D\r\nSUMMARY:x\r\nATTENDEE:mailto:a@example.org\r\n",
       "displayAlarms", -86400, "", "EMAIL"},
      {"no trigger", "ACTION:DISPLAY\r\n", nullptr, Value(), "", "without a trigger"},
      {"procedure", "ACTION:PROCEDURE\r\nTRIGGER:-PT1M\r\n", nullptr, Value(), "", "action"},
  };
  for (const Case& c : cases) {
    const UserFileImport file = importOne(
        event("DTSTART:20260310T090000Z\r\nDTEND:20260310T100000Z\r\nBEGIN:VALARM\r\n" + c.alarm + "END:VALARM\r\n"));
    const Dictionary record = onlyRecord(file);
    if (c.relation) {
      ASSERT_TRUE(record.getArray(c.relation)) << c.label;
      const Dictionary alarm = record.getArray(c.relation)->at(0).dictionary();
      EXPECT_EQ(alarm.get("triggerduration"), c.duration) << c.label;
      EXPECT_EQ(alarm.get("triggerdate").isDate() ? dateText(alarm.get("triggerdate")) : "", c.date) << c.label;
    } else {
      EXPECT_FALSE(record.contains("displayAlarms") || record.contains("audioAlarms")) << c.label;
    }
    if (c.reported) {
      EXPECT_TRUE(mentions(file.reported, c.reported)) << c.label;
    }
  }
}

TEST(ICalendarImportTest, RulesTheRecordHolds) {
  struct Case {
    std::string rule;
    Dictionary expected;  // the keys that matter besides entityName
  } cases[] = {
      {"FREQ=DAILY;COUNT=10", {{"frequency", "daily"}, {"interval", 1}, {"count", 10}}},
      {"FREQ=WEEKLY;INTERVAL=2;WKST=SU;BYDAY=TU,TH",
       {{"frequency", "weekly"}, {"interval", 2}, {"weekstartday", "sunday"},
        {"bydaydays", Array{"tuesday", "thursday"}}, {"bydayfreq", Array{0, 0}}}},
      {"FREQ=MONTHLY;BYDAY=1SU,-1SU",
       {{"frequency", "monthly"}, {"interval", 1}, {"bydaydays", Array{"sunday", "sunday"}},
        {"bydayfreq", Array{1, -1}}}},
      {"FREQ=MONTHLY;BYMONTHDAY=-3", {{"frequency", "monthly"}, {"interval", 1}, {"bymonthday", Array{-3}}}},
      {"FREQ=YEARLY;BYMONTH=6,7;UNTIL=20300101T000000Z",
       {{"frequency", "yearly"}, {"interval", 1}, {"bymonth", Array{6, 7}},
        {"until", CalendarDate::dateWithYear(2030, 1, 1, 0, 0, 0, TimeZone::gmt())}}},
      // A year's weekdays without months mean every month.
      {"FREQ=YEARLY;BYDAY=TH",
       {{"frequency", "yearly"}, {"interval", 1}, {"bymonth", Array{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}},
        {"bydaydays", Array{"thursday"}}, {"bydayfreq", Array{0}}}},
      {"FREQ=YEARLY;BYYEARDAY=1,100", {{"frequency", "yearly"}, {"interval", 1}, {"byyearday", Array{1, 100}}}},
      {"FREQ=YEARLY;BYMONTH=3;BYDAY=MO,TU;BYSETPOS=-1",
       {{"frequency", "yearly"}, {"interval", 1}, {"bymonth", Array{3}}, {"bysetpos", Array{-1}},
        {"bydaydays", Array{"monday", "tuesday"}}, {"bydayfreq", Array{0, 0}}}},
  };
  for (const Case& c : cases) {
    const UserFileImport file = importOne(event("DTSTART:20260305T090000Z\r\nRRULE:" + c.rule + "\r\n"));
    const Dictionary record = onlyRecord(file);
    ASSERT_TRUE(record.getArray("recurrences")) << c.rule;
    Dictionary recurrence = record.getArray("recurrences")->at(0).dictionary().copy();
    EXPECT_EQ(recurrence.getString("entityName"), "Calendars.Recurrence");
    recurrence.remove("entityName");
    EXPECT_EQ(recurrence, c.expected) << c.rule << "\n" << recurrence.description();
    EXPECT_TRUE(file.reported.empty()) << c.rule;
  }
}

TEST(ICalendarImportTest, RulesTheRecordCannotHoldAreKeptAsOccurrences) {
  struct Case {
    std::string rule;
    const char* why;
    std::size_t occurrences;  // including the start
  } cases[] = {
      {"FREQ=HOURLY;INTERVAL=3;COUNT=4", "below a day", 4},
      {"FREQ=DAILY;COUNT=3;BYHOUR=9,15", "BYHOUR", 3},
      {"FREQ=MONTHLY;BYDAY=FR;BYMONTHDAY=13;COUNT=2", "BYDAY together with BYMONTHDAY", 3},
      {"FREQ=YEARLY;BYWEEKNO=20;BYDAY=MO;COUNT=3", "BYWEEKNO", 4},
      {"FREQ=MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1;COUNT=3", "BYSETPOS", 4},
      // Forever: the first ten years.
      {"FREQ=YEARLY;BYDAY=20MO", "numbered BYDAY", 11},
  };
  for (const Case& c : cases) {
    const UserFileImport file = importOne(event("DTSTART:20260305T090000Z\r\nRRULE:" + c.rule + "\r\n"));
    const Dictionary record = onlyRecord(file);
    EXPECT_FALSE(record.contains("recurrences")) << c.rule;
    EXPECT_TRUE(mentions(file.reported, c.why)) << c.rule;
    const std::size_t detached = record.getArray("detachedEvents").value_or(Array()).count();
    EXPECT_EQ(detached + 1, c.occurrences) << c.rule;
  }
}

TEST(ICalendarImportTest, ExceptionsExtraDatesAndOverrides) {
  const UserFileImport file = importOne(
      event("DTSTART;TZID=America/New_York:20260302T090000\r\nDTEND;TZID=America/New_York:20260302T100000\r\n"
            "RRULE:FREQ=DAILY;COUNT=10\r\nEXDATE:20260304T140000Z\r\nRDATE;TZID=America/New_York:20260320T070000\r\n"
            "SUMMARY:Standup\r\n") +
      event("RECURRENCE-ID;TZID=America/New_York:20260305T090000\r\nDTSTART;TZID=America/New_York:20260305T110000\r\n"
            "DTEND;TZID=America/New_York:20260305T113000\r\nSUMMARY:Standup (moved)\r\n") +
      event("RECURRENCE-ID;RANGE=THISANDFUTURE:20260306T140000Z\r\nDTSTART:20260306T150000Z\r\n") +
      event("RECURRENCE-ID:20260101T090000Z\r\nDTSTART:20260101T100000Z\r\nSUMMARY:alone\r\n", "orphan"));
  ASSERT_EQ(file.records.size(), 2u);
  const Dictionary master = file.records[0].record;
  EXPECT_EQ(file.records[0].identifier, "e1");
  const Array exceptions = *master.getArray("exceptionDates");
  ASSERT_EQ(exceptions.count(), 1u);
  // Kept in the start's zone, where its day is the 4th.
  EXPECT_EQ(dateText(exceptions[0]), "2026-03-04 09:00:00 America/New_York");
  const Array detached = *master.getArray("detachedEvents");
  ASSERT_EQ(detached.count(), 3u);
  EXPECT_EQ(dateText(detached[0].dictionary().get("startDate")), "2026-03-20 07:00:00 America/New_York");
  EXPECT_EQ(dateText(detached[0].dictionary().get("endDate")), "2026-03-20 08:00:00 America/New_York");
  EXPECT_EQ(detached[1].dictionary().getString("summary"), "Standup (moved)");
  EXPECT_EQ(dateText(detached[1].dictionary().get("originalDate")), "2026-03-05 09:00:00 America/New_York");
  EXPECT_TRUE(mentions(file.reported, "THISANDFUTURE"));
  EXPECT_TRUE(mentions(file.reported, "RDATE"));
  EXPECT_EQ(file.records[1].identifier, "orphan/20260101T090000Z");
  EXPECT_TRUE(mentions(file.reported, "without its recurring entry"));
}

TEST(ICalendarImportTest, SkippedEntriesNameTheirLinesAndUnknownPropertiesAreCounted) {
  const std::string text = calendar(
      "X-WR-CALNAME:Mine\r\n"                                                                // line 4
      "BEGIN:VEVENT\r\nUID:a\r\nSUMMARY:no start\r\nX-FOO:1\r\nEND:VEVENT\r\n"               // 5-9
      "BEGIN:VTODO\r\nUID:b\r\nX-FOO:2\r\nGEO:1.5;2.5\r\nEND:VTODO\r\n"                      // 10-14
      "BEGIN:VEVENT\r\nUID:b2\r\nDTSTART:20260101T000000Z\r\nEND:VEVENT\r\n"                 // 15-18
      "BEGIN:VEVENT\r\nUID:b2\r\nDTSTART:20260102T000000Z\r\nEND:VEVENT\r\n"                 // 19-22
      "BEGIN:VJOURNAL\r\nUID:j\r\nEND:VJOURNAL\r\n");
  const UserFileImport file = importICalendarText(text, "mine.ics");
  ASSERT_FALSE(file.failure);
  EXPECT_EQ(file.path, "mine.ics");
  ASSERT_EQ(file.records.size(), 2u);
  EXPECT_EQ(file.records[0].identifier, "b");
  EXPECT_EQ(file.records[0].line, 10u);
  EXPECT_EQ(dateText(file.records[1].record.get("startDate")), "2026-01-02 00:00:00 GMT");
  ASSERT_EQ(file.skipped.size(), 2u);
  EXPECT_EQ(file.skipped[0].line, 5u);
  EXPECT_EQ(file.skipped[1].line, 15u);
  EXPECT_TRUE(mentions(file.skipped, "line 19"));
  // The entry skipped is not counted: only what imported entries left out.
  EXPECT_EQ(file.propertiesNotKept.at("X-FOO"), 1u);
  EXPECT_EQ(file.propertiesNotKept.at("GEO"), 1u);
  EXPECT_EQ(file.propertiesNotKept.at("X-WR-CALNAME"), 1u);
  EXPECT_EQ(file.propertiesNotKept.at("BEGIN:VJOURNAL"), 1u);
}

TEST(ICalendarImportTest, FilesThatAreNotCalendarsFail) {
  for (const std::string& text : {std::string(), std::string("hello\r\n"), std::string("BEGIN:VCARD\r\nEND:VCARD\r\n"),
                                 std::string("BEGIN:VCALENDAR\0x", 17)}) {
    const UserFileImport file = importICalendarText(text, "x.ics");
    ASSERT_TRUE(file.failure) << text;
    EXPECT_TRUE(file.records.empty());
  }
}

TEST(ICalendarImportTest, EntriesWithoutUIDGetStableIdentifiers) {
  const std::string text = calendar("BEGIN:VEVENT\r\nDTSTART:20260101T000000Z\r\nSUMMARY:x\r\nEND:VEVENT\r\n");
  const UserFileImport first = importICalendarText(text, "a.ics");
  const UserFileImport second = importICalendarText(text, "a.ics");
  ASSERT_EQ(first.records.size(), 1u);
  EXPECT_EQ(first.records[0].identifier, second.records[0].identifier);
  EXPECT_EQ(first.records[0].identifier.rfind("ics-", 0), 0u);
}

// The object examples of RFC 5545 (section 4, and the anniversary of
// section 3.6.1), read as the standard describes them.
TEST(ICalendarImportTest, PublishedObjectExamples) {
  const std::string text =
      "BEGIN:VCALENDAR\r\nPRODID:-//xyz Corp//NONSGML PDA Calendar Version 1.0//EN\r\nVERSION:2.0\r\n"
      "BEGIN:VEVENT\r\nDTSTAMP:19960704T120000Z\r\nUID:uid1@example.com\r\nORGANIZER:mailto:jsmith@example.com\r\n"
      "DTSTART:19960918T143000Z\r\nDTEND:19960920T220000Z\r\nSTATUS:CONFIRMED\r\nCATEGORIES:CONFERENCE\r\n"
      "SUMMARY:Networld+Interop Conference\r\nDESCRIPTION:Networld+Interop Conference\r\n  and Exhibit\\nAtlanta World "
      "Congress Center\\n\r\n Atlanta\\, Georgia\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n"
      "BEGIN:VCALENDAR\r\nPRODID:-//RDU Software//NONSGML HandCal//EN\r\nVERSION:2.0\r\n"
      "BEGIN:VTIMEZONE\r\nTZID:America/New_York\r\nBEGIN:STANDARD\r\nDTSTART:19981025T020000\r\n"
      "TZOFFSETFROM:-0400\r\nTZOFFSETTO:-0500\r\nTZNAME:EST\r\nEND:STANDARD\r\nBEGIN:DAYLIGHT\r\n"
      "DTSTART:19990404T020000\r\nTZOFFSETFROM:-0500\r\nTZOFFSETTO:-0400\r\nTZNAME:EDT\r\nEND:DAYLIGHT\r\n"
      "END:VTIMEZONE\r\nBEGIN:VEVENT\r\nDTSTAMP:19980309T231000Z\r\nUID:guid-1.example.com\r\n"
      "ORGANIZER;ROLE=CHAIR:mailto:mrbig@example.com\r\n"
      "ATTENDEE;RSVP=TRUE;ROLE=REQ-PARTICIPANT;CUTYPE=GROUP:mailto:employee-A@example.com\r\n"
      "DESCRIPTION:Project XYZ Review Meeting\r\nCATEGORIES:MEETING\r\nCLASS:PUBLIC\r\nCREATED:19980309T130000Z\r\n"
      "SUMMARY:XYZ Project Review\r\nDTSTART;TZID=America/New_York:19980312T083000\r\n"
      "DTEND;TZID=America/New_York:19980312T093000\r\nLOCATION:1CP Conference Room 4350\r\nEND:VEVENT\r\n"
      "END:VCALENDAR\r\n"
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//ABC Corporation//NONSGML My Product//EN\r\n"
      "BEGIN:VTODO\r\nDTSTAMP:19980130T134500Z\r\nSEQUENCE:2\r\nUID:uid4@example.com\r\n"
      "ORGANIZER:mailto:unclesam@example.com\r\nATTENDEE;PARTSTAT=ACCEPTED:mailto:jqpublic@example.com\r\n"
      "DUE:19980415T000000\r\nSTATUS:NEEDS-ACTION\r\nSUMMARY:Submit Income Taxes\r\nBEGIN:VALARM\r\n"
      "ACTION:AUDIO\r\nTRIGGER;VALUE=DATE-TIME:19980403T120000Z\r\n"
      "ATTACH;FMTTYPE=audio/basic:http://example.com/pub/audio-files/ssbanner.aud\r\nREPEAT:4\r\nDURATION:PT1H\r\n"
      "END:VALARM\r\nEND:VTODO\r\n"
      "BEGIN:VJOURNAL\r\nDTSTAMP:19970324T120000Z\r\nUID:uid5@example.com\r\nORGANIZER:mailto:jsmith@example.com\r\n"
      "STATUS:DRAFT\r\nCLASS:PUBLIC\r\nCATEGORIES:Project Report,XYZ,Weekly Meeting\r\n"
      "DESCRIPTION:Project xyz Review Meeting Minutes\r\nEND:VJOURNAL\r\n"
      "BEGIN:VFREEBUSY\r\nORGANIZER:mailto:jsmith@example.com\r\nDTSTART:19980313T141711Z\r\n"
      "DTEND:19980410T141711Z\r\nFREEBUSY:19980314T233000Z/19980315T003000Z\r\nEND:VFREEBUSY\r\n"
      "BEGIN:VEVENT\r\nUID:19970901T130000Z-123403@example.com\r\nDTSTAMP:19970901T130000Z\r\n"
      "DTSTART;VALUE=DATE:19971102\r\nSUMMARY:Our Blissful Anniversary\r\nTRANSP:TRANSPARENT\r\n"
      "CLASS:CONFIDENTIAL\r\nCATEGORIES:ANNIVERSARY,PERSONAL,SPECIAL OCCASION\r\nRRULE:FREQ=YEARLY\r\n"
      "END:VEVENT\r\nEND:VCALENDAR\r\n";
  const UserFileImport file = importICalendarText(text, "rfc.ics");
  ASSERT_FALSE(file.failure);
  ASSERT_EQ(file.records.size(), 4u);
  EXPECT_TRUE(file.skipped.empty());

  const Dictionary& conference = file.records[0].record;
  EXPECT_EQ(file.records[0].identifier, "uid1@example.com");
  EXPECT_EQ(dateText(conference.get("startDate")), "1996-09-18 14:30:00 GMT");
  EXPECT_EQ(dateText(conference.get("endDate")), "1996-09-20 22:00:00 GMT");
  EXPECT_EQ(conference.getString("status"), "confirmed");
  EXPECT_EQ(conference.getString("description"),
            "Networld+Interop Conference and Exhibit\nAtlanta World Congress Center\nAtlanta, Georgia");

  const Dictionary& review = file.records[1].record;
  EXPECT_EQ(dateText(review.get("startDate")), "1998-03-12 08:30:00 America/New_York");
  EXPECT_EQ(review.get("startDate").date().secondsFromGMT(), -5 * 3600);
  EXPECT_EQ(review.getString("location"), "1CP Conference Room 4350");
  EXPECT_EQ(review.getString("classification"), "public");

  const Dictionary& taxes = file.records[2].record;
  EXPECT_EQ(taxes.getString("entityName"), "Calendars.Task");
  EXPECT_EQ(taxes.getString("status"), "needsaction");
  EXPECT_TRUE(taxes.get("dueDate").date().timeZone()->isLocalTimeZoneKind());
  const Dictionary alarm = taxes.getArray("audioAlarms")->at(0).dictionary();
  EXPECT_EQ(dateText(alarm.get("triggerdate")), "1998-04-03 12:00:00 GMT");
  EXPECT_EQ(alarm.getString("sound"), "http://example.com/pub/audio-files/ssbanner.aud");

  const Dictionary& anniversary = file.records[3].record;
  EXPECT_TRUE(anniversary.getBool("allDay"));
  EXPECT_EQ(dateText(anniversary.get("startDate")), "1997-11-02 12:00:00 GMT");
  EXPECT_EQ(anniversary.getString("classification"), "confidential");
  EXPECT_EQ(anniversary.get("categories"), (Array{"ANNIVERSARY", "PERSONAL", "SPECIAL OCCASION"}));
  EXPECT_EQ(anniversary.getArray("recurrences")->at(0).dictionary().getString("frequency"), "yearly");

  // What the engine has no place for, counted by name.
  const std::map<std::string, std::size_t> expected{
      {"ATTENDEE", 2}, {"BEGIN:VFREEBUSY", 1}, {"BEGIN:VJOURNAL", 1}, {"CREATED", 1}, {"ORGANIZER", 3},
      {"SEQUENCE", 1}, {"TRANSP", 1}, {"VALARM.DURATION", 1}, {"VALARM.REPEAT", 1}};
  EXPECT_EQ(file.propertiesNotKept, expected);
}

// What an import gives, written and read again, gives the same records.
TEST(ICalendarRoundTripTest, ImportExportImportKeepsTheRecords) {
  const std::string text = calendar(
      "BEGIN:VTIMEZONE\r\nTZID:Mars Base\r\nBEGIN:STANDARD\r\nDTSTART:19700101T000000\r\n"
      "TZOFFSETFROM:+0517\r\nTZOFFSETTO:+0517\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n" +
      event("DTSTART;TZID=Europe/Berlin:20260330T093000\r\nDTEND;TZID=Europe/Berlin:20260330T110000\r\n"
            "SUMMARY:Review\\, weekly\r\nLOCATION:Raum 2\r\nDESCRIPTION:Line one\\nLine two\r\nCLASS:PRIVATE\r\n"
            "STATUS:CONFIRMED\r\nPRIORITY:5\r\nCATEGORIES:WORK\r\nURL:https://example.org/r\r\n"
            "RRULE:FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,WE;UNTIL=20261231T230000Z;WKST=SU\r\n"
            "EXDATE;TZID=Europe/Berlin:20260401T093000\r\nRDATE:20260510T120000Z\r\n"
            "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Soon\r\nTRIGGER:-PT10M\r\nEND:VALARM\r\n"
            "BEGIN:VALARM\r\nACTION:AUDIO\r\nTRIGGER;VALUE=DATE-TIME:20260330T070000Z\r\n"
            "ATTACH:file:///ring.wav\r\nEND:VALARM\r\n",
            "weekly") +
      event("RECURRENCE-ID;TZID=Europe/Berlin:20260413T093000\r\nDTSTART;TZID=Europe/Berlin:20260413T140000\r\n"
            "DTEND;TZID=Europe/Berlin:20260413T150000\r\nSUMMARY:Review (moved)\r\n",
            "weekly") +
      event("DTSTART;VALUE=DATE:20261224\r\nDTEND;VALUE=DATE:20261227\r\nRRULE:FREQ=YEARLY;UNTIL=20301224\r\n"
            "EXDATE;VALUE=DATE:20271224\r\nSUMMARY:Holidays\r\n",
            "holidays") +
      event("DTSTART:20260601T080000\r\nDTEND:20260601T083000\r\nRRULE:FREQ=DAILY;COUNT=5;BYHOUR=8,20\r\n", "floating") +
      event("DTSTART;TZID=Mars Base:20260701T080000\r\nSUMMARY:far\r\n", "mars") +
      event("DTSTART;TZID=Asia/Kolkata:20260131T233000\r\nRRULE:FREQ=MONTHLY;BYMONTHDAY=-1;COUNT=12\r\n", "kolkata") +
      "BEGIN:VTODO\r\nUID:task\r\nDTSTART:20260401T080000Z\r\nDUE;VALUE=DATE:20260403\r\nSTATUS:IN-PROCESS\r\n"
      "BEGIN:VALARM\r\nACTION:DISPLAY\r\nTRIGGER;RELATED=END:-PT30M\r\nEND:VALARM\r\nEND:VTODO\r\n"
      "BEGIN:VTODO\r\nUID:done\r\nDUE:20260403T170000Z\r\nCOMPLETED:20260402T101500Z\r\nSTATUS:COMPLETED\r\n"
      "END:VTODO\r\n");
  const UserFileImport first = importICalendarText(text, "a.ics");
  ASSERT_FALSE(first.failure);
  ASSERT_EQ(first.records.size(), 7u);
  std::vector<std::pair<std::string, Dictionary>> records;
  for (const UserFileRecord& r : first.records) records.emplace_back(r.identifier, r.record);
  records.emplace_back("contact", Dictionary{{"entityName", "Contacts.Contact"}});  // left out
  const std::string written = exportICalendarText(records);
  EXPECT_NE(written.find("BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin"), std::string::npos) << written;
  EXPECT_EQ(written.find("Contacts"), std::string::npos);
  const UserFileImport second = importICalendarText(written, "b.ics");
  ASSERT_FALSE(second.failure) << second.failure->message;
  EXPECT_TRUE(second.skipped.empty());
  ASSERT_EQ(second.records.size(), first.records.size()) << written;
  for (std::size_t i = 0; i < first.records.size(); ++i) {
    EXPECT_EQ(second.records[i].identifier, first.records[i].identifier);
    EXPECT_EQ(second.records[i].record, first.records[i].record)
        << first.records[i].record.description() << "\n---\n" << second.records[i].record.description() << "\n"
        << written;
  }
  // The zones stay the zones they were, not only the same instants.
  EXPECT_EQ(second.records[0].record.get("startDate").date().timeZone()->name(), "Europe/Berlin");
  EXPECT_TRUE(second.records[2].record.get("startDate").date().timeZone()->isLocalTimeZoneKind());
}

}  // namespace
}  // namespace pc
