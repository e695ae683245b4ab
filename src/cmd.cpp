#include "cmd.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "cmd_json.h"
#include "dbg.h"
#include "inet.h"

namespace {

/* A client that never reads its reply must not hold the daemon for ever. */
constexpr time_t CMD_TCP_SEND_TIMEOUT_S = 5;

/* The buffer of the largest request allowed: its text, one more read and the NUL. */
constexpr size_t CMD_TCP_REQUEST_MAX_SIZE = CMD_TCP_REQUEST_MAX_LEN + CMD_TCP_CHUNK_SIZE + 1;

/* glibc's default mmap and trim threshold: a request buffer above it leaves memory that glibc
 * would keep once the request is over. */
constexpr size_t CMD_TCP_TRIM_SIZE = size_t{128} * 1024;

/* The request as it is read: the text, its length and the buffer's capacity. */
struct cmd_request_t {
  text_ptr text;
  size_t len;
  size_t size;
};

/* How the reading of a request ended. */
enum cmd_read_t { CMD_READ_WHOLE, CMD_READ_DROPPED, CMD_READ_NO_BUFFER };

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

long cmd_us_between(const struct timespec* from, const struct timespec* to) {
  return (to->tv_sec - from->tv_sec) * 1000000L + (to->tv_nsec - from->tv_nsec) / 1000L;
}

long cmd_elapsed_us(const struct timespec* since) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return cmd_us_between(since, &now);
}

/* Room for the next read and the text's terminating NUL. The capacity doubles, up to what the
 * largest request allowed needs, so that a large request costs a few copies instead of one per
 * read; the reads themselves stay CMD_TCP_CHUNK_SIZE bytes. */
bool cmd_request_make_room(cmd_request_t* req) {
  size_t needed = req->len + CMD_TCP_CHUNK_SIZE + 1;
  if (needed <= req->size) return true;
  size_t size = std::min(std::max(2 * req->size, needed), CMD_TCP_REQUEST_MAX_SIZE);
  char* grown = static_cast<char*>(realloc(req->text.get(), size));
  if (grown == NULL) return false;
  (void)req->text.release(); /* realloc has taken the old block over */
  req->text.reset(grown);
  req->size = size;
  return true;
}

/* A request past a bound is dropped: the one warning names the bound. */
bool cmd_request_over_bound(cmd_t* cmd, size_t len, long arriving_us) {
  if (len > CMD_TCP_REQUEST_MAX_LEN) {
    DBG_WRN_AT("cmd_poll", "%s - Request larger than %d bytes, dropped", cmd->name, CMD_TCP_REQUEST_MAX_LEN);
    cmd_set_err(cmd, CMD_BUF_ERR);
    return true;
  }
  if (arriving_us > CMD_TCP_REQUEST_TIME_S * 1000000L) {
    DBG_WRN_AT("cmd_poll", "%s - Request still arriving after %d s, dropped", cmd->name,
               CMD_TCP_REQUEST_TIME_S);
    cmd_set_err(cmd, CMD_IF_ERR);
    return true;
  }
  return false;
}

/* Reads until a read fails, normally at the receive time-out after the client's last byte.
 * A zero-length read (the client closed its sending side) does not end the request by itself:
 * it counts as silence, so the request ends when the time-out would have ended it. A request
 * still arriving CMD_TCP_REQUEST_TIME_S after the connection was accepted, or longer than
 * CMD_TCP_REQUEST_MAX_LEN, is not read further. */
cmd_read_t cmd_read_request(cmd_t* cmd, int client, cmd_request_t* req) {
  struct timespec accepted;
  clock_gettime(CLOCK_MONOTONIC, &accepted);
  struct timespec last_data = accepted;
  for (;;) {
    ssize_t n = recv(client, req->text.get() + req->len, CMD_TCP_CHUNK_SIZE, 0);
    if (n < 0) return CMD_READ_WHOLE;
    if (n == 0) {
      long remaining = CMD_TCP_TIMEOUT_US - cmd_elapsed_us(&last_data);
      if (remaining <= 0) return CMD_READ_WHOLE;
      usleep(static_cast<useconds_t>(remaining));
      continue;
    }
    req->len += static_cast<size_t>(n);
    clock_gettime(CLOCK_MONOTONIC, &last_data);
    if (cmd_request_over_bound(cmd, req->len, cmd_us_between(&accepted, &last_data))) return CMD_READ_DROPPED;
    if (!cmd_request_make_room(req)) {
      DBG_WRN_AT("cmd_poll", "%s - Could not (re)allocate command buffer", cmd->name);
      cmd_set_err(cmd, CMD_BUF_ERR);
      return CMD_READ_NO_BUFFER;
    }
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

void cmd_close_client(cmd_t* cmd, int client) {
  if (inet_close_socket(client) < 0) {
    DBG_WRN_AT("cmd_poll", "%s - Could not close command", cmd->name);
    cmd_set_err(cmd, CMD_IF_ERR);
  }
}

/* Serves one accepted client. The early exits before the reply leave the client socket open,
 * as the daemon always has; a dropped request has its connection closed unanswered, so that the
 * client learns of it at once. */
cmd_err_t cmd_serve_client(cmd_t* cmd, int client, cmd_request_t* req) {
  struct timeval rcv_timeout = {CMD_TCP_TIMEOUT_S, CMD_TCP_TIMEOUT_US};
  struct timeval snd_timeout = {CMD_TCP_SEND_TIMEOUT_S, 0};
  if (setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &rcv_timeout, sizeof(rcv_timeout)) < 0 ||
      setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &snd_timeout, sizeof(snd_timeout)) < 0) {
    DBG_WRN_AT("cmd_poll", "%s - Could not set command timeout", cmd->name);
    return cmd_set_err(cmd, CMD_IF_ERR);
  }
  req->text.reset(static_cast<char*>(malloc(CMD_TCP_CHUNK_SIZE + 1)));
  if (!req->text) {
    DBG_WRN_AT("cmd_poll", "%s - Could not allocate command buffer", cmd->name);
    return cmd_set_err(cmd, CMD_BUF_ERR);
  }
  req->size = CMD_TCP_CHUNK_SIZE + 1;
  switch (cmd_read_request(cmd, client, req)) {
    case CMD_READ_NO_BUFFER:
      return cmd->err;
    case CMD_READ_DROPPED:
      cmd_close_client(cmd, client);
      return cmd->err;
    case CMD_READ_WHOLE:
      break;
  }
  req->text.get()[req->len] = '\0';
  if (cmd->frmt != CMD_FRMT_JSON) {
    DBG_WRN_AT("cmd_poll", "%s - Unknown command format", cmd->name);
    return cmd_set_err(cmd, CMD_FRMT_UNKNOWN);
  }
  text_ptr reply(cmd_json_handler(req->text.get()));
  if (!reply) {
    DBG_WRN_AT("cmd_poll", "%s - No response from JSON command handler", cmd->name);
  } else {
    cmd_send_reply(cmd, client, reply.get());
  }
  cmd_close_client(cmd, client);
  return cmd->err;
}

/* Frees the request. glibc keeps the pages of a large one (and of what its handling allocated)
 * in the process, where a few such requests would leave a small board short of memory: they are
 * handed back to the system. Smaller requests reuse the heap as it is. */
void cmd_release_request(cmd_request_t* req) {
  req->text.reset();
  if (req->size > CMD_TCP_TRIM_SIZE) (void)malloc_trim(0); /* the result only says whether any was */
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
  cmd_request_t req = {text_ptr(), 0, 0};
  cmd_err_t err_served = cmd_serve_client(cmd, client, &req);
  cmd_release_request(&req);
  return err_served;
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
