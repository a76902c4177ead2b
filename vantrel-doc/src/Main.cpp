#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "Escape.h"
#include "Output.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

const char kUsage[] =
    "usage: vantrel-doc check DOC\n"
    "       vantrel-doc diff [--format text|json|html] [-o FILE] OLD NEW\n"
    "       vantrel-doc load DOC STORE\n"
    "       vantrel-doc xml DOC [OUT]\n"
    "       vantrel-doc json DOC [OUT]\n"
    "       vantrel-doc report DOC [OUT.html]\n"
    "       vantrel-doc export [-q] STORE FILE\n"
    "       vantrel-doc apply [--dry-run] [--format text|json|html] [-o FILE]\n"
    "                         [--base BASE] [--log FILE] [--max-removals N]\n"
    "                         [--other-installation] [--only ID[,ID...]]\n"
    "                         DOC STORE\n"
    "       vantrel-doc COMMAND --help | --help | --version\n"
    "A file named - is standard input or standard output.\n"
    "Exit status: 0 success, 1 a document or plan with problems (diff:\n"
    "documents that differ), 2 a file that cannot be read or written, or a\n"
    "bad command line. See vantrel-doc(1).\n";

// The values of a command line.
struct Arguments {
  std::string first, second, output = "-", format = "text";
  bool quiet = false;
  ApplyOptions apply;
};

// What each command needs, as a bad command line is told.
struct Command {
  const char* name;
  const char* purpose;
  const char* needs;
};
const Command kCommands[] = {
    {"check", "Checks a document: whole, consistent, as the exporter writes it",
     "DOC"},
    {"diff", "Shows the plan from document OLD to document NEW", "OLD and NEW"},
    {"load", "Creates a store from a document", "DOC and STORE"},
    {"xml", "Writes a document's well-formed twin", "DOC"},
    {"json", "Writes a document's configuration as JSON", "DOC"},
    {"report", "Writes a document's HTML report", "DOC"},
    {"export", "Exports a store to an archive, replacing it once whole",
     "STORE and FILE"},
    {"apply", "Makes a store export a document, in one verified transaction",
     "DOC and STORE"},
};

// Adds --format and -o, for the commands that write a plan.
void PlanOptions(CLI::App* command, Arguments& a) {
  command->add_option("--format", a.format, "The plan's form")
      ->check(CLI::IsMember({"text", "json", "html"}));
  command
      ->add_option("-o,--output", a.output,
                   "Where the plan goes (- for standard output)")
      ->type_name("FILE");
}

// Builds the command line's parser, each command's values into a.
void Define(CLI::App& app, Arguments& a) {
  app.set_help_flag();  // --help alone is the usage, written here
  for (const Command& c : kCommands) {
    CLI::App* command = app.add_subcommand(c.name, c.purpose);
    command->set_help_flag("-h,--help", "Shows this help");
    command->allow_extras();
    const std::string name = c.name;
    if (name == "check") {
      command->add_option("DOC", a.first, "The document")->required();
    } else if (name == "diff") {
      PlanOptions(command, a);
      command->add_option("OLD", a.first, "The document before")->required();
      command->add_option("NEW", a.second, "The document after")->required();
    } else if (name == "load") {
      command->add_option("DOC", a.first, "The document")->required();
      command->add_option("STORE", a.second, "The store to create")->required();
    } else if (name == "xml" || name == "json" || name == "report") {
      command->add_option("DOC", a.first, "The document")->required();
      command->add_option("OUT", a.output, "Where it goes (- by default)");
    } else if (name == "export") {
      command->add_flag("-q,--quiet", a.quiet, "Says nothing on success");
      command->add_option("STORE", a.first, "The store")->required();
      command->add_option("FILE", a.second, "The archive")->required();
    } else if (name == "apply") {
      ApplyOptions& o = a.apply;
      command->add_flag("--dry-run", o.dryRun,
                        "Shows the plan and writes nothing; needs no lock");
      PlanOptions(command, a);
      command
          ->add_option("--base", o.base,
                       "Refuses a store that no longer exports BASE")
          ->type_name("BASE");
      command
          ->add_option("--log", o.log, "Appends a JSON line per apply to FILE")
          ->type_name("FILE");
      command
          ->add_option("--max-removals", o.maxRemovals,
                       "Refuses a plan that removes more than N objects")
          ->type_name("N");
      command->add_flag("--other-installation", o.otherInstallation,
                        "Takes a document of another local site");
      command
          ->add_option("--only", o.only,
                       "Applies only these objects, with their children")
          ->delimiter(',')
          ->type_name("ID,...");
      command->add_option("DOC", a.first, "The document wanted")->required();
      command->add_option("STORE", a.second, "The store")->required();
    }
  }
}

