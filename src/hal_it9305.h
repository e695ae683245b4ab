#ifndef HAL_IT9305_H
#define HAL_IT9305_H

#include <stdint.h>

#include "gpio.h"
#include "hal.h"
#include "hal_tsmux_5x1.h"
#include "it9305.h"

typedef struct hal_i2c_t hal_i2c_t;

/* One TS-mux chip as a HAL object; its multiplexers drive it through the operations below. */
typedef struct hal_it9305_t {
  hal_object_t hal_object;
  it9305_t it9305;
} hal_it9305_t;

/* Deliberately does not bring the chip up: the arguments are accepted and not kept, and the chip
 * record stays zero-filled. Not pushed into the registry. */
hal_it9305_t* new_hal_it9305(const char* name, uint8_t i2c_addr, hal_i2c_t* hal_i2c, uint8_t ts_clock_divider,
                             const gpio_t& reset);
void delete_hal_it9305(hal_object_t* object);

/* A multiplexer of the five inputs whose filters and ports are those of the chip. Not pushed
 * into the registry. */
hal_tsmux_5x1_t* new_hal_it9305_tsmux_5x1(hal_it9305_t* hal_it9305, hal_tsmux_tsin_t tsin_0,
                                          hal_tsmux_tsin_t tsin_1, hal_tsmux_tsin_t tsin_2,
                                          hal_tsmux_tsin_t tsin_3, hal_tsmux_tsin_t tsin_4);

/* The multiplexer's operations; `hal_it9305` is the chip object, whose err keeps the result. */
hal_err_t hal_it9305_pidfilter_init(void* hal_it9305, uint8_t ts_index, hal_pidfilter_mode_t mode);
hal_err_t hal_it9305_pidfilter_add_pid(void* hal_it9305, uint8_t ts_index, uint16_t pid);
hal_err_t hal_it9305_set_enabled(void* hal_it9305, uint8_t ts_index, uint8_t enabled);

/* The chip's text, for the chip object and for the multiplexers made on it. */
const char* hal_it9305_strerror(hal_object_t* object);

hal_err_t hal_translate_it9305_err(it9305_err_t err);
/* Every block mode is a block filter and every pass mode a pass filter (unknown modes too):
 * what tells them apart is the list of PIDs the multiplexer adds. */
PID_FILTER_MODE hal_to_it9305_pidfilter_mode(hal_pidfilter_mode_t mode);

#endif
