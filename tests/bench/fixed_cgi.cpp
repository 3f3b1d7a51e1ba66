// A CGI program that prints a fixed text: what the web server and the start of a process cost
// without any work.
#include <cstdio>

int main() {
  std::puts("Content-type: application/json; charset=utf-8\r\n\r");
  std::puts("{\"data\":null,\"error\":0}");
  return 0;
}
