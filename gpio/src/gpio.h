#ifndef GPIO_H
#define GPIO_H

#include <stdint.h>

/* The board's GPIO library: a line is driven through its sysfs files, each opened, written and
 * closed within one call. */

/* Direction values of gpio_set_direction. */
#define GPIO_DIRECTION_OUT 0
#define GPIO_DIRECTION_IN 1

/* How long gpio_toggle_reset holds each level, in milliseconds. */
#define GPIO_RESET_HOLD_MS 10

typedef struct gpio_t {
  const char* value;     /* path of the line's value file */
  const char* direction; /* path of the line's direction file */
  const char* pinNr;     /* the pin number, as text */
  int fd;                /* open file while a call writes, -1 otherwise */
} gpio_t;

typedef enum gpio_error_t {
  GPIO_NO_ERR = 0,
  GPIO_ERR = 1,
  GPIO_DEV_ERR = 2,
  GPIO_DEV_WR_ERR = 3,
  GPIO_DEV_RD_ERR = 4,
  GPIO_EXPORT_ERR = 5,
  GPIO_DIRECTION_ERR = 6,
  GPIO_VALUE_ERR = 7,
} gpio_error_t;

/* GPIO_DIRECTION_OUT writes "out", GPIO_DIRECTION_IN writes "in" to the direction file. */
gpio_error_t gpio_set_direction(gpio_t* gpio, uint8_t direction);
/* A reset pulse on the value file: the active level (0 or 1), then the other one, each held for
 * GPIO_RESET_HOLD_MS. */
gpio_error_t gpio_toggle_reset(gpio_t* gpio, uint8_t active_level);

#endif
