// The run of one command line: exit statuses, error reports and output that
// appears only when the command succeeds.

#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "commands.h"
#include "platform/Exception.h"

namespace pc::tools {

namespace {

constexpr int kSuccess = 0;
constexpr int kBadInput = 1;
constexpr int kBadCommandLine = 2;

int report(const std::string& problem, int status) {
  std::cerr << "phoneconduit: " << problem << "\n";
  return status;
}

// Holds what is written on standard output while it lives; `release` writes
// it out. A command that fails thus prints nothing but its error.
class HeldOutput {
 public:
  HeldOutput() : _original(std::cout.rdbuf(_held.rdbuf())) {}
  ~HeldOutput() { std::cout.rdbuf(_original); }
  HeldOutput(const HeldOutput&) = delete;
  HeldOutput& operator=(const HeldOutput&) = delete;

  void release() {
    std::cout.rdbuf(_original);
    std::cout << _held.str() << std::flush;
  }

 private:
  std::ostringstream _held;
  std::streambuf* _original;
};

// "see phoneconduit explode --help", for the command being parsed if any.
std::string helpHint(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return "see phoneconduit " + (chosen.empty() ? std::string() : chosen.front()->get_name() + " ") + "--help";
}

std::string commandNames(const CLI::App& app) {
  std::string names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
    names += (names.empty() ? "" : ", ") + command->get_name();
  return names;
}

}  // namespace

int runCommandLine(CLI::App& app, int argc, char** argv) {
  if (app.get_footer().empty())
    app.footer("Example:\n  phoneconduit explode examples/events/weekly-team-meeting.plist --from 20261101 --to 20261201\n"
               "Exit status: 0 success, 1 bad input, 2 bad command line, 3 some records rejected.");
  // Subcommands run from the parse.
  try {
    HeldOutput output;
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
      if (e.get_exit_code() != 0) return report(std::string(e.what()) + " (" + helpHint(app) + ")", kBadCommandLine);
      output.release();
      return app.exit(e);  // --help, --version
    } catch (const CommandStatus& e) {
      // A status of this kind follows a result, which is kept.
      output.release();
      return e.status();
    }
    if (app.get_subcommands().empty())
      return report("no command given; the commands are " + commandNames(app) + " (" + helpHint(app) + ")",
                    kBadCommandLine);
    output.release();
    return kSuccess;
  } catch (const CommandLineError& e) {
    return report(std::string(e.what()) + " (" + helpHint(app) + ")", kBadCommandLine);
  } catch (const CommandError& e) {
    return report(e.what(), kBadInput);
  } catch (const pc::Exception& e) {
    return report(e.description(), kBadInput);
  } catch (const std::exception& e) {
    return report(e.what(), kBadInput);
  }
}

}  // namespace pc::tools
