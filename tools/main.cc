// phoneconduit: the command-line face of the conduit. It runs the conduit's
// pieces on files (device descriptions, records in the nice plist text form)
// so that what a phone would receive can be seen and checked without a phone.

#include <CLI/CLI.hpp>

#include "async/AYLogger.h"
#include "commands.h"

int main(int argc, char** argv) {
  CLI::App app{"phoneconduit: reduces calendar and contact records to what a phone model can hold, "
               "and rebuilds them when they come back."};
  app.set_version_flag("--version", std::string("phoneconduit ") + PC_VERSION);
  app.require_subcommand(0, 1);
  pc::tools::addDeviceCommands(app);
  pc::tools::addRecurrenceCommands(app);
  pc::tools::addMethodsCommands(app);
  pc::tools::addFormatCommands(app);
  pc::tools::addHexdumpCommands(app);
  pc::tools::addSyncCommands(app);
  pc::tools::addReadPhoneCommands(app);
  pc::tools::addStoreCommands(app);

  // Errors always reach standard error; the user's preferences may ask for more.
  pc::QVTRegisterLogs();

  return pc::tools::runCommandLine(app, argc, argv);
}
