// Reading and writing a user's vCard files: not yet available.

#include "host/UserFiles.h"

namespace pc {

UserFileImport importVCardText(std::string_view, const std::string& path) {
  UserFileImport file;
  file.path = path;
  file.failure = UserFileNote{0, "vCard files cannot be read yet"};
  return file;
}

std::string exportVCardText(const std::vector<std::pair<std::string, Dictionary>>&) { return {}; }

}  // namespace pc
