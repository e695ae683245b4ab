/* POST /api: one request of the box's protocol, passed to tavid as it is, and the daemon's reply
 * passed back byte for byte. */

#ifndef TAVIWEB_API_H
#define TAVIWEB_API_H

#include <memory>
#include <optional>

#include "taviweb_request.h"
#include "taviweb_tavid.h"

#define TAVIWEB_API_BODY_MAX 65536U /* 64 KiB */

/* Before the body is read: the content type must be application/json, and an Origin header
 * must name this site (http or https, and the Host the request was sent to), so that a page of
 * another site cannot send requests through a browser. The refusal, or nothing. */
std::optional<taviweb_response_t> taviweb_api_admit(const taviweb_request_t& request);

/* The body must be one JSON object: the refusal, or nothing. */
std::optional<taviweb_response_t> taviweb_api_check_body(const std::string& body);

/* Sends the request to tavid (after every request queued before it) and answers with its reply:
 * 200 with the reply, 502 when tavid did not answer, 503 when taviweb is stopping. */
void taviweb_api_forward(taviweb_tavid_t* tavid, const std::string& body,
                         const std::shared_ptr<taviweb_responder_t>& responder);

#endif
