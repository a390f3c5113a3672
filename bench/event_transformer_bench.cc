// Events mangled and unmangled per second by the event transformer configured
// as the full-featured example phone, on a mix of single, all-day and
// recurring events in several zones; and the same calendar-core calls (the
// moves of every date of a record between zones) alone, with the share of
// the transformer's time they take reported as a counter.

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "conduit/CFPhone.h"
#include "conduit/SyncClientState.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "formatting/FormattingMethods.h"
#include "host/ReferenceHost.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"
#include "transformers/CalendarUtilities.h"
#include "transformers/QVTSyncEventTransformer.h"

namespace {

using namespace pc;

const std::string kExamples = std::string(PC_DATA_DIR) + "/../examples/";

// The full-featured phone's calendar settings, without the host's keys.
Dictionary fullPhoneCalendarProperties() {
  auto value = PropertyList::fromFile(kExamples + "devices/full-phone.plist");
  if (!value || !value->isDictionary()) return Dictionary();
  auto classes = value->dictionary().getDictionary("SyncDataClasses");
  auto calendars = classes ? classes->getDictionary("Calendars") : std::nullopt;
  Dictionary properties = calendars ? calendars->deepCopy() : Dictionary();
  for (const char* key : {"MimeType", "Parser", "DataClassManager"}) properties.remove(key);
  return properties;
}

// The transformer on the reference host, the phone in Paris; with
// `wallClock`, the phone writes local times instead of keeping zones.
struct Host {
  explicit Host(bool wallClock) {
    const TimeZonePtr phoneZone = TimeZone::timeZoneWithName("Europe/Paris");
    phone = std::make_unique<CFPhone>(Dictionary{{"SyncDataClasses", Dictionary()}});
    phone->setTimeZone(phoneZone);
    client = std::make_shared<MemorySyncEngineClient>("bench", "Bench phone", Array());
    SyncClientState::setCurrentTimeZoneName(*client, phoneZone->name());
    methods = std::make_shared<FormattingMethods>();
    methods->initWithDictionary(std::nullopt, nullptr, client);
    sync.setPhone(phone.get());
    manager = std::make_shared<CalendarManager>();
    manager->initWithProperty(Dictionary(), "Calendars", nullptr);
    manager->setSyncManager(&sync);
    transformer = ClassRegistry::createAs<QVTSyncEventTransformer>("QVTSyncEventTransformer");
    Dictionary properties = fullPhoneCalendarProperties();
    if (wallClock) properties.set("treatEventsTimeAs", "LocalTime");
    transformer->initWithProperties(properties);
    transformer->setFormattingMethods(methods);
    transformer->setDataClassManager(manager.get());
  }
  std::unique_ptr<CFPhone> phone;
  std::shared_ptr<MemorySyncEngineClient> client;
  std::shared_ptr<FormattingMethods> methods;
  ReferenceSyncManager sync;
  std::shared_ptr<CalendarManager> manager;
  std::shared_ptr<QVTSyncEventTransformer> transformer;
};

// Six timed events in three zones, two all-day events and two weekly ones
// with an until date and an exception date, with an alarm each.
std::vector<Dictionary> eventMix() {
  std::vector<Dictionary> events;
  const char* zones[] = {"America/New_York", "Asia/Tokyo", "Europe/Paris"};
  for (int i = 0; i < 10; ++i) {
    const TimeZonePtr zone = TimeZone::timeZoneWithName(zones[i % 3]);
    Dictionary event{{kEngineRecordEntityNameKey, kCalendarsEvent}, {"summary", "Event"}};
    if (i == 6 || i == 7) {
      event.set(kCalendarsEventAllDay, true);
      event.set(kCalendarsEventStartDate, CalendarExtension::allDayDateWithYear(2024, 3, 9 + i));
      event.set(kCalendarsEventEndDate, CalendarExtension::allDayDateWithYear(2024, 3, 10 + i));
    } else {
      const CalendarDate start = CalendarDate::dateWithYear(2024, 3, 1 + i, 9, 30, 0, zone);
      event.set(kCalendarsEventStartDate, start);
      event.set(kCalendarsEventEndDate, start.dateByAddingTimeInterval(3600));
      if (i >= 8) {
        event.set(kCalendarsEventRecurrences,
                  Array{Dictionary{
                      {kEngineRecordEntityNameKey, kCalendarsRecurrence},
                      {kCalendarsRecurrenceFrequency, "weekly"},
                      {kCalendarsRecurrenceUntil, start.dateByAddingTimeInterval(86400.0 * 70)}}});
        event.set(kCalendarsEventExceptionDates,
                  Array{start.dateByAddingTimeInterval(86400.0 * 14)});
      }
    }
    event.set(kCalendarsEventDisplayAlarms,
              Array{Dictionary{{kEngineRecordEntityNameKey, kCalendarsDisplayAlarm},
                               {kCalendarsAudioAlarmTriggerduration, -900}}});
    events.push_back(event);
  }
  return events;
}

void mangleAndUnmangle(QVTSyncEventTransformer& transformer,
                       const std::vector<Dictionary>& events) {
  for (const Dictionary& event : events) {
    RecordHolder holder(event, "id");
    transformer.mangleRecordBeforePushingToDevice(holder);
    transformer.unmangleRecordAfterReadingFromDevice(holder);
    benchmark::DoNotOptimize(holder.mutableDictionary());
  }
}

// What the time-zone stages ask of the calendar core for the records they
// move (all of them on a wall-clock phone, the all-day ones on a phone that
// keeps zones): to the phone's zone, then back to the wall clock and to the
// event's zone.
void calendarCoreCalls(const std::vector<Dictionary>& events, const TimeZonePtr& phoneZone,
                       bool wallClock) {
  for (const Dictionary& event : events) {
    if (!wallClock && !CalendarUtilities::isAllDayEvent(event)) continue;
    Dictionary record = event.deepCopy();
    const Value* start = record.find(kCalendarsEventStartDate);
    const TimeZonePtr eventZone = start && start->asDate() ? start->date().timeZone() : nullptr;
    CalendarUtilities::convertDatesInTimeZone(record, nullptr, phoneZone, false, false, false);
    CalendarUtilities::convertDatesInTimeZone(record, phoneZone, nullptr, false, false, false);
    CalendarUtilities::convertDatesInTimeZone(record, nullptr, eventZone, false, false, false);
    benchmark::DoNotOptimize(record);
  }
}

double secondsFor(int rounds, const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < rounds; ++i) work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Argument 0: the phone keeps zones; 1: it writes local times.
void BM_EventsMangledAndUnmangled(benchmark::State& state) {
  const bool wallClock = state.range(0) != 0;
  Host host(wallClock);
  const std::vector<Dictionary> events = eventMix();
  for (auto _ : state) mangleAndUnmangle(*host.transformer, events);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(events.size()));

  // The share of the calendar core, timed outside the measured loop on the
  // same records.
  const int rounds = 200;
  const double whole = secondsFor(rounds, [&] { mangleAndUnmangle(*host.transformer, events); });
  const double core = secondsFor(
      rounds, [&] { calendarCoreCalls(events, host.methods->phoneTimeZone(), wallClock); });
  state.counters["calendar_core_share"] = whole > 0 ? core / whole : 0;
}
BENCHMARK(BM_EventsMangledAndUnmangled)->Arg(0)->Arg(1);

void BM_CalendarCoreCallsAlone(benchmark::State& state) {
  const std::vector<Dictionary> events = eventMix();
  const TimeZonePtr phoneZone = TimeZone::timeZoneWithName("Europe/Paris");
  for (auto _ : state) calendarCoreCalls(events, phoneZone, true);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(events.size()));
}
BENCHMARK(BM_CalendarCoreCallsAlone);

}  // namespace

BENCHMARK_MAIN();
