// vantrel-doc: checks an AdminObjects document, compares two, loads one into
// a new store. Each command writes its report to out and its problems to
// err, and returns the exit status.
#pragma once

#include <iosfwd>
#include <string>

// Exit 0 and a summary when the document is whole and consistent, else 1
// with one line per problem, each naming FILE:LINE.
int DocCheck(const std::string& file, std::ostream& out, std::ostream& err);
// Exit 0 when the two hold the same administration, 1 when they differ
// (printing what differs), 2 when either cannot be read.
int DocDiff(const std::string& oldFile, const std::string& newFile,
            std::ostream& out, std::ostream& err);
// Creates store, which must not exist, from a document that DocCheck
// accepts; exporting it gives the document back.
int DocLoad(const std::string& file, const std::string& store,
            std::ostream& out, std::ostream& err);
// The command line: check FILE | diff OLD NEW | load FILE STORE.
int VantrelDocMain(int argc, char* argv[]);
