/* The client of the network-settings service answered with any bytes. A stand-in service on
 * 127.0.0.1:49998, the service's fixed port, reads each request whole and answers with the input's
 * bytes. The input's first byte chooses the exchange (bit 0: read or write the eth1 settings), whether
 * the service keeps the connection open after answering (bit 1) and whether it answers in two pieces
 * (bit 2); the rest is the answer. Whatever the answer, the client must send a well-formed request,
 * hand back at most an eth1 settings object without its "interface" key, and keep nothing. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <thread>

#include "cmd_json.h"
#include "cmd_json_output_ip.h"
#include "fuzz_support.h"

namespace {

constexpr uint16_t SERVICE_PORT = 49998;
constexpr int MAX_FD = 1024; /* the harness opens far fewer */

enum exchange_bits_t : uint8_t { WRITE = 1, KEEP_OPEN = 2, IN_PIECES = 4 };

/* The stand-in service: one connection at a time, as the client makes them. */
class SettingsService {
 public:
  void start() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int reuse = 1;
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(SERVICE_PORT);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) != 0 ||
        bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 4) != 0) {
      fprintf(stderr,
              "fuzz_netsettings: cannot serve 127.0.0.1:%u (%s). The port is fixed: stop whatever serves "
              "it (the box simulator, a running tavid test) and start the harness again.\n",
              SERVICE_PORT, strerror(errno));
      exit(1);
    }
    std::thread(&SettingsService::run, this, fd).detach();
    // cppcheck-suppress resourceLeak ; the service thread serves the socket until the harness exits
  }

  /* What the next connection is answered with. */
  void script(uint8_t bits, const std::string& answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    bits_ = bits;
    answer_ = answer;
    request_.clear();
  }

  /* The request of the last connection. */
  std::string request() {
    std::lock_guard<std::mutex> lock(mutex_);
    return request_;
  }

 private:
  /* The client sends one JSON text and waits: it is whole once it parses. */
  static std::string read_request(int conn) {
    std::string text;
    char chunk[512];
    for (;;) {
      const ssize_t got = recv(conn, chunk, sizeof(chunk), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return text;
      text.append(chunk, static_cast<size_t>(got));
      json_error_t error;
      json_t* parsed = json_loadb(text.data(), text.size(), 0, &error);
      json_decref(parsed);
      if (parsed != NULL) return text;
    }
  }

  static void send_all(int conn, const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = send(conn, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }

  void serve(int conn) {
    const std::string received = read_request(conn);
    std::unique_lock<std::mutex> lock(mutex_);
    request_ = received;
    const uint8_t bits = bits_;
    const std::string answer = answer_;
    lock.unlock();
    const size_t first = (bits & IN_PIECES) ? answer.size() / 2 : answer.size();
    send_all(conn, answer.substr(0, first));
    if (first < answer.size()) {
      usleep(1000);
      send_all(conn, answer.substr(first));
    }
    /* A silent service would hold the client for its whole time-out. */
    if ((bits & KEEP_OPEN) && !answer.empty()) {
      char rest[64];
      ssize_t got;
      while ((got = recv(conn, rest, sizeof(rest), 0)) > 0 || (got < 0 && errno == EINTR)) {
      }
    }
  }

  static bool same_ipv4(const struct sockaddr_in& a, const struct sockaddr_in& b) {
    return a.sin_family == AF_INET && b.sin_family == AF_INET && a.sin_port == b.sin_port &&
           a.sin_addr.s_addr == b.sin_addr.s_addr;
  }

  /* Whether the client of a connection is a socket of this process: the port is fixed, so that another
   * program on the machine (a box simulator's daemon) may reach it too, and must neither get a fuzzed
   * answer nor make the checks see its request. */
  static bool from_this_process(int conn) {
    struct sockaddr_in client;
    socklen_t length = sizeof(client);
    if (getpeername(conn, reinterpret_cast<struct sockaddr*>(&client), &length) != 0) return false;
    for (int fd = 0; fd < MAX_FD; fd++) {
      struct sockaddr_in mine;
      struct sockaddr_in peer;
      socklen_t mine_length = sizeof(mine);
      socklen_t peer_length = sizeof(peer);
      if (fd != conn && getsockname(fd, reinterpret_cast<struct sockaddr*>(&mine), &mine_length) == 0 &&
          same_ipv4(mine, client) &&
          getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &peer_length) == 0 &&
          peer.sin_family == AF_INET && ntohs(peer.sin_port) == SERVICE_PORT) {
        return true;
      }
    }
    return false;
  }

  void run(int fd) {
    bool told = false;
    for (;;) {
      const int conn = accept(fd, NULL, NULL);
      if (conn < 0) continue;
      if (from_this_process(conn)) {
        serve(conn);
      } else if (!told) {
        told = true;
        __sanitizer_report_error_summary(
            "fuzz_netsettings: refused a connection from another program to 127.0.0.1:49998; do not run "
            "the harness beside the box simulator or tests that use the port");
      }
      close(conn);
    }
  }

  std::mutex mutex_;
  uint8_t bits_ = 0;
  std::string answer_;
  std::string request_;
};

