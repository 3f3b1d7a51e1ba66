// A program that only links what the tool cannot do without: the measure of a bare start.
#include <jansson.h>
#include <openssl/crypto.h>

int main() {
  json_decref(json_object());
  return OpenSSL_version_num() == 0;
}
