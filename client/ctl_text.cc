#include "client/ctl_text.h"

#include <cstdio>

#include "base/text.h"

namespace {

void append_hex(std::string* out, const char* format, unsigned value) {
  char buffer[8];
  snprintf(buffer, sizeof buffer, format, value);
  out->append(buffer);
}

}  // namespace

int ctl_utf8_valid(std::string_view text) { return text_utf8_valid(text) ? 1 : 0; }

std::string ctl_json_string(std::string_view text) {
  std::string out;
  text_append_json(&out, text);
  return out;
}

std::string ctl_terminal_escape(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    bool c1 = c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
              static_cast<unsigned char>(text[i + 1]) <= 0x9f;
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7f) {
      append_hex(&out, "\\x%02x", c);
    } else if (c1) {
      append_hex(&out, "\\x%02x", c);
      append_hex(&out, "\\x%02x", static_cast<unsigned char>(text[++i]));
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string ctl_human_bytes(uint64_t bytes) {
  char buffer[32];
  if (bytes < 1024) {
    snprintf(buffer, sizeof buffer, "%llu B", static_cast<unsigned long long>(bytes));
    return buffer;
  }
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  snprintf(buffer, sizeof buffer, "%.1f %s", value, kUnits[unit]);
  return buffer;
}

std::string ctl_progress_line(uint64_t sent, uint64_t total, int64_t elapsed_ms) {
  unsigned percent = total == 0 ? 100 : static_cast<unsigned>(sent * 100.0 / static_cast<double>(total));
  std::string line = "  " + ctl_human_bytes(sent) + " / " + ctl_human_bytes(total);
  char buffer[64];
  snprintf(buffer, sizeof buffer, "  %3u%%", percent);
  line += buffer;
  // Below a fifth of a second the rate is mostly noise.
  if (elapsed_ms < 200 || sent == 0) return line + "  --/s  --:-- left";
  double rate = static_cast<double>(sent) * 1000.0 / static_cast<double>(elapsed_ms);
  line += "  " + ctl_human_bytes(static_cast<uint64_t>(rate)) + "/s";
  uint64_t left = static_cast<uint64_t>(static_cast<double>(total - sent) / rate + 0.5);
  if (left >= 3600)
    snprintf(buffer, sizeof buffer, "  %llu:%02llu:%02llu left", static_cast<unsigned long long>(left / 3600),
             static_cast<unsigned long long>(left / 60 % 60), static_cast<unsigned long long>(left % 60));
  else
    snprintf(buffer, sizeof buffer, "  %llu:%02llu left", static_cast<unsigned long long>(left / 60),
             static_cast<unsigned long long>(left % 60));
  return line + buffer;
}

std::string ctl_seconds(uint32_t milliseconds) {
  char buffer[32];
  int length = snprintf(buffer, sizeof buffer, "%u.%03u", milliseconds / 1000, milliseconds % 1000);
  // Trailing zeros of the fraction, and a bare point, say nothing.
  while (buffer[length - 1] == '0') buffer[--length] = '\0';
  if (buffer[length - 1] == '.') buffer[--length] = '\0';
  return std::string(buffer) + " s";
}

std::string ctl_human_duration(uint64_t seconds) {
  char buffer[48];
  auto count = [](uint64_t value) { return static_cast<unsigned long long>(value); };
  if (seconds < 60) snprintf(buffer, sizeof buffer, "%llus", count(seconds));
  else if (seconds < 3600) snprintf(buffer, sizeof buffer, "%llum%02llus", count(seconds / 60), count(seconds % 60));
  else if (seconds < 86400) snprintf(buffer, sizeof buffer, "%lluh%02llum", count(seconds / 3600), count(seconds / 60 % 60));
  else snprintf(buffer, sizeof buffer, "%llud%02lluh", count(seconds / 86400), count(seconds / 3600 % 24));
  return buffer;
}
