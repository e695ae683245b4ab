#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "taviweb_http.h"
#include "taviweb_test_support.h"

namespace {

/* The answers the "/later" route leaves for the test to give. */
struct later_t {
  std::mutex mutex;
  std::condition_variable arrived;
  std::shared_ptr<taviweb_responder_t> responder;
  std::string body;
};
later_t later;

void handle_now(taviweb_app_t*, const taviweb_request_t& request,
                const std::shared_ptr<taviweb_responder_t>& responder) {
  taviweb_response_t response;
  response.content_type = "text/plain";
  response.body = request.method + " " + request.path + " " + std::to_string(request.body.size());
  response.headers.emplace_back("X-Test", "now");
  /* A conditional request: its tag is read, and the answer may be kept by the browser. */
  if (request.if_none_match) {
    response.cache_control = "no-cache";
    response.headers.emplace_back("X-If-None-Match", *request.if_none_match);
  }
  responder->send(std::move(response));
}

void handle_later(taviweb_app_t*, const taviweb_request_t& request,
                  const std::shared_ptr<taviweb_responder_t>& responder) {
  std::lock_guard<std::mutex> lock(later.mutex);
  later.responder = responder;
  later.body = request.body;
  later.arrived.notify_all();
}

const taviweb_route_t test_rows[] = {
    {"GET", "/now", true, 0, nullptr, handle_now},
    {"POST", "/now", true, 16, nullptr, handle_now},
    {"POST", "/later", true, 64, nullptr, handle_later},
};
const taviweb_routes_t test_routes = {test_rows, 3};

/* Waits for the "/later" request and takes its responder. */
std::shared_ptr<taviweb_responder_t> take_later() {
  std::unique_lock<std::mutex> lock(later.mutex);
  later.arrived.wait(lock, [] { return later.responder != nullptr; });
  std::shared_ptr<taviweb_responder_t> taken = std::move(later.responder);
  later.responder = nullptr;
  return taken;
}

int connect_to(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)), 0);
  return fd;
}

