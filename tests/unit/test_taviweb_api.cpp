#include <errno.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "taviweb_api.h"
#include "taviweb_test_support.h"

namespace {

taviweb_request_t api_request(const char* content_type, const char* origin = nullptr,
                              const char* host = "127.0.0.1:8080") {
  taviweb_request_t request;
  request.method = "POST";
  request.path = "/api";
  if (content_type != nullptr) request.content_type = content_type;
  if (origin != nullptr) request.origin = origin;
  if (host != nullptr) request.host = host;
  return request;
}

void expect_refusal(const std::optional<taviweb_response_t>& refusal, unsigned status, const std::string& body) {
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->status, status);
  EXPECT_EQ(refusal->content_type, "application/json");
  EXPECT_EQ(refusal->body, body);
}

class TaviwebApi : public testing::Test {
 protected:
  void SetUp() override { fake_tavid.reset(); }
  taviweb_response_t forward(const std::string& body) {
    auto caught = std::make_shared<caught_t>();
    taviweb_api_forward(&tavid_, body, caught);
    return caught->wait();
  }
  taviweb_stats_t stats_;
  taviweb_tavid_t tavid_{tavid_client_t(), &stats_, fake_exchange};
};

TEST(TaviwebApiAdmit, TheBodyMustBeSentAsJson) {
  for (const char* type : {"application/json", "application/json; charset=utf-8", "Application/JSON",
                           " application/json ;x=1"}) {
    EXPECT_FALSE(taviweb_api_admit(api_request(type)).has_value()) << type;
  }
  for (const char* type : {"", "text/plain", "application/jsonx", "application/json-patch+json",
                           "multipart/form-data; boundary=x", "application/x-www-form-urlencoded"}) {
    expect_refusal(taviweb_api_admit(api_request(type)), 415,
                   "{\"error\":\"the body must be sent as Content-Type: application/json\"}");
  }
  expect_refusal(taviweb_api_admit(api_request(nullptr)), 415,
                 "{\"error\":\"the body must be sent as Content-Type: application/json\"}");
}

TEST(TaviwebApiAdmit, AnOriginMustNameThisSite) {
  EXPECT_FALSE(taviweb_api_admit(api_request("application/json")).has_value());
  EXPECT_FALSE(taviweb_api_admit(api_request("application/json", "http://127.0.0.1:8080")).has_value());
  EXPECT_FALSE(taviweb_api_admit(api_request("application/json", "https://127.0.0.1:8080")).has_value());
  EXPECT_FALSE(taviweb_api_admit(api_request("application/json", "http://Box7:8080", "box7:8080")).has_value());
  for (const char* origin : {"http://evil.example", "http://127.0.0.1:8081", "http://127.0.0.1", "null", "",
                             "http://127.0.0.1:8080/", "ftp://127.0.0.1:8080"}) {
    expect_refusal(taviweb_api_admit(api_request("application/json", origin)), 403,
                   "{\"error\":\"requests from another site are refused\"}");
  }
  expect_refusal(taviweb_api_admit(api_request("application/json", "http://127.0.0.1:8080", nullptr)), 403,
                 "{\"error\":\"requests from another site are refused\"}");
}

TEST(TaviwebApiBody, OnlyOneJsonObjectIsTaken) {
  for (const char* body : {"{}", "{\"action\":\"get\"}", " {\"a\":[1,2]} \n"}) {
    EXPECT_FALSE(taviweb_api_check_body(body).has_value()) << body;
  }
  for (const char* body : {"[]", "\"get\"", "1", "null"}) {
    expect_refusal(taviweb_api_check_body(body), 400, "{\"error\":\"the body is not a JSON object\"}");
  }
  expect_refusal(taviweb_api_check_body(""), 400,
                 "{\"error\":\"the body is not JSON: unexpected token near end of file\"}");
  expect_refusal(taviweb_api_check_body("{} {}"), 400, "{\"error\":\"the body is not JSON: end of file expected near '{'\"}");
  expect_refusal(taviweb_api_check_body(std::string("{\"a\":\"\0\"}", 9)), 400,
                 "{\"error\":\"the body is not JSON: control character 0x0 near '\\\"'\"}");
}

TEST_F(TaviwebApi, TheDaemonsReplyComesBackByteForByte) {
  const std::string request = "{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}";
  fake_tavid.replies[request] = "{\"result\":{\"output_mode\":\"rf\",\"device_id\":\"0\"}}";
  taviweb_response_t response = forward(request);
  EXPECT_EQ(response.status, 200u);
  EXPECT_EQ(response.content_type, "application/json");
  EXPECT_EQ(response.body, "{\"result\":{\"output_mode\":\"rf\",\"device_id\":\"0\"}}");
  EXPECT_EQ(fake_tavid.taken(), std::vector<std::string>{request});
}

TEST_F(TaviwebApi, RepliesThatAreNotJsonPassToo) {
  fake_tavid.replies["{}"] = "not json";
  EXPECT_EQ(forward("{}").body, "not json");
}

TEST_F(TaviwebApi, NoAnswerFromTheDaemonIs502) {
  fake_tavid.failure = {TAVID_CLIENT_CONNECT_ERR, ECONNREFUSED};
  taviweb_response_t response = forward("{}");
  EXPECT_EQ(response.status, 502u);
  EXPECT_EQ(response.body,
            "{\"error\":\"tavid did not answer: cannot reach tavid at 127.0.0.1 port 49999 (Connection refused)\"}");
}

TEST_F(TaviwebApi, AConnectionClosedWithoutAReplyIs502) {
  fake_tavid.replies["{}"] = "";
  taviweb_response_t response = forward("{}");
  EXPECT_EQ(response.status, 502u);
  EXPECT_EQ(response.body, "{\"error\":\"tavid closed the connection without a reply\"}");
}

TEST_F(TaviwebApi, RequestsWaitingWhenTaviwebStopsAre503) {
  fake_tavid.hold();
  auto first = std::make_shared<caught_t>();
  auto second = std::make_shared<caught_t>();
  taviweb_api_forward(&tavid_, "{\"n\":1}", first);
  taviweb_api_forward(&tavid_, "{\"n\":2}", second);
  fake_tavid.wait_held(1);
  tavid_.stop();
  EXPECT_EQ(first->wait().body, "{\"error\":\"taviweb is stopping\"}");
  EXPECT_EQ(first->wait().status, 503u);
  EXPECT_EQ(second->wait().status, 503u);
  EXPECT_EQ(fake_tavid.taken(), std::vector<std::string>{"{\"n\":1}"});
}

}  // namespace
