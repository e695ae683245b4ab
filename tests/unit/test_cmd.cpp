#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <string>

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
