#pragma once
// While a description is checked (checkDeviceDescription), the builders of
// entity and field formatters report here what they would otherwise only log
// and tolerate, and each building step that raises is reported and skipped
// instead of ending the build. Outside a check nothing is collected and the
// steps run as they are. Per thread; checks do not nest.

#include <functional>
#include <string>
#include <vector>

namespace pc {

// One problem of a device description: where it is ("Formatting/Contacts.
// PhoneNumber/type/mappings/2": keys and list indexes joined by "/", since
// entity names hold dots) and the message the formatter logs for it.
struct DescriptionProblem {
  std::string keyPath;
  std::string message;
};

}  // namespace pc

namespace pc::description_check {

// True while a check runs on this thread.
bool active();

// Collects the problems of one check on this thread for its lifetime.
class Collector {
 public:
  Collector();
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;
  std::vector<DescriptionProblem> take();
};

// Adds a key-path component for its lifetime (a key or a list index).
class PathScope {
 public:
  explicit PathScope(const std::string& component);
  ~PathScope();
  PathScope(const PathScope&) = delete;
  PathScope& operator=(const PathScope&) = delete;
};

// Records a problem at the current key path (with `component` appended when
// it is not empty). Does nothing outside a check.
void report(const std::string& message, const std::string& component = {});

// Runs `step`. During a check, an exception it raises is reported at the
// current key path plus `component` and the step is skipped (answers
// false); outside a check the exception goes on.
bool step(const std::string& component, const std::function<void()>& step);

}  // namespace pc::description_check
