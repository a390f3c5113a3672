#pragma once
// The subcommands of phoneconduit, one group per source file. Each adds its
// subcommands to the program; a subcommand reports a problem with the user's
// input by throwing CommandError, which the program prints on standard error
// before exiting with status 1.

#include <stdexcept>

#include <CLI/CLI.hpp>

namespace pc::tools {

class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// explode, convert-limit.
void addRecurrenceCommands(CLI::App& app);
// describe-device.
void addDeviceCommands(CLI::App& app);
// hexdump.
void addHexdumpCommands(CLI::App& app);

}  // namespace pc::tools