SettingsService* service;

void check(bool good, const std::string& what) {
  if (!good) fuzz::fail(what);
}

const char* const READ_REQUEST =
    "{\"action\":\"GET\",\"object\":\"/unified_services/ip/settings\",\"args\":{}}";

/* The write request: a POST of one settings object that names eth1, whatever the client gave. */
bool write_request_well_formed(const std::string& text) {
  json_error_t error;
  json_t* request = json_loads(text.c_str(), 0, &error);
  json_t* args = json_object_get(request, "args");
  const char* action = json_string_value(json_object_get(request, "action"));
  const char* object = json_string_value(json_object_get(request, "object"));
  const char* interface = json_string_value(json_object_get(json_array_get(args, 0), "interface"));
  const bool good = action != NULL && strcmp(action, "POST") == 0 && object != NULL &&
                    strcmp(object, CMD_JSON_IFCONFIG_OBJECT) == 0 && json_array_size(args) == 1 &&
                    interface != NULL && strcmp(interface, CMD_JSON_IFCONFIG_INTERFACE) == 0;
  json_decref(request);
  return good;
}

void read_settings() {
  json_t* settings = NULL;
  const cmd_json_err_t err = cmd_json_get_output_ip_ifconfig(NULL, &settings);
  check(err == CMD_JSON_OK || err == CMD_JSON_ERR, "the read ended in result " + std::to_string(err));
  check(service->request() == READ_REQUEST, "the read request is not the fixed text: " + service->request());
  check(settings == NULL || (err == CMD_JSON_OK && json_is_object(settings) &&
                             json_object_get(settings, "interface") == NULL),
        "the read produced something else than the eth1 settings");
  json_decref(settings);
}

void write_settings() {
  json_t* args = json_pack("{s:s, s:s, s:s, s:s}", "interface", "eth0", "mode", "static", "address",
                           "192.168.10.20", "netmask", "255.255.255.0");
  const cmd_json_err_t err = cmd_json_set_output_ip_ifconfig(NULL, args);
  json_decref(args);
  check(err == CMD_JSON_OK || err == CMD_JSON_ERR || err == CMD_JSON_UNSUCCESSFUL,
        "the write ended in result " + std::to_string(err));
  check(write_request_well_formed(service->request()),
        "the write request is not a POST for eth1: " + service->request());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::make_box_root();
  service = new SettingsService;
  service->start();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Run run;
  if (size < 1) return 0;
  service->script(data[0], std::string(reinterpret_cast<const char*>(data + 1), size - 1));
  if (data[0] & WRITE) {
    write_settings();
  } else {
    read_settings();
  }
  return 0;
}
