#include <gtest/gtest.h>
#include <jansson.h>
#include <string.h>

#include <ostream>
#include <string>
#include <vector>

#include "utf8.h"

namespace {

size_t cut(const std::string& text, size_t max) { return utf8_cut(text.data(), text.size(), max); }

std::string repaired(const std::string& text) {
  std::string out(UTF8_REPLACEMENT_LEN * text.size() + 1, 'x');
  size_t length = utf8_repair(out.data(), text.data(), text.size());
  EXPECT_EQ(out[length], '\0');
  return out.substr(0, length);
}

const std::string replacement = "\xEF\xBF\xBD";

/* A cut of `text` to `max` bytes, and the length it keeps. */
struct cut_case_t {
  std::string text;
  size_t max;
  size_t length;
};

void PrintTo(const cut_case_t& c, std::ostream* os) {
  *os << testing::PrintToString(c.text) << " to " << c.max;
}

class Utf8Cut : public ::testing::TestWithParam<cut_case_t> {};

TEST_P(Utf8Cut, KeepsWholeCharacters) {
  const cut_case_t& c = GetParam();
  EXPECT_EQ(cut(c.text, c.max), c.length);
}

INSTANTIATE_TEST_SUITE_P(Cuts, Utf8Cut,
                         ::testing::Values(
                             /* A text that fits is not cut. */
                             cut_case_t{"ABCDEFGHIJKLMNO", 15, 15},
                             cut_case_t{"ABCDEFGHIJKLMN\xC3\xA9", 16, 16}, cut_case_t{"", 0, 0},
                             /* A cut inside a character drops the whole character: two bytes, three (U+20AC)
                              * and four (U+1F600), cut after each of their bytes. */
                             cut_case_t{"ABCDEFGHIJKLMN\xC3\xA9", 15, 14}, cut_case_t{"\xC3\xA9", 1, 0},
                             cut_case_t{"AB\xE2\x82\xAC", 3, 2}, cut_case_t{"AB\xE2\x82\xAC", 4, 2},
                             cut_case_t{"AB\xE2\x82\xACZ", 5, 5}, cut_case_t{"A\xF0\x9F\x98\x80", 2, 1},
                             cut_case_t{"A\xF0\x9F\x98\x80", 3, 1}, cut_case_t{"A\xF0\x9F\x98\x80", 4, 1},
                             cut_case_t{"A\xF0\x9F\x98\x80Z", 5, 5},
                             /* A cut between characters stays where it is. */
                             cut_case_t{"\xC3\xA9\xC3\xA9\xC3\xA9", 4, 4},
                             cut_case_t{"ABCDEFGHIJKLMNOP", 15, 15}, cut_case_t{"\xC3\xA9", 0, 0},
                             /* Bytes that start no character are no character to keep whole. */
                             cut_case_t{"AB\x80\x80\x80\x80\x80", 6, 6}, cut_case_t{"AB\xFF\x80", 3, 3},
                             cut_case_t{"\x80\x80", 1, 1},
                             /* The byte after the limit would say that the character goes on; only the lead
                              * byte's length counts, and no byte beyond the limit is read. */
                             cut_case_t{"A\xC3Z", 2, 1}));

TEST(Utf8, CopyCutsToTheBufferBetweenCharacters) {
  char to[16];
  memset(to, 'x', sizeof(to));
  EXPECT_EQ(utf8_copy(to, sizeof(to), "ABCDEFGHIJKLMN\xC3\xA9"), 14u);
  EXPECT_STREQ(to, "ABCDEFGHIJKLMN");
  EXPECT_EQ(to[15], 'x') << "nothing past the NUL is written";
  EXPECT_EQ(utf8_copy(to, sizeof(to), "ABCDEFGHIJKLM\xC3\xA9"), 15u);
  EXPECT_STREQ(to, "ABCDEFGHIJKLM\xC3\xA9");
  EXPECT_EQ(utf8_copy(to, 1, "A"), 0u);
  EXPECT_STREQ(to, "");
}

TEST(Utf8, CopyMayOverlap) {
  char text[] = "\xC3\xA9\xC3\xA9\xC3\xA9";
  EXPECT_EQ(utf8_copy(text, 4, text), 2u);
  EXPECT_STREQ(text, "\xC3\xA9");
}

TEST(Utf8, ValidTextIsValidToItsEnd) {
  const std::string text = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
  EXPECT_EQ(utf8_valid_length(text.data(), text.size()), text.size());
  EXPECT_EQ(utf8_valid_length("", 0), 0u);
}

TEST(Utf8, TheValidStartEndsAtTheFirstInvalidByte) {
  const struct {
    std::string text;
    size_t valid;
  } cases[] = {
      {"AB\xC3", 2},            /* a character cut short */
      {"AB\xC3Z", 2},           /* a lead byte without its continuation */
      {"AB\x80", 2},            /* a continuation byte alone */
      {"A\xC0\x80", 1},         /* an overlong NUL */
      {"A\xE0\x9F\xBF", 1},     /* an overlong three-byte form */
      {"A\xF0\x8F\xBF\xBF", 1}, /* an overlong four-byte form */
      {"A\xED\xA0\x80", 1},     /* a surrogate */
      {"A\xF4\x90\x80\x80", 1}, /* above U+10FFFF */
      {"A\xF5\x80\x80\x80", 1}, /* a byte that never starts a character */
      {"A\xFF", 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(utf8_valid_length(c.text.data(), c.text.size()), c.valid) << c.text;
  }
}

/* Replies take a valid text without a second check: what is valid here must be what Jansson takes,
 * byte for byte. Every sequence of one and two bytes, and three- and four-byte sequences with every
 * lead and second byte and the telling values of the bytes after them. */
bool jansson_takes(const std::string& text) {
  json_t* value = json_stringn(text.data(), text.size());
  json_decref(value);
  return value != nullptr;
}

bool valid(const std::string& text) { return utf8_valid_length(text.data(), text.size()) == text.size(); }

TEST(Utf8, ValidIsWhatJanssonTakes) {
  const std::vector<int> after = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
  std::vector<std::string> texts;
  for (int first = 0; first < 256; first++) {
    texts.emplace_back(1, static_cast<char>(first));
    for (int second = 0; second < 256; second++) {
      const std::string two = {static_cast<char>(first), static_cast<char>(second)};
      texts.push_back(two);
      if (first < 0xE0) continue;
      for (int third : after) {
        texts.push_back(two + static_cast<char>(third));
        if (first < 0xF0) continue;
        for (int fourth : after) texts.push_back(two + static_cast<char>(third) + static_cast<char>(fourth));
      }
    }
  }
  size_t disagreements = 0;
  for (const std::string& text : texts) {
    if (valid(text) != jansson_takes(text) && disagreements++ < 10)
      ADD_FAILURE() << testing::PrintToString(text);
  }
  EXPECT_EQ(disagreements, 0u);
}

TEST(Utf8, RepairLeavesValidTextAsItIs) {
  EXPECT_EQ(repaired("HDMI 1 \xC3\xA9\xE2\x82\xAC"), "HDMI 1 \xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(repaired(""), "");
}

TEST(Utf8, RepairReplacesEveryInvalidByte) {
  EXPECT_EQ(repaired("ABCDEFGHIJKLMN\xC3"), "ABCDEFGHIJKLMN" + replacement);
  EXPECT_EQ(repaired("A\xFFZ\xFE"), "A" + replacement + "Z" + replacement);
  EXPECT_EQ(repaired("\xE2\x82Z"), replacement + replacement + "Z");
  EXPECT_EQ(repaired("\xED\xA0\x80"), replacement + replacement + replacement);
  EXPECT_EQ(repaired(std::string("\x80\x80\x80\x80", 4)),
            replacement + replacement + replacement + replacement);
}

TEST(Utf8, RepairKeepsANulByteOfTheGivenLength) {
  EXPECT_EQ(repaired(std::string("A\0B", 3)), std::string("A\0B", 3));
}

}  // namespace
