// How many file descriptors the process has.
#pragma once

#include <dirent.h>

#include <cstddef>

namespace test {

inline size_t num_descriptors() {
  DIR* const dir = opendir("/proc/self/fd");
  size_t count = 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

}  // namespace test
