#include "tavid.h"

#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <initializer_list>

#include "boxroot.h"
#include "cmd_json.h"
#include "dbg.h"
#include "hal.h"
#include "hal_device.h"

volatile sig_atomic_t tavid_state = TAVID_IDLE;
cmd_t cmd = {CMD_FRMT_JSON, CMD_IF_TCP, {{-1, CMD_TCP_DEFAULT_PORT}}, "cmd-json", CMD_OK};
uint8_t flag_first_time_run = 1;

static void sighandler(int signum) {
  if (signum == SIGUSR1) {
    DBG_MSG("Restart (SIGUSR1) requested (PID %d)", getpid());
    tavid_state = TAVID_RESTART;
  } else if (signum == SIGTERM || signum == SIGINT) {
    DBG_MSG("Shutdown requested (PID %d)", getpid());
    tavid_state = TAVID_EXIT;
  }
}

/* An empty mask and no flags: a signal cuts sleeps and system calls short. SIGPIPE is caught and
 * does nothing, so that a log line written to a pipe whose reader has gone (tavid 2>&1 | logger)
 * fails instead of ending the daemon; caught rather than ignored, because an ignored signal
 * would stay ignored in every program the daemon runs. */
static int tavid_install_signals(void) {
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = sighandler;
  sigemptyset(&action.sa_mask);
  for (int signum : {SIGTERM, SIGINT, SIGUSR1, SIGPIPE}) {
    if (sigaction(signum, &action, NULL) != 0) return -1;
  }
  return 0;
}

/* Returns 0 when the options are good, -1 after an error line. */
static int tavid_parse_options(int argc, char** argv, tavid_output_mode_t* mode) {
  int opt;
  static const struct option no_long_options[] = {{NULL, 0, NULL, 0}};
  while ((opt = getopt_long(argc, argv, ":vc:m:", no_long_options, NULL)) != -1) {
    char* end = NULL;
    uint32_t port;
    switch (opt) {
      case 'c':
        port = cmd_json_strtou32(optarg, &end, 10);
        if (end != optarg + strlen(optarg) || port >= 65536) {
          DBG_ERR_AT(
              "main",
              "Option '%s' recieved an invalid port number. Please use valid number between %d and %d.",
              argv[optind - 1], 0, 65535);
          return -1;
        }
        cmd.if_tcp.port = static_cast<uint16_t>(port);
        break;
      case 'm':
        if (strcmp(optarg, "ip_spts") == 0) {
          *mode = TAVID_IP_SPTS;
        } else if (strcmp(optarg, "ip_mpts") == 0) {
          *mode = TAVID_IP_MPTS;
        } else if (strcmp(optarg, "rf") == 0) {
          *mode = TAVID_RF;
        } else {
          DBG_ERR_AT("main",
                     "Option '%s' received an unknown output mode. Please choose \"rf\", \"ip_spts\" or "
                     "\"ip_mpts\".",
                     argv[optind - 1]);
          return -1;
        }
        break;
      case 'v':
        verbose = 1;
        break;
      case ':':
        DBG_ERR_AT("main", "Option '%s' requires an argument.", argv[optind - 1]);
        return -1;
      case '?':
        DBG_ERR_AT("main", "Unknown option '%s'.", argv[optind - 1]);
        return -1;
      default:
        break;
    }
  }
  return 0;
}

static int tavid_init_hal(tavid_output_mode_t mode) {
  switch (mode) {
    case TAVID_IP_SPTS:
      if (hal_init_ip_spts() == HAL_OK) return 0;
      DBG_ERR_AT("main", "Could not initialize HAL (IP SPTS)");
      return -1;
    case TAVID_IP_MPTS:
      if (hal_init_ip_mpts() == HAL_OK) return 0;
      DBG_ERR_AT("main", "Could not initialize HAL (IP MPTS)");
      return -1;
    case TAVID_RF:
      if (hal_init_rf() == HAL_OK) return 0;
      DBG_WRN_AT("main", "%d", mode);
      DBG_ERR_AT("main", "Could not initialize HAL (RF)");
      return -1;
  }
  DBG_WRN_AT("main", "%d", mode);
  DBG_ERR_AT("main", "Could not initialize HAL (unknown mode)");
  return -1;
}

/* Settings are restored only once the first poll cycle has run. */
static void tavid_first_pass(void) {
  if (cmd_restore_settings(NULL, NULL) != CMD_JSON_OK) DBG_WRN_AT("main", "Could not restore settings...");
  flag_first_time_run = 0;
  hal_device_t* device = reinterpret_cast<hal_device_t*>(hal_object_by_type(HAL_DEVICE, 0));
  if (hal_device_clear_alarm_led(device) != HAL_OK) DBG_WRN_AT("main", "Alarm led not cleared...");
  hal_device_update_temperature(device);
}

/* Poll, sleep 5 ms, poll, ...; the first pass polls. */
static void tavid_main_loop(void) {
  while (tavid_state != TAVID_EXIT && tavid_state != TAVID_RESTART) {
    tavid_state = (tavid_state == TAVID_IDLE) ? TAVID_POLL : TAVID_IDLE;
    if (tavid_state == TAVID_IDLE) {
      usleep(TAVID_LOOP_SLEEP_US);
    } else if (tavid_state == TAVID_POLL) {
      cmd_poll(&cmd, 0);
      hal_poll();
      if (flag_first_time_run) tavid_first_pass();
    }
  }
}

static void tavid_run(int argc, char** argv) {
  tavid_output_mode_t mode = TAVID_RF;
  if (tavid_install_signals() != 0) {
    DBG_ERR_AT("main", "Could not set signal handling");
    return;
  }
  if (tavid_parse_options(argc, argv, &mode) != 0 || tavid_init_hal(mode) != 0) return;
  if (cmd_open(&cmd) != CMD_OK) {
    DBG_ERR_AT("main", "%s - Could not open JSON command interface (%d)", cmd.name, cmd.if_tcp.port);
    return;
  }
  tavid_main_loop();
}

/* The exit status is 0 on every path, errors included. */
int main(int argc, char** argv) {
  if (boxroot_init() != 0) return 0;
  tavid_run(argc, argv);
  cmd_close(&cmd);
  hal_cleanup();
  if (tavid_state == TAVID_RESTART) {
    boxroot_system(TAVID_RESTART_CMD); /* nothing is left to tell its result to */
  }
  return 0;
}
