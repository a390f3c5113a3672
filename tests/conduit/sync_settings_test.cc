#include "conduit/SyncSettings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "conduit/SyncClientState.h"
#include "conduit_test_support.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "platform/PropertyList.h"

namespace pc {
namespace {

using testing::LogCapture;
using testing::LogLine;

CalendarDate gmtDate(int year, int month, int day, int hour = 0) {
  return CalendarDate::dateWithYear(year, month, day, hour, 0, 0, TimeZone::gmt());
}

// Sets the system zone while it lives (the anchor's arithmetic is local).
class SystemZone {
 public:
  explicit SystemZone(const char* name) {
    if (const char* tz = std::getenv("TZ")) _saved = tz;
    ::setenv("TZ", name, 1);
    TimeZone::resetSystemTimeZone();
  }
  ~SystemZone() {
    if (_saved)
      ::setenv("TZ", _saved->c_str(), 1);
    else
      ::unsetenv("TZ");
    TimeZone::resetSystemTimeZone();
  }
  SystemZone(const SystemZone&) = delete;
  SystemZone& operator=(const SystemZone&) = delete;

 private:
  std::optional<std::string> _saved;
};

// Settings with an anchor date of Sunday 2026-03-01 00:00 GMT.
Dictionary settingsWithAnchor() {
  return Dictionary{{kAnchorDateKey, gmtDate(2026, 3, 1)}};
}

// Anchor 2026-03-01; the future side always has one more week.
TEST(ExpansionWindowTest, PastAndFutureLimitsOfEachCode) {
  const SystemZone gmt("GMT");
  const std::tuple<std::optional<int>, CalendarDate, CalendarDate> cases[] = {
      {std::nullopt, gmtDate(2026, 3, 1), gmtDate(2026, 5, 3)},  // the window is off
      {0, gmtDate(2026, 3, 1), gmtDate(2026, 3, 15)},
      {1, gmtDate(2026, 2, 22), gmtDate(2026, 3, 22)},
      {2, gmtDate(2026, 2, 15), gmtDate(2026, 4, 5)},
      {3, gmtDate(2026, 2, 1), gmtDate(2026, 5, 3)},
      {10, gmtDate(2026, 2, 22), gmtDate(2026, 3, 15)},
      {20, gmtDate(2026, 2, 15), gmtDate(2026, 3, 22)},
      {40, gmtDate(2026, 2, 1), gmtDate(2026, 4, 5)},
      {80, gmtDate(2026, 1, 4), gmtDate(2026, 5, 3)},
      {100, gmtDate(2026, 2, 1), gmtDate(2026, 4, 8)},
      {200, gmtDate(2026, 1, 1), gmtDate(2026, 5, 8)},
      {600, gmtDate(2025, 9, 1), gmtDate(2026, 9, 8)},
      {1200, gmtDate(2025, 3, 1), gmtDate(2027, 3, 8)},
      {7, gmtDate(2026, 2, 1), gmtDate(2026, 4, 5)}};  // invalid: logged
  for (const auto& [code, past, future] : cases) {
    Dictionary settings = settingsWithAnchor();
    if (code) {
      SyncSettings::qvt_setBool(settings, true, kDontSyncEventsPriorToDateIsEnabledKey);
      SyncSettings::qvt_setInt(settings, *code, kDontSyncEventsPriorToDateValueKey);
      SyncSettings::qvt_setBool(settings, true, kDontSyncEventsAfterDateIsEnabledKey);
      SyncSettings::qvt_setInt(settings, *code, kDontSyncEventsAfterDateValueKey);
    }
    LogCapture log;
    EXPECT_EQ(SyncSettings::qvt_leftExpansionWindow(settings), past) << code.value_or(-1);
    EXPECT_EQ(SyncSettings::qvt_rightExpansionWindow(settings), future) << code.value_or(-1);
    const LogLine* line = log.find("invalid val= 7");
    EXPECT_EQ(line != nullptr, code == 7);
    EXPECT_TRUE(!line || line->level == kLogError);
  }
}

TEST(AnchorDateTest, MostRecentSundayAtMidnight) {
  auto paris = TimeZone::timeZoneWithName("Europe/Paris");
  const CalendarDate sunday = CalendarDate::dateWithYear(2026, 3, 1, 15, 0, 0, paris);
  EXPECT_EQ(QVTSyncServiceExtension::qvt_anchorDateForDate(sunday),
            CalendarDate::dateWithYear(2026, 3, 1, 0, 0, 0, paris));
  const CalendarDate saturday = CalendarDate::dateWithYear(2026, 3, 7, 23, 59, 0, paris);
  EXPECT_EQ(QVTSyncServiceExtension::qvt_anchorDateForDate(saturday),
            CalendarDate::dateWithYear(2026, 3, 1, 0, 0, 0, paris));
  // Across a month end.
  EXPECT_EQ(QVTSyncServiceExtension::qvt_anchorDateForDate(gmtDate(2026, 4, 2, 8)),
            gmtDate(2026, 3, 29));

  const CalendarDate current = QVTSyncServiceExtension::qvt_currentAnchorDate();
  EXPECT_EQ(current.dayOfWeek(), 0);
  EXPECT_EQ(current.hourOfDay(), 0);

  // Settings without an anchor read the current one and do not store it.
  Dictionary settings;
  LogCapture log;
  EXPECT_EQ(SyncSettings::qvt_anchorDate(settings), QVTSyncServiceExtension::qvt_currentAnchorDate());
  EXPECT_FALSE(settings.contains(kAnchorDateKey));
  EXPECT_TRUE(log.contains("anchor date not defined yet"));
  EXPECT_EQ(SyncSettings::qvt_anchorDate(settings = settingsWithAnchor()), gmtDate(2026, 3, 1));
}

// The anchor goes to the settings store and comes back in GMT (a property
// list keeps no zone): the window computed from it must be the first run's,
// in every zone, also across daylight-saving changes inside the window.
TEST(AnchorDateTest, WindowIsTheSameAfterTheAnchorWasStoredAndReadBack) {
  for (const char* zone : {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Pacific/Auckland",
                           "America/Sao_Paulo", "GMT"}) {
    const SystemZone system(zone);
    for (const auto& [month, day] : {std::pair{3, 4}, std::pair{10, 1}}) {
      const CalendarDate today =
          CalendarDate::dateWithYear(2026, month, day, 12, 0, 0, TimeZone::systemTimeZone());
      Dictionary first{{kAnchorDateKey, QVTSyncServiceExtension::qvt_anchorDateForDate(today)}};
      for (const char* key : {kDontSyncEventsPriorToDateIsEnabledKey, kDontSyncEventsAfterDateIsEnabledKey})
        SyncSettings::qvt_setBool(first, true, key);
      SyncSettings::qvt_setInt(first, 600, kDontSyncEventsPriorToDateValueKey);
      SyncSettings::qvt_setInt(first, 200, kDontSyncEventsAfterDateValueKey);

      const std::optional<Value> stored = PropertyList::fromXML(*PropertyList::toXML(first));
      ASSERT_TRUE(stored);
      Dictionary later = stored->dictionary();
      ASSERT_EQ(later.get(kAnchorDateKey).date().timeZone()->name(), TimeZone::gmt()->name());

      const std::string where = std::string(zone) + " " + std::to_string(month);
      EXPECT_EQ(SyncSettings::qvt_leftExpansionWindow(later), SyncSettings::qvt_leftExpansionWindow(first))
          << where;
      EXPECT_EQ(SyncSettings::qvt_rightExpansionWindow(later), SyncSettings::qvt_rightExpansionWindow(first))
          << where;
      // Both ends are local midnights.
      EXPECT_EQ(SyncSettings::qvt_leftExpansionWindow(later).hourOfDay(), 0) << where;
      EXPECT_EQ(SyncSettings::qvt_rightExpansionWindow(later).hourOfDay(), 0) << where;
    }
  }
}

TEST(SyncSettingsTest, ReadsStoreTheirDefaults) {
  Dictionary settings;
  LogCapture log;
  EXPECT_EQ(SyncSettings::qvt_dataClassState(settings, kCalendars), 0);
  EXPECT_EQ(settings.get(kCalendarsStateKey), Value(0));
  EXPECT_TRUE(log.contains("no value for key: \"calendars.state\", will return 0"));

  EXPECT_TRUE(SyncSettings::qvt_boolForKey(settings, "flag", true));
  EXPECT_EQ(settings.get("flag"), Value(true));
  EXPECT_TRUE(log.contains("no value for key: flag, default is 1"));
  EXPECT_EQ(SyncSettings::qvt_valueForKey(settings, "name", "phone"), Value("phone"));
  EXPECT_EQ(SyncSettings::qvt_valueForKey(settings, "name", "other"), Value("phone"));

  // A value of a kind with no number reading answers the default, kept as it is.
  settings.set("list", Array{1});
  EXPECT_EQ(SyncSettings::qvt_intForKey(settings, "list", 5), 5);
  EXPECT_TRUE(settings.get("list").isArray());
}

TEST(SyncSettingsTest, UnknownDataClassesHaveNoStateOrMode) {
  Dictionary settings;
  SyncSettings::qvt_setDataClass(settings, kContacts, 3);
  SyncSettings::qvt_setModeOfFirstSync(settings, 2, kCalendars);
  LogCapture log;
  SyncSettings::qvt_setDataClass(settings, "Notes", 1);
  EXPECT_EQ(SyncSettings::qvt_dataClassState(settings, "Notes"), 0);
  EXPECT_EQ(SyncSettings::qvt_modeOfFirstSyncForDataClass(settings, "Notes"), 0);
  EXPECT_TRUE(log.contains("state of unkown dataclass Notes"));
  EXPECT_TRUE(log.contains("mode of first sync of unkown dataclass Notes"));
  EXPECT_EQ(settings.count(), 2u);
}

// --- Client state -------------------------------------------------------------

class ClientStateTest : public ::testing::Test {
 protected:
  MemorySyncEngineClient client{
      "id", "Test Phone",
      Array{kContactsContact, kContactsPhoneNumber, kCalendarsEvent, kCalendarsTask}};
};

TEST_F(ClientStateTest, EnablingADataClassEnablesItsSupportedEntities) {
  LogCapture log;
  SyncClientState::setEnabled(client, true, kContacts);
  EXPECT_EQ(client.enabledEntityNames(), (Array{kContactsContact, kContactsPhoneNumber}));
  EXPECT_TRUE(SyncClientState::isEnabledForDataClass(client, kContacts));
  EXPECT_FALSE(SyncClientState::isEnabledForDataClass(client, kCalendars));
  const LogLine* line = log.find("[Test Phone setEnable:YES forClass:Contacts");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->type, ".sync.SYNC");

