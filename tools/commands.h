#pragma once
// The subcommands of phoneconduit, one group per source file. Each adds its
// subcommands to the program; a subcommand reports a problem with the user's
// input by throwing CommandError (exit status 1), a problem with the command
// line itself by throwing CommandLineError (exit status 2). The program
// prints either once on standard error, and what the command wrote on
// standard output only when it succeeds.

#include <stdexcept>

#include <CLI/CLI.hpp>

namespace pc::tools {

class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CommandLineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Ends a command that has written its result but answers an exit status of
// its own (3: some records rejected; 1: a description found unusable). What
// the command wrote is kept.
class CommandStatus : public std::exception {
 public:
  explicit CommandStatus(int status) : _status(status) {}
  int status() const { return _status; }
  const char* what() const noexcept override { return "command status"; }

 private:
  int _status;
};

// Parses the command line and runs the chosen subcommand; answers the exit
// status: 0 success, 1 bad input, 2 bad command line (no command included).
int runCommandLine(CLI::App& app, int argc, char** argv);

// explode, convert-limit.
void addRecurrenceCommands(CLI::App& app);
// describe-device.
void addDeviceCommands(CLI::App& app);
// methods.
void addMethodsCommands(CLI::App& app);
// format, check-device.
void addFormatCommands(CLI::App& app);
// hexdump.
void addHexdumpCommands(CLI::App& app);
// sync.
void addSyncCommands(CLI::App& app);
// read-phone.
void addReadPhoneCommands(CLI::App& app);
// import, export.
void addStoreCommands(CLI::App& app);

}  // namespace pc::tools
