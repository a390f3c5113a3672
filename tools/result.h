#pragma once
// The program's one way for a helper to report a failure: a Result holds
// either its value or a Failure, the message with the file and the key path
// it concerns. The library's reporting styles (exceptions it raises, optional
// answers with an error text, property-list errors) are turned into a Result
// where the program calls the library (command_support.h); a command then
// takes the value with orFail(), which stops it with a CommandError reading
// "file: key/path: message", or looks at the failure itself.
//
//   Result<Dictionary> record = recordFile(path);
//   if (!record) return record.failure();      // passes it on
//   Dictionary d = std::move(record).orFail();  // or stops the command

#include <string>
#include <utility>
#include <variant>

#include "commands.h"

namespace pc::tools {

struct Failure {
  std::string file;     // may be empty: the caller adds it (in())
  std::string keyPath;  // "recurrences/0/count"; empty for the whole file
  std::string message;

  // "file: key/path: message", leaving out what is empty.
  std::string text() const {
    std::string out;
    for (const std::string* part : {&file, &keyPath})
      if (!part->empty()) out += *part + ": ";
    return out + message;
  }
  // The same failure in `path` (when it names no file yet).
  Failure in(const std::string& path) && {
    if (file.empty()) file = path;
    return std::move(*this);
  }
};

template <class T>
class Result {
 public:
  Result(T value) : _state(std::move(value)) {}
  Result(Failure failure) : _state(std::move(failure)) {}

  bool ok() const { return _state.index() == 0; }
  explicit operator bool() const { return ok(); }

  // Only when ok().
  const T& value() const& { return std::get<0>(_state); }
  T&& value() && { return std::get<0>(std::move(_state)); }
  // Only when !ok().
  const Failure& failure() const { return std::get<1>(_state); }

  // The value; a failure stops the command (CommandError, exit status 1).
  T orFail() && {
    if (!ok()) throw CommandError(failure().text());
    return std::get<0>(std::move(_state));
  }

 private:
  std::variant<T, Failure> _state;
};

}  // namespace pc::tools
