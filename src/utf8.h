#ifndef UTF8_H
#define UTF8_H

#include <stddef.h>

/* Texts are UTF-8 wherever they come from (JSON requests, the modules). A text cut to a number of
 * bytes is cut between characters, never inside one; a text that is still not valid (a corrupted
 * module's) is repaired before it goes into a reply. */

/* Bytes that one U+FFFD replacement character takes. */
#define UTF8_REPLACEMENT_LEN 3

/* The length of the longest start of `text` (`length` bytes) that holds at most `max` bytes and
 * does not end inside a character. */
size_t utf8_cut(const char* text, size_t length, size_t max);

/* Copies `from` into `to` (`size` bytes, at least 1), cut as utf8_cut says to what `to` holds
 * with its NUL; nothing past the NUL is written. The two may overlap. Returns the length copied. */
size_t utf8_copy(char* to, size_t size, const char* from);

/* The length of the start of `text` that is valid UTF-8: `length` when all of it is. */
size_t utf8_valid_length(const char* text, size_t length);

/* Writes `text` (`length` bytes) into `out` with every byte that is no part of a valid character
 * replaced by U+FFFD, and a NUL; `out` holds UTF8_REPLACEMENT_LEN * length + 1 bytes. Returns the
 * length written. */
size_t utf8_repair(char* out, const char* text, size_t length);

#endif
