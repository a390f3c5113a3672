#pragma once
// Pieces the commands share: reading a property-list dictionary, JSON string
// literals for reports, and silencing the default error log while a command
// reports what went wrong itself.

#include <string>

#include "platform/Value.h"

namespace pc::tools {

// The dictionary in the property-list file `path`; a CommandError naming the
// file when it cannot be read or holds something else.
Dictionary readDictionary(const std::string& path);

// Text as a JSON string literal.
std::string jsonString(const std::string& text);

// While it lives, the default error log on standard error is silenced: the
// command reports what went wrong itself, once, with the file and key path.
// A user whose preferences ask for more logging keeps it all, and so does
// `keep` (--log).
class QuietDefaultLog {
 public:
  explicit QuietDefaultLog(bool keep);
  ~QuietDefaultLog();
  QuietDefaultLog(const QuietDefaultLog&) = delete;
  QuietDefaultLog& operator=(const QuietDefaultLog&) = delete;

 private:
  bool _active;
};

}  // namespace pc::tools
