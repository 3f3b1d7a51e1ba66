// Runs a fuzz target over every file of the corpus folders given, for builds without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "support/files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replay(const std::filesystem::path& folder) {
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string input = support::read(entry.path());
    std::printf("%s\n", entry.path().filename().c_str());
    std::fflush(stdout);  // the last name printed is the one that failed
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    ++files;
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    if (replay(argv[index]) > 0) continue;
    std::fprintf(stderr, "%s: no corpus\n", argv[index]);
    return 1;
  }
  return argc > 1 ? 0 : 1;
}
