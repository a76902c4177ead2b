// vantrel-doc's commands, described once: the usage text, each command's
// --help, the bash completion's lists and the dispatch all come from here.
#pragma once

#include <string>
#include <vector>

namespace vdoc {

// A command as the completion knows it: its name and its options.
struct CommandNames {
  std::string name;
  std::vector<std::string> options;  // each spelling, "--help" among them
};
// Every command, in the table's order.
std::vector<CommandNames> ListCommands();
// The usage text that --help and a bad command line print.
std::string Usage();

}  // namespace vdoc
