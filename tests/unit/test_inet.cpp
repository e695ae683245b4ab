#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
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

bool close_on_exec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

/* No program that the daemon runs (the streaming child, a shell command) inherits a socket. */
TEST(Inet, EverySocketIsClosedOnExec) {
  int server = inet_create_tcp_server_socket("0", O_NONBLOCK);
  ASSERT_GE(server, 0);
  EXPECT_TRUE(close_on_exec(server));
  std::string port = std::to_string(port_of(server));
  int client = inet_create_tcp_client_socket("127.0.0.1", port.c_str(), 0);
  ASSERT_GE(client, 0);
  EXPECT_TRUE(close_on_exec(client));
  struct pollfd ready = {server, POLLIN, 0};
  ASSERT_EQ(poll(&ready, 1, 5000), 1);
  int accepted = inet_accept_tcp_client(server, NULL, NULL, 1);
  ASSERT_GE(accepted, 0);
  EXPECT_TRUE(close_on_exec(accepted));
  inet_close_socket(accepted);
  inet_close_socket(client);
  inet_close_socket(server);
}

/* What the child of the IPv6-only test reports. */
enum ipv6_only_result : char {
  IPV6_ONLY_LISTENS_ON_THE_IPV4_WILDCARD = 'W',
  IPV6_ONLY_NO_NAMESPACE = 'N',
  IPV6_ONLY_LOOKUP_GIVES_IPV4 = '4',
  IPV6_ONLY_NO_SOCKET = '-',
  IPV6_ONLY_OTHER_ADDRESS = '?',
};

bool write_file(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && written;
}

/* A network namespace of its own: directly when the process may make one (under qemu-arm, whose
 * threads keep it from a user namespace, that is the only way), else as root of a user namespace
 * of its own, as `unshare -rn` makes it, so that the commands it runs may configure that network. */
bool enter_own_network() {
  if (unshare(CLONE_NEWNET) == 0) return true;
  const std::string uid = std::to_string(getuid());
  const std::string gid = std::to_string(getgid());
  return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && write_file("/proc/self/setgroups", "deny") &&
         write_file("/proc/self/uid_map", "0 " + uid + " 1") &&
         write_file("/proc/self/gid_map", "0 " + gid + " 1");
}

/* A network whose only addresses are the loopback ones and an IPv6 address that is not loopback:
 * what a box has while DHCP has not given it its IPv4 address yet. */
bool enter_ipv6_only_network() {
  if (!enter_own_network()) return false;
  return system(
             "PATH=/usr/sbin:/sbin:/usr/bin:/bin; ip link set lo up && ip -6 addr add 2001:db8::1/128 dev lo "
             ">/dev/null 2>&1") == 0;
}

bool passive_lookup_gives_ipv4() {
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_flags = AI_PASSIVE | AI_ADDRCONFIG;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = NULL;
  if (getaddrinfo(NULL, "0", &hints, &list) != 0) return false;
  bool ipv4 = false;
  for (struct addrinfo* ai = list; ai != NULL; ai = ai->ai_next) ipv4 = ipv4 || ai->ai_family == AF_INET;
  freeaddrinfo(list);
  return ipv4;
}

ipv6_only_result listen_without_ipv4() {
  if (!enter_ipv6_only_network()) return IPV6_ONLY_NO_NAMESPACE;
  if (passive_lookup_gives_ipv4()) return IPV6_ONLY_LOOKUP_GIVES_IPV4;
  int sock = inet_create_tcp_server_socket("0", 0);
  if (sock < 0) return IPV6_ONLY_NO_SOCKET;
  struct sockaddr_in addr;
  socklen_t len = sizeof(addr);
  memset(&addr, 0, sizeof(addr));
  getsockname(sock, reinterpret_cast<struct sockaddr*>(&addr), &len);
  inet_close_socket(sock);
  bool wildcard =
      addr.sin_family == AF_INET && addr.sin_addr.s_addr == htonl(INADDR_ANY) && addr.sin_port != 0;
  return wildcard ? IPV6_ONLY_LISTENS_ON_THE_IPV4_WILDCARD : IPV6_ONLY_OTHER_ADDRESS;
}

/* The lookup answers IPv6 only there; the server socket takes the IPv4 wildcard address all the
 * same. Run in a child, which alone enters the namespaces. */
TEST(Inet, WithoutAnIpv4AddressTheServerListensOnTheIpv4Wildcard) {
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(report[0]);
    const char result = listen_without_ipv4();
    _exit(write(report[1], &result, 1) == 1 ? 0 : 1);
  }
  close(report[1]);
  char result = 0;
  EXPECT_EQ(read(report[0], &result, 1), 1);
  close(report[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (result == IPV6_ONLY_NO_NAMESPACE) GTEST_SKIP() << "no network namespace of its own can be made here";
  EXPECT_EQ(result, IPV6_ONLY_LISTENS_ON_THE_IPV4_WILDCARD);
}

TEST(Inet, AnUnknownHostWarns) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(inet_create_tcp_client_socket("no such host.invalid", "1", 0), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not get address info"), std::string::npos);
}

}  // namespace
