/* The client of tavid's command port, shared by tavictl and taviweb: one request per connection.
 * The daemon takes a request to be complete after 50 ms of silence, so the request is sent
 * without half-closing the socket, and the reply is read until the daemon closes the connection. */

#ifndef TAVID_CLIENT_H
#define TAVID_CLIENT_H

#include <string>

#define TAVID_CLIENT_DEFAULT_HOST "127.0.0.1"
#define TAVID_CLIENT_DEFAULT_PORT "49999"
/* A module transaction may keep the daemon from answering for up to 30 s. */
#define TAVID_CLIENT_DEFAULT_TIMEOUT_S 35.0
#define TAVID_CLIENT_MAX_TIMEOUT_S 3600.0

typedef enum tavid_client_err_t : int {
  TAVID_CLIENT_OK = 0,
  TAVID_CLIENT_RESOLVE_ERR,   /* the host name has no address */
  TAVID_CLIENT_CONNECT_ERR,   /* no address of the host took the connection */
  TAVID_CLIENT_TIMEOUT,       /* no complete reply before the time-out */
  TAVID_CLIENT_IO_ERR,        /* sending or receiving failed */
  TAVID_CLIENT_CANCELLED,     /* the cancel descriptor became readable */
} tavid_client_err_t;

/* Where the daemon is and how long one exchange may take. cancel_fd, when not -1, is watched
 * beside the connection: once it is readable, the exchange is given up. */
typedef struct tavid_client_t {
  std::string host = TAVID_CLIENT_DEFAULT_HOST;
  std::string port = TAVID_CLIENT_DEFAULT_PORT;
  double timeout_s = TAVID_CLIENT_DEFAULT_TIMEOUT_S;
  int cancel_fd = -1;
} tavid_client_t;

/* What went wrong: the kind, the system's error number or getaddrinfo's code. */
typedef struct tavid_client_failure_t {
  tavid_client_err_t err = TAVID_CLIENT_OK;
  int code = 0;
} tavid_client_failure_t;

/* Sends `request` and appends the daemon's whole reply to `reply`. */
tavid_client_failure_t tavid_client_exchange(const tavid_client_t* client, const std::string& request,
                                             std::string* reply);

/* One line saying what went wrong, for example "cannot reach tavid at 127.0.0.1 port 49999
 * (Connection refused)". Thread-safe. */
std::string tavid_client_describe(const tavid_client_t* client, tavid_client_failure_t failure);

/* The text of a system error number. Thread-safe. */
std::string tavid_client_strerror(int code);

/* "1" to "65535" in decimal digits only. */
bool tavid_client_valid_port(const char* text);

/* A time-out in seconds: above 0, at most TAVID_CLIENT_MAX_TIMEOUT_S, fractions allowed. */
bool tavid_client_parse_timeout(const char* text, double* timeout_s);

#endif
