#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "AttributeRules.h"
#include "Commands.h"
#include "Escape.h"
#include "RevisionArgument.h"
#include "Output.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// The values of a command line.
struct Arguments {
  std::string first, second, output = "-", format = "text";
  bool quiet = false, showSecrets = false;
  DiffOptions diff;
  ArchiveOptions archive;
  LogOptions log;
  CompareOptions compare;
  ApplyOptions apply;
  // Where a command's report goes: nowhere with -q, which leaves the exit
  // status and the problems.
  std::ostream& Out() {
    static std::ostream nowhere(nullptr);
    return quiet ? nowhere : std::cout;
  }
  PlanFormat Format() const {
    return format == "json"   ? PlanFormat::kJson
           : format == "html" ? PlanFormat::kHtml
                              : PlanFormat::kText;
  }
};

// A value that names a file or an object: an empty one names nothing, and
// is a bad command line rather than an option switched off.
const CLI::Validator kNamed(
    [](std::string& value) {
      return value.empty() ? std::string("an empty value names nothing")
                           : std::string();
    },
    "", "named");

// A KIND.Attribute rule, as the document names its attributes.
const CLI::Validator kAttributeRule(
    [](std::string& value) {
      doc::AttributeMask mask{};
      std::string error;
      return doc::ReadAttributeRules({value}, &mask, &error) ? std::string()
                                                             : error;
    },
    "", "attribute");

// A count of objects: 0 or more, in decimal digits.
const CLI::Validator kCount(
    [](std::string& value) {
      const bool digits =
          !value.empty() && value.size() < 19 &&
          value.find_first_not_of("0123456789") == std::string::npos;
      return digits ? std::string()
                    : value + " is not a count of objects (0 or more)";
    },
    "", "count");

// Adds -q, for the commands whose report a pipeline may do without.
void Quiet(CLI::App& command, Arguments& a) {
  command.add_flag("-q,--quiet", a.quiet,
                   "Says nothing but problems: the exit status tells");
}

// Adds --show-secrets, for the commands whose views mask secrets.
void ShowSecrets(CLI::App& command, Arguments& a) {
  command.add_flag("--show-secrets", a.showSecrets,
                   "Shows the passwords in connection strings, unmasked");
}

// Adds --format, -o and --show-secrets, for the commands that write a plan.
void PlanOptions(CLI::App& command, Arguments& a) {
  ShowSecrets(command, a);
  command.add_option("--format", a.format, "The plan's form")
      ->check(CLI::IsMember({"text", "json", "html"}));
  command
      .add_option("-o,--output", a.output,
                  "Where the plan goes (- for standard output)")
      ->type_name("FILE")
      ->check(kNamed);
}

// Adds DOC and OUT, for the commands that convert a document.
void Converted(CLI::App& command, Arguments& a) {
  command.add_option("DOC", a.first, "The document")->required();
  command.add_option("OUT", a.output, "Where it goes (- by default)");
}

// Adds the options of every command that changes a store as apply does.
void ChangeArguments(CLI::App& command, Arguments& a) {
  ApplyOptions& o = a.apply;
  Quiet(command, a);
  command.add_flag("--dry-run", o.dryRun,
                   "Shows the plan and writes nothing; needs no lock");
  PlanOptions(command, a);
  command
      .add_option("--base", o.base,
                  "Refuses a store that no longer exports BASE")
      ->type_name("BASE")
      ->check(kNamed);
  command.add_option("--log", o.log, "Appends a JSON line per apply to FILE")
      ->type_name("FILE")
      ->check(kNamed);
  command
      .add_option("--history", o.history,
                  "Commits the store's document to REPO before (when it "
                  "drifted) and after")
      ->type_name("REPO")
      ->check(kNamed);
  command
      .add_option("--max-removals", o.maxRemovals,
                  "Refuses a plan that removes more than N objects")
      ->type_name("N")
      ->check(kCount);
  command.add_flag("--other-installation", o.otherInstallation,
                   "Takes a document of another local site");
  command.add_flag("--run-time", o.runTime,
                   "Writes the document's run-time state too (a full "
                   "restore); else the store's is kept");
  command
      .add_option("--keep", o.keep,
                  "Keeps the store's values of these attributes")
      ->delimiter(',')
      ->type_name("KIND.Attribute,...")
      ->check(kAttributeRule);
  command
      .add_option("--comment", o.comment,
                  "Records TEXT (a ticket, a reason) in the log's line")
      ->type_name("TEXT")
      ->check(kNamed);
}

