// Reading and writing iCalendar files: not yet available.

#include "host/UserFiles.h"

namespace pc {

UserFileImport importICalendarText(std::string_view, const std::string& path) {
  UserFileImport file;
  file.path = path;
  file.failure = UserFileNote{0, "iCalendar files cannot be read yet"};
  return file;
}

std::string exportICalendarText(const std::vector<std::pair<std::string, Dictionary>>&) { return {}; }

}  // namespace pc
