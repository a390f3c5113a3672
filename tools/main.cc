// phoneconduit: the command-line face of the conduit. It runs the conduit's
// pieces on files (device descriptions, records in the nice plist text form)
// so that what a phone would receive can be seen and checked without a phone.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>

#include "platform/Exception.h"

int main(int argc, char** argv) {
  CLI::App app{"phoneconduit: reduces calendar and contact records to what a phone model can hold, "
               "and rebuilds them when they come back."};
  app.set_version_flag("--version", std::string("phoneconduit ") + PC_VERSION);
  app.require_subcommand(0, 1);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }

  try {
    if (app.get_subcommands().empty()) {
      std::cout << app.help();
    }
  } catch (const pc::Exception& e) {
    std::cerr << "phoneconduit: " << e.description() << "\n";
    return 1;
  }
  return 0;
}
