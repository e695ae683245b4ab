#include "taviweb_api.h"

#include <ctype.h>

#include "tavid_json.h"

namespace {

std::string taviweb_api_lower(const std::string& text) {
  std::string lower;
  for (char c : text) lower += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::string taviweb_api_trim(const std::string& text) {
  size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/* The media type without its parameters ("application/json; charset=utf-8"). */
bool taviweb_api_is_json(const std::optional<std::string>& content_type) {
  if (!content_type) return false;
  return taviweb_api_lower(taviweb_api_trim(content_type->substr(0, content_type->find(';')))) == TAVIWEB_JSON_TYPE;
}

/* No Origin (a script or curl), or the origin of the page the request came from is this site. */
bool taviweb_api_same_origin(const taviweb_request_t& request) {
  if (!request.origin) return true;
  if (!request.host || request.host->empty()) return false;
  std::string origin = taviweb_api_lower(*request.origin);
  std::string host = taviweb_api_lower(*request.host);
  return origin == "http://" + host || origin == "https://" + host;
}

}  // namespace

std::optional<taviweb_response_t> taviweb_api_admit(const taviweb_request_t& request) {
  if (!taviweb_api_is_json(request.content_type)) {
    return taviweb_error(415, "the body must be sent as Content-Type: application/json");
  }
  if (!taviweb_api_same_origin(request)) return taviweb_error(403, "requests from another site are refused");
  return std::nullopt;
}

std::optional<taviweb_response_t> taviweb_api_check_body(const std::string& body) {
  json_error_t error;
  json_ptr request(json_loadb(body.data(), body.size(), JSON_DECODE_ANY, &error));
  if (!request) return taviweb_error(400, std::string("the body is not JSON: ") + error.text);
  if (!json_is_object(request.get())) return taviweb_error(400, "the body is not a JSON object");
  return std::nullopt;
}

void taviweb_api_forward(taviweb_tavid_t* tavid, const std::string& body,
                         const std::shared_ptr<taviweb_responder_t>& responder) {
  tavid->push([body, responder](const taviweb_link_t& link) {
    taviweb_response_t response;
    tavid_client_failure_t failure = link.exchange(body, &response.body);
    if (failure.err == TAVID_CLIENT_CANCELLED) {
      response = taviweb_error(503, "taviweb is stopping");
    } else if (failure.err != TAVID_CLIENT_OK) {
      response = taviweb_error(502, "tavid did not answer: " + link.describe(failure));
    } else if (response.body.empty()) {
      response = taviweb_error(502, "tavid closed the connection without a reply");
    }
    responder->send(std::move(response));
  });
}
