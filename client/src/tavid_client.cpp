#include "tavid_client.h"

#include <errno.h>
#include <math.h>
#include <netdb.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <utility>

namespace {

#define TAVID_CLIENT_PORT_MAX 65535UL
#define TAVID_CLIENT_CHUNK_SIZE 4096

using tavid_client_clock = std::chrono::steady_clock;

struct addrinfo_deleter {
  void operator()(struct addrinfo* list) const { freeaddrinfo(list); }
};
using addrinfo_ptr = std::unique_ptr<struct addrinfo, addrinfo_deleter>;

/* Owner of one socket descriptor. */
struct tavid_client_socket_t {
  int fd = -1;
  tavid_client_socket_t() = default;
  tavid_client_socket_t(const tavid_client_socket_t&) = delete;
  tavid_client_socket_t& operator=(const tavid_client_socket_t&) = delete;
  ~tavid_client_socket_t() {
    if (fd >= 0) close(fd);
  }
};

/* One exchange under way: its deadline and what gives it up. */
typedef struct tavid_client_run_t {
  tavid_client_clock::time_point deadline;
  int cancel_fd;
} tavid_client_run_t;

int tavid_client_remaining_ms(tavid_client_clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - tavid_client_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

/* Waits until `fd` is ready for `events`; false with errno set on failure, at the deadline
 * (ETIMEDOUT) or once the cancel descriptor is readable (ECANCELED). */
bool tavid_client_wait(int fd, short events, const tavid_client_run_t* run) {
  struct pollfd watched[2] = {{fd, events, 0}, {run->cancel_fd, POLLIN, 0}};
  nfds_t count = run->cancel_fd >= 0 ? 2 : 1;
  for (;;) {
    int ready = poll(watched, count, tavid_client_remaining_ms(run->deadline));
    if (ready > 0 && count == 2 && watched[1].revents != 0) {
      errno = ECANCELED;
      return false;
    }
    if (ready > 0) return true;
    if (ready == 0) {
      errno = ETIMEDOUT;
      return false;
    }
    if (errno != EINTR) return false;
  }
}

/* Completes a non-blocking connect; the socket's own error lands in errno. */
bool tavid_client_connected(int fd, const tavid_client_run_t* run) {
  if (errno != EINPROGRESS || !tavid_client_wait(fd, POLLOUT, run)) return false;
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) < 0) return false;
  errno = error;
  return error == 0;
}

bool tavid_client_connect_to(const struct addrinfo* ai, tavid_client_socket_t* sock,
                             const tavid_client_run_t* run) {
  sock->fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
  if (sock->fd < 0) return false;
  return connect(sock->fd, ai->ai_addr, ai->ai_addrlen) == 0 || tavid_client_connected(sock->fd, run);
}

tavid_client_failure_t tavid_client_failed(int code) {
  tavid_client_failure_t failure;
  if (code == ETIMEDOUT) {
    failure.err = TAVID_CLIENT_TIMEOUT;
  } else if (code == ECANCELED) {
    failure.err = TAVID_CLIENT_CANCELLED;
  } else {
    failure.err = TAVID_CLIENT_IO_ERR;
  }
  failure.code = code;
  return failure;
}

/* Tries every address of the host in turn. */
tavid_client_failure_t tavid_client_connect(const tavid_client_t* client, tavid_client_socket_t* sock,
                                            const tavid_client_run_t* run) {
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = NULL;
  int result = getaddrinfo(client->host.c_str(), client->port.c_str(), &hints, &list);
  if (result != 0) return tavid_client_failure_t{TAVID_CLIENT_RESOLVE_ERR, result};
  addrinfo_ptr owner(list);
  for (const struct addrinfo* ai = list; ai != NULL; ai = ai->ai_next) {
    tavid_client_socket_t attempt;
    if (tavid_client_connect_to(ai, &attempt, run)) {
      std::swap(sock->fd, attempt.fd);
      return tavid_client_failure_t{};
    }
    if (errno == ECANCELED) return tavid_client_failed(errno);
  }
  return tavid_client_failure_t{TAVID_CLIENT_CONNECT_ERR, errno};
}

bool tavid_client_send_all(int fd, const std::string& text, const tavid_client_run_t* run) {
  size_t sent = 0;
  while (sent < text.size()) {
    if (!tavid_client_wait(fd, POLLOUT, run)) return false;
    ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count > 0) sent += static_cast<size_t>(count);
    if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
  }
  return true;
}

bool tavid_client_receive_all(int fd, std::string* reply, const tavid_client_run_t* run) {
  char chunk[TAVID_CLIENT_CHUNK_SIZE];
  for (;;) {
    if (!tavid_client_wait(fd, POLLIN, run)) return false;
    ssize_t count = recv(fd, chunk, sizeof(chunk), 0);
    if (count == 0) return true;
    if (count > 0) reply->append(chunk, static_cast<size_t>(count));
    if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
  }
}

}  // namespace

std::string tavid_client_strerror(int code) {
  char text[128];
  /* The GNU strerror_r: the text may or may not be written into the buffer. */
  return strerror_r(code, text, sizeof(text));
}

/* The sending side is never shut: after a half-close the daemon's reads return 0 instead of
 * timing out, so it would not see the request end. */
tavid_client_failure_t tavid_client_exchange(const tavid_client_t* client, const std::string& request,
                                             std::string* reply) {
  std::chrono::duration<double> timeout(client->timeout_s);
  tavid_client_run_t run = {
      tavid_client_clock::now() + std::chrono::duration_cast<tavid_client_clock::duration>(timeout),
      client->cancel_fd};
  tavid_client_socket_t sock;
  tavid_client_failure_t failure = tavid_client_connect(client, &sock, &run);
  if (failure.err != TAVID_CLIENT_OK) return failure;
  if (tavid_client_send_all(sock.fd, request, &run) && tavid_client_receive_all(sock.fd, reply, &run)) {
    return failure;
  }
  return tavid_client_failed(errno);
}

std::string tavid_client_describe(const tavid_client_t* client, tavid_client_failure_t failure) {
  const std::string where = client->host + " port " + client->port;
  char seconds[32];
  switch (failure.err) {
    case TAVID_CLIENT_OK:
      return "no failure";
    case TAVID_CLIENT_RESOLVE_ERR:
      return "cannot resolve '" + client->host + "' (" + gai_strerror(failure.code) + ")";
    case TAVID_CLIENT_CONNECT_ERR:
      return "cannot reach tavid at " + where + " (" + tavid_client_strerror(failure.code) + ")";
    case TAVID_CLIENT_TIMEOUT:
      snprintf(seconds, sizeof(seconds), "%g", client->timeout_s);
      return "no complete reply from " + where + " within " + seconds + " s";
    case TAVID_CLIENT_CANCELLED:
      return "exchange with " + where + " given up";
    case TAVID_CLIENT_IO_ERR:
    default:
      return "exchange with " + where + " failed (" + tavid_client_strerror(failure.code) + ")";
  }
}

bool tavid_client_valid_port(const char* text) {
  if (text[0] < '0' || text[0] > '9') return false;
  char* end = NULL;
  errno = 0;
  unsigned long port = strtoul(text, &end, 10);
  return errno == 0 && *end == '\0' && port >= 1 && port <= TAVID_CLIENT_PORT_MAX;
}

bool tavid_client_parse_timeout(const char* text, double* timeout_s) {
  char* end = NULL;
  double value = strtod(text, &end);
  if (end == text || *end != '\0' || !isfinite(value) || value <= 0 || value > TAVID_CLIENT_MAX_TIMEOUT_S) {
    return false;
  }
  *timeout_s = value;
  return true;
}
