#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <string>

#include "inet.h"

namespace {

std::string warning_line(const std::string& function) {
  return "\x1B[33mtavid [WRN]: Warning in function '" + function + "' [line ";
}

uint16_t port_of(int sock) {
  struct sockaddr_in addr;
  socklen_t len = sizeof(addr);
  getsockname(sock, reinterpret_cast<struct sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

TEST(Inet, PortToString) {
  char text[INET_PORT_STR_LEN];
  EXPECT_STREQ(inet_port_to_string(text, 65535), "65535");
  EXPECT_STREQ(inet_port_to_string(text, 0), "0");
  EXPECT_STREQ(inet_port_to_string(text, 49999), "49999");
}

TEST(Inet, ClosingMinusOneIsQuiet) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(inet_close_socket(-1), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Inet, ServerSocketListensWithTheGivenFlags) {
  int sock = inet_create_tcp_server_socket("0", O_NONBLOCK);
  ASSERT_GE(sock, 0);
  EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
  EXPECT_NE(port_of(sock), 0);
  EXPECT_EQ(inet_close_socket(sock), 0);
}

TEST(Inet, APortInUseCannotBeBound) {
  int first = inet_create_tcp_server_socket("0", 0);
  ASSERT_GE(first, 0);
  std::string port = std::to_string(port_of(first));
  testing::internal::CaptureStderr();
  EXPECT_EQ(inet_create_tcp_server_socket(port.c_str(), 0), -1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind(warning_line("inet_create_tcp_server_socket"), 0), 0u) << err;
  EXPECT_NE(err.find("]:\n\r\tCould not bind socket\x1B[0m\n\r"), std::string::npos) << err;
  inet_close_socket(first);
}

TEST(Inet, ClientConnectsAndServerAccepts) {
  int server = inet_create_tcp_server_socket("0", 0);
  ASSERT_GE(server, 0);
  std::string port = std::to_string(port_of(server));
  int client = inet_create_tcp_client_socket("127.0.0.1", port.c_str(), O_NONBLOCK);
  ASSERT_GE(client, 0);
  EXPECT_TRUE(fcntl(client, F_GETFL) & O_NONBLOCK);
  int accepted = inet_accept_tcp_client(server, NULL, NULL, 0);
  ASSERT_GE(accepted, 0);
  EXPECT_EQ(write(client, "x", 1), 1);
  char c = 0;
  EXPECT_EQ(read(accepted, &c, 1), 1);
  EXPECT_EQ(c, 'x');
  inet_close_socket(accepted);
  inet_close_socket(client);
  inet_close_socket(server);
}

TEST(Inet, ClientToAClosedPortWarns) {
  int server = inet_create_tcp_server_socket("0", 0);
  std::string port = std::to_string(port_of(server));
  inet_close_socket(server);
  testing::internal::CaptureStderr();
  EXPECT_EQ(inet_create_tcp_client_socket("127.0.0.1", port.c_str(), 0), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not connect socket"), std::string::npos);
}

TEST(Inet, AnIpv6OnlyHostGivesMinusOneQuietly) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(inet_create_tcp_client_socket("::1", "1", 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Inet, AnUnknownHostWarns) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(inet_create_tcp_client_socket("no such host.invalid", "1", 0), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not get address info"), std::string::npos);
}

}  // namespace
