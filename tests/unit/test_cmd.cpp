#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cmd.h"
#include "hal_test_support.h"
#include "inet.h"

namespace {

using hal_test::without_lines;
using hal_test::wrn;

cmd_t closed_channel(uint16_t port) {
  cmd_t cmd = {CMD_FRMT_JSON, CMD_IF_TCP, {{-1, port}}, "cmd-json", CMD_OK};
  return cmd;
}

uint16_t bound_port(int sock) {
  struct sockaddr_in addr;
  socklen_t len = sizeof(addr);
  getsockname(sock, reinterpret_cast<struct sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

TEST(Cmd, StrerrorTexts) {
  cmd_t cmd = closed_channel(0);
  const char* texts[] = {"Command ok",
                         "Command invalid handle",
                         "Command interface error",
                         "Command interface type unknown",
                         "Command format unknown",
                         "Command format handler error",
                         "Command buffer error"};
  for (int err = 0; err <= CMD_BUF_ERR; err++) {
    cmd.err = static_cast<cmd_err_t>(err);
    EXPECT_STREQ(cmd_strerror(&cmd), texts[err]);
  }
  cmd.err = static_cast<cmd_err_t>(42);
  EXPECT_STREQ(cmd_strerror(&cmd), "Command error: 42");
  cmd.err = static_cast<cmd_err_t>(-3);
  EXPECT_STREQ(cmd_strerror(&cmd), "Command error: -3");
}

TEST(Cmd, NullHandles) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(cmd_open(NULL), CMD_HANDLE_ERR);
  EXPECT_EQ(cmd_close(NULL), CMD_HANDLE_ERR);
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()),
            wrn("cmd_open", "Invalid handle") + wrn("cmd_close", "Invalid handle"));
}

TEST(Cmd, UnknownInterfaceType) {
  cmd_t cmd = closed_channel(0);
  cmd.if_type = static_cast<cmd_if_t>(1);
  EXPECT_EQ(cmd_open(&cmd), CMD_IF_TYPE_UNKNOWN);
  EXPECT_EQ(cmd_poll(&cmd, 0), CMD_IF_TYPE_UNKNOWN);
  EXPECT_EQ(cmd_close(&cmd), CMD_IF_TYPE_UNKNOWN);
  EXPECT_EQ(cmd.err, CMD_IF_TYPE_UNKNOWN);
}

TEST(Cmd, NoPendingClientReturnsAtOnce) {
  cmd_t cmd = closed_channel(0);
  ASSERT_EQ(cmd_open(&cmd), CMD_OK);
  struct timespec before;
  struct timespec after;
  clock_gettime(CLOCK_MONOTONIC, &before);
  EXPECT_EQ(cmd_poll(&cmd, 0), CMD_OK);
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_LT(after.tv_sec - before.tv_sec, 2);
  EXPECT_EQ(cmd_close(&cmd), CMD_OK);
  EXPECT_EQ(cmd.if_tcp.srv_sock, -1);
}

TEST(Cmd, ATakenPortCannotBeOpened) {
  int taken = inet_create_tcp_server_socket("0", 0);
  ASSERT_GE(taken, 0);
  cmd_t cmd = closed_channel(bound_port(taken));
  testing::internal::CaptureStderr();
  EXPECT_EQ(cmd_open(&cmd), CMD_IF_ERR);
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()),
            wrn("inet_create_tcp_server_socket", "Could not bind socket") +
                wrn("cmd_open", "cmd-json - Could not open TCP command interface on port " +
                                    std::to_string(cmd.if_tcp.port)));
  EXPECT_EQ(cmd.if_tcp.srv_sock, -1);
  EXPECT_EQ(cmd_close(&cmd), CMD_OK); /* closing a channel that never opened is harmless */
  inet_close_socket(taken);
}

/* An open channel and a client connected to it, not yet accepted. */
class CmdClient : public ::testing::Test {
 protected:
  cmd_t cmd = closed_channel(0);
  int client = -1;

