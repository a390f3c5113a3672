// methods: lists the formatting operations a device description can name, per
// formatting class, with the kinds of their arguments, for people who write
// device descriptions. A class lists what it adds to the classes it derives
// from; with --class, everything the class answers, inherited or not.

#include <algorithm>
#include <iostream>
#include <map>
#include <string>

#include "commands.h"
#include "formatting/FormattingMethods.h"
#include "platform/Registry.h"

namespace pc::tools {

namespace {

std::string argumentKinds(const std::string& types) {
  if (types.empty()) return "(no arguments)";
  std::string kinds;
  for (char code : types) {
    if (!kinds.empty()) kinds += ", ";
    kinds += code == 'c' ? "boolean" : code == 'i' ? "integer" : "object";
  }
  return kinds;
}

void printSelectors(const std::string& heading, std::map<std::string, std::string> selectors) {
  std::size_t width = 0;
  for (const auto& entry : selectors) width = std::max(width, entry.first.size());
  std::cout << heading << "\n";
  for (const auto& [selector, types] : selectors)
    std::cout << "  " << selector << std::string(width - selector.size() + 2, ' ')
              << argumentKinds(types) << "\n";
}

void listMethods(const std::string& className) {
  const std::vector<std::string> classes = FormattingMethods::formattingClassNames();
  if (className.empty()) {
    for (std::size_t i = 0; i < classes.size(); ++i) {
      std::map<std::string, std::string> own;
      for (const auto& entry : FormattingMethods::registeredSelectors(classes[i]))
        own[entry.selector] = entry.argumentTypes;
      const auto super = ClassRegistry::superclassOf(classes[i]);
      std::string heading = classes[i];
      if (super && !super->empty()) heading += " (adds to " + *super + ")";
      if (i) std::cout << "\n";
      printSelectors(heading + ":", own);
    }
    return;
  }
  if (std::find(classes.begin(), classes.end(), className) == classes.end()) {
    std::string known;
    for (const std::string& name : classes) known += (known.empty() ? "" : ", ") + name;
    throw CommandError("--class " + className + ": not a formatting class (known: " + known + ")");
  }
  // Everything the class answers: its own selectors and its ancestors'.
  std::map<std::string, std::string> all;
  for (const std::string& name : classes) {
    if (!ClassRegistry::isSubclassOf(className, name)) continue;
    for (const auto& entry : FormattingMethods::registeredSelectors(name))
      all[entry.selector] = MethodTable::lookup(className, entry.selector)->argumentTypes;
  }
  printSelectors(className + ":", all);
}

}  // namespace

void addMethodsCommands(CLI::App& app) {
  auto className = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand(
      "methods", "Lists the formatting operations a device description can name (\"FieldFormatting\", "
                 "\"RecordFormatting\", ...): each selector with the kinds of its arguments, the "
                 "first being the value or record formatted.");
  command->add_option("--class", *className,
                      "Only this formatting class, with what it inherits (the description's "
                      "formatter class, e.g. QVTMotorolaFormatter)");
  command->footer("Example:\n  phoneconduit methods --class QVTAgentFormatting\n");
  command->callback([className] { listMethods(*className); });
}

}  // namespace pc::tools
