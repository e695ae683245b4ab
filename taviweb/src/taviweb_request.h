/* One HTTP request as taviweb's routes see it, and what they answer. */

#ifndef TAVIWEB_REQUEST_H
#define TAVIWEB_REQUEST_H

#include <stdint.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#define TAVIWEB_JSON_TYPE "application/json"

typedef struct taviweb_request_t {
  std::string method;
  std::string path;
  /* The headers taviweb reads; a header that was not sent is empty (not given). */
  std::optional<std::string> host;
  std::optional<std::string> origin;
  std::optional<std::string> content_type;
  std::optional<std::string> authorization;
  std::optional<std::string> if_none_match;
  std::optional<uint64_t> content_length;
  std::string body;
} taviweb_request_t;

typedef struct taviweb_response_t {
  unsigned status = 200;
  std::string content_type = TAVIWEB_JSON_TYPE;
  std::string cache_control = "no-store"; /* answers of the box are never kept */
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
} taviweb_response_t;

/* Where a route puts its answer, once, from whichever thread has it. */
class taviweb_responder_t {
 public:
  taviweb_responder_t() = default;
  taviweb_responder_t(const taviweb_responder_t&) = delete;
  taviweb_responder_t& operator=(const taviweb_responder_t&) = delete;
  virtual ~taviweb_responder_t() = default;
  virtual void send(taviweb_response_t response) = 0;
};

/* A small JSON answer saying what went wrong: {"error":"..."}. */
taviweb_response_t taviweb_error(unsigned status, const std::string& message);

#endif
