// A text as a QR code on a terminal, by libqrencode.
#pragma once

#include <string>

namespace ormelctl {

// Draws `text` as lines of UTF-8 half blocks, the light modules in the colour of the writing, with
// the margin that a camera needs; with `colours` as white on black whatever the colours of the
// terminal are. Returns an empty text, or why it could not be drawn.
[[nodiscard]] std::string draw_qr(const std::string& text, bool colours, std::string& out);

}  // namespace ormelctl
