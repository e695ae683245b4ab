#include "cmd.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "cmd_json.h"
#include "dbg.h"
#include "inet.h"

namespace {

/* A client that never reads its reply must not hold the daemon for ever. */
constexpr time_t CMD_TCP_SEND_TIMEOUT_S = 5;

constexpr const char* cmd_err_texts[] = {
    "Command ok",
    "Command invalid handle",
    "Command interface error",
    "Command interface type unknown",
    "Command format unknown",
    "Command format handler error",
    "Command buffer error",
};

cmd_err_t cmd_set_err(cmd_t* cmd, cmd_err_t err) {
  cmd->err = err;
  return err;
}

/* Every operation starts afresh on a valid TCP handle. */
cmd_err_t cmd_begin(cmd_t* cmd, const char* func) {
  if (cmd == NULL) {
    DBG_WRN_AT(func, "Invalid handle");
    return CMD_HANDLE_ERR;
  }
  cmd->err = CMD_OK;
  if (cmd->if_type != CMD_IF_TCP) return cmd_set_err(cmd, CMD_IF_TYPE_UNKNOWN);
  return CMD_OK;
}

long cmd_elapsed_us(const struct timespec* since) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - since->tv_sec) * 1000000L + (now.tv_nsec - since->tv_nsec) / 1000L;
}

/* Reads until a read fails, normally at the receive time-out after the client's last byte.
 * A zero-length read (the client closed its sending side) does not end the request by itself:
 * it counts as silence, so the request ends when the time-out would have ended it. */
cmd_err_t cmd_read_request(cmd_t* cmd, int client, text_ptr* buf, size_t* len) {
  struct timespec last_data;
  clock_gettime(CLOCK_MONOTONIC, &last_data);
  for (;;) {
    ssize_t n = recv(client, buf->get() + *len, CMD_TCP_CHUNK_SIZE, 0);
    if (n < 0) return CMD_OK;
    if (n == 0) {
      long remaining = CMD_TCP_TIMEOUT_US - cmd_elapsed_us(&last_data);
      if (remaining <= 0) return CMD_OK;
      usleep(static_cast<useconds_t>(remaining));
      continue;
    }
    *len += static_cast<size_t>(n);
    clock_gettime(CLOCK_MONOTONIC, &last_data);
    char* grown = static_cast<char*>(realloc(buf->get(), *len + CMD_TCP_CHUNK_SIZE + 1));
    if (grown == NULL) {
      DBG_WRN_AT("cmd_poll", "%s - Could not (re)allocate command buffer", cmd->name);
      return CMD_BUF_ERR;
    }
    (void)buf->release(); /* realloc has taken the old block over */
    buf->reset(grown);
  }
}

void cmd_send_reply(cmd_t* cmd, int client, const char* reply) {
  size_t size = strlen(reply);
  for (size_t sent = 0; sent < size;) {
    ssize_t n = send(client, reply + sent, size - sent, MSG_NOSIGNAL);
    if (n < 0) {
      DBG_WRN_AT("cmd_poll", "%s - Could not send JSON response", cmd->name);
      return;
    }
    sent += static_cast<size_t>(n);
  }
}

/* Serves one accepted client. The early exits before the reply leave the client socket open,
 * as the daemon always has. */
