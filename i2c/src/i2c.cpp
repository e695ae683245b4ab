#include "i2c.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace {

/* How one attempt at a transfer ended. */
enum attempt_t {
  ATTEMPT_DONE,
  ATTEMPT_NACK,
  ATTEMPT_FAILED,
};

const uint8_t SOCK_CMD_WRITE = 0x57; /* 'W' */
const uint8_t SOCK_CMD_READ = 0x52;  /* 'R' */
const uint8_t SOCK_ACK = 0x00;
const uint8_t SOCK_NACK = 0x01;
const uint32_t SOCK_MAX_LEN = 0xFFFF;
const uint8_t MAX_SLAVE_ADDR = 0x7F;

i2c_err_t set_err(i2c_t* i2c, i2c_err_t err) {
  i2c->err = err;
  return err;
}

/* Copies a NUL-terminated text of at most max_len characters into dst (max_len + 1 bytes). */
bool copy_text(char* dst, const char* src, size_t max_len) {
  if (src == NULL) {
    return false;
  }
  const size_t len = strnlen(src, max_len + 1);
  if (len > max_len) {
    return false;
  }
  memcpy(dst, src, len);
  dst[len] = '\0';
  return true;
}

bool is_socket_path(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISSOCK(st.st_mode);
}

int connect_socket(const char* path) {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  static_assert(I2C_DEV_LEN < sizeof(addr.sun_path), "a device path must fit a socket address");
  if (!copy_text(addr.sun_path, path, sizeof(addr.sun_path) - 1)) {
    return -1;
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  int rc;
  do {
    rc = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int open_char_device(const char* path, uint8_t slave_addr) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  if (ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(slave_addr)) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool send_all(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) {
      continue;
    }
    if (sent <= 0) {
      return false;
    }
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

/* False also when the peer closed the connection before all bytes came. */
bool recv_all(int fd, uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t got = recv(fd, data, size, 0);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return false;
    }
    data += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

bool send_header(const i2c_t* i2c, uint8_t cmd, uint32_t size) {
  const uint8_t header[4] = {cmd, i2c->slave_addr, static_cast<uint8_t>(size >> 8),
                             static_cast<uint8_t>(size & 0xFF)};
  return send_all(i2c->fd, header, sizeof(header));
}

/* Reads the bus's answer byte: acknowledged, not acknowledged, or anything else (a failure). */
attempt_t recv_answer(const i2c_t* i2c) {
  uint8_t answer;
  if (!recv_all(i2c->fd, &answer, 1)) {
    return ATTEMPT_FAILED;
  }
  if (answer == SOCK_ACK) {
    return ATTEMPT_DONE;
  }
  return answer == SOCK_NACK ? ATTEMPT_NACK : ATTEMPT_FAILED;
}

attempt_t socket_write(const i2c_t* i2c, const uint8_t* data, uint32_t size) {
  if (!send_header(i2c, SOCK_CMD_WRITE, size) || !send_all(i2c->fd, data, size)) {
    return ATTEMPT_FAILED;
  }
  return recv_answer(i2c);
}

attempt_t socket_read(const i2c_t* i2c, uint8_t* data, uint32_t size) {
  if (!send_header(i2c, SOCK_CMD_READ, size)) {
    return ATTEMPT_FAILED;
  }
  const attempt_t answer = recv_answer(i2c);
  if (answer != ATTEMPT_DONE) {
    return answer;
  }
  return recv_all(i2c->fd, data, size) ? ATTEMPT_DONE : ATTEMPT_FAILED;
}

bool is_nack_errno(int err) {
  return err == ENXIO || err == EREMOTEIO || err == EIO;
}

/* Judges the result of one read() or write() of a whole transfer on the character device. */
attempt_t device_result(ssize_t done, uint32_t size) {
  if (done == static_cast<ssize_t>(size)) {
    return ATTEMPT_DONE;
  }
  if (done >= 0 || is_nack_errno(errno)) {
    return ATTEMPT_NACK;
  }
  return ATTEMPT_FAILED;
}

attempt_t device_write(const i2c_t* i2c, const uint8_t* data, uint32_t size) {
  ssize_t done;
  do {
    done = write(i2c->fd, data, size);
  } while (done < 0 && errno == EINTR);
  return device_result(done, size);
}

attempt_t device_read(const i2c_t* i2c, uint8_t* data, uint32_t size) {
  ssize_t done;
  do {
    done = read(i2c->fd, data, size);
  } while (done < 0 && errno == EINTR);
  return device_result(done, size);
}

uint64_t monotonic_us() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

/* Repeats an attempt that is not acknowledged every I2C_RETRY_INT_US until timeout_ms passed. */
template <typename Attempt>
i2c_err_t with_retries(uint32_t timeout_ms, Attempt attempt) {
  const uint64_t start = monotonic_us();
  const uint64_t timeout_us = static_cast<uint64_t>(timeout_ms) * 1000u;
  for (;;) {
    const attempt_t result = attempt();
    if (result == ATTEMPT_DONE) {
      return I2C_OK;
    }
    if (result == ATTEMPT_FAILED) {
      return I2C_ERR;
    }
    if (monotonic_us() - start >= timeout_us) {
      return I2C_TIME_OUT;
    }
    usleep(I2C_RETRY_INT_US);
  }
}

bool can_transfer(const i2c_t* i2c, const uint8_t* data, uint32_t size) {
  if (i2c->fd < 0 || (data == NULL && size > 0)) {
    return false;
  }
  return !i2c->is_socket || size <= SOCK_MAX_LEN;
}

const char* err_text(i2c_err_t err) {
  switch (err) {
    case I2C_OK:
      return "I2C ok";
    case I2C_ERR:
      return "I2C error";
    case I2C_TIME_OUT:
      return "I2C time out";
  }
  return NULL;
}

}  // namespace

i2c_err_t i2c_init(i2c_t* i2c, const char* name, const char* dev) {
  if (i2c == NULL) {
    return I2C_ERR;
  }
  i2c->fd = -1;
  i2c->dev[0] = '\0';
  i2c->name[0] = '\0';
  i2c->is_socket = 0;
  i2c->slave_addr = 0;
  if (!copy_text(i2c->name, name, I2C_NAME_LEN) || !copy_text(i2c->dev, dev, I2C_DEV_LEN)) {
    i2c->name[0] = '\0';
    i2c->dev[0] = '\0';
    return set_err(i2c, I2C_ERR);
  }
  return set_err(i2c, I2C_OK);
}

i2c_err_t i2c_open(i2c_t* i2c, uint8_t slave_addr) {
  if (i2c == NULL) {
    return I2C_ERR;
  }
  if (i2c->fd >= 0 || slave_addr > MAX_SLAVE_ADDR) {
    return set_err(i2c, I2C_ERR);
  }
  const bool is_socket = is_socket_path(i2c->dev);
  const int fd = is_socket ? connect_socket(i2c->dev) : open_char_device(i2c->dev, slave_addr);
  if (fd < 0) {
    return set_err(i2c, I2C_ERR);
  }
  i2c->fd = fd;
  i2c->is_socket = is_socket ? 1 : 0;
  i2c->slave_addr = slave_addr;
  return set_err(i2c, I2C_OK);
}

i2c_err_t i2c_write(i2c_t* i2c, const uint8_t* data, uint32_t size, uint32_t timeout_ms) {
  if (i2c == NULL) {
    return I2C_ERR;
  }
  if (!can_transfer(i2c, data, size)) {
    return set_err(i2c, I2C_ERR);
  }
  return set_err(i2c, with_retries(timeout_ms, [=]() {
                   return i2c->is_socket ? socket_write(i2c, data, size) : device_write(i2c, data, size);
                 }));
}

i2c_err_t i2c_read(i2c_t* i2c, uint8_t* data, uint32_t size, uint32_t timeout_ms) {
  if (i2c == NULL) {
    return I2C_ERR;
  }
  if (!can_transfer(i2c, data, size)) {
    return set_err(i2c, I2C_ERR);
  }
  return set_err(i2c, with_retries(timeout_ms, [=]() {
                   return i2c->is_socket ? socket_read(i2c, data, size) : device_read(i2c, data, size);
                 }));
}

i2c_err_t i2c_close(i2c_t* i2c) {
  if (i2c == NULL) {
    return I2C_ERR;
  }
  if (i2c->fd < 0) {
    return set_err(i2c, I2C_OK);
  }
  const int rc = close(i2c->fd);
  i2c->fd = -1;
  /* On Linux the descriptor is released even when close() is interrupted. */
  return set_err(i2c, rc == 0 || errno == EINTR ? I2C_OK : I2C_ERR);
}

const char* i2c_strerror(i2c_t* i2c) {
  static char text[I2C_STRERROR_LEN + 1];
  const i2c_err_t err = i2c == NULL ? I2C_ERR : i2c->err;
  const char* fixed = err_text(err);
  if (fixed != NULL) {
    snprintf(text, sizeof(text), "%s", fixed);
  } else {
    snprintf(text, sizeof(text), "I2C error: %d", static_cast<int>(err));
  }
  return text;
}
