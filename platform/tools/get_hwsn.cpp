// get_hwsn: prints the serial number of the appliance on one line.
#include <cstdio>

#include "tools/serial_number.h"

int main() {
  const std::string number = fenro::serial_number();
  if (!number.empty() && std::puts(number.c_str()) >= 0 && std::fflush(stdout) == 0) return 0;
  std::fputs("get_hwsn: this host has no serial number\n", stderr);
  return 1;
}