cmd_err_t cmd_serve_client(cmd_t* cmd, int client) {
  struct timeval rcv_timeout = {CMD_TCP_TIMEOUT_S, CMD_TCP_TIMEOUT_US};
  struct timeval snd_timeout = {CMD_TCP_SEND_TIMEOUT_S, 0};
  if (setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &rcv_timeout, sizeof(rcv_timeout)) < 0 ||
      setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &snd_timeout, sizeof(snd_timeout)) < 0) {
    DBG_WRN_AT("cmd_poll", "%s - Could not set command timeout", cmd->name);
    return cmd_set_err(cmd, CMD_IF_ERR);
  }
  text_ptr buf(static_cast<char*>(malloc(CMD_TCP_CHUNK_SIZE + 1)));
  if (!buf) {
    DBG_WRN_AT("cmd_poll", "%s - Could not allocate command buffer", cmd->name);
    return cmd_set_err(cmd, CMD_BUF_ERR);
  }
  size_t len = 0;
  if (cmd_read_request(cmd, client, &buf, &len) != CMD_OK) return cmd_set_err(cmd, CMD_BUF_ERR);
  buf.get()[len] = '\0';
  if (cmd->frmt != CMD_FRMT_JSON) {
    DBG_WRN_AT("cmd_poll", "%s - Unknown command format", cmd->name);
    return cmd_set_err(cmd, CMD_FRMT_UNKNOWN);
  }
  text_ptr reply(cmd_json_handler(buf.get()));
  if (!reply) {
    DBG_WRN_AT("cmd_poll", "%s - No response from JSON command handler", cmd->name);
  } else {
    cmd_send_reply(cmd, client, reply.get());
  }
  if (inet_close_socket(client) < 0) {
    DBG_WRN_AT("cmd_poll", "%s - Could not close command", cmd->name);
    cmd_set_err(cmd, CMD_IF_ERR);
  }
  return cmd->err;
}
}  // namespace

cmd_err_t cmd_open(cmd_t* cmd) {
  cmd_err_t err = cmd_begin(cmd, "cmd_open");
  if (err != CMD_OK) return err;
  char str_port[INET_PORT_STR_LEN] = {0};
  inet_port_to_string(str_port, cmd->if_tcp.port);
  /* Bit 1 comes along with O_NONBLOCK; the status-flag call ignores it. */
  cmd->if_tcp.srv_sock = inet_create_tcp_server_socket(str_port, O_NONBLOCK | 1);
  if (cmd->if_tcp.srv_sock < 0) {
    DBG_WRN("%s - Could not open TCP command interface on port %d", cmd->name, cmd->if_tcp.port);
    return cmd_set_err(cmd, CMD_IF_ERR);
  }
  return CMD_OK;
}

cmd_err_t cmd_poll(cmd_t* cmd, int timeout_ms) {
  cmd_err_t err = cmd_begin(cmd, "cmd_poll");
  if (err != CMD_OK) return err;
  struct pollfd pfd = {cmd->if_tcp.srv_sock, POLLIN, 0};
  int ready = poll(&pfd, 1, timeout_ms);
  if (ready < 0) {
    DBG_WRN("%s - Could not POLL TCP interface for command", cmd->name);
    return cmd_set_err(cmd, CMD_IF_ERR);
  }
  if (ready == 0 || !(pfd.revents & POLLIN)) return CMD_OK;
  /* Bit 1 again has no effect: the client socket stays blocking. */
  int client = inet_accept_tcp_client(cmd->if_tcp.srv_sock, NULL, NULL, 1);
  if (client < 0) {
    DBG_WRN("%s - Could not accept command", cmd->name);
    return cmd_set_err(cmd, CMD_IF_ERR);
  }
  return cmd_serve_client(cmd, client);
}

cmd_err_t cmd_close(cmd_t* cmd) {
  cmd_err_t err = cmd_begin(cmd, "cmd_close");
  if (err != CMD_OK) return err;
  if (inet_close_socket(cmd->if_tcp.srv_sock) < 0) {
    DBG_WRN("%s - Could not close JSON command interface", cmd->name);
    return cmd_set_err(cmd, CMD_IF_ERR);
  }
  cmd->if_tcp.srv_sock = -1;
  return CMD_OK;
}

const char* cmd_strerror(cmd_t* cmd) {
  static char text[CMD_STRERROR_LEN];
  size_t err = static_cast<size_t>(cmd->err);
  if (err < sizeof(cmd_err_texts) / sizeof(cmd_err_texts[0])) {
    snprintf(text, sizeof(text), "%s", cmd_err_texts[err]);
  } else {
    snprintf(text, sizeof(text), "Command error: %d", static_cast<int>(cmd->err));
  }
  return text;
}
