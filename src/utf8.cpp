#include "utf8.h"

#include <string.h>

namespace {

/* The bytes that may start a character, with the character's length and the range its second
 * byte must lie in: the well-formed sequences of UTF-8, without overlong forms, surrogates or
 * anything above U+10FFFF (what Jansson accepts, byte for byte). */
struct utf8_lead_t {
  unsigned char first;
  unsigned char last;
  unsigned char length;
  unsigned char second_min;
  unsigned char second_max;
};

constexpr utf8_lead_t utf8_leads[] = {
    {0x00, 0x7F, 1, 0x00, 0x00}, {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

constexpr size_t UTF8_CHAR_MAX = 4;
constexpr char utf8_replacement[] = "\xEF\xBF\xBD";

const utf8_lead_t* utf8_lead(unsigned char byte) {
  for (const utf8_lead_t& lead : utf8_leads) {
    if (byte >= lead.first && byte <= lead.last) return &lead;
  }
  return nullptr;
}

bool utf8_continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

/* The length of the valid character at the start of `s` (`left` bytes), or 0 when none is. */
size_t utf8_char_length(const unsigned char* s, size_t left) {
  const utf8_lead_t* lead = utf8_lead(s[0]);
  if (lead == nullptr || lead->length > left) return 0;
  if (lead->length == 1) return 1;
  if (s[1] < lead->second_min || s[1] > lead->second_max) return 0;
  for (size_t i = 2; i < lead->length; i++) {
    if (!utf8_continuation(s[i])) return 0;
  }
  return lead->length;
}

}  // namespace

/* Only the first `max` bytes are read: the last character that starts among them is dropped when
 * it needs more bytes than are left. Bytes that start no character are left as they are. */
size_t utf8_cut(const char* text, size_t length, size_t max) {
  if (length <= max) return length;
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
  size_t start = max;
  while (start > 0 && max - start < UTF8_CHAR_MAX) {
    if (!utf8_continuation(s[--start])) break;
  }
  const utf8_lead_t* lead = utf8_lead(s[start]);
  if (start == max || lead == nullptr || lead->length <= max - start) return max;
  return start;
}

size_t utf8_copy(char* to, size_t size, const char* from) {
  const size_t length = utf8_cut(from, strnlen(from, size), size - 1);
  memmove(to, from, length);
  to[length] = '\0';
  return length;
}

/* Every reply text passes here, nearly all of it ASCII: those bytes are taken without a look-up. */
size_t utf8_valid_length(const char* text, size_t length) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
  size_t valid = 0;
  while (valid < length) {
    size_t n = s[valid] < 0x80 ? 1 : utf8_char_length(s + valid, length - valid);
    if (n == 0) break;
    valid += n;
  }
  return valid;
}

size_t utf8_repair(char* out, const char* text, size_t length) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
  size_t written = 0;
  for (size_t read = 0; read < length;) {
    size_t n = utf8_char_length(s + read, length - read);
    if (n == 0) {
      memcpy(out + written, utf8_replacement, UTF8_REPLACEMENT_LEN);
      written += UTF8_REPLACEMENT_LEN;
      read++;
    } else {
      memcpy(out + written, text + read, n);
      written += n;
      read += n;
    }
  }
  out[written] = '\0';
  return written;
}
