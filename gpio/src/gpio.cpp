#include "gpio.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace {

bool write_all(int fd, const char* text) {
  const size_t len = strlen(text);
  ssize_t done;
  do {
    done = write(fd, text, len);
  } while (done < 0 && errno == EINTR);
  return done == static_cast<ssize_t>(len);
}

/* Replaces the content of a sysfs file with text; gpio->fd holds the file while it is open. */
gpio_error_t write_file(gpio_t* gpio, const char* path, const char* text) {
  gpio->fd = open(path, O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (gpio->fd < 0) {
    gpio->fd = -1;
    return GPIO_DEV_ERR;
  }
  const bool written = write_all(gpio->fd, text);
  const bool closed = close(gpio->fd) == 0 || errno == EINTR;
  gpio->fd = -1;
  return written && closed ? GPIO_NO_ERR : GPIO_DEV_WR_ERR;
}

void sleep_ms(long ms) {
  struct timespec left = {ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

const char* level_text(uint8_t level) {
  return level == 0 ? "0" : "1";
}

}  // namespace

gpio_error_t gpio_set_direction(gpio_t* gpio, uint8_t direction) {
  if (gpio == NULL || gpio->direction == NULL) {
    return GPIO_ERR;
  }
  if (direction == GPIO_DIRECTION_OUT) {
    return write_file(gpio, gpio->direction, "out");
  }
  if (direction == GPIO_DIRECTION_IN) {
    return write_file(gpio, gpio->direction, "in");
  }
  return GPIO_DIRECTION_ERR;
}

gpio_error_t gpio_toggle_reset(gpio_t* gpio, uint8_t active_level) {
  if (gpio == NULL || gpio->value == NULL) {
    return GPIO_ERR;
  }
  if (active_level > 1) {
    return GPIO_VALUE_ERR;
  }
  const uint8_t inactive_level = active_level == 0 ? 1 : 0;
  gpio_error_t err = write_file(gpio, gpio->value, level_text(active_level));
  if (err != GPIO_NO_ERR) {
    return err;
  }
  sleep_ms(GPIO_RESET_HOLD_MS);
  err = write_file(gpio, gpio->value, level_text(inactive_level));
  if (err != GPIO_NO_ERR) {
    return err;
  }
  sleep_ms(GPIO_RESET_HOLD_MS);
  return GPIO_NO_ERR;
}
