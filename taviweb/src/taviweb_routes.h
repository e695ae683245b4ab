/* What taviweb serves: the table of routes, and the checks every request meets before its
 * route's handler sees it (authentication, path, method, size, the route's own header checks).
 * A route is one row: new pages and endpoints are new rows. */

#ifndef TAVIWEB_ROUTES_H
#define TAVIWEB_ROUTES_H

#include <stddef.h>

#include <memory>
#include <optional>
#include <string>

#include "taviweb_auth.h"
#include "taviweb_request.h"
#include "taviweb_stats.h"
#include "taviweb_status.h"
#include "taviweb_tavid.h"

/* Everything the handlers work with. auth is NULL when no authentication is asked for. */
typedef struct taviweb_app_t {
  taviweb_auth_t* auth;
  taviweb_tavid_t* tavid;
  taviweb_status_t* status;
  taviweb_stats_t* stats;
} taviweb_app_t;

typedef struct taviweb_route_t {
  const char* method; /* "GET" serves HEAD too */
  const char* path;
  bool open;          /* served without authentication */
  size_t body_max;    /* the largest body taken, in bytes */
  /* Checks of the headers before the body is read (NULL: none): the refusal, or nothing. */
  std::optional<taviweb_response_t> (*admit)(const taviweb_request_t& request);
  /* The answer, once the whole body is in. */
  void (*handle)(taviweb_app_t* app, const taviweb_request_t& request,
                 const std::shared_ptr<taviweb_responder_t>& responder);
} taviweb_route_t;

typedef struct taviweb_routes_t {
  const taviweb_route_t* rows;
  size_t count;
} taviweb_routes_t;

/* taviweb's own routes. */
extern const taviweb_routes_t taviweb_routes;

/* The headers' verdict on a request: its route when admitted, else the refusal. */
typedef struct taviweb_admission_t {
  const taviweb_route_t* route = NULL;
  std::optional<taviweb_response_t> refusal;
} taviweb_admission_t;

/* In this order: authentication (every path but the open routes', unknown paths included),
 * 404 for an unknown path, 405 for a method the path does not take, 413 for a Content-Length
 * above the route's body_max, then the route's own checks. */
taviweb_admission_t taviweb_route_admit(taviweb_app_t* app, const taviweb_routes_t& routes,
                                        const taviweb_request_t& request);

/* The route's body is in: 413 when it grew past body_max, else its handler's answer. */
void taviweb_route_handle(taviweb_app_t* app, const taviweb_route_t* route, const taviweb_request_t& request,
                          bool too_large, const std::shared_ptr<taviweb_responder_t>& responder);

/* The path a request is counted under: the table's when it has the path, else "other" (unknown
 * paths are not kept one by one, so that nobody can make the metrics grow without end). */
const char* taviweb_route_label(const taviweb_routes_t& routes, const std::string& path);

#endif
