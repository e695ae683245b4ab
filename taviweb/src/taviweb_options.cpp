#include "taviweb_options.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

namespace {

enum : int {
  TAVIWEB_OPT_AUTH = 256,
};

const struct option taviweb_long_options[] = {
    {"listen", required_argument, NULL, 'l'},
    {"host", required_argument, NULL, 'H'},
    {"port", required_argument, NULL, 'p'},
    {"interval", required_argument, NULL, 'i'},
    {"timeout", required_argument, NULL, 't'},
    {"auth", required_argument, NULL, TAVIWEB_OPT_AUTH},
    {"verbose", no_argument, NULL, 'v'},
    {"help", no_argument, NULL, 'h'},
    {NULL, 0, NULL, 0},
};

bool taviweb_parse_interval(const char* text, double* interval_s) {
  char* end = NULL;
  double value = strtod(text, &end);
  if (end == text || *end != '\0' || !(value > 0 && value <= TAVIWEB_MAX_INTERVAL_S)) return false;
  *interval_s = value;
  return true;
}

/* The option as the user wrote it, for messages (see tavictl). */
std::string taviweb_option_name(char** argv, bool value_missing) {
  if (value_missing || optopt == 0) return argv[optind - 1];
  return std::string("-") + static_cast<char>(optopt);
}

bool taviweb_invalid(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

bool taviweb_take_option(int opt, char** argv, taviweb_options_t* options, std::string* error) {
  switch (opt) {
    case 'l':
      if (taviweb_parse_listen(optarg, &options->listen)) return true;
      return taviweb_invalid(error, std::string("invalid listening address '") + optarg +
                                        "' (ADDRESS:PORT, for example 127.0.0.1:8080 or [::1]:8080)");
    case 'H':
      options->tavid.host = optarg;
      return true;
    case 'p':
      options->tavid.port = optarg;
      if (tavid_client_valid_port(optarg)) return true;
      return taviweb_invalid(error, std::string("invalid port '") + optarg + "' (1 to 65535)");
    case 'i':
      if (taviweb_parse_interval(optarg, &options->interval_s)) return true;
      return taviweb_invalid(error, std::string("invalid interval '") + optarg +
                                        "' (seconds, above 0, at most 3600)");
    case 't':
      if (tavid_client_parse_timeout(optarg, &options->tavid.timeout_s)) return true;
      return taviweb_invalid(error, std::string("invalid time-out '") + optarg +
                                        "' (seconds, above 0, at most 3600)");
    case TAVIWEB_OPT_AUTH:
      options->auth_file = optarg;
      return true;
    case 'v':
      options->verbose = true;
      return true;
    case 'h':
      options->help = true;
      return true;
    case ':':
      return taviweb_invalid(error, "option '" + taviweb_option_name(argv, true) + "' needs a value");
    default:
      return taviweb_invalid(error, "unknown option '" + taviweb_option_name(argv, false) + "'");
  }
}

bool taviweb_listen_port(const char* text, in_port_t* port) {
  if (!tavid_client_valid_port(text)) return false;
  *port = htons(static_cast<uint16_t>(strtoul(text, NULL, 10)));
  return true;
}

}  // namespace

bool taviweb_parse_listen(const char* text, taviweb_listen_t* listen) {
  const char* colon = strrchr(text, ':');
  if (colon == NULL) return false;
  std::string host(text, static_cast<size_t>(colon - text));
  taviweb_listen_t parsed;
  parsed.text = text;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    auto* addr = reinterpret_cast<struct sockaddr_in6*>(&parsed.addr);
    addr->sin6_family = AF_INET6;
    parsed.length = sizeof(*addr);
    if (inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &addr->sin6_addr) != 1 ||
        !taviweb_listen_port(colon + 1, &addr->sin6_port)) {
      return false;
    }
  } else {
    auto* addr = reinterpret_cast<struct sockaddr_in*>(&parsed.addr);
    addr->sin_family = AF_INET;
    parsed.length = sizeof(*addr);
    if (inet_pton(AF_INET, host.c_str(), &addr->sin_addr) != 1 ||
        !taviweb_listen_port(colon + 1, &addr->sin_port)) {
      return false;
    }
  }
  *listen = parsed;
  return true;
}

