/* Files built into taviweb (the console's pages, the description of the protocol): tables of
 * byte arrays generated at build time by cmake/taviweb_embed.cmake, and their answers. Nothing
 * is read from disk at run time. Each file carries a strong ETag computed from its bytes, so
 * that a browser's reload of an unchanged file costs a 304 without a body. */

#ifndef TAVIWEB_FILES_H
#define TAVIWEB_FILES_H

#include <stddef.h>

#include <string>

#include "taviweb_request.h"

typedef struct taviweb_file_t {
  const char* name;         /* the file's name, without folder */
  const char* content_type; /* from the name's extension */
  const unsigned char* bytes;
  size_t size;
  const char* etag; /* quoted, as sent in the ETag header */
} taviweb_file_t;

typedef struct taviweb_files_t {
  const taviweb_file_t* rows;
  size_t count;
} taviweb_files_t;

/* The console's files, from taviweb/www/. */
extern const taviweb_files_t taviweb_www;

/* The file a path names: "/<name>", and "/" for index.html; NULL when there is none. */
const taviweb_file_t* taviweb_file_find(const taviweb_files_t& files, const std::string& path);

/* Whether an If-None-Match header names the ETag (or is "*"): its list of tags, weak ones
 * compared by their opaque part, as a browser's conditional GET compares them. */
bool taviweb_file_unchanged(const std::string& if_none_match, const char* etag);

/* The answer to a GET of the file: the bytes with their content type, Cache-Control: no-cache
 * (a browser asks again each time, and pays a 304 when the file did not change) and the ETag;
 * a 304 without a body when the request's If-None-Match names the ETag. */
taviweb_response_t taviweb_file_response(const taviweb_file_t& file, const taviweb_request_t& request);

#endif
