// phoneconduit: the command-line face of the conduit. It runs the conduit's
// pieces on files (device descriptions, records in the nice plist text form)
// so that what a phone would receive can be seen and checked without a phone.

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>

#include "async/AYLogger.h"
#include "commands.h"
#include "platform/Exception.h"

int main(int argc, char** argv) {
  CLI::App app{"phoneconduit: reduces calendar and contact records to what a phone model can hold, "
               "and rebuilds them when they come back."};
  app.set_version_flag("--version", std::string("phoneconduit ") + PC_VERSION);
  app.require_subcommand(0, 1);
  pc::tools::addDeviceCommands(app);
  pc::tools::addRecurrenceCommands(app);
  pc::tools::addHexdumpCommands(app);

  // Errors always reach standard error; the user's preferences may ask for more.
  pc::QVTRegisterLogs();

  // Subcommands run from the parse; their failures are the user's to read.
  try {
    app.parse(argc, argv);
    if (app.get_subcommands().empty()) std::cout << app.help();
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  } catch (const pc::tools::CommandError& e) {
    std::cerr << "phoneconduit: " << e.what() << "\n";
    return 1;
  } catch (const pc::Exception& e) {
    std::cerr << "phoneconduit: " << e.description() << "\n";
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "phoneconduit: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
