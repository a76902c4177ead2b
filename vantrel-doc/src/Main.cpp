#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "Output.h"
#include "VantrelDoc.h"

namespace {

const char kUsage[] =
    "usage: vantrel-doc check DOC\n"
    "       vantrel-doc diff OLD NEW\n"
    "       vantrel-doc load DOC STORE\n"
    "       vantrel-doc xml DOC [OUT]\n"
    "       vantrel-doc json DOC [OUT]\n"
    "       vantrel-doc report DOC [OUT.html]\n"
    "       vantrel-doc export [-q] STORE FILE\n"
    "       vantrel-doc apply [--dry-run] [--base BASE] DOC STORE\n"
    "       vantrel-doc --help | --version\n"
    "A file named - is standard input or standard output.\n"
    "Exit status: 0 success, 1 a document with problems (diff: documents\n"
    "that differ), 2 a file that cannot be read or written, or a bad\n"
    "command line. See vantrel-doc(1).\n";

// Runs the command of args (the program's name left out).
int Command(const std::vector<std::string>& args) {
  const std::size_t n = args.size();
  const std::string command = n > 0 ? args[0] : "";
  if (n == 1 && (command == "--help" || command == "-h")) {
    std::cout << kUsage;
    return 0;
  }
  if (n == 1 && command == "--version") {
    std::cout << "vantrel-doc " VANTREL_VERSION "\n";
    return 0;
  }
  RemovePartialFilesOnSignals();
  // An optional output: standard output when it is left out.
  const std::string output = n == 3 ? args[2] : "-";
  if (command == "check" && n == 2)
    return DocCheck(args[1], std::cout, std::cerr);
  if (command == "diff" && n == 3)
    return DocDiff(args[1], args[2], std::cout, std::cerr);
  if (command == "load" && n == 3)
    return DocLoad(args[1], args[2], std::cout, std::cerr);
  if (command == "xml" && (n == 2 || n == 3))
    return DocXml(args[1], output, std::cout, std::cerr);
  if (command == "json" && (n == 2 || n == 3))
    return DocJson(args[1], output, std::cout, std::cerr);
  if (command == "report" && (n == 2 || n == 3))
    return DocReport(args[1], output, std::cout, std::cerr);
  if (command == "apply") {
    bool dryRun = false;
    std::string base;
    std::size_t i = 1;
    for (; i + 2 < n; ++i) {
      if (args[i] == "--dry-run" && !dryRun) {
        dryRun = true;
      } else if (args[i] == "--base" && base.empty() && i + 3 < n) {
        base = args[++i];
      } else {
        break;
      }
    }
    if (i + 2 == n)
      return DocApply(args[i], args[i + 1], dryRun, base, std::cout, std::cerr);
  }
  if (command == "export" && n == 3)
    return DocExport(args[1], args[2], false, std::cout, std::cerr);
  if (command == "export" && n == 4 && args[1] == "-q")
    return DocExport(args[2], args[3], true, std::cout, std::cerr);
  std::cerr << kUsage;
  return 2;
}

}  // namespace

int VantrelDocMain(int argc, char* argv[]) {
  try {
    return Command(
        std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  } catch (const std::bad_alloc&) {
    // What the command was writing is removed as its owners unwind.
    std::cerr << "vantrel-doc: cannot allocate memory\n";
    return 2;
  }
}
