// Writing a file whole: what is written reaches the disk before the file
// takes its name.
#pragma once

#include <string>

namespace vantrel {

// Writes the file or directory at path to the disk; false with errno set.
bool Sync(const std::string& path);
// The directory of path ("." for a bare name), whose entry of path a rename
// or a link changes.
std::string DirectoryOf(const std::string& path);

// The directory of temporary files: TMPDIR, else /tmp.
std::string TemporaryDirectory();
// A new file of the temporary directory, already removed (it lasts as long
// as the returned descriptor); -1 with errno set.
int AnonymousFile();

}  // namespace vantrel