void ApplyArguments(CLI::App& command, Arguments& a) {
  ApplyOptions& o = a.apply;
  ChangeArguments(command, a);
  command
      .add_option("--only", o.only,
                  "Applies only these objects (ID or KIND:NAME), with their "
                  "children")
      ->delimiter(',')
      ->type_name("ID,...")
      ->check(kNamed);
  command.add_flag("--with-references", o.withReferences,
                   "Brings along what the part names that the store lacks");
  command.add_flag("--same-identifier-ok", o.sameIdentifierOk,
                   "Takes a part whose identifier the store gives another "
                   "object");
  command.add_option("DOC", a.first, "The document wanted")->required();
  command.add_option("STORE", a.second, "The store")->required();
}

// One command: its name, what it does, its command line as the usage
// shows it, what a command line without its arguments is told, its
// arguments and options, and what runs it.
struct Command {
  const char* name;
  const char* purpose;
  const char* usage;
  const char* needs;
  void (*define)(CLI::App&, Arguments&);
  int (*run)(Arguments&);
  // Which arguments name documents, a file or REPO@REV: kFirst, kSecond,
  // kBase.
  unsigned documents;
};

constexpr unsigned kFirst = 1, kSecond = 2, kBase = 4;

// A new command is a row here and a function of its own.
const Command kCommands[] = {
    {"check", "Checks a document: whole, consistent, as the exporter writes it",
     "[-q] DOC", "DOC",
     [](CLI::App& c, Arguments& a) {
       Quiet(c, a);
       c.add_option("DOC", a.first, "The document")->required();
     },
     [](Arguments& a) { return DocCheck(a.first, a.Out(), std::cerr); },
     kFirst},
    {"diff", "Shows the plan from document OLD to document NEW",
     "[-q] [--format text|json|html] [-o FILE] [--show-secrets]\n"
     "                        [--only ID[,ID...]] [--with-references] OLD NEW",
     "OLD and NEW",
     [](CLI::App& c, Arguments& a) {
       Quiet(c, a);
       PlanOptions(c, a);
       c.add_option("--only", a.diff.only,
                    "Shows the plan of a part: these objects (ID or "
                    "KIND:NAME) of NEW put into OLD, as apply --only makes it")
           ->delimiter(',')
           ->type_name("ID,...")
           ->check(kNamed);
       c.add_flag("--with-references", a.diff.withReferences,
                  "Brings along what the part names that OLD lacks");
       c.add_option("OLD", a.first, "The document before")->required();
       c.add_option("NEW", a.second, "The document after")->required();
     },
     [](Arguments& a) {
       a.diff.format = a.Format();
       a.diff.output = a.output;
       a.diff.showSecrets = a.showSecrets;
       return DocDiff(a.first, a.second, a.diff, a.Out(), std::cerr);
     },
     kFirst | kSecond},
    {"load", "Creates a store from a document", "DOC STORE", "DOC and STORE",
     [](CLI::App& c, Arguments& a) {
       c.add_option("DOC", a.first, "The document")->required();
       c.add_option("STORE", a.second, "The store to create")->required();
     },
     [](Arguments& a) {
       return DocLoad(a.first, a.second, std::cout, std::cerr);
     },
     kFirst},
    {"xml", "Writes a document's well-formed twin", "DOC [OUT]", "DOC",
     Converted,
     [](Arguments& a) {
       return DocXml(a.first, a.output, std::cout, std::cerr);
     },
     kFirst},
    {"json", "Writes a document's configuration as JSON", "DOC [OUT]", "DOC",
     Converted,
     [](Arguments& a) {
       return DocJson(a.first, a.output, std::cout, std::cerr);
     },
     kFirst},
    {"report", "Writes a document's HTML report",
     "[--show-secrets] DOC [OUT.html]", "DOC",
     [](CLI::App& c, Arguments& a) {
       ShowSecrets(c, a);
       Converted(c, a);
     },
     [](Arguments& a) {
       return DocReport(a.first, a.output, std::cout, std::cerr, a.showSecrets);
     },
     kFirst},
    {"export", "Exports a store to an archive, replacing it once whole",
     "[-q] [--other-installation] STORE FILE", "STORE and FILE",
     [](CLI::App& c, Arguments& a) {
       c.add_flag("-q,--quiet", a.quiet, "Says nothing on success");
       c.add_flag("--other-installation", a.apply.otherInstallation,
                  "Replaces an archive of another local site");
       c.add_option("STORE", a.first, "The store")->required();
       c.add_option("FILE", a.second, "The archive")->required();
     },
     [](Arguments& a) {
       return DocExport(a.first, a.second, a.quiet, a.apply.otherInstallation,
                        std::cout, std::cerr);
     },
     0},
    {"archive", "Exports a store and commits it to a history, when it changed",
     "[-q] [--installation NAME] [--on-change CMD]\n"
     "                           [--push REMOTE] STORE REPO",
     "STORE and REPO",
     [](CLI::App& c, Arguments& a) {
       c.add_flag("-q,--quiet", a.archive.quiet, "Says nothing on success");
       c.add_option("--installation", a.archive.installation,
                    "The branch: else the local site's name")
           ->type_name("NAME")
           ->check(kNamed);
       c.add_option("--push", a.archive.push,
                    "Pushes the branch to REMOTE (a path or URL git takes)")
           ->type_name("REMOTE")
           ->check(kNamed);
       c.add_option("--on-change", a.archive.onChange,
                    "Runs CMD after a change of configuration, the plan's "
                    "JSON on its standard input")
           ->type_name("CMD")
           ->check(kNamed);
       c.add_option("STORE", a.first, "The store")->required();
       c.add_option("REPO", a.second, "The history")->required();
     },
     [](Arguments& a) {
       return DocArchive(a.first, a.second, a.archive, std::cout, std::cerr);
     },
     0},
    {"log", "Tells what changed in a history, when and by whom",
     "[--format text|json|html] [-o FILE] [--since DATE]\n"
     "                       [--until DATE] [--all] REPO[@INSTALLATION] "
     "[OBJECT]",
     "REPO",
     [](CLI::App& c, Arguments& a) {
       c.add_option("--format", a.format, "text, json, or html: a timeline")
           ->check(CLI::IsMember({"text", "json", "html"}));
       c.add_option("-o,--output", a.output, "Where the log goes")
           ->type_name("FILE")
           ->check(kNamed);
       c.add_option("--since", a.log.since, "From this date (ISO 8601, UTC)")
           ->type_name("DATE")
           ->check(kNamed);
       c.add_option("--until", a.log.until, "Up to this date")
           ->type_name("DATE")
           ->check(kNamed);
       c.add_flag("--all", a.log.all, "Run-time state too");
       c.add_option("REPO", a.first, "The history, and an installation")
           ->required();
       c.add_option("OBJECT", a.second, "An identifier, or KIND:NAME");
     },
     [](Arguments& a) {
       a.log.format = a.Format();
       a.log.output = a.output;
       return DocLog(a.first, a.second, a.log, std::cout, std::cerr);
     },
     0},
    {"blame", "Tells since when each value of an object holds, and who set it",
     "REPO[@INSTALLATION] OBJECT", "REPO and OBJECT",
     [](CLI::App& c, Arguments& a) {
       c.add_option("REPO", a.first, "The history, and an installation")
           ->required();
       c.add_option("OBJECT", a.second, "An identifier, or KIND:NAME")
           ->required();
     },
     [](Arguments& a) {
       return DocBlame(a.first, a.second, std::cout, std::cerr);
     },
     0},
    {"compare", "Shows what differs across the installations of a history",
     "[--format text|json|html] [--all] REPO", "REPO",
     [](CLI::App& c, Arguments& a) {
       c.add_option("--format", a.format, "text, json, or html: a page")
           ->check(CLI::IsMember({"text", "json", "html"}));
       c.add_flag("--all", a.compare.all, "Run-time state too");
       c.add_option("REPO", a.first, "The history")->required();
     },
     [](Arguments& a) {
       a.compare.format = a.Format();
       return DocCompare(a.first, a.compare, a.Out(), std::cerr);
     },
     0},
    {"apply", "Makes a store export a document, in one verified transaction",
     "[-q] [--dry-run] [--format text|json|html] [-o FILE]\n"
     "                         [--show-secrets] [--comment TEXT] [--history "
     "REPO]\n"
     "                         [--keep KIND.Attribute[,...]]\n"
     "                         [--base BASE] [--log FILE] [--max-removals N]\n"
     "                         [--other-installation] [--run-time]\n"
     "                         [--only ID[,ID...]] [--with-references]\n"
     "                         [--same-identifier-ok]\n"
     "                         DOC STORE",
     "DOC and STORE", ApplyArguments,
     [](Arguments& a) {
       a.apply.format = a.Format();
       a.apply.output = a.output;
       a.apply.showSecrets = a.showSecrets;
       return DocApply(a.first, a.second, a.apply, a.Out(), std::cerr);
     },
     kFirst | kBase},
    {"revert",
     "Undoes one commit of a history on a store, keeping what changed since",
     "[-q] [--dry-run] [--format text|json|html] [-o FILE]\n"
     "                          [--show-secrets] [--comment TEXT] [--history "
     "REPO]\n"
     "                          [--keep KIND.Attribute[,...]]\n"
     "                          [--base BASE] [--log FILE] [--max-removals "
     "N]\n"
     "                          [--other-installation] [--run-time]\n"
     "                          REPO@COMMIT STORE",
     "REPO@COMMIT and STORE",
     [](CLI::App& c, Arguments& a) {
       ChangeArguments(c, a);
       c.add_option("COMMIT", a.first, "The commit, REPO@COMMIT")->required();
       c.add_option("STORE", a.second, "The store")->required();
     },
     [](Arguments& a) {
       a.apply.format = a.Format();
       a.apply.output = a.output;
       a.apply.showSecrets = a.showSecrets;
       return DocRevert(a.first, a.second, a.apply, a.Out(), std::cerr);
     },
     kBase},
};

