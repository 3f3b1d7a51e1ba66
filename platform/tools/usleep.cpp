// usleep MICROSECONDS: waits. Debian has no program of this name.
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

int main(int argc, char** argv) {
  const std::string_view text = argc == 2 ? argv[1] : "";
  std::uint32_t microseconds = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), microseconds);
  if (text.empty() || failure != std::errc{} || end != text.data() + text.size()) {
    std::fputs("usage: usleep MICROSECONDS\n", stderr);
    return EXIT_FAILURE;
  }
  std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
  return EXIT_SUCCESS;
}
