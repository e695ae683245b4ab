#ifndef I2C_H
#define I2C_H

#include <stdint.h>

/* The board's I2C library. One handle per bus; a transaction is i2c_open, transfers, i2c_close.
 * The device is either the Linux i2c-dev character device or a Unix-domain stream socket
 * that serves a simulated bus; the library tells them apart by what the path is. */

#define I2C_NAME_LEN 64
#define I2C_DEV_LEN 64
#define I2C_STRERROR_LEN 64
#define I2C_RETRY_INT_US 10000

typedef enum i2c_err_t : int {
  I2C_OK = 0,
  I2C_ERR = 1,
  I2C_TIME_OUT = 2,
} i2c_err_t;

typedef struct i2c_t {
  int fd;
  char dev[I2C_DEV_LEN + 1];
  char name[I2C_NAME_LEN + 1];
  i2c_err_t err;
  /* Private: how the open device is reached and which slave is addressed. */
  uint8_t is_socket;
  uint8_t slave_addr;
} i2c_t;

i2c_err_t i2c_init(i2c_t* i2c, const char* name, const char* dev);
i2c_err_t i2c_open(i2c_t* i2c, uint8_t slave_addr);
i2c_err_t i2c_write(i2c_t* i2c, const uint8_t* data, uint32_t size, uint32_t timeout_ms);
i2c_err_t i2c_read(i2c_t* i2c, uint8_t* data, uint32_t size, uint32_t timeout_ms);
i2c_err_t i2c_close(i2c_t* i2c);
const char* i2c_strerror(i2c_t* i2c);

#endif
