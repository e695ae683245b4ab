#include "taviweb_request.h"

#include "tavid_json.h"

taviweb_response_t taviweb_error(unsigned status, const std::string& message) {
  json_ptr body(json_pack("{s:s}", "error", message.c_str()));
  text_ptr text(body ? json_dumps(body.get(), JSON_COMPACT) : NULL);
  taviweb_response_t response;
  response.status = status;
  response.body = text ? text.get() : "{}";
  return response;
}