// A bad command line, said once: 2.
int Bad(const std::string& what) {
  std::cerr << "vantrel-doc: " << vantrel::Escaped(what) << "\n" << kUsage;
  return 2;
}

// Runs the command chosen on app.
int Run(const CLI::App& command, Arguments& a) {
  const std::string name = command.get_name();
  for (const std::string& extra : command.remaining()) {
    if (extra == "--") continue;
    return Bad(name + ": " + extra +
               (extra.size() > 1 && extra[0] == '-' ? " is not an option"
                                                    : " is one argument too "
                                                      "many"));
  }
  const PlanFormat format = a.format == "json"   ? PlanFormat::kJson
                            : a.format == "html" ? PlanFormat::kHtml
                                                 : PlanFormat::kText;
  RemovePartialFilesOnSignals();
  if (name == "check") return DocCheck(a.first, std::cout, std::cerr);
  if (name == "diff")
    return DocDiff(a.first, a.second, format, a.output, std::cout, std::cerr);
  if (name == "load") return DocLoad(a.first, a.second, std::cout, std::cerr);
  if (name == "xml") return DocXml(a.first, a.output, std::cout, std::cerr);
  if (name == "json") return DocJson(a.first, a.output, std::cout, std::cerr);
  if (name == "report")
    return DocReport(a.first, a.output, std::cout, std::cerr);
  if (name == "export")
    return DocExport(a.first, a.second, a.quiet, std::cout, std::cerr);
  a.apply.format = format;
  a.apply.output = a.output;
  return DocApply(a.first, a.second, a.apply, std::cout, std::cerr);
}

// Runs the command line args (the program's name first).
int CommandLine(std::vector<std::string> args) {
  CLI::App app(
      "vantrel-doc: reads, compares and applies AdminObjects "
      "documents",
      "vantrel-doc");
  Arguments a;
  Define(app, a);
  if (args.size() == 2 && (args[1] == "--help" || args[1] == "-h")) {
    std::cout << kUsage;
    return 0;
  }
  if (args.size() == 2 && args[1] == "--version") {
    std::cout << "vantrel-doc " VANTREL_VERSION "\n";
    return 0;
  }
  if (args.size() < 2) return Bad("a command is needed");
  try {
    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend() - 1);
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    for (const CLI::App* c : app.get_subcommands({}))
      if (c->count()) {
        std::cout << c->help();
        return 0;
      }
    std::cout << kUsage;
    return 0;
  } catch (const CLI::ParseError& e) {
    for (const CLI::App* c : app.get_subcommands({})) {
      if (!c->count()) continue;
      const std::string name = c->get_name();
      if (dynamic_cast<const CLI::RequiredError*>(&e))
        for (const Command& command : kCommands)
          if (name == command.name)
            return Bad(name + " needs " + command.needs);
      return Bad(name + ": " + e.what());
    }
    return Bad(args[1] + " is not a command");
  }
  for (const CLI::App* c : app.get_subcommands({}))
    if (c->count()) return Run(*c, a);
  return Bad(args[1] + " is not a command");
}

}  // namespace

int SayingOutOfMemory(const std::function<int()>& command) {
  try {
    return command();
  } catch (const std::bad_alloc&) {
    // What the command was writing is removed as its owners unwind.
    std::cerr << "vantrel-doc: cannot allocate memory\n";
    return 2;
  }
}

int VantrelDocMain(int argc, char* argv[]) {
  return SayingOutOfMemory(
      [&] { return CommandLine(std::vector<std::string>(argv, argv + argc)); });
}

}  // namespace vdoc
