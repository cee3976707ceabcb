// Text for people and for other programs: the UTF-8 rule, and names of any
// bytes made safe as JSON strings. The daemon's status snapshot and the
// client both write names that may hold any byte but a zero.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The length of the valid UTF-8 sequence at the start of `text`, or 0 when it
// starts with none (an overlong form, a surrogate, a value beyond Unicode, a
// stray or cut-short byte). Empty text gives 0.
size_t text_utf8_sequence(std::string_view text);
// True when the whole of `text` is valid UTF-8.
bool text_utf8_valid(std::string_view text);
// Appends `text` as a JSON string literal, quotes included: valid UTF-8
// passes through, quotes, backslashes and control bytes are escaped, and each
// byte that is not part of valid UTF-8 becomes \ufffd, so that any text gives
// valid JSON.
void text_append_json(std::string* out, std::string_view text);
