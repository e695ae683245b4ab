#ifndef HAL_I2C_H
#define HAL_I2C_H

#include <stdint.h>

#include "hal.h"
#include "i2c.h"

/* The box's one I2C bus as a HAL object. The module and TS-mux drivers use the embedded handle
 * directly; the operations are the bus's face towards the rest of the HAL. The bus is opened and
 * closed around every transaction, never left open in between. */
typedef struct hal_i2c_t {
  hal_object_t hal_object; /* user points at i2c */
  i2c_t i2c;
  hal_err_t (*open)(struct hal_i2c_t* hal_i2c, uint8_t slave_addr);
  hal_err_t (*close)(struct hal_i2c_t* hal_i2c);
  hal_err_t (*write)(struct hal_i2c_t* hal_i2c, const uint8_t* data, uint32_t size, uint32_t timeout_ms);
  hal_err_t (*read)(struct hal_i2c_t* hal_i2c, uint8_t* data, uint32_t size, uint32_t timeout_ms);
} hal_i2c_t;

hal_i2c_t* new_hal_i2c(const char* name, const char* dev);
void delete_hal_i2c(hal_object_t* object);

hal_err_t hal_i2c_open(hal_i2c_t* hal_i2c, uint8_t slave_addr);
hal_err_t hal_i2c_close(hal_i2c_t* hal_i2c);
hal_err_t hal_i2c_write(hal_i2c_t* hal_i2c, const uint8_t* data, uint32_t size, uint32_t timeout_ms);
hal_err_t hal_i2c_read(hal_i2c_t* hal_i2c, uint8_t* data, uint32_t size, uint32_t timeout_ms);

/* A time-out is not told apart from other bus failures at this level. */
hal_err_t hal_translate_i2c_err(i2c_err_t err);
/* The library's text for the bus's last result. */
const char* hal_i2c_strerror(hal_object_t* object);

#endif
