// hexdump: prints a file as the diagnostics dump it: per 16 bytes the offset,
// the bytes in hexadecimal and the bytes as characters, for people who
// inspect what a phone sent.

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>

#include "async/Diagnostics.h"
#include "commands.h"

namespace pc::tools {

namespace {

std::string readBytes(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) throw CommandError(path + ": is a directory");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw CommandError(path + ": cannot be read (" + std::strerror(errno) + ")");
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw CommandError(path + ": cannot be read");
  return bytes;
}

void hexdump(const std::string& path) {
  const std::string bytes = readBytes(path);
  std::string dump = qvtHexDump(bytes.data(), bytes.size());
  // The dump of a buffer starts with a newline, to sit under a log line.
  if (!dump.empty() && dump.front() == '\n') dump.erase(0, 1);
  else dump += '\n';
  std::cout << dump;
}

}  // namespace

void addHexdumpCommands(CLI::App& app) {
  auto path = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("hexdump", "Print a file's bytes in hexadecimal and as characters");
  command->add_option("FILE", *path, "the file to print")->required();
  command->footer(
      "Example:\n"
      "  phoneconduit hexdump received.vcs\n"
      "  00000000  42 45 47 49 4e 3a 56 43  41 4c 45 4e 44 41 52 0d  |BEGIN:VCALENDAR.|");
  command->callback([path] { hexdump(*path); });
}

}  // namespace pc::tools
