#pragma once
// A formatting-methods object for one phone, whose client names the phone's
// time zone, and a snapshot of the engine's truth it can read.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "conduit/SyncClientState.h"
#include "engine/MemoryEngine.h"
#include "formatting/FormattingMethods.h"
#include "formatting/Invocation.h"
#include "platform/CalendarDate.h"
#include "platform/Registry.h"
#include "platform/TimeZone.h"

namespace pc::test {

inline std::shared_ptr<MemorySyncEngineClient> phoneClient(const std::string& zoneName) {
  auto client = std::make_shared<MemorySyncEngineClient>("test.phone", "Test phone", Array{});
  SyncClientState::setCurrentTimeZoneName(*client, zoneName);
  return client;
}

// A formatter of class `className` created through the registry, as a
// device description names it.
template <class T = FormattingMethods>
std::shared_ptr<T> makeFormatter(const std::string& className = "FormattingMethods",
                                 const std::string& zoneName = "Europe/Paris",
                                 std::optional<Dictionary> description = std::nullopt,
                                 std::shared_ptr<SyncEngineClient> client = nullptr) {
  auto formatter = ClassRegistry::createAs<T>(className);
  if (!formatter) return nullptr;
  formatter->initWithDictionary(description, nullptr, client ? client : phoneClient(zoneName));
  return formatter;
}

inline CalendarDate dateIn(const char* zone, int year, int month, int day, int hour = 0,
                           int minute = 0, int second = 0) {
  return CalendarDate::dateWithYear(year, month, day, hour, minute, second,
                                    TimeZone::timeZoneWithName(zone));
}

// "2006-03-05 22:59:59" read in `zone`.
inline std::string textIn(const Value& date, const char* zone = "GMT") {
  if (!date.isDate()) return "<" + date.description() + ">";
  return date.date().dateWithTimeZone(TimeZone::timeZoneWithName(zone))
      .descriptionWithCalendarFormat("%Y-%m-%d %H:%M:%S");
}

// Calls `selector` on `target` through its method table with `arguments`.
inline Value callSelector(const ObjectPtr& target, const std::string& selector,
                          std::initializer_list<Value> arguments) {
  auto invocation = Invocation::invocationWithTarget(target, selector);
  if (!invocation) {
    ADD_FAILURE() << "no method " << selector;
    return Value();
  }
  std::size_t index = 0;
  for (const Value& argument : arguments) invocation->setArgument(argument, index++);
  return invocation->invoke();
}

}  // namespace pc::test