  void SetUp() override {
    ASSERT_EQ(cmd_open(&cmd), CMD_OK);
    connect_client();
  }
  void TearDown() override {
    if (client >= 0) inet_close_socket(client);
    cmd_close(&cmd);
  }
  void connect_client() {
    if (client >= 0) inet_close_socket(client);
    std::string port = std::to_string(bound_port(cmd.if_tcp.srv_sock));
    client = inet_create_tcp_client_socket("127.0.0.1", port.c_str(), 0);
    ASSERT_GE(client, 0);
  }
  /* What the client receives until the daemon closes; a reset ends it too. */
  std::string reply() const {
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = recv(client, buf, sizeof(buf), 0)) > 0) text.append(buf, static_cast<size_t>(n));
    return text;
  }
  /* One poll serving the client: its result and the warnings it printed. */
  std::pair<cmd_err_t, std::string> serve() {
    testing::internal::CaptureStderr();
    cmd_err_t err = cmd_poll(&cmd, 1000);
    return {err, testing::internal::GetCapturedStderr()};
  }
  std::string poll(cmd_err_t expected) {
    std::pair<cmd_err_t, std::string> served = serve();
    EXPECT_EQ(served.first, expected);
    return served.second;
  }
};

double seconds_since(const struct timespec& since) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec - since.tv_sec) +
         static_cast<double>(now.tv_nsec - since.tv_nsec) / 1e9;
}

/* A client that keeps sending: spaces from four threads, each one every 5 ms, until the channel
 * closes the connection or 15 s have passed. Several, so that the request keeps arriving when a
 * loaded machine holds one of them off the processor for longer than the channel's 50 ms of
 * silence; max_gap() tells how long the request still went without a byte. */
class Trickle {
 public:
  explicit Trickle(int sock) {
    clock_gettime(CLOCK_MONOTONIC, &started_);
    for (std::vector<double>& times : times_) {
      senders_.emplace_back([this, sock, &times] {
        while (seconds_since(started_) < 15) {
          if (send(sock, " ", 1, MSG_NOSIGNAL) != 1) {
            cut_off_ = true;
            return;
          }
          times.push_back(seconds_since(started_));
          usleep(5000);
        }
      });
    }
  }
  void join() {
    for (std::thread& sender : senders_) sender.join();
  }
  bool cut_off() const { return cut_off_; }
  double max_gap() const {
    std::vector<double> all = {0.0};
    for (const std::vector<double>& times : times_) all.insert(all.end(), times.begin(), times.end());
    std::sort(all.begin(), all.end());
    double gap = 0;
    for (size_t at = 1; at < all.size(); at++) gap = std::max(gap, all[at] - all[at - 1]);
    return gap;
  }

 private:
  struct timespec started_ = {0, 0};
  std::vector<double> times_[4];
  std::vector<std::thread> senders_;
  std::atomic<bool> cut_off_{false};
};

/* The warning text of cmd_poll, without the line number. */
std::string poll_warning(const std::string& text) {
  return "\x1B[33mtavid [WRN]: Warning in function 'cmd_poll' [line ]:\n\r\t" + text + "\x1B[0m\n\r";
}

std::string without_line_numbers(std::string text) {
  for (size_t at = text.find("[line "); at != std::string::npos; at = text.find("[line ", at + 6)) {
    size_t end = text.find(']', at);
    text.erase(at + 6, end - at - 6);
  }
  return text;
}

const char INVALID[] = "{\"errorCode\":5002,\"description\":\"JSON command is invalid (JSON object)\"}";

/* Writes `size` bytes of `fill` as fast as the daemon takes them, stopping when it closes. */
std::thread stream_bytes(int sock, size_t size, char fill, std::atomic<size_t>* sent) {
  return std::thread([sock, size, fill, sent] {
    std::string chunk(65536, fill);
    while (*sent < size) {
      ssize_t n = send(sock, chunk.data(), std::min(chunk.size(), size - *sent), MSG_NOSIGNAL);
      if (n <= 0) return;
      *sent += static_cast<size_t>(n);
    }
  });
}

TEST_F(CmdClient, ARequestOfOneMebibyteIsAnswered) {
  std::atomic<size_t> sent{0};
  std::thread writer = stream_bytes(client, CMD_TCP_REQUEST_MAX_LEN, 'y', &sent);
  EXPECT_EQ(poll(CMD_OK), "");
  writer.join();
  EXPECT_EQ(sent, 1048576u);
  EXPECT_EQ(reply(), INVALID);
}

