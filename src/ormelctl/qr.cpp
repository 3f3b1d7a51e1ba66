#include "ormelctl/qr.h"

#include <memory>
#include <qrencode.h>

#include "ormel/base/library.h"

namespace ormelctl {

namespace {

// Few runs draw a code, so the library is loaded then.
constexpr const char* LIBRARY = "libqrencode.so.4";
constexpr int MARGIN = 4;  // light modules around the code

struct Api {
  decltype(&::QRcode_encodeData) encode;
  decltype(&::QRcode_free) free;
};

bool load(Api& api) {
  return ormel::load_library(LIBRARY) && ormel::find_function(api.encode, "QRcode_encodeData") &&
         ormel::find_function(api.free, "QRcode_free");
}

const Api* api() {
  static Api functions{};
  static const bool loaded = load(functions);
  return loaded ? &functions : nullptr;
}

struct FreeCode {
  void operator()(QRcode* code) const noexcept { api()->free(code); }
};

bool is_light(const QRcode& code, int row, int column) {
  const bool outside = row < 0 || column < 0 || row >= code.width || column >= code.width;
  return outside || (code.data[row * code.width + column] & 1U) == 0;
}

}  // namespace

std::string draw_qr(const std::string& text, bool colours, std::string& out) {
  if (!api()) return "QR codes need the package libqrencode4";
  // The lowest level of correction makes the smallest code, which 80 columns hold; a screen has no
  // stains.
  const std::unique_ptr<QRcode, FreeCode> code{
      api()->encode(static_cast<int>(text.size()),
                    reinterpret_cast<const unsigned char*>(text.data()), 0, QR_ECLEVEL_L)};
  if (!code) return "the text is too long for a QR code";
  constexpr const char* BLOCKS[2][2] = {{" ", "▄"},
                                        {"▀", "█"}};  // by upper and lower module, light or not
  for (int row = -MARGIN; row < code->width + MARGIN; row += 2) {
    if (colours) out += "\x1b[97;40m";
    for (int column = -MARGIN; column < code->width + MARGIN; ++column) {
      out += BLOCKS[is_light(*code, row, column) ? 1 : 0][is_light(*code, row + 1, column) ? 1 : 0];
    }
    out += colours ? "\x1b[0m\n" : "\n";
  }
  return {};
}

}  // namespace ormelctl