  SyncClientState::setEnabled(client, false, kContacts);
  EXPECT_FALSE(SyncClientState::isEnabledForDataClass(client, kContacts));
}

TEST_F(ClientStateTest, TimeZoneByName) {
  EXPECT_EQ(SyncClientState::currentTimeZone(client), TimeZone::systemTimeZone());
  // Reading the name stores the default.
  EXPECT_EQ(SyncClientState::currentTimeZoneName(client), TimeZone::systemTimeZone()->name());
  EXPECT_EQ(client.objectForKey(kCurrentTimeZoneKey), Value(TimeZone::systemTimeZone()->name()));

  SyncClientState::setCurrentTimeZoneName(client, "Asia/Tokyo");
  EXPECT_EQ(SyncClientState::currentTimeZone(client)->name(), "Asia/Tokyo");
  SyncClientState::setCurrentTimeZoneName(client, "Nowhere/Atlantis");
  LogCapture log;
  EXPECT_FALSE(SyncClientState::currentTimeZone(client));
  EXPECT_TRUE(log.contains("condition \"tz\" failed"));
}

TEST(DefaultValuesTest, TableByEntityThenAttribute) {
  using SyncClientState::defaultValueForAttribute;
  EXPECT_EQ(defaultValueForAttribute(kCalendarsEventAllDay, kCalendarsEvent), Value(false));
  EXPECT_EQ(defaultValueForAttribute(kContactsURLType, kContactsURL), Value("home page"));

  LogCapture log;
  EXPECT_TRUE(defaultValueForAttribute(kCalendarsEventAllDay, kCalendarsTask).isNull());
  EXPECT_TRUE(log.contains(
      "hum, request on a property where we did not set the default values: allDay Calendars.Task"));
}

}  // namespace
}  // namespace pc
