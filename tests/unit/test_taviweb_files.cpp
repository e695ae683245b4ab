#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "taviweb_files.h"

namespace {

const unsigned char kPage[] = {'<', 'p', '>', 0};
const unsigned char kScript[] = {'x', ';', 0, 'y', 0}; /* bytes, not text: the 0 inside counts */
const taviweb_file_t kRows[] = {
    {"index.html", "text/html; charset=utf-8", kPage, 3, "\"aa\""},
    {"console.js", "text/javascript; charset=utf-8", kScript, 4, "\"bb\""},
};
const taviweb_files_t kFiles = {kRows, 2};

using headers_t = std::vector<std::pair<std::string, std::string>>;

taviweb_request_t get(const char* path) {
  taviweb_request_t made;
  made.method = "GET";
  made.path = path;
  return made;
}

TEST(TaviwebFileFind, TheRootIsTheIndexAndEveryOtherPathItsName) {
  EXPECT_EQ(taviweb_file_find(kFiles, "/"), &kRows[0]);
  EXPECT_EQ(taviweb_file_find(kFiles, "/index.html"), &kRows[0]);
  EXPECT_EQ(taviweb_file_find(kFiles, "/console.js"), &kRows[1]);
  for (const char* path : {"", "console.js", "/console", "/console.js/", "//console.js", "/Console.js"}) {
    EXPECT_EQ(taviweb_file_find(kFiles, path), nullptr) << path;
  }
  const taviweb_files_t none = {kRows, 0};
  EXPECT_EQ(taviweb_file_find(none, "/"), nullptr);
}

TEST(TaviwebFileUnchanged, AnyTagOfTheListOrAStarMatches) {
  EXPECT_TRUE(taviweb_file_unchanged("\"aa\"", "\"aa\""));
  EXPECT_TRUE(taviweb_file_unchanged("*", "\"aa\""));
  EXPECT_TRUE(taviweb_file_unchanged("\"zz\", \"aa\"", "\"aa\""));
  EXPECT_TRUE(taviweb_file_unchanged("\"zz\",\"aa\" ", "\"aa\""));
  EXPECT_TRUE(taviweb_file_unchanged(" W/\"aa\"", "\"aa\""));
  EXPECT_TRUE(taviweb_file_unchanged("\t\"aa\",", "\"aa\""));
  for (const char* header : {"", ",", "\"a\"", "aa", "\"aa", "\"aa\"x", "\"zz\", \"ab\"", "**", "w/\"aa\""}) {
    EXPECT_FALSE(taviweb_file_unchanged(header, "\"aa\"")) << header;
  }
}

TEST(TaviwebFileResponse, TheBytesWithTheirTypeAndTag) {
  taviweb_response_t response = taviweb_file_response(kRows[1], get("/console.js"));
  EXPECT_EQ(response.status, 200u);
  EXPECT_EQ(response.content_type, "text/javascript; charset=utf-8");
  EXPECT_EQ(response.cache_control, "no-cache");
  EXPECT_EQ(response.body, std::string("x;\0y", 4));
  EXPECT_EQ(response.headers, (headers_t{{"ETag", "\"bb\""}}));
}

TEST(TaviwebFileResponse, AMatchingTagIsA304WithoutBody) {
  taviweb_request_t made = get("/");
  made.if_none_match = "\"aa\"";
  taviweb_response_t response = taviweb_file_response(kRows[0], made);
  EXPECT_EQ(response.status, 304u);
  EXPECT_EQ(response.body, "");
  EXPECT_EQ(response.cache_control, "no-cache");
  EXPECT_EQ(response.headers, (headers_t{{"ETag", "\"aa\""}}));
  made.if_none_match = "\"bb\"";
  response = taviweb_file_response(kRows[0], made);
  EXPECT_EQ(response.status, 200u);
  EXPECT_EQ(response.body, "<p>");
}

/* The built-in console is the folder's files, byte for byte. */
TEST(TaviwebWww, EveryFileOfTheFolderIsBuiltInWithItsTypeAndATag) {
  ASSERT_NE(taviweb_file_find(taviweb_www, "/"), nullptr);
  std::vector<std::string> tags;
  for (size_t n = 0; n < taviweb_www.count; n++) {
    const taviweb_file_t& file = taviweb_www.rows[n];
    std::ifstream source(std::string(TAVIWEB_WWW_DIR "/") + file.name, std::ios::binary);
    ASSERT_TRUE(source.is_open()) << file.name;
    std::string bytes((std::istreambuf_iterator<char>(source)), std::istreambuf_iterator<char>());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(file.bytes), file.size), bytes) << file.name;
    std::string etag = file.etag;
    EXPECT_EQ(etag.size(), 34u) << etag;
    EXPECT_EQ(etag.find_first_not_of("0123456789abcdef", 1), 33u) << etag;
    for (const std::string& other : tags) EXPECT_NE(etag, other) << file.name;
    tags.push_back(etag);
  }
}

TEST(TaviwebWww, TheContentTypeFollowsTheExtension) {
  const std::map<std::string, std::string> types = {
      {".html", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".svg", "image/svg+xml"},
      {".json", "application/json"},
      {".png", "image/png"},
      {".ico", "image/x-icon"},
  };
  for (size_t n = 0; n < taviweb_www.count; n++) {
    std::string name = taviweb_www.rows[n].name;
    auto type = types.find(name.substr(name.rfind('.')));
    ASSERT_NE(type, types.end()) << name;
    EXPECT_EQ(taviweb_www.rows[n].content_type, type->second) << name;
  }
  EXPECT_STREQ(taviweb_file_find(taviweb_www, "/")->content_type, "text/html; charset=utf-8");
}

}  // namespace
