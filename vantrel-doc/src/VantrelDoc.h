// vantrel-doc: the commands that read AdminObjects documents. Each writes
// its report to out and its problems to err, and returns the exit status:
// 0 success, 1 a document with problems (for diff: documents that differ),
// 2 trouble (a file that cannot be read or written, a bad command line).
// "-" names standard input or standard output.
#pragma once

#include <iosfwd>
#include <string>

// A summary when the document is whole and consistent, else one line per
// problem, each naming FILE:LINE.
int DocCheck(const std::string& file, std::ostream& out, std::ostream& err);
// What differs between two documents, object by object.
int DocDiff(const std::string& oldFile, const std::string& newFile,
            std::ostream& out, std::ostream& err);
// Creates store, which must not exist, from a document that DocCheck
// accepts; exporting it gives the document back.
int DocLoad(const std::string& file, const std::string& store,
            std::ostream& out, std::ostream& err);
// Writes the well-formed twin of a document to output: the same lines with
// their values escaped, and a mark that says so.
int DocXml(const std::string& file, const std::string& output,
           std::ostream& out, std::ostream& err);
// Writes the configuration of a document as JSON to output.
int DocJson(const std::string& file, const std::string& output,
            std::ostream& out, std::ostream& err);
// Writes the HTML report of a document, with a picture of its servers and
// replication, to output.
int DocReport(const std::string& file, const std::string& output,
              std::ostream& out, std::ostream& err);
// Exports store to file as the exporter does, through a new file beside it
// that replaces file only once it is whole, checked and on the disk; on any
// failure file is as it was and nothing is left behind. Unless quiet, one
// line says what was written and, when file existed, how many objects were
// added, removed and changed since.
int DocExport(const std::string& store, const std::string& file, bool quiet,
              std::ostream& out, std::ostream& err);
// Makes store export file byte for byte, writing only what differs in one
// transaction, which it commits only once the store exports file. With
// dryRun it prints the plan (as diff lists it) and writes nothing (0:
// nothing would change, 1: something would). With base, a store that no
// longer exports base is refused. A refused document or store, and any
// failure, leave the store unchanged.
int DocApply(const std::string& file, const std::string& store, bool dryRun,
             const std::string& base, std::ostream& out, std::ostream& err);
// The command line.
int VantrelDocMain(int argc, char* argv[]);
