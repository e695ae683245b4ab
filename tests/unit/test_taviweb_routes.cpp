#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "taviweb_files.h"
#include "taviweb_routes.h"
#include "taviweb_schema.h"
#include "taviweb_test_support.h"

namespace {

/* openssl passwd -6 -salt unitsalt 'open sesame' */
const char kOperator[] =
    "operator:$6$unitsalt$pscaa4I8r1/Sl8hhzuo3TvpVmcaY5w4qcfIWCIthXngckSoTVfEj6DLgbzUl8vVo3Kka1C/d7e3xB6TNb4r6Y1";
const char kRight[] = "Basic b3BlcmF0b3I6b3BlbiBzZXNhbWU="; /* operator:open sesame */
const char kWrong[] = "Basic b3BlcmF0b3I6b3BlbiBzZXNhbWY="; /* operator:open sesamf */

taviweb_request_t request(const char* method, const char* path) {
  taviweb_request_t made;
  made.method = method;
  made.path = path;
  made.host = "127.0.0.1:8080";
  return made;
}

taviweb_request_t api(const char* content_type = "application/json") {
  taviweb_request_t made = request("POST", "/api");
  made.content_type = content_type;
  return made;
}

class TaviwebRoutes : public testing::Test {
 protected:
  void SetUp() override { fake_tavid.reset(); }
  taviweb_admission_t admit(const taviweb_request_t& made) { return taviweb_route_admit(&app_, taviweb_routes, made); }
  void expect_route(const taviweb_request_t& made, const char* method, const char* path) {
    taviweb_admission_t admission = admit(made);
    ASSERT_NE(admission.route, nullptr) << made.method << " " << made.path;
    EXPECT_STREQ(admission.route->method, method);
    EXPECT_STREQ(admission.route->path, path);
    EXPECT_FALSE(admission.refusal.has_value()) << admission.refusal->body;
  }
  void expect_refusal(const taviweb_request_t& made, unsigned status, const std::string& body) {
    taviweb_admission_t admission = admit(made);
    ASSERT_TRUE(admission.refusal.has_value()) << made.method << " " << made.path;
    EXPECT_EQ(admission.refusal->status, status);
    EXPECT_EQ(admission.refusal->body, body);
  }
  void use_auth() {
    std::string error;
    ASSERT_TRUE(auth_.add(kOperator, &error)) << error;
    app_.auth = &auth_;
  }
  taviweb_auth_t auth_;
  taviweb_stats_t stats_;
  taviweb_tavid_t tavid_{tavid_client_t(), &stats_, fake_exchange};
  taviweb_status_t status_{&tavid_, 5.0};
  taviweb_app_t app_{nullptr, &tavid_, &status_, &stats_};
};

TEST_F(TaviwebRoutes, TheTableServesTheApiItsStatusAndTheMetrics) {
  /* and the description of the protocol, and the console: a row per file, and "/" for its index */
  ASSERT_EQ(taviweb_routes.count, 4u + taviweb_www.count + 1u);
  expect_route(api(), "POST", "/api");
  expect_route(request("GET", "/api/status"), "GET", "/api/status");
  expect_route(request("HEAD", "/api/status"), "GET", "/api/status");
  expect_route(request("GET", "/metrics"), "GET", "/metrics");
  EXPECT_EQ(taviweb_routes.rows[0].body_max, 65536u);
  EXPECT_EQ(taviweb_routes.rows[1].body_max, 0u);
  EXPECT_FALSE(taviweb_routes.rows[1].open);
  EXPECT_TRUE(taviweb_routes.rows[2].open);
}

TEST_F(TaviwebRoutes, TheDescriptionOfTheProtocolIsBuiltInBehindTheAuthentication) {
  expect_route(request("GET", "/api/schema"), "GET", "/api/schema");
  auto caught = std::make_shared<caught_t>();
  taviweb_route_handle(&app_, admit(request("GET", "/api/schema")).route, request("GET", "/api/schema"), false,
                       caught);
  taviweb_response_t response = caught->wait();
  EXPECT_EQ(response.status, 200u);
  EXPECT_EQ(response.content_type, "application/json");
  EXPECT_EQ(response.cache_control, "no-cache");
  EXPECT_EQ(response.body.rfind("{\"objects\":[{\"name\":\"device_status\",\"id\":\"device_id\"", 0), 0u);
  EXPECT_EQ(response.headers, (std::vector<std::pair<std::string, std::string>>{{"ETag", taviweb_schema.rows[0].etag}}));
  use_auth();
  expect_refusal(request("GET", "/api/schema"), 401, "{\"error\":\"authentication required\"}");
  EXPECT_TRUE(fake_tavid.taken().empty());
}

TEST_F(TaviwebRoutes, EveryFileOfTheConsoleIsARouteBehindTheAuthentication) {
  expect_route(request("GET", "/"), "GET", "/");
  expect_route(request("HEAD", "/"), "GET", "/");
  for (size_t n = 0; n < taviweb_www.count; n++) {
    std::string path = std::string("/") + taviweb_www.rows[n].name;
    expect_route(request("GET", path.c_str()), "GET", path.c_str());
    auto caught = std::make_shared<caught_t>();
    taviweb_route_handle(&app_, admit(request("GET", path.c_str())).route, request("GET", path.c_str()), false,
                         caught);
    taviweb_response_t response = caught->wait();
    EXPECT_EQ(response.status, 200u);
    EXPECT_EQ(response.body, std::string(reinterpret_cast<const char*>(taviweb_www.rows[n].bytes),
                                         taviweb_www.rows[n].size));
  }
  expect_refusal(request("POST", "/"), 405, "{\"error\":\"method not allowed; allowed: GET, HEAD\"}");
  use_auth();
  expect_refusal(request("GET", "/index.html"), 401, "{\"error\":\"authentication required\"}");
  taviweb_request_t authorized = request("GET", "/");
  authorized.authorization = kRight;
  expect_route(authorized, "GET", "/");
  auto caught = std::make_shared<caught_t>();
  taviweb_route_handle(&app_, admit(authorized).route, authorized, false, caught);
  const taviweb_file_t* index = taviweb_file_find(taviweb_www, "/index.html");
  ASSERT_NE(index, nullptr);
  EXPECT_EQ(caught->wait().body, std::string(reinterpret_cast<const char*>(index->bytes), index->size));
  EXPECT_TRUE(fake_tavid.taken().empty());
}

TEST_F(TaviwebRoutes, UnknownPathsAndMethods) {
  expect_refusal(request("GET", "/index"), 404, "{\"error\":\"no such path\"}");
  expect_refusal(request("GET", "/index.html/"), 404, "{\"error\":\"no such path\"}");
  expect_refusal(request("GET", "/api/"), 404, "{\"error\":\"no such path\"}");
  expect_refusal(request("GET", "/metrics/x"), 404, "{\"error\":\"no such path\"}");
  expect_refusal(request("GET", "/api"), 405, "{\"error\":\"method not allowed; allowed: POST\"}");
  taviweb_admission_t refused = admit(request("POST", "/metrics"));
  ASSERT_TRUE(refused.refusal.has_value());
  EXPECT_EQ(refused.refusal->status, 405u);
  EXPECT_EQ(refused.refusal->body, "{\"error\":\"method not allowed; allowed: GET, HEAD\"}");
  EXPECT_EQ(refused.refusal->headers,
            (std::vector<std::pair<std::string, std::string>>{{"Allow", "GET, HEAD"}}));
  expect_refusal(request("DELETE", "/api/status"), 405, "{\"error\":\"method not allowed; allowed: GET, HEAD\"}");
}

TEST_F(TaviwebRoutes, BodiesPastTheRoutesLimitAre413) {
  taviweb_request_t largest = api();
  largest.content_length = 65536;
  expect_route(largest, "POST", "/api");
  taviweb_request_t larger = api();
  larger.content_length = 65537;
  expect_refusal(larger, 413, "{\"error\":\"the body is larger than 65536 bytes\"}");
  taviweb_request_t get = request("GET", "/metrics");
  get.content_length = 1;
  expect_refusal(get, 413, "{\"error\":\"the body is larger than 0 bytes\"}");
  auto caught = std::make_shared<caught_t>();
  taviweb_route_handle(&app_, &taviweb_routes.rows[0], api(), true, caught);
  EXPECT_EQ(caught->wait().status, 413u);
  EXPECT_EQ(caught->wait().body, "{\"error\":\"the body is larger than 65536 bytes\"}");
  EXPECT_TRUE(fake_tavid.taken().empty());
}

TEST_F(TaviwebRoutes, TheRoutesOwnChecksComeLast) {
  expect_refusal(api("text/plain"), 415, "{\"error\":\"the body must be sent as Content-Type: application/json\"}");
  taviweb_request_t foreign = api();
  foreign.origin = "http://evil.example";
  expect_refusal(foreign, 403, "{\"error\":\"requests from another site are refused\"}");
}

TEST_F(TaviwebRoutes, WithAuthenticationEveryPathButTheMetricsNeedsTheRightPassword) {
  use_auth();
  for (const char* path : {"/api/status", "/", "/nope", "/api"}) {
    for (const char* authorization : {static_cast<const char*>(nullptr), kWrong}) {
      taviweb_request_t made = request("GET", path);
      if (authorization != nullptr) made.authorization = authorization;
      taviweb_admission_t admission = admit(made);
      ASSERT_TRUE(admission.refusal.has_value()) << path;
      EXPECT_EQ(admission.refusal->status, 401u);
      EXPECT_EQ(admission.refusal->body, "{\"error\":\"authentication required\"}");
      EXPECT_EQ(admission.refusal->headers, (std::vector<std::pair<std::string, std::string>>{
                                                {"WWW-Authenticate", "Basic realm=\"taviweb\", charset=\"UTF-8\""}}));
      EXPECT_EQ(admission.route, nullptr);
    }
  }
  expect_route(request("GET", "/metrics"), "GET", "/metrics");
  taviweb_request_t authorized = request("GET", "/api/status");
  authorized.authorization = kRight;
  expect_route(authorized, "GET", "/api/status");
  authorized.path = "/nope";
  expect_refusal(authorized, 404, "{\"error\":\"no such path\"}");
}

TEST_F(TaviwebRoutes, TheApiRouteChecksTheBodyBeforeSendingIt) {
  fake_tavid.replies["{\"action\":\"get\"}"] = "{\"errorCode\":5002}";
  auto refused = std::make_shared<caught_t>();
  taviweb_request_t made = api();
  made.body = "[]";
  taviweb_route_handle(&app_, &taviweb_routes.rows[0], made, false, refused);
  EXPECT_EQ(refused->wait().status, 400u);
  auto sent = std::make_shared<caught_t>();
  made.body = "{\"action\":\"get\"}";
  taviweb_route_handle(&app_, &taviweb_routes.rows[0], made, false, sent);
  EXPECT_EQ(sent->wait().body, "{\"errorCode\":5002}");
  EXPECT_EQ(fake_tavid.taken(), std::vector<std::string>{"{\"action\":\"get\"}"});
}

TEST_F(TaviwebRoutes, StatusAndMetricsAnswerFromTheSameRound) {
  auto status = std::make_shared<caught_t>();
  taviweb_route_handle(&app_, &taviweb_routes.rows[1], request("GET", "/api/status"), false, status);
  taviweb_response_t document = status->wait();
  EXPECT_EQ(document.content_type, "application/json");
  EXPECT_EQ(document.body.rfind("{\"up\":true,\"age\":", 0), 0u) << document.body;
  auto metrics = std::make_shared<caught_t>();
  taviweb_route_handle(&app_, &taviweb_routes.rows[2], request("GET", "/metrics"), false, metrics);
  taviweb_response_t text = metrics->wait();
  EXPECT_EQ(text.content_type, "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_EQ(text.body.rfind("# HELP tavi_up Whether tavid answered the last status round (1) or not (0).\n"
                            "# TYPE tavi_up gauge\ntavi_up 1\n",
                            0),
            0u)
      << text.body;
  EXPECT_EQ(fake_tavid.taken().size(), 3u); /* one round for both */
}

TEST(TaviwebRouteLabel, UnknownPathsAreCountedTogether) {
  EXPECT_STREQ(taviweb_route_label(taviweb_routes, "/api"), "/api");
  EXPECT_STREQ(taviweb_route_label(taviweb_routes, "/metrics"), "/metrics");
  EXPECT_STREQ(taviweb_route_label(taviweb_routes, "/nope"), "other");
  EXPECT_STREQ(taviweb_route_label(taviweb_routes, "/api/"), "other");
}

}  // namespace