TEST_F(CmdClient, ARequestLongerThanOneMebibyteIsDroppedUnanswered) {
  std::atomic<size_t> sent{0};
  std::thread writer = stream_bytes(client, 64u << 20, 'y', &sent);
  std::string warnings = poll(CMD_BUF_ERR);
  EXPECT_EQ(without_line_numbers(warnings),
            poll_warning("cmd-json - Request larger than 1048576 bytes, dropped"));
  /* The daemon stopped reading: the writer learns of the close long before its end. */
  writer.join();
  EXPECT_LT(sent, 64u << 20);
  EXPECT_EQ(reply(), "");
}

/* Tried again while the trickle stalled: then the channel rightly took the request as ended. */
TEST_F(CmdClient, ARequestStillArrivingAfterFiveSecondsIsDroppedUnanswered) {
  const int tries = 5;
  for (int attempt = 0; attempt < tries; attempt++) {
    if (attempt > 0) connect_client();
    struct timespec before;
    clock_gettime(CLOCK_MONOTONIC, &before);
    Trickle trickle(client);
    std::pair<cmd_err_t, std::string> served = serve();
    double took = seconds_since(before);
    trickle.join();
    SCOPED_TRACE("try " + std::to_string(attempt) + ": " + std::to_string(took) + " s, longest gap " +
                 std::to_string(trickle.max_gap()) + " s");
    if (trickle.max_gap() >= 0.045) continue;
    EXPECT_EQ(served.first, CMD_IF_ERR);
    EXPECT_EQ(without_line_numbers(served.second),
              poll_warning("cmd-json - Request still arriving after 5 s, dropped"));
    EXPECT_GE(took, 5.0);
    EXPECT_TRUE(trickle.cut_off());
    EXPECT_EQ(reply(), "");
    return;
  }
  FAIL() << "the client could not keep sending without a pause of 45 ms in " << tries << " tries";
}

/* The request, then a space every 10 ms for 3 s: read whole. */
TEST_F(CmdClient, ARequestThatEndsWithinFiveSecondsIsAnswered) {
  const std::string request = "{\"action\":\"get\"}";
  ASSERT_EQ(send(client, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
  struct timespec started;
  clock_gettime(CLOCK_MONOTONIC, &started);
  std::thread spaces([this, &started] {
    while (seconds_since(started) < 3 && send(client, " ", 1, MSG_NOSIGNAL) == 1) usleep(10000);
  });
  EXPECT_EQ(poll(CMD_OK), "");
  spaces.join();
  EXPECT_EQ(reply(),
            "{\"errorCode\":5002,\"description\":\"JSON command requires valid arguments (JSON object)\"}");
}

/* A client that sends and closes its socket: the zero-length reads count as silence, so the
 * request is taken as it is and the poll ends. */
TEST_F(CmdClient, AClientThatClosesAfterItsRequestIsServedAsSilence) {
  const char request[] = "[]";
  ASSERT_EQ(send(client, request, 2, 0), 2);
  inet_close_socket(client);
  client = -1;
  std::string warnings = poll(CMD_OK);
  EXPECT_EQ(warnings.find("dropped"), std::string::npos) << warnings;
}

TEST(Cmd, OneRequestOneReplyThenClosed) {
  cmd_t cmd = closed_channel(0);
  ASSERT_EQ(cmd_open(&cmd), CMD_OK);
  std::string port = std::to_string(bound_port(cmd.if_tcp.srv_sock));
  int client = inet_create_tcp_client_socket("127.0.0.1", port.c_str(), 0);
  ASSERT_GE(client, 0);
  const char request[] = "{\"action\":\"get\"}";
  ASSERT_EQ(send(client, request, sizeof(request) - 1, 0), static_cast<ssize_t>(sizeof(request) - 1));
  EXPECT_EQ(cmd_poll(&cmd, 1000), CMD_OK);
  std::string reply;
  char buf[256];
  ssize_t n;
  while ((n = recv(client, buf, sizeof(buf), 0)) > 0) reply.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(reply,
            "{\"errorCode\":5002,\"description\":\"JSON command requires valid arguments (JSON object)\"}");
  inet_close_socket(client);
  cmd_close(&cmd);
}

}  // namespace
