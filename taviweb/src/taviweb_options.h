/* taviweb's command line. */

#ifndef TAVIWEB_OPTIONS_H
#define TAVIWEB_OPTIONS_H

#include <sys/socket.h>

#include <string>

#include "tavid_client.h"

#define TAVIWEB_PROG "taviweb"
#define TAVIWEB_DEFAULT_LISTEN "127.0.0.1:8080"
#define TAVIWEB_DEFAULT_INTERVAL_S 5.0
#define TAVIWEB_MAX_INTERVAL_S 3600.0

/* Where taviweb listens, as -l gave it and as the socket takes it. */
typedef struct taviweb_listen_t {
  std::string text = TAVIWEB_DEFAULT_LISTEN;
  struct sockaddr_storage addr = {};
  socklen_t length = 0;
} taviweb_listen_t;

typedef struct taviweb_options_t {
  taviweb_listen_t listen;
  tavid_client_t tavid;                          /* -H, -p, -t */
  double interval_s = TAVIWEB_DEFAULT_INTERVAL_S; /* how long a status round is served */
  std::string auth_file;                         /* empty: no authentication */
  bool verbose = false;
  bool help = false;
} taviweb_options_t;

/* Reads the command line into `options`; false with `error` saying why (the usage line is the
 * caller's). The default listening address is resolved too. */
bool taviweb_parse_options(int argc, char** argv, taviweb_options_t* options, std::string* error);

/* "ADDRESS:PORT", the address numeric IPv4, or IPv6 in brackets ("[::1]:8080"). */
bool taviweb_parse_listen(const char* text, taviweb_listen_t* listen);

/* The manual page that --help prints. */
extern const char taviweb_help[];

#endif
