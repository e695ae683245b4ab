#include "inet.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "dbg.h"

namespace {
struct addrinfo_deleter {
  void operator()(struct addrinfo* list) const { freeaddrinfo(list); }
};
using addrinfo_ptr = std::unique_ptr<struct addrinfo, addrinfo_deleter>;

/* Only IPv4 is served: IPv6 results are skipped. */
const struct addrinfo* inet_first_ipv4(const struct addrinfo* list) {
  for (; list != NULL; list = list->ai_next) {
    if (list->ai_family == AF_INET) return list;
  }
  return NULL;
}

int inet_add_flags(int sock, int flags) {
  int old = fcntl(sock, F_GETFL);
  if (old < 0 || fcntl(sock, F_SETFL, old | flags) < 0) return -1;
  return 0;
}

addrinfo_ptr inet_resolve(const char* str_addr, const char* str_port, int ai_flags, int family) {
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_flags = ai_flags;
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = NULL;
  if (getaddrinfo(str_addr, str_port, &hints, &list) != 0) return nullptr;
  return addrinfo_ptr(list);
}

/* A passive lookup with AI_ADDRCONFIG gives no IPv4 result on a box whose IPv4 address is not
 * configured yet (DHCP pending) while it has an IPv6 one: the IPv4 wildcard address serves
 * then, so that the command channel always opens. */
const struct addrinfo* inet_ipv4_wildcard(const char* str_port, addrinfo_ptr* list) {
  *list = inet_resolve(NULL, str_port, AI_PASSIVE, AF_INET);
  return *list ? inet_first_ipv4(list->get()) : NULL;
}

/* The first IPv4 address of a stream service and a socket for it, which no program that the
 * daemon runs inherits; `func` names the caller in warnings. The address stays valid while
 * `list` lives. */
int inet_socket(const char* func, const char* str_addr, const char* str_port, int ai_flags,
                addrinfo_ptr* list, const struct addrinfo** ai) {
  *list = inet_resolve(str_addr, str_port, ai_flags, AF_UNSPEC);
  if (!*list) {
    DBG_WRN_AT(func, "Could not get address info");
    return -1;
  }
  *ai = inet_first_ipv4(list->get());
  if (*ai == NULL && (ai_flags & AI_PASSIVE) != 0) *ai = inet_ipv4_wildcard(str_port, list);
  if (*ai == NULL) return -1;
  int sock = socket((*ai)->ai_family, (*ai)->ai_socktype | SOCK_CLOEXEC, (*ai)->ai_protocol);
  if (sock < 0) DBG_WRN_AT(func, "Could not create socket");
  return sock;
}
}  // namespace

char* inet_port_to_string(char* str_port, uint16_t port) {
  snprintf(str_port, INET_PORT_STR_LEN, "%hu", port);
  return str_port;
}

int inet_create_tcp_server_socket(const char* str_port, int flags) {
  addrinfo_ptr list;
  const struct addrinfo* ai = NULL;
  int sock =
      inet_socket("inet_create_tcp_server_socket", NULL, str_port, AI_PASSIVE | AI_ADDRCONFIG, &list, &ai);
  if (sock < 0) return -1;
  int reuse = 1;
  if (inet_add_flags(sock, flags) < 0) {
    DBG_WRN("Could not set socket flags");
    inet_close_socket(sock);
    return -1;
  }
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  if (bind(sock, ai->ai_addr, ai->ai_addrlen) < 0) {
    DBG_WRN("Could not bind socket");
  } else if (listen(sock, INET_BACKLOG) < 0) {
    DBG_WRN("Could not listen on socket");
  } else {
    return sock;
  }
  inet_close_socket(sock);
  return -1;
}

int inet_accept_tcp_client(int srv_sock, struct sockaddr* addr, socklen_t* length_ptr, int flags) {
  int sock = accept4(srv_sock, addr, length_ptr, SOCK_CLOEXEC);
  if (sock < 0) {
    DBG_WRN("Could not accept");
    return -1;
  }
  if (inet_add_flags(sock, flags) < 0) {
    DBG_WRN("Could not set socket flags");
    inet_close_socket(sock);
    return -1;
  }
  return sock;
}

int inet_create_tcp_client_socket(const char* str_addr, const char* str_port, int flags) {
  addrinfo_ptr list;
  const struct addrinfo* ai = NULL;
  int sock = inet_socket("inet_create_tcp_client_socket", str_addr, str_port, 0, &list, &ai);
  if (sock < 0) return -1;
  if (connect(sock, ai->ai_addr, ai->ai_addrlen) < 0) {
    DBG_WRN("Could not connect socket");
  } else if (inet_add_flags(sock, flags) < 0) {
    DBG_WRN("Could not set socket flags");
  } else {
    return sock;
  }
  inet_close_socket(sock);
  return -1;
}

int inet_close_socket(int sock) {
  if (close(sock) == 0 || errno == EBADF) return 0;
  DBG_WRN("Could not close socket");
  return -1;
}
