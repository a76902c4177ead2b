// The file a fuzzer writes each input to, one per process in TMPDIR (or
// /tmp), removed when the process ends.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

// Returns the path of this process's input file, named with extension.
inline std::string InputPath(const char* extension) {
  static std::string path;
  if (path.empty()) {
    const char* dir = std::getenv("TMPDIR");
    path = std::string(dir ? dir : "/tmp") + "/vantrel-fuzz-" +
           std::to_string(::getpid()) + extension;
    std::atexit([] { std::remove(path.c_str()); });
  }
  return path;
}

// Writes size bytes of data to the input file; returns its path.
inline std::string WriteInput(const std::uint8_t* data, std::size_t size,
                              const char* extension) {
  const std::string path = InputPath(extension);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(data),
             static_cast<std::streamsize>(size));
  return path;
}