// Builds the command line's parser, each command's values into a.
void Define(CLI::App& app, Arguments& a) {
  app.set_help_flag();  // --help alone is the usage, written here
  for (const Command& c : kCommands) {
    CLI::App* command = app.add_subcommand(c.name, c.purpose);
    command->set_help_flag("-h,--help", "Shows this help");
    command->allow_extras();
    c.define(*command, a);
  }
}

// A bad command line, said once: 2.
int Bad(const std::string& what) {
  std::cerr << "vantrel-doc: " << vantrel::Escaped(what) << "\n" << Usage();
  return 2;
}

// Runs the command c, which the command line chose on parsed.
int Run(const Command& c, const CLI::App& parsed, Arguments& a) {
  for (const std::string& extra : parsed.remaining()) {
    if (extra == "--") continue;
    return Bad(std::string(c.name) + ": " + extra +
               (extra.size() > 1 && extra[0] == '-' ? " is not an option"
                                                    : " is one argument too "
                                                      "many"));
  }
  RemovePartialFilesOnSignals();
  // A document may be a revision of a history: REPO@REV.
  for (const auto& [bit, arg] :
       {std::make_pair(kFirst, &a.first), std::make_pair(kSecond, &a.second),
        std::make_pair(kBase, &a.apply.base)}) {
    std::string error;
    if ((c.documents & bit) && !arg->empty() &&
        !doc::DocumentArgument(*arg, arg, &error)) {
      std::cerr << "vantrel-doc: cannot read " << vantrel::Escaped(*arg) << ": "
                << error << "\n";
      return 2;
    }
  }
  return c.run(a);
}

