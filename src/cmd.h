#ifndef CMD_H
#define CMD_H

#include <stdint.h>

#define CMD_TCP_DEFAULT_PORT 49999
#define CMD_TCP_CHUNK_SIZE 100
#define CMD_TCP_TIMEOUT_S 0
#define CMD_TCP_TIMEOUT_US 50000
#define CMD_STRERROR_LEN 256
/* Bounds on one request, so that no client can hold the single-threaded box or its memory: the
 * longest the main loop may already block (the interface-configuration exchange), and far above
 * the largest request a box can use (every object in one "arrayedArgs" set). */
#define CMD_TCP_REQUEST_TIME_S 5
#define CMD_TCP_REQUEST_MAX_LEN 1048576

typedef enum cmd_frmt_t : int { CMD_FRMT_JSON = 0 } cmd_frmt_t;
typedef enum cmd_if_t : int { CMD_IF_TCP = 0 } cmd_if_t;

typedef enum cmd_err_t : int {
  CMD_OK = 0,
  CMD_HANDLE_ERR = 1,
  CMD_IF_ERR = 2,
  CMD_IF_TYPE_UNKNOWN = 3,
  CMD_FRMT_UNKNOWN = 4,
  CMD_FRMT_HANDLER_ERR = 5,
  CMD_BUF_ERR = 6,
} cmd_err_t;

typedef struct cmd_if_tcp_t {
  int srv_sock;
  uint16_t port;
} cmd_if_tcp_t;

/* One listening socket; each poll serves at most one client connection completely. */
typedef struct cmd_t {
  cmd_frmt_t frmt;
  cmd_if_t if_type;
  union {
    cmd_if_tcp_t if_tcp;
  };
  const char* name;
  cmd_err_t err;
} cmd_t;

cmd_err_t cmd_open(cmd_t* cmd);
cmd_err_t cmd_poll(cmd_t* cmd, int timeout_ms);
cmd_err_t cmd_close(cmd_t* cmd);
const char* cmd_strerror(cmd_t* cmd);

#endif
