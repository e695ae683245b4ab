#include "taviweb_routes.h"

#include <string.h>

#include "taviweb_api.h"
#include "taviweb_files.h"
#include "taviweb_metrics.h"
#include "taviweb_schema.h"
#include "taviweb_www_routes.h"

namespace {

#define TAVIWEB_REALM "Basic realm=\"taviweb\", charset=\"UTF-8\""

void taviweb_route_api(taviweb_app_t* app, const taviweb_request_t& request,
                       const std::shared_ptr<taviweb_responder_t>& responder) {
  std::optional<taviweb_response_t> refusal = taviweb_api_check_body(request.body);
  if (refusal) {
    responder->send(std::move(*refusal));
    return;
  }
  taviweb_api_forward(app->tavid, request.body, responder);
}

void taviweb_route_status(taviweb_app_t* app, const taviweb_request_t&,
                          const std::shared_ptr<taviweb_responder_t>& responder) {
  taviweb_status_t* status = app->status;
  status->get([status, responder](const std::shared_ptr<const taviweb_round_t>& round) {
    taviweb_response_t response;
    response.body = taviweb_status_document(*round, status->interval_s(), status->now());
    responder->send(std::move(response));
  });
}

void taviweb_route_metrics(taviweb_app_t* app, const taviweb_request_t&,
                           const std::shared_ptr<taviweb_responder_t>& responder) {
  taviweb_stats_t* stats = app->stats;
  app->status->get([stats, responder](const std::shared_ptr<const taviweb_round_t>& round) {
    taviweb_response_t response;
    response.content_type = TAVIWEB_METRICS_CONTENT_TYPE;
    response.body = taviweb_metrics_render(*round, stats->snapshot());
    responder->send(std::move(response));
  });
}

/* A file of the console: the route's path names it. */
void taviweb_route_www(taviweb_app_t*, const taviweb_request_t& request,
                       const std::shared_ptr<taviweb_responder_t>& responder) {
  responder->send(taviweb_file_response(*taviweb_file_find(taviweb_www, request.path), request));
}

void taviweb_route_schema(taviweb_app_t*, const taviweb_request_t& request,
                          const std::shared_ptr<taviweb_responder_t>& responder) {
  responder->send(taviweb_file_response(taviweb_schema.rows[0], request));
}

const taviweb_route_t taviweb_route_rows[] = {
    {"POST", "/api", false, TAVIWEB_API_BODY_MAX, taviweb_api_admit, taviweb_route_api},
    {"GET", "/api/status", false, 0, NULL, taviweb_route_status},
    {"GET", "/metrics", true, 0, NULL, taviweb_route_metrics},
    {"GET", "/api/schema", false, 0, NULL, taviweb_route_schema},
    TAVIWEB_WWW_ROUTES(taviweb_route_www)
};

bool taviweb_route_takes(const taviweb_route_t& route, const std::string& method) {
  return method == route.method || (method == "HEAD" && strcmp(route.method, "GET") == 0);
}

/* The methods a path takes, for the Allow header of a 405. */
std::string taviweb_route_allow(const taviweb_routes_t& routes, const std::string& path) {
  std::string allow;
  for (size_t n = 0; n < routes.count; n++) {
    const taviweb_route_t& route = routes.rows[n];
    if (path != route.path) continue;
    if (!allow.empty()) allow += ", ";
    allow += route.method;
    if (strcmp(route.method, "GET") == 0) allow += ", HEAD";
  }
  return allow;
}

/* Whether the path is served without authentication. */
bool taviweb_route_open(const taviweb_routes_t& routes, const std::string& path) {
  for (size_t n = 0; n < routes.count; n++) {
    if (path == routes.rows[n].path && routes.rows[n].open) return true;
  }
  return false;
}

taviweb_response_t taviweb_route_too_large(const taviweb_route_t* route) {
  return taviweb_error(413, "the body is larger than " + std::to_string(route->body_max) + " bytes");
}

taviweb_admission_t taviweb_route_refuse(taviweb_response_t response) {
  taviweb_admission_t admission;
  admission.refusal = std::move(response);
  return admission;
}

}  // namespace

const taviweb_routes_t taviweb_routes = {taviweb_route_rows, sizeof(taviweb_route_rows) / sizeof(taviweb_route_rows[0])};

taviweb_admission_t taviweb_route_admit(taviweb_app_t* app, const taviweb_routes_t& routes,
                                        const taviweb_request_t& request) {
  if (app->auth != NULL && !taviweb_route_open(routes, request.path) &&
      !app->auth->allows(request.authorization ? request.authorization->c_str() : NULL)) {
    taviweb_response_t refusal = taviweb_error(401, "authentication required");
    refusal.headers.emplace_back("WWW-Authenticate", TAVIWEB_REALM);
    return taviweb_route_refuse(std::move(refusal));
  }
  std::string allow = taviweb_route_allow(routes, request.path);
  if (allow.empty()) return taviweb_route_refuse(taviweb_error(404, "no such path"));
  taviweb_admission_t admission;
  for (size_t n = 0; n < routes.count && admission.route == NULL; n++) {
    if (request.path == routes.rows[n].path && taviweb_route_takes(routes.rows[n], request.method)) {
      admission.route = &routes.rows[n];
    }
  }
  if (admission.route == NULL) {
    taviweb_response_t refusal = taviweb_error(405, "method not allowed; allowed: " + allow);
    refusal.headers.emplace_back("Allow", allow);
    return taviweb_route_refuse(std::move(refusal));
  }
  if (request.content_length && *request.content_length > admission.route->body_max) {
    return taviweb_route_refuse(taviweb_route_too_large(admission.route));
  }
  if (admission.route->admit != NULL) admission.refusal = admission.route->admit(request);
  return admission;
}

void taviweb_route_handle(taviweb_app_t* app, const taviweb_route_t* route, const taviweb_request_t& request,
                          bool too_large, const std::shared_ptr<taviweb_responder_t>& responder) {
  if (too_large) {
    responder->send(taviweb_route_too_large(route));
    return;
  }
  route->handle(app, request, responder);
}

const char* taviweb_route_label(const taviweb_routes_t& routes, const std::string& path) {
  for (size_t n = 0; n < routes.count; n++) {
    if (path == routes.rows[n].path) return routes.rows[n].path;
  }
  return "other";
}
