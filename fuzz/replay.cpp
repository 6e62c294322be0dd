// Runs a fuzz target as an ordinary test: over every file of the folders that it is given and, where the
// target is quick, over the file cut at every byte and with every bit flipped. Prints the number of files;
// when the target objects to one, its name is the last line.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) size_t allocations_of_last_run();

namespace {

#ifdef TQREADER_NEIGHBOURS
constexpr size_t kLongestWithNeighbours = TQREADER_NEIGHBOURS;  // bytes
#else
constexpr size_t kLongestWithNeighbours = 0;
#endif

char g_name[1024];

void tell_and_end(int) {
  std::puts(g_name);
  std::fflush(stdout);
  std::_Exit(1);
}

// Each input has a block of its own, so that the address sanitizer sees an access one byte too far.
void run_one(std::vector<uint8_t> input) {
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

void run_with_neighbours(const std::vector<uint8_t>& input) {
  run_one(input);
  if (input.size() > kLongestWithNeighbours) return;
  for (size_t n = 0; n < input.size(); ++n)
    run_one({input.begin(), input.begin() + static_cast<ptrdiff_t>(n)});
  for (size_t bit = 0; bit < 8 * input.size(); ++bit) {
    std::vector<uint8_t> flipped = input;
    flipped[bit / 8] = static_cast<uint8_t>(flipped[bit / 8] ^ 1U << bit % 8);
    run_one(flipped);
  }
}

#ifdef TQREADER_FAILING_ALLOCATION  // where in an input the number of the failing one stands, in two bytes
void sweep_allocations(const std::vector<uint8_t>& whole) {
  run_one(whole);
  const size_t count = allocations_of_last_run();
  if (count == 0) std::abort();
  for (size_t n = 1; n <= count; ++n) {
    std::vector<uint8_t> failing = whole;
    failing[TQREADER_FAILING_ALLOCATION] = static_cast<uint8_t>(n >> 8);
    failing[TQREADER_FAILING_ALLOCATION + 1] = static_cast<uint8_t>(n);
    run_one(failing);
    run_one(whole);
  }
}
#endif

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  for (const int signal : {SIGILL, SIGTRAP, SIGABRT, SIGSEGV, SIGBUS, SIGFPE})
    std::signal(signal, tell_and_end);
  for (const auto& file : files) {
    std::snprintf(g_name, sizeof g_name, "%s", file.c_str());
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    run_with_neighbours({bytes.begin(), bytes.end()});
#ifdef TQREADER_FAILING_ALLOCATION
    if (file.filename().string().starts_with("whole")) sweep_allocations({bytes.begin(), bytes.end()});
#endif
  }
  std::printf("%zu\n", files.size());
  return files.empty() ? 1 : 0;
}