// The row of the command that app parsed, or null.
const Command* Chosen(const CLI::App& app, const CLI::App** parsed) {
  for (const CLI::App* c : app.get_subcommands({}))
    if (c->count())
      for (const Command& command : kCommands)
        if (c->get_name() == command.name) {
          *parsed = c;
          return &command;
        }
  return nullptr;
}

// Parses args into a on app; the exit status of a command line that ends
// here (help, or a bad one), or -1 to run the command chosen.
int Parse(CLI::App& app, const std::vector<std::string>& args) {
  const CLI::App* parsed = nullptr;
  try {
    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend() - 1);
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    if (Chosen(app, &parsed)) {
      std::cout << parsed->help();
      return 0;
    }
    std::cout << Usage();
    return 0;
  } catch (const CLI::ParseError& e) {
    const Command* c = Chosen(app, &parsed);
    if (!c) return Bad(args[1] + " is not a command");
    if (dynamic_cast<const CLI::RequiredError*>(&e))
      return Bad(std::string(c->name) + " needs " + c->needs);
    return Bad(std::string(c->name) + ": " + e.what());
  }
  return -1;
}

// Runs the command line args (the program's name first).
int CommandLine(const std::vector<std::string>& args) {
  CLI::App app(
      "vantrel-doc: reads, compares and applies AdminObjects "
      "documents",
      "vantrel-doc");
  Arguments a;
  Define(app, a);
  if (args.size() == 2 && (args[1] == "--help" || args[1] == "-h")) {
    std::cout << Usage();
    return 0;
  }
  if (args.size() == 2 && args[1] == "--version") {
    std::cout << "vantrel-doc " VANTREL_VERSION "\n";
    return 0;
  }
  if (args.size() < 2) return Bad("a command is needed");
  const int ended = Parse(app, args);
  if (ended >= 0) return ended;
  const CLI::App* parsed = nullptr;
  // Only a row of the table runs: a name it lacks reaches no command.
  const Command* c = Chosen(app, &parsed);
  return c ? Run(*c, *parsed, a) : Bad(args[1] + " is not a command");
}

}  // namespace

std::string Usage() {
  std::string usage;
  for (const Command& c : kCommands)
    usage += std::string(usage.empty() ? "usage: " : "       ") +
             "vantrel-doc " + c.name + " " + c.usage + "\n";
  return usage +
         "       vantrel-doc COMMAND --help | --help | --version\n"
         "A file named - is standard input or standard output.\n"
         "Exit status: 0 success, 1 a document or plan with problems (diff:\n"
         "configurations that differ), 2 a file that cannot be read or "
         "written, or\na bad command line, 3 refused by a guard, nothing "
         "changed (apply; export:\nanother installation's archive). See "
         "vantrel-doc(1).\n";
}

std::vector<CommandNames> ListCommands() {
  CLI::App app;
  Arguments a;
  Define(app, a);
  std::vector<CommandNames> list;
  for (const Command& c : kCommands) {
    CommandNames names{c.name, {}};
    for (const CLI::Option* o : app.get_subcommand(c.name)->get_options())
      for (const std::vector<std::string>* spelled :
           {&o->get_lnames(), &o->get_snames()})
        for (const std::string& n : *spelled)
          names.options.push_back((spelled == &o->get_lnames() ? "--" : "-") +
                                  n);
    list.push_back(std::move(names));
  }
  return list;
}

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
