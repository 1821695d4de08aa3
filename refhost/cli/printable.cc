#include "refhost/cli/printable.h"

namespace zefs::refhost {

namespace {

/// Whether `at` is a control character, or the last byte of one: U+0080 to U+009F are C2 80 to
/// C2 9F in UTF-8.
bool IsControl(std::string_view text, std::size_t at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  const bool c1 = byte >= 0x80 && byte < 0xa0 && at > 0 && text[at - 1] == '\xc2';
  return byte < ' ' || byte == 0x7f || c1;
}

}  // namespace

std::string Printable(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string shown;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (IsControl(text, at)) {
      shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
    } else {
      shown += text[at];
    }
  }
  return shown;
}

}  // namespace zefs::refhost
