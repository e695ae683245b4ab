/* tavictl: command-line client of tavid's JSON command port: builds one request, sends it through
 * the shared client and prints the reply. */

#include <getopt.h>
#include <jansson.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "tavid_client.h"
#include "tavid_json.h"

namespace {

#define TAVICTL_PROG "tavictl"

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
      if (tavid_client_valid_port(optarg)) return TAVICTL_OK;
      return tavictl_usage_error("invalid port '%s' (1 to 65535)", optarg);
    case 't':
      if (tavid_client_parse_timeout(optarg, &options->timeout_s)) return TAVICTL_OK;
      return tavictl_usage_error("invalid time-out '%s' (seconds, above 0, at most %g)", optarg,
                                 TAVID_CLIENT_MAX_TIMEOUT_S);
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

/* Sends the request and collects the reply until the daemon closes. */
tavictl_status_t tavictl_exchange(const tavictl_options_t* options, const std::string& request,
                                  std::string* reply) {
  tavid_client_t client;
  client.host = options->host;
  client.port = options->port;
  client.timeout_s = options->timeout_s;
  tavid_client_failure_t failure = tavid_client_exchange(&client, request, reply);
  if (failure.err == TAVID_CLIENT_OK) return TAVICTL_OK;
  fprintf(stderr, TAVICTL_PROG ": %s\n", tavid_client_describe(&client, failure).c_str());
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
  tavictl_options_t options = {TAVID_CLIENT_DEFAULT_HOST, TAVID_CLIENT_DEFAULT_PORT, TAVID_CLIENT_DEFAULT_TIMEOUT_S};
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
