// Writing a file whole: what is written reaches the disk before the file
// takes its name.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

struct stat;

namespace vantrel {

// Writes the file or directory at path to the disk; false with errno set.
bool Sync(const std::string& path);
// The directory of path ("." for a bare name), whose entry of path a rename
// or a link changes.
std::string DirectoryOf(const std::string& path);

// The mode a tool gives a file it creates: 0666 less the umask.
unsigned NewFileMode();
// Creates a new, empty file from pattern, whose "XXXXXX" ending becomes
// unique, with the owner and group of like when given (where the user may)
// and then mode; sets *path to its name. 0, or the errno of the step that
// failed, with no file left. The file that is to replace another whole,
// once written and synced.
int MakePartialFile(std::string pattern, unsigned mode, const struct stat* like,
                    std::string* path);

// How a copy ended.
enum class Copied { kWhole, kReadFailed, kWriteFailed, kTooLarge };
// Copies what is left of the file from into the file to, a block at a time
// and at most limit bytes; with errno set when not whole (EFBIG past the
// limit).
Copied CopyFile(
    int from, int to,
    std::uint64_t limit = std::numeric_limits<std::uint64_t>::max());

// Why path may not be an output of a command that reads inputs (as
// given on its command line, "" for none), or "" when it may be: every
// output of every command is held to this one rule. Refused are a
// directory, an SQLite store whatever its name, and any input or a
// journal of one (NAME-journal, -wal, -shm), by its identity on the disk
// when both exist and by its name otherwise, and a file inside an input
// that is a directory. "-" is standard output and always may be.
std::string RefusedOutput(const std::string& path,
                          const std::vector<std::string>& inputs);

// The name path would have once its directory's links are resolved, for a
// file that may not exist yet; path itself when its directory is unknown.
std::string Resolved(const std::string& path);
// The absolute path of path, its links resolved: a file's own, else the
// one it would have once created.
std::string AbsolutePath(const std::string& path);

// The directory of temporary files: TMPDIR, else /tmp.
std::string TemporaryDirectory();
// A new file of the temporary directory, already removed (it lasts as long
// as the returned descriptor); -1 with errno set.
int AnonymousFile();
// A new file of the temporary directory, already removed, holding bytes:
// its descriptor, the caller's to close, and in *path its name as
// /proc/self/fd names it while open. -1 with errno set, no file left.
int HeldBytes(std::string_view bytes, std::string* path);

}  // namespace vantrel