bool taviweb_parse_options(int argc, char** argv, taviweb_options_t* options, std::string* error) {
  if (!taviweb_parse_listen(options->listen.text.c_str(), &options->listen)) {
    return taviweb_invalid(error, "invalid default listening address");
  }
  opterr = 0;
  optind = 0; /* glibc starts its scan afresh */
  int opt;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the command line is read before any thread starts
  while ((opt = getopt_long(argc, argv, ":l:H:p:i:t:vh", taviweb_long_options, NULL)) != -1) {
    if (!taviweb_take_option(opt, argv, options, error)) return false;
  }
  if (optind < argc) return taviweb_invalid(error, std::string("unexpected argument '") + argv[optind] + "'");
  return true;
}

const char taviweb_help[] =
    "NAME\n"
    "       taviweb - the box's command port over HTTP, and its metrics for Prometheus\n"
    "\n"
    "SYNOPSIS\n"
    "       taviweb [-l ADDRESS:PORT] [-H TAVID_HOST] [-p TAVID_PORT] [-i SECONDS]\n"
    "               [-t SECONDS] [--auth FILE] [-v]\n"
    "       taviweb --help\n"
    "\n"
    "DESCRIPTION\n"
    "       taviweb is a client of tavid's command port, like tavictl, that serves HTTP:\n"
    "\n"
    "       POST /api\n"
    "              The body is one request of the box's JSON protocol. It goes to tavid\n"
    "              as it is, and the daemon's reply comes back byte for byte as\n"
    "              application/json with status 200. The body must be a JSON object (400\n"
    "              otherwise) of at most 64 KiB (413), sent as Content-Type\n"
    "              application/json (415); a request whose Origin header names another\n"
    "              site is refused (403). When tavid does not answer: 502. Requests go\n"
    "              to tavid one at a time, in order of arrival.\n"
    "\n"
    "       GET /api/status\n"
    "              The last status round as one JSON document: whether tavid answered\n"
    "              (\"up\"), its age in seconds, the refresh interval and the daemon's reply\n"
    "              to each status object (\"objects\"; in \"error\" what went wrong).\n"
    "\n"
    "       GET /metrics\n"
    "              The same round and taviweb's own counters in Prometheus's text format.\n"
    "\n"
    "       Every request to tavid stops the box's hardware loop for at least 50 ms, so\n"
    "       status is read through one cache: however many clients ask, taviweb sends\n"
    "       tavid at most one status round (one get of device_status, input_hdmi_status\n"
    "       and the output status, every instance at once) per refresh interval.\n"
    "\n"
    "OPTIONS\n"
    "       -l, --listen ADDRESS:PORT\n"
    "              Where to serve HTTP: a numeric IPv4 address, or IPv6 in brackets\n"
    "              ([::1]:8080). Default: 127.0.0.1:8080.\n"
    "\n"
    "       -H, --host TAVID_HOST\n"
    "              Name or address of tavid. Default: 127.0.0.1.\n"
    "\n"
    "       -p, --port TAVID_PORT\n"
    "              Command port of tavid, 1 to 65535. Default: 49999.\n"
    "\n"
    "       -i, --interval SECONDS\n"
    "              How long one status round is served before the next is read,\n"
    "              fractions allowed. Default: 5.\n"
    "\n"
    "       -t, --timeout SECONDS\n"
    "              Time allowed to tavid for one whole exchange. Default: 35 (a module\n"
    "              may keep the daemon busy for up to 30 s).\n"
    "\n"
    "       --auth FILE\n"
    "              Require HTTP Basic authentication on every path but /metrics. Each\n"
    "              line of FILE is user:hash, the hash a SHA-512 crypt hash as\n"
    "              'openssl passwd -6' makes it; empty lines and lines starting with #\n"
    "              are skipped. A wrong user or password gets 401.\n"
    "\n"
    "       -v, --verbose\n"
    "              Log every HTTP request on standard output.\n"
    "\n"
    "       -h, --help\n"
    "              Print this help and exit.\n"
    "\n"
    "       SIGTERM and SIGINT end taviweb.\n"
    "\n"
    "EXIT STATUS\n"
    "       0      Ended by SIGTERM or SIGINT, or --help.\n"
    "       1      Could not start: the address cannot be listened on, or the\n"
    "              authentication file cannot be used.\n"
    "       2      The command line is bad.\n"
    "\n"
    "EXAMPLES\n"
    "       taviweb -l 0.0.0.0:8080 --auth /etc/taviweb.users\n"
    "              Serve the network, with authentication.\n"
    "\n"
    "       curl -s -H 'Content-Type: application/json' \\\n"
    "            -d '{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}' \\\n"
    "            http://127.0.0.1:8080/api\n"
    "              One request of the box's protocol.\n"
    "\n"
    "       curl -s http://127.0.0.1:8080/metrics\n"
    "              What Prometheus scrapes.\n";
