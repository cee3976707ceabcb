#include "base/text.h"

#include <cstdint>

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

}  // namespace

size_t text_utf8_sequence(std::string_view text) {
  if (text.empty()) return 0;
  auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(0);
  size_t length;
  uint32_t minimum;
  uint32_t value;
  if (lead < 0x80) return 1;
  if ((lead & 0xe0) == 0xc0) {
    length = 2, minimum = 0x80, value = lead & 0x1f;
  } else if ((lead & 0xf0) == 0xe0) {
    length = 3, minimum = 0x800, value = lead & 0x0f;
  } else if ((lead & 0xf8) == 0xf0) {
    length = 4, minimum = 0x10000, value = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    value = (value << 6) | (byte(i) & 0x3f);
  }
  // Overlong forms, surrogates and values beyond Unicode are not UTF-8.
  if (value < minimum || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return 0;
  return length;
}

bool text_utf8_valid(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    size_t length = text_utf8_sequence(text.substr(i));
    if (length == 0) return false;
    i += length;
  }
  return true;
}

void text_append_json(std::string* out, std::string_view text) {
  *out += '"';
  for (size_t i = 0; i < text.size();) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      *out += '\\';
      *out += static_cast<char>(c);
      ++i;
    } else if (c < 0x20 || c == 0x7f) {
      *out += "\\u00";
      *out += kHexDigits[c >> 4];
      *out += kHexDigits[c & 0xf];
      ++i;
    } else if (size_t length = text_utf8_sequence(text.substr(i)); length != 0) {
      out->append(text.substr(i, length));
      i += length;
    } else {
      *out += "\\ufffd";
      ++i;
    }
  }
  *out += '"';
}
