#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "tavid_client.h"

namespace {

/* A TCP socket bound to a free port of the loopback address, and that port. */
int loopback_socket(std::string* port) {
  int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(addr);
  EXPECT_EQ(bind(sock, reinterpret_cast<struct sockaddr*>(&addr), length), 0);
  EXPECT_EQ(getsockname(sock, reinterpret_cast<struct sockaddr*>(&addr), &length), 0);
  *port = std::to_string(ntohs(addr.sin_port));
  return sock;
}

/* A stand-in for the daemon: takes one connection, reads until 50 ms of silence (or the client's
 * half-close), then sends the reply unless told to hold it, and closes. */
class FakeDaemon {
 public:
  explicit FakeDaemon(std::string reply, bool hold = false) : reply_(std::move(reply)), hold_(hold) {
    listener_ = loopback_socket(&port_);
    EXPECT_EQ(listen(listener_, 4), 0);
    thread_ = std::thread([this] { serve(); });
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;
  ~FakeDaemon() {
    thread_.join();
    close(listener_);
  }

  const std::string& port() const { return port_; }
  /* Valid once the client's exchange has returned. */
  const std::string& received() const { return received_; }
  bool half_closed() const { return half_closed_; }

 private:
  void serve() {
    int conn = accept(listener_, NULL, NULL);
    if (conn < 0) return;
    char chunk[4096];
    struct pollfd watched = {conn, POLLIN, 0};
    while (poll(&watched, 1, 50) > 0) {
      ssize_t count = recv(conn, chunk, sizeof(chunk), 0);
      if (count <= 0) {
        half_closed_ = true;
        break;
      }
      received_.append(chunk, static_cast<size_t>(count));
    }
    if (hold_) {
      while (recv(conn, chunk, sizeof(chunk), 0) > 0) {
      }
    } else {
      send(conn, reply_.data(), reply_.size(), MSG_NOSIGNAL);
    }
    close(conn);
  }

  std::string reply_;
  bool hold_;
  int listener_ = -1;
  std::string port_;
  std::string received_;
  bool half_closed_ = false;
  std::thread thread_;
};

tavid_client_t client_for(const std::string& port, double timeout_s = 5.0) {
  tavid_client_t client;
  client.port = port;
  client.timeout_s = timeout_s;
  return client;
}

/* A port that nothing listens on: bound, never listened on, closed. */
std::string unused_port() {
  std::string port;
  close(loopback_socket(&port));
  return port;
}

TEST(TavidClient, DefaultsAreTheDaemonsPortOnThisMachine) {
  tavid_client_t client;
  EXPECT_EQ(client.host, "127.0.0.1");
  EXPECT_EQ(client.port, "49999");
  EXPECT_EQ(client.timeout_s, 35.0);
  EXPECT_EQ(client.cancel_fd, -1);
}

TEST(TavidClient, SendsTheRequestWithoutHalfClosingAndReadsUntilTheDaemonCloses) {
  const std::string request = "{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}";
  const std::string reply = "{\"result\":{\"output_mode\":\"rf\",\"device_id\":\"0\"}}" + std::string(100000, ' ');
  FakeDaemon daemon(reply);
  tavid_client_t client = client_for(daemon.port());
  std::string got;
  tavid_client_failure_t failure = tavid_client_exchange(&client, request, &got);
  EXPECT_EQ(failure.err, TAVID_CLIENT_OK);
  EXPECT_EQ(got, reply);
  EXPECT_EQ(daemon.received(), request);
  EXPECT_FALSE(daemon.half_closed());
}

TEST(TavidClient, ANoDaemonIsUnreachable) {
  tavid_client_t client = client_for(unused_port());
  std::string got;
  tavid_client_failure_t failure = tavid_client_exchange(&client, "{}", &got);
  EXPECT_EQ(failure.err, TAVID_CLIENT_CONNECT_ERR);
  EXPECT_EQ(failure.code, ECONNREFUSED);
  EXPECT_EQ(tavid_client_describe(&client, failure),
            "cannot reach tavid at 127.0.0.1 port " + client.port + " (Connection refused)");
  EXPECT_EQ(got, "");
}

TEST(TavidClient, ADaemonThatNeverAnswersTimesOut) {
  FakeDaemon daemon("", true);
  tavid_client_t client = client_for(daemon.port(), 0.2);
  std::string got;
  tavid_client_failure_t failure = tavid_client_exchange(&client, "{}", &got);
  EXPECT_EQ(failure.err, TAVID_CLIENT_TIMEOUT);
  EXPECT_EQ(tavid_client_describe(&client, failure),
            "no complete reply from 127.0.0.1 port " + daemon.port() + " within 0.2 s");
}

TEST(TavidClient, AReadableCancelDescriptorGivesTheExchangeUp) {
  FakeDaemon daemon("", true);
  int cancel = eventfd(1, EFD_CLOEXEC);
  ASSERT_GE(cancel, 0);
  tavid_client_t client = client_for(daemon.port(), 3600.0);
  client.cancel_fd = cancel;
  std::string got;
  tavid_client_failure_t failure = tavid_client_exchange(&client, "{}", &got);
  EXPECT_EQ(failure.err, TAVID_CLIENT_CANCELLED);
  EXPECT_EQ(tavid_client_describe(&client, failure), "exchange with 127.0.0.1 port " + daemon.port() + " given up");
  close(cancel);
}

TEST(TavidClient, AHostWithoutAddressIsNotResolved) {
  tavid_client_t client = client_for("49999");
  client.host = "no-such-host.invalid";
  std::string got;
  tavid_client_failure_t failure = tavid_client_exchange(&client, "{}", &got);
  EXPECT_EQ(failure.err, TAVID_CLIENT_RESOLVE_ERR);
  EXPECT_EQ(tavid_client_describe(&client, failure).rfind("cannot resolve 'no-such-host.invalid' (", 0), 0u);
}

TEST(TavidClient, PortsAreDecimalFrom1To65535) {
  for (const char* text : {"1", "49999", "65535"}) EXPECT_TRUE(tavid_client_valid_port(text)) << text;
  for (const char* text : {"0", "65536", "", "-1", "+1", " 1", "1x", "0x10", "99999999999999999999"}) {
    EXPECT_FALSE(tavid_client_valid_port(text)) << text;
  }
}

TEST(TavidClient, TimeOutsArePositiveSecondsUpToAnHour) {
  double seconds = 0;
  EXPECT_TRUE(tavid_client_parse_timeout("0.25", &seconds));
  EXPECT_EQ(seconds, 0.25);
  EXPECT_TRUE(tavid_client_parse_timeout("3600", &seconds));
  EXPECT_EQ(seconds, 3600.0);
  for (const char* text : {"0", "-1", "3600.5", "soon", "", "1s", "nan", "inf"}) {
    seconds = 7;
    EXPECT_FALSE(tavid_client_parse_timeout(text, &seconds)) << text;
    EXPECT_EQ(seconds, 7) << text;
  }
}

}  // namespace
