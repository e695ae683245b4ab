#include "taviweb_files.h"

#include <string.h>

namespace {

#define TAVIWEB_FILE_INDEX "index.html"
#define TAVIWEB_FILE_SPACE " \t"

/* One entry of an If-None-Match list, without the spaces around it and a weak tag's W/. */
std::string taviweb_file_tag(const std::string& list, size_t begin, size_t end) {
  size_t first = list.find_first_not_of(TAVIWEB_FILE_SPACE, begin);
  if (first == std::string::npos || first >= end) return "";
  size_t last = list.find_last_not_of(TAVIWEB_FILE_SPACE, end - 1);
  std::string tag = list.substr(first, last + 1 - first);
  if (tag.compare(0, 2, "W/") == 0) tag.erase(0, 2);
  return tag;
}

}  // namespace

const taviweb_file_t* taviweb_file_find(const taviweb_files_t& files, const std::string& path) {
  if (path.empty() || path[0] != '/') return NULL;
  const char* name = path == "/" ? TAVIWEB_FILE_INDEX : path.c_str() + 1;
  for (size_t n = 0; n < files.count; n++) {
    if (strcmp(files.rows[n].name, name) == 0) return &files.rows[n];
  }
  return NULL;
}

bool taviweb_file_unchanged(const std::string& if_none_match, const char* etag) {
  size_t begin = 0;
  while (begin <= if_none_match.size()) {
    size_t end = if_none_match.find(',', begin);
    if (end == std::string::npos) end = if_none_match.size();
    std::string tag = taviweb_file_tag(if_none_match, begin, end);
    if (tag == "*" || tag == etag) return true;
    begin = end + 1;
  }
  return false;
}

taviweb_response_t taviweb_file_response(const taviweb_file_t& file, const taviweb_request_t& request) {
  taviweb_response_t response;
  response.content_type = file.content_type;
  response.cache_control = "no-cache";
  response.headers.emplace_back("ETag", file.etag);
  if (request.if_none_match && taviweb_file_unchanged(*request.if_none_match, file.etag)) {
    response.status = 304;
    return response;
  }
  response.body.assign(reinterpret_cast<const char*>(file.bytes), file.size);
  return response;
}