void send_text(int fd, const std::string& text) {
  EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

std::string read_until_closed(int fd) {
  std::string text;
  char chunk[4096];
  ssize_t count;
  while ((count = recv(fd, chunk, sizeof(chunk), 0)) > 0) text.append(chunk, static_cast<size_t>(count));
  close(fd);
  return text;
}

/* The status line and the body of a response. */
std::string status_line(const std::string& response) { return response.substr(0, response.find("\r\n")); }
std::string body_of(const std::string& response) {
  size_t end = response.find("\r\n\r\n");
  return end == std::string::npos ? "" : response.substr(end + 4);
}

class TaviwebHttp : public testing::Test {
 protected:
  void SetUp() override {
    fake_tavid.reset();
    listen_.text = "127.0.0.1:0";
    auto* addr = reinterpret_cast<struct sockaddr_in*>(&listen_.addr);
    addr->sin_family = AF_INET;
    addr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listen_.length = sizeof(*addr);
    std::string error;
    int fd = taviweb_http_listen(listen_, &error);
    ASSERT_GE(fd, 0) << error;
    socklen_t length = sizeof(*addr);
    getsockname(fd, reinterpret_cast<struct sockaddr*>(addr), &length);
    port_ = ntohs(addr->sin_port);
    ASSERT_TRUE(http_.start(fd, &error)) << error;
  }
  std::string exchange(const std::string& request) const {
    int fd = connect_to(port_);
    send_text(fd, request);
    return read_until_closed(fd);
  }
  taviweb_listen_t listen_;
  uint16_t port_ = 0;
  taviweb_stats_t stats_;
  taviweb_tavid_t tavid_{tavid_client_t(), &stats_, fake_exchange};
  taviweb_status_t status_{&tavid_, 5.0};
  taviweb_app_t app_{nullptr, &tavid_, &status_, &stats_};
  taviweb_http_t http_{&app_, test_routes, false};
};

TEST_F(TaviwebHttp, TheIfNoneMatchHeaderReachesTheRouteAndItsCacheControlTheClient) {
  std::string response =
      exchange("GET /now HTTP/1.1\r\nHost: x\r\nIf-None-Match: \"ab\", W/\"c\"\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(status_line(response), "HTTP/1.1 200 OK");
  EXPECT_NE(response.find("\r\nX-If-None-Match: \"ab\", W/\"c\"\r\n"), std::string::npos) << response;
  EXPECT_NE(response.find("\r\nCache-Control: no-cache\r\n"), std::string::npos) << response;
  EXPECT_EQ(response.find("no-store"), std::string::npos) << response;
}

TEST_F(TaviwebHttp, ARouteAnswersWithItsStatusTypeHeadersAndBody) {
  std::string response = exchange("GET /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(status_line(response), "HTTP/1.1 200 OK");
  EXPECT_NE(response.find("\r\nContent-Type: text/plain\r\n"), std::string::npos) << response;
  EXPECT_NE(response.find("\r\nX-Test: now\r\n"), std::string::npos) << response;
  EXPECT_NE(response.find("\r\nCache-Control: no-store\r\n"), std::string::npos) << response;
  EXPECT_EQ(body_of(response), "GET /now 0");
  response = exchange("GET /nothing HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(status_line(response), "HTTP/1.1 404 Not Found");
  EXPECT_EQ(body_of(response), "{\"error\":\"no such path\"}");
}

TEST_F(TaviwebHttp, BodiesAreTakenWholeUpToTheRoutesLimitAlsoInChunks) {
  std::string response = exchange("POST /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: 16\r\n\r\n"
                                  "0123456789abcdef");
  EXPECT_EQ(body_of(response), "POST /now 16");
  response = exchange("POST /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n\r\n"
                      "8\r\n01234567\r\n8\r\n89abcdef\r\n0\r\n\r\n");
  EXPECT_EQ(body_of(response), "POST /now 16");
  response = exchange("POST /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n\r\n"
                      "8\r\n01234567\r\n9\r\n89abcdefg\r\n0\r\n\r\n");
  EXPECT_EQ(status_line(response), "HTTP/1.1 413 Content Too Large");
  EXPECT_EQ(body_of(response), "{\"error\":\"the body is larger than 16 bytes\"}");
  response = exchange("POST /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: 17\r\n\r\n");
  EXPECT_EQ(status_line(response), "HTTP/1.1 413 Content Too Large");
}

TEST_F(TaviwebHttp, AnAnswerGivenLaterFromAnotherThreadReachesItsClientWhileOthersAreServed) {
  int waiting = connect_to(port_);
  send_text(waiting, "POST /later HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: 2\r\n\r\n{}");
  std::shared_ptr<taviweb_responder_t> responder = take_later();
  EXPECT_EQ(later.body, "{}");
  /* Meanwhile a client that sends half a request, and one that sends a whole one. */
  int slow = connect_to(port_);
  send_text(slow, "GET /now HTTP/1.1\r\nHo");
  EXPECT_EQ(body_of(exchange("GET /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")), "GET /now 0");
  std::thread answer([responder] {
    taviweb_response_t response;
    response.status = 502;
    response.body = "{\"error\":\"late\"}";
    responder->send(std::move(response));
  });
  answer.join();
  std::string response = read_until_closed(waiting);
  EXPECT_EQ(status_line(response), "HTTP/1.1 502 Bad Gateway");
  EXPECT_EQ(body_of(response), "{\"error\":\"late\"}");
  send_text(slow, "st: x\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(body_of(read_until_closed(slow)), "GET /now 0");
}

TEST_F(TaviwebHttp, StoppingWaitsForTheAnswersOfSuspendedRequests) {
  int waiting = connect_to(port_);
  send_text(waiting, "POST /later HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: 2\r\n\r\n{}");
  std::shared_ptr<taviweb_responder_t> responder = take_later();
  std::thread stopper([this] { http_.stop(); });
  taviweb_response_t response;
  response.body = "{\"last\":1}";
  responder->send(std::move(response));
  stopper.join();
  EXPECT_EQ(body_of(read_until_closed(waiting)), "{\"last\":1}");
}

TEST_F(TaviwebHttp, AnsweredRequestsAreCountedByRouteAndStatus) {
  exchange("GET /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  exchange("GET /elsewhere HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  exchange("PUT /now HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  http_.stop();
  taviweb_stats_snapshot_t counts = stats_.snapshot();
  EXPECT_EQ((counts.http[{"/now", 200}]), 1u);
  EXPECT_EQ((counts.http[{"other", 404}]), 1u);
  EXPECT_EQ((counts.http[{"/now", 405}]), 1u);
  EXPECT_EQ(counts.http.size(), 3u);
}

TEST_F(TaviwebHttp, AnAddressInUseIsNamed) {
  taviweb_listen_t taken = listen_;
  reinterpret_cast<struct sockaddr_in*>(&taken.addr)->sin_port = htons(port_);
  taken.text = "127.0.0.1:" + std::to_string(port_);
  std::string error;
  EXPECT_EQ(taviweb_http_listen(taken, &error), -1);
  EXPECT_EQ(error, "cannot listen on " + taken.text + " (Address already in use)");
}

}  // namespace
