#ifndef TAVID_H
#define TAVID_H

#include <signal.h>
#include <stdint.h>

#include "cmd.h"

typedef enum tavid_state_t : int {
  TAVID_IDLE = 0,
  TAVID_POLL = 1,
  TAVID_RESTART = 2,
  TAVID_EXIT = 3,
} tavid_state_t;

/* Which assembly main builds; numbered apart from the device's own output modes on purpose. */
typedef enum tavid_output_mode_t : int {
  TAVID_RF = 0,
  TAVID_IP_SPTS = 1,
  TAVID_IP_MPTS = 2,
} tavid_output_mode_t;

#define TAVID_LOOP_SLEEP_US 5000
#define TAVID_RESTART_CMD "/etc/rc.d/init.d/tavid restart"

extern volatile sig_atomic_t tavid_state;
extern cmd_t cmd;
extern uint8_t flag_first_time_run;

#endif
