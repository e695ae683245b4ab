#ifndef IT9305_H
#define IT9305_H

#include <stdint.h>

#include "gpio.h"
#include "i2c.h"
#include "it9300.h"

#define IT9305_NAME_LEN 64
#define IT9305_STRERROR_LEN 64

/* The chip library's result of the last call, 0 meaning success; it9305_init passes up the
 * GPIO library's errors the same way. */
typedef uint32_t it9305_err_t;

/* One TS-mux chip: five serial TS inputs, each with its own PID filter, merged into one TS. */
typedef struct it9305_t {
  i2c_t* i2c; /* not owned */
  uint8_t i2c_addr;
  char name[IT9305_NAME_LEN + 1];
  Endeavour endeavour;
  uint8_t pidfilter_index; /* the next free entry of the chip's PID table, for all its inputs */
  it9305_err_t err;
  gpio_t reset;
} it9305_t;

/* The whole bring-up: the record described, the chip hard reset, booted and its PCR restamping
 * switched on. */
it9305_err_t it9305_init(it9305_t* it9305, const char* name, uint8_t i2c_addr, i2c_t* i2c,
                         uint8_t ts_clock_divider, const gpio_t& reset);
/* Empties the input's PID table and restarts the chip's table entries at 0. */
it9305_err_t it9305_pidfilter_init(it9305_t* it9305, uint8_t ts_index, PID_FILTER_MODE mode);
/* Takes the next table entry, whether the chip accepts the PID or not: one input's filter must
 * be complete before the next input's is begun. */
it9305_err_t it9305_pidfilter_add_pid(it9305_t* it9305, uint8_t ts_index, uint16_t pid);
it9305_err_t it9305_set_enabled(it9305_t* it9305, uint8_t ts_index, uint8_t enabled);
/* Formats into one static buffer, valid until the next call. */
const char* it9305_strerror(it9305_t* it9305);

#endif
