#include "cmd_json_output_ip.h"

#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "boxroot.h"
#include "cmd_json_ts.h"
#include "dbg.h"
#include "hal_output_ip.h"
#include "inet.h"

/* O_NONBLOCK once connected; the low bit is an access-mode bit that setting the status flags
 * ignores. */
#define CMD_JSON_IFCONFIG_SOCK_FLAGS 0x801
#define CMD_JSON_IFCONFIG_GET "{\"action\":\"GET\",\"object\":\"" CMD_JSON_IFCONFIG_OBJECT "\",\"args\":{}}"

namespace {

hal_output_ip_t* cmd_json_output_ip(hal_object_t* object) {
  return reinterpret_cast<hal_output_ip_t*>(object);
}

/* Whether the text is an address or a port is the HAL's to judge. */
cmd_json_err_t cmd_json_output_ip_set_text(hal_err_t (*setter)(hal_output_ip_t*, const char*),
                                           hal_object_t* object, json_t* j_val) {
  if (!json_is_string(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  return cmd_json_translate_hal_err(setter(cmd_json_output_ip(object), json_string_value(j_val)));
}

template <size_t Size>
cmd_json_err_t cmd_json_output_ip_get_text(hal_err_t (*getter)(hal_output_ip_t*, char*, size_t),
                                           const char* func, hal_object_t* object, json_t** j_val) {
  char text[Size] = {};
  hal_err_t err = getter(cmd_json_output_ip(object), text, sizeof(text));
  if (err != HAL_OK) return cmd_json_translate_hal_err(err);
  return cmd_json_text(func, text, j_val);
}

/* cmd_json_output_ip_set_<field> and cmd_json_output_ip_get_<field> over the HAL's text
 * accessors, read back into a buffer of `size`. */
#define CMD_JSON_OUTPUT_IP_TEXT(field, size)                                                      \
  cmd_json_err_t cmd_json_output_ip_set_##field(hal_object_t* object, json_t* j_val) {            \
    return cmd_json_output_ip_set_text(hal_output_ip_set_##field, object, j_val);                 \
  }                                                                                               \
  cmd_json_err_t cmd_json_output_ip_get_##field(hal_object_t* object, json_t** j_val) {           \
    return cmd_json_output_ip_get_text<size>(hal_output_ip_get_##field, __func__, object, j_val); \
  }

CMD_JSON_OUTPUT_IP_TEXT(dst_addr, HAL_OUTPUT_IP_ADDR_SIZE)
CMD_JSON_OUTPUT_IP_TEXT(dst_port, HAL_OUTPUT_IP_PORT_SIZE)

/* The status answers with whatever the streaming adaptor left in the output, 0 when it read
 * nothing. The adaptor has already warned about a statistics file it could not open, read or
 * convert whole: a rate followed by a newline, as most programs end a line, still counts. */
cmd_json_err_t cmd_json_output_ip_get_bitrate(hal_object_t* object, json_t** j_val) {
  uint32_t bitrate_kbps = 0;
  (void)hal_output_ip_get_bitrate(cmd_json_output_ip(object), &bitrate_kbps);
  return cmd_json_number(__func__, bitrate_kbps, j_val);
}

CMD_JSON_TSOUT_HANDLERS(hal_output_ip_t, cmd_json_output_ip_set_ts_ext, cmd_json_output_ip_get_ts_ext,
                        cmd_json_set_ts_ext, cmd_json_get_ts_ext)

}  // namespace

/* The destination rows both tables share. */
// clang-format off
#define CMD_JSON_OUTPUT_IP_DST_ROWS                                                    \
  {"dst_addr", cmd_json_output_ip_set_dst_addr, cmd_json_output_ip_get_dst_addr, 0},   \
  {"dst_port", cmd_json_output_ip_set_dst_port, cmd_json_output_ip_get_dst_port, 0}
// clang-format on

const cmd_json_arg_t cmd_json_output_ip_ext_args[] = {
    CMD_JSON_OUTPUT_IP_DST_ROWS,
    {"ts", cmd_json_output_ip_set_ts_ext, cmd_json_output_ip_get_ts_ext, 0, NULL, cmd_json_ts_ext_args},
    {NULL, NULL, NULL, 0},
};

const cmd_json_arg_t cmd_json_output_ip_dst_args[] = {CMD_JSON_OUTPUT_IP_DST_ROWS, {NULL, NULL, NULL, 0}};

const cmd_json_arg_t cmd_json_output_ip_status_args[] = {
    {"bitrate", NULL, cmd_json_output_ip_get_bitrate, 0},
    {NULL, NULL, NULL, 0},
};

CMD_JSON_TABLE_HANDLERS(cmd_json_set_output_ip_ext, cmd_json_get_output_ip_ext, cmd_json_output_ip_ext_args)
CMD_JSON_TABLE_HANDLERS(cmd_json_set_output_ip_dst, cmd_json_get_output_ip_dst, cmd_json_output_ip_dst_args)
CMD_JSON_TSOUT_HANDLERS(hal_output_ip_t, cmd_json_set_output_ip_ts, cmd_json_get_output_ip_ts,
                        cmd_json_set_ts, cmd_json_get_ts)
CMD_JSON_TSOUT_HANDLERS(hal_output_ip_t, cmd_json_set_output_ip_service, cmd_json_get_output_ip_services,
                        cmd_json_ts_set_service, cmd_json_ts_get_services)
CMD_JSON_TABLE_GET(cmd_json_get_output_ip_status, cmd_json_output_ip_status_args)

/* ---- the network-settings service ---- */

namespace {

/* A non-blocking socket takes a short request whole; a send that fails is not retried. */
int cmd_json_ifconfig_send(int sock, const char* request) {
  size_t left = strlen(request);
  while (left > 0) {
    ssize_t sent = send(sock, request, left, MSG_NOSIGNAL);
    if (sent <= 0) return -1;
    request += sent;
    left -= static_cast<size_t>(sent);
  }
  return 0;
}

/* What has arrived by now, at most what the buffer holds: the service answers in one piece. */
cmd_json_err_t cmd_json_ifconfig_read(const char* func, int sock, json_ptr* reply) {
  char text[CMD_JSON_IFCONFIG_REPLY_LEN] = "";
  size_t length = 0;
  ssize_t got;
  while (length < sizeof(text) - 1 && (got = read(sock, text + length, sizeof(text) - 1 - length)) > 0) {
    length += static_cast<size_t>(got);
  }
  json_error_t error;
  reply->reset(json_loads(text, JSON_DISABLE_EOF_CHECK, &error));
  return *reply ? CMD_JSON_OK : cmd_json_value_error(func);
}

/* A service that does not answer in time leaves `reply` empty without failing: a slow service
 * is not worth an error. */
cmd_json_err_t cmd_json_ifconfig_talk(const char* func, int sock, const char* request, json_ptr* reply) {
  if (cmd_json_ifconfig_send(sock, request) != 0) {
    DBG_WRN_AT(func, "Could not send 'ifconfig' command");
    return CMD_JSON_UNSUCCESSFUL;
  }
  struct pollfd pfd = {sock, POLLIN, 0};
  int ready = poll(&pfd, 1, CMD_JSON_IFCONFIG_TIMEOUT_MS);
  if (ready < 0) {
    DBG_WRN_AT(func, "Could not POLL TCP command interface for response");
    return CMD_JSON_UNSUCCESSFUL;
  }
  if (ready == 0) {
    DBG_WRN_AT(func, "Timeout while waiting for POLL response on TCP command interface");
    return CMD_JSON_OK;
  }
  if ((pfd.revents & POLLIN) == 0) return CMD_JSON_OK;
  return cmd_json_ifconfig_read(func, sock, reply);
}

/* One connection per request; `func` is the handler the warnings name. */
cmd_json_err_t cmd_json_ifconfig_exchange(const char* func, const char* request, json_ptr* reply) {
  int sock = inet_create_tcp_client_socket(NULL, CMD_JSON_IFCONFIG_PORT, CMD_JSON_IFCONFIG_SOCK_FLAGS);
  if (sock < 0) {
    DBG_WRN_AT(func, "Could not connect to TCP command interface on localhost:49998");
    return CMD_JSON_UNSUCCESSFUL;
  }
  cmd_json_err_t err = cmd_json_ifconfig_talk(func, sock, request, reply);
  inet_close_socket(sock);
  return err;
}

/* The last entry of the service's list that names the streaming interface, without the name.
 * Entries without a name are skipped. */
json_t* cmd_json_ifconfig_interface(json_t* reply) {
  json_t* result = json_object_get(reply, "result");
  if (!json_is_array(result)) return NULL;
  json_ptr found;
  size_t i;
  json_t* element;
  json_array_foreach(result, i, element) {
    const char* name = json_string_value(json_object_get(element, "interface"));
    if (name == NULL || strcmp(name, CMD_JSON_IFCONFIG_INTERFACE) != 0) continue;
    found.reset(json_incref(element));
    json_object_del(element, "interface");
  }
  return found.release();
}

/* The write request around the client's arguments, which can only ever address eth1. */
text_ptr cmd_json_ifconfig_post(json_t* j_args) {
  if (json_object_set_new(j_args, "interface", json_string(CMD_JSON_IFCONFIG_INTERFACE)) != 0) return nullptr;
  json_ptr request(
      json_pack("{s:s, s:s, s:[O]}", "action", "POST", "object", CMD_JSON_IFCONFIG_OBJECT, "args", j_args));
  if (!request) return nullptr;
  return text_ptr(json_dumps(request.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
}

/* The service answers an accepted write with an empty object; anything else is its report of
 * what it refused. */
int cmd_json_ifconfig_accepted(json_t* reply) {
  json_t* result = json_object_get(reply, "result");
  return json_is_object(result) && json_object_size(result) == 0;
}

cmd_json_err_t cmd_json_ifconfig_restart(void) {
  return boxroot_system(CMD_JSON_IFCONFIG_RESTART) == 0 ? CMD_JSON_OK : CMD_JSON_UNSUCCESSFUL;
}

}  // namespace

cmd_json_err_t cmd_json_get_output_ip_ifconfig(hal_object_t*, json_t** j_val) {
  json_ptr reply;
  cmd_json_err_t err = cmd_json_ifconfig_exchange(__func__, CMD_JSON_IFCONFIG_GET, &reply);
  if (err != CMD_JSON_OK || !reply) return err;
  json_t* settings = cmd_json_ifconfig_interface(reply.get());
  if (settings != NULL) *j_val = settings;
  return CMD_JSON_OK;
}

cmd_json_err_t cmd_json_set_output_ip_ifconfig(hal_object_t*, json_t* j_val) {
  text_ptr request = cmd_json_ifconfig_post(j_val);
  if (!request) return cmd_json_value_error(__func__);
  json_ptr reply;
  cmd_json_err_t err = cmd_json_ifconfig_exchange(__func__, request.get(), &reply);
  if (err != CMD_JSON_OK || !reply) return err;
  if (!cmd_json_ifconfig_accepted(reply.get())) return CMD_JSON_UNSUCCESSFUL;
  return cmd_json_ifconfig_restart();
}
