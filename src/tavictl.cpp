/* tavictl: command-line client of tavid's JSON command port. One request per connection. The
 * daemon takes a request to be complete after 50 ms of silence, so the request is sent without
 * half-closing the socket, and the reply is read until the daemon closes the connection. */

#include <errno.h>
#include <getopt.h>
#include <jansson.h>
#include <math.h>
#include <netdb.h>
#include <poll.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

namespace {

#define TAVICTL_PROG "tavictl"
#define TAVICTL_DEFAULT_HOST "127.0.0.1"
#define TAVICTL_DEFAULT_PORT "49999"
/* A module transaction may keep the daemon from answering for up to 30 s. */
#define TAVICTL_DEFAULT_TIMEOUT_S 35.0
#define TAVICTL_MAX_TIMEOUT_S 3600.0
#define TAVICTL_PORT_MAX 65535UL
#define TAVICTL_CHUNK_SIZE 4096

typedef enum tavictl_status_t : int {
  TAVICTL_OK = 0,
  TAVICTL_WARNING = 1,
  TAVICTL_ERROR = 2, /* an error reply or a bad command line */
  TAVICTL_UNREACHABLE = 3,
} tavictl_status_t;

typedef enum tavictl_option_t : int {
  TAVICTL_OPT_RAW = 256,
  TAVICTL_OPT_JSON_ARGS,
  TAVICTL_OPT_ARRAYED,
} tavictl_option_t;

typedef struct tavictl_options_t {
  const char* host;
  const char* port;
  double timeout_s;
  const char* raw;
  const char* json_args;
  const char* arrayed;
  uint8_t help;
  char** operands; /* ACTION OBJECT key=value ... */
  int operand_count;
} tavictl_options_t;

struct json_deleter {
  void operator()(json_t* json) const { json_decref(json); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

struct text_deleter {
  void operator()(char* text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, text_deleter>;

struct addrinfo_deleter {
  void operator()(struct addrinfo* list) const { freeaddrinfo(list); }
};
using addrinfo_ptr = std::unique_ptr<struct addrinfo, addrinfo_deleter>;

/* Owner of one socket descriptor. */
struct tavictl_socket_t {
  int fd = -1;
  tavictl_socket_t() = default;
  tavictl_socket_t(const tavictl_socket_t&) = delete;
  tavictl_socket_t& operator=(const tavictl_socket_t&) = delete;
  ~tavictl_socket_t() {
    if (fd >= 0) close(fd);
  }
};

using tavictl_clock = std::chrono::steady_clock;

const char tavictl_help[] =
    "NAME\n"
    "       tavictl - send one command to the tavid daemon and print its reply\n"
    "\n"
    "SYNOPSIS\n"
    "       tavictl [-H host] [-p port] [-t seconds] ACTION OBJECT [key=value ...]\n"
    "       tavictl [-H host] [-p port] [-t seconds] --json-args JSON ACTION OBJECT [key=value ...]\n"
    "       tavictl [-H host] [-p port] [-t seconds] --arrayed JSON ACTION OBJECT\n"
    "       tavictl [-H host] [-p port] [-t seconds] --raw JSON\n"
    "       tavictl --help\n"
    "\n"
    "DESCRIPTION\n"
    "       tavictl connects to the command port of tavid, sends the request\n"
    "\n"
    "              {\"action\":ACTION,\"object\":OBJECT,\"args\":{key:value,...}}\n"
    "\n"
    "       and prints the daemon's reply indented by two spaces, its keys in the order the\n"
    "       daemon sent them.\n"
    "\n"
    "       ACTION is \"set\", \"get\" or \"execute\". OBJECT is one of the daemon's command\n"
    "       objects, for example device, device_status, input_hdmi, input_hdmi_status,\n"
    "       output_rf, output_rf_mod, output_rf_status, output_ip, output_ip_dst,\n"
    "       store_settings, restore_settings or reset. Both are sent as given; the daemon\n"
    "       judges them.\n"
    "\n"
    "       Each key=value becomes one argument. The text is split at its first '=', so a\n"
    "       value may contain '='. Every value is sent as a JSON string, numbers included\n"
    "       (frequency=474000 gives \"frequency\":\"474000\"), because the daemon reads every\n"
    "       argument from a string; quotes, backslashes and other characters are escaped as\n"
    "       JSON needs. A key given twice keeps its last value. Without any argument the\n"
    "       request carries an empty \"args\" object. A get without the object's id\n"
    "       argument (device_id, input_id, output_id) returns every instance.\n"
    "\n"
    "       The daemon takes a request to be complete after 50 ms of silence on the\n"
    "       connection, answers once and closes the connection. tavictl therefore keeps its\n"
    "       side of the connection open after sending and reads the reply until the daemon\n"
    "       closes it.\n"
    "\n"
    "OPTIONS\n"
    "       -H, --host HOST\n"
    "              Name or address of the box. Default: 127.0.0.1.\n"
    "\n"
    "       -p, --port PORT\n"
    "              Command port of the daemon, 1 to 65535. Default: 49999.\n"
    "\n"
    "       -t, --timeout SECONDS\n"
    "              Time allowed for connecting, sending and receiving the whole reply,\n"
    "              fractions allowed. Default: 35 (a module may keep the daemon busy for\n"
    "              up to 30 s).\n"
    "\n"
    "       --json-args JSON\n"
    "              The \"args\" object as JSON text, sent as given (its values should be\n"
    "              JSON strings). key=value arguments are added to it and replace keys of\n"
    "              the same name.\n"
    "\n"
    "       --arrayed JSON\n"
    "              A JSON array of argument objects, sent as \"arrayedArgs\" instead of\n"
    "              \"args\". The daemon applies the elements in order, each as if it were a\n"
    "              request of its own, and stops at the first that fails (set and execute\n"
    "              only). Cannot be combined with --json-args or key=value arguments.\n"
    "\n"
    "       --raw JSON\n"
    "              Send this text exactly as given, unchecked, instead of building a\n"
    "              request. No ACTION, OBJECT or other request option may be given.\n"
    "\n"
    "       -h, --help\n"
    "              Print this help and exit.\n"
    "\n"
    "EXIT STATUS\n"
    "       0      The daemon replied with a result or with {} (success).\n"
    "       1      The daemon replied with a warning (\"warningCode\").\n"
    "       2      The daemon replied with an error (\"errorCode\"), or the command line\n"
    "              is bad.\n"
    "       3      The daemon could not be reached, did not reply in time, or its reply\n"
    "              is not a JSON object.\n"
    "\n"
    "EXAMPLES\n"
    "       tavictl get output_rf output_id=0\n"
    "              Settings of the first RF output.\n"
    "\n"
    "       tavictl set output_rf_mod output_id=0 frequency=474000\n"
    "              Move the first RF output to 474 MHz (frequencies are in kHz).\n"
    "\n"
    "       tavictl get output_rf\n"
    "              Settings of every RF output, under \"arrayedResult\".\n"
    "\n"
    "       tavictl -H 192.168.1.20 get device_status device_id=0\n"
    "              Status of a box on the network.\n"
    "\n"
    "       tavictl --json-args '{\"output_id\":\"0\",\"level\":\"-3\"}' set output_rf_mod\n"
    "              Arguments given as one JSON object.\n"
    "\n"
    "       tavictl --arrayed '[{\"output_id\":\"0\",\"frequency\":\"474000\"},\n"
    "                          {\"output_id\":\"1\",\"frequency\":\"482000\"}]' set output_rf_mod\n"
    "              Two outputs changed by one request.\n"
    "\n"
    "       tavictl execute store_settings\n"
    "              Write the stored settings file now.\n"
    "\n"
    "       tavictl --raw '{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}'\n"
    "              A request written by hand.\n";

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, checked by the format attribute, forwarded to vfprintf
__attribute__((format(printf, 1, 2))) tavictl_status_t tavictl_usage_error(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fputs(TAVICTL_PROG ": ", stderr);
  vfprintf(stderr, fmt, ap);
  fputs("\nTry '" TAVICTL_PROG " --help' for more information.\n", stderr);
  va_end(ap);
  return TAVICTL_ERROR;
}

bool tavictl_valid_port(const char* text) {
  if (text[0] < '0' || text[0] > '9') return false;
  char* end = NULL;
  errno = 0;
  unsigned long port = strtoul(text, &end, 10);
  return errno == 0 && *end == '\0' && port >= 1 && port <= TAVICTL_PORT_MAX;
}

bool tavictl_parse_timeout(const char* text, double* timeout_s) {
  char* end = NULL;
  double value = strtod(text, &end);
  if (end == text || *end != '\0' || !isfinite(value) || value <= 0 || value > TAVICTL_MAX_TIMEOUT_S) {
    return false;
  }
  *timeout_s = value;
  return true;
}

/* The option as the user wrote it, for messages. A value can only be missing from the last word,
 * so that word names the option; an unknown short option may sit inside a group ("-vx"), so
 * getopt's optopt names it, while an unknown long one leaves optopt at 0. */
std::string tavictl_option_name(char** argv, bool value_missing) {
  if (value_missing || optopt == 0) return argv[optind - 1];
  return std::string("-") + static_cast<char>(optopt);
}

const struct option tavictl_long_options[] = {
    {"host", required_argument, NULL, 'H'},
    {"port", required_argument, NULL, 'p'},
    {"timeout", required_argument, NULL, 't'},
    {"raw", required_argument, NULL, TAVICTL_OPT_RAW},
    {"json-args", required_argument, NULL, TAVICTL_OPT_JSON_ARGS},
    {"arrayed", required_argument, NULL, TAVICTL_OPT_ARRAYED},
    {"help", no_argument, NULL, 'h'},
    {NULL, 0, NULL, 0},
};

tavictl_status_t tavictl_take_option(int opt, char** argv, tavictl_options_t* options) {
  switch (opt) {
    case 'H':
      options->host = optarg;
      return TAVICTL_OK;
    case 'p':
      options->port = optarg;
      if (tavictl_valid_port(optarg)) return TAVICTL_OK;
      return tavictl_usage_error("invalid port '%s' (1 to %lu)", optarg, TAVICTL_PORT_MAX);
    case 't':
      if (tavictl_parse_timeout(optarg, &options->timeout_s)) return TAVICTL_OK;
      return tavictl_usage_error("invalid time-out '%s' (seconds, above 0, at most %g)", optarg,
                                 TAVICTL_MAX_TIMEOUT_S);
    case TAVICTL_OPT_RAW:
      options->raw = optarg;
      return TAVICTL_OK;
    case TAVICTL_OPT_JSON_ARGS:
      options->json_args = optarg;
      return TAVICTL_OK;
    case TAVICTL_OPT_ARRAYED:
      options->arrayed = optarg;
      return TAVICTL_OK;
    case 'h':
      options->help = 1;
      return TAVICTL_OK;
    case ':':
      return tavictl_usage_error("option '%s' needs a value", tavictl_option_name(argv, true).c_str());
    default:
      return tavictl_usage_error("unknown option '%s'", tavictl_option_name(argv, false).c_str());
  }
}

tavictl_status_t tavictl_parse_options(int argc, char** argv, tavictl_options_t* options) {
  opterr = 0;
  int opt;
  while ((opt = getopt_long(argc, argv, ":hH:p:t:", tavictl_long_options, NULL)) != -1) {
    tavictl_status_t status = tavictl_take_option(opt, argv, options);
    if (status != TAVICTL_OK) return status;
  }
  options->operands = argv + optind;
  options->operand_count = argc - optind;
  return TAVICTL_OK;
}

tavictl_status_t tavictl_check_raw(const tavictl_options_t* options) {
  if (options->operand_count > 0 || options->json_args != NULL || options->arrayed != NULL) {
    return tavictl_usage_error("--raw sends its text alone: no ACTION, OBJECT, --json-args or --arrayed");
  }
  return TAVICTL_OK;
}

tavictl_status_t tavictl_check_options(const tavictl_options_t* options) {
  if (options->raw != NULL) return tavictl_check_raw(options);
  if (options->operand_count < 2) return tavictl_usage_error("ACTION and OBJECT are needed");
  if (options->arrayed != NULL && options->json_args != NULL) {
    return tavictl_usage_error("--arrayed and --json-args cannot be combined");
  }
  if (options->arrayed != NULL && options->operand_count > 2) {
    return tavictl_usage_error("--arrayed and key=value arguments cannot be combined");
  }
  return TAVICTL_OK;
}

json_ptr tavictl_load(const char* option, const char* text) {
  json_error_t error;
  json_ptr value(json_loads(text, 0, &error));
  if (!value) tavictl_usage_error("%s: invalid JSON (%s)", option, error.text);
  return value;
}

json_ptr tavictl_load_args(const char* text) {
  json_ptr args = tavictl_load("--json-args", text);
  if (args && !json_is_object(args.get())) {
    tavictl_usage_error("--json-args: a JSON object is needed");
    return nullptr;
  }
  return args;
}

json_ptr tavictl_load_arrayed(const char* text) {
  json_ptr arrayed = tavictl_load("--arrayed", text);
  if (!arrayed) return arrayed;
  bool valid = json_is_array(arrayed.get());
  size_t index;
  json_t* element;
  json_array_foreach(arrayed.get(), index, element) { valid = valid && json_is_object(element); }
  if (valid) return arrayed;
  tavictl_usage_error("--arrayed: a JSON array of objects is needed");
  return nullptr;
}

tavictl_status_t tavictl_add_pair(json_t* args, const char* pair) {
  const char* equals = strchr(pair, '=');
  if (equals == NULL || equals == pair) return tavictl_usage_error("argument '%s' is not key=value", pair);
  std::string key(pair, static_cast<size_t>(equals - pair));
  if (json_object_set_new(args, key.c_str(), json_string(equals + 1)) != 0) {
    return tavictl_usage_error("argument '%s' is not valid UTF-8", pair);
  }
  return TAVICTL_OK;
}

/* The "args" object: --json-args, then the key=value pairs on top. */
json_ptr tavictl_build_args(const tavictl_options_t* options) {
  json_ptr args =
      options->json_args != NULL ? tavictl_load_args(options->json_args) : json_ptr(json_object());
  for (int n = 2; args && n < options->operand_count; n++) {
    if (tavictl_add_pair(args.get(), options->operands[n]) != TAVICTL_OK) return nullptr;
  }
  return args;
}

tavictl_status_t tavictl_set_text(json_t* request, const char* key, const char* text) {
  if (json_object_set_new(request, key, json_string(text)) == 0) return TAVICTL_OK;
  return tavictl_usage_error("%s '%s' is not valid UTF-8", key, text);
}

/* The request text, keys in the order action, object, args (or arrayedArgs). */
tavictl_status_t tavictl_build_request(const tavictl_options_t* options, std::string* text) {
  json_ptr request(json_object());
  if (!request) return tavictl_usage_error("out of memory");
  if (tavictl_set_text(request.get(), "action", options->operands[0]) != TAVICTL_OK ||
      tavictl_set_text(request.get(), "object", options->operands[1]) != TAVICTL_OK) {
    return TAVICTL_ERROR;
  }
  bool arrayed = options->arrayed != NULL;
  json_ptr args = arrayed ? tavictl_load_arrayed(options->arrayed) : tavictl_build_args(options);
  if (!args) return TAVICTL_ERROR;
  json_object_set(request.get(), arrayed ? "arrayedArgs" : "args", args.get());
  text_ptr dumped(json_dumps(request.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
  if (!dumped) return tavictl_usage_error("the request cannot be written as JSON");
  text->assign(dumped.get());
  return TAVICTL_OK;
}

int tavictl_remaining_ms(tavictl_clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - tavictl_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

/* Waits until `fd` is ready for `events`; false with errno set on failure or at the deadline. */
bool tavictl_wait(int fd, short events, tavictl_clock::time_point deadline) {
  struct pollfd watched = {fd, events, 0};
  for (;;) {
    int ready = poll(&watched, 1, tavictl_remaining_ms(deadline));
    if (ready > 0) return true;
    if (ready == 0) {
      errno = ETIMEDOUT;
      return false;
    }
    if (errno != EINTR) return false;
  }
}

/* Completes a non-blocking connect; the socket's own error lands in errno. */
bool tavictl_connected(int fd, tavictl_clock::time_point deadline) {
  if (errno != EINPROGRESS || !tavictl_wait(fd, POLLOUT, deadline)) return false;
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) < 0) return false;
  errno = error;
  return error == 0;
}

bool tavictl_connect_to(const struct addrinfo* ai, tavictl_socket_t* sock,
                        tavictl_clock::time_point deadline) {
  sock->fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
  if (sock->fd < 0) return false;
  return connect(sock->fd, ai->ai_addr, ai->ai_addrlen) == 0 || tavictl_connected(sock->fd, deadline);
}

/* Tries every address of the host in turn. */
tavictl_status_t tavictl_connect(const tavictl_options_t* options, tavictl_socket_t* sock,
                                 tavictl_clock::time_point deadline) {
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* list = NULL;
  int result = getaddrinfo(options->host, options->port, &hints, &list);
  if (result != 0) {
    fprintf(stderr, TAVICTL_PROG ": cannot resolve '%s' (%s)\n", options->host, gai_strerror(result));
    return TAVICTL_UNREACHABLE;
  }
  addrinfo_ptr owner(list);
  for (const struct addrinfo* ai = list; ai != NULL; ai = ai->ai_next) {
    tavictl_socket_t attempt;
    if (tavictl_connect_to(ai, &attempt, deadline)) {
      std::swap(sock->fd, attempt.fd);
      return TAVICTL_OK;
    }
  }
  fprintf(stderr, TAVICTL_PROG ": cannot reach tavid at %s port %s (%s)\n", options->host, options->port,
          strerror(errno));
  return TAVICTL_UNREACHABLE;
}

bool tavictl_send_all(int fd, const std::string& text, tavictl_clock::time_point deadline) {
  size_t sent = 0;
  while (sent < text.size()) {
    if (!tavictl_wait(fd, POLLOUT, deadline)) return false;
    ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count > 0) sent += static_cast<size_t>(count);
    if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
  }
  return true;
}

bool tavictl_receive_all(int fd, std::string* reply, tavictl_clock::time_point deadline) {
  char chunk[TAVICTL_CHUNK_SIZE];
  for (;;) {
    if (!tavictl_wait(fd, POLLIN, deadline)) return false;
    ssize_t count = recv(fd, chunk, sizeof(chunk), 0);
    if (count == 0) return true;
    if (count > 0) reply->append(chunk, static_cast<size_t>(count));
    if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
  }
}

/* Sends the request and collects the reply until the daemon closes. The sending side is never
 * shut: after a half-close the daemon's reads return 0 instead of timing out, so it would not
 * see the request end. */
tavictl_status_t tavictl_exchange(const tavictl_options_t* options, const std::string& request,
                                  std::string* reply) {
  std::chrono::duration<double> timeout(options->timeout_s);
  auto deadline = tavictl_clock::now() + std::chrono::duration_cast<tavictl_clock::duration>(timeout);
  tavictl_socket_t sock;
  tavictl_status_t status = tavictl_connect(options, &sock, deadline);
  if (status != TAVICTL_OK) return status;
  if (tavictl_send_all(sock.fd, request, deadline) && tavictl_receive_all(sock.fd, reply, deadline)) {
    return TAVICTL_OK;
  }
  if (errno == ETIMEDOUT) {
    fprintf(stderr, TAVICTL_PROG ": no complete reply from %s port %s within %g s\n", options->host,
            options->port, options->timeout_s);
  } else {
    fprintf(stderr, TAVICTL_PROG ": exchange with %s port %s failed (%s)\n", options->host, options->port,
            strerror(errno));
  }
  return TAVICTL_UNREACHABLE;
}

tavictl_status_t tavictl_reply_status(const json_t* reply) {
  if (json_object_get(reply, "errorCode") != NULL) return TAVICTL_ERROR;
  if (json_object_get(reply, "warningCode") != NULL) return TAVICTL_WARNING;
  return TAVICTL_OK;
}

tavictl_status_t tavictl_reject_reply(const std::string& reply) {
  if (reply.empty()) {
    fputs(TAVICTL_PROG ": the daemon closed the connection without a reply\n", stderr);
  } else {
    fputs(TAVICTL_PROG ": the reply is not a JSON object:\n", stderr);
    (void)fwrite(reply.data(), 1, reply.size(), stderr);
    fputc('\n', stderr);
  }
  return TAVICTL_UNREACHABLE;
}

/* Prints the reply indented, keys in the daemon's order, and judges it. */
tavictl_status_t tavictl_report(const std::string& reply) {
  json_error_t error;
  json_ptr parsed(json_loadb(reply.data(), reply.size(), 0, &error));
  if (!parsed || !json_is_object(parsed.get())) return tavictl_reject_reply(reply);
  text_ptr pretty(json_dumps(parsed.get(), JSON_INDENT(2) | JSON_PRESERVE_ORDER));
  if (!pretty) return tavictl_reject_reply(reply);
  printf("%s\n", pretty.get());
  return tavictl_reply_status(parsed.get());
}

tavictl_status_t tavictl_run(const tavictl_options_t* options) {
  std::string request;
  if (options->raw != NULL) {
    request = options->raw;
  } else if (tavictl_build_request(options, &request) != TAVICTL_OK) {
    return TAVICTL_ERROR;
  }
  std::string reply;
  tavictl_status_t status = tavictl_exchange(options, request, &reply);
  return status == TAVICTL_OK ? tavictl_report(reply) : status;
}

}  // namespace

int main(int argc, char** argv) {
  tavictl_options_t options = {TAVICTL_DEFAULT_HOST, TAVICTL_DEFAULT_PORT, TAVICTL_DEFAULT_TIMEOUT_S};
  tavictl_status_t status = tavictl_parse_options(argc, argv, &options);
  if (status != TAVICTL_OK) return status;
  if (options.help) {
    fputs(tavictl_help, stdout);
    return TAVICTL_OK;
  }
  status = tavictl_check_options(&options);
  if (status != TAVICTL_OK) return status;
  return tavictl_run(&options);
}
