/* A simulated I2C bus on a Unix socket, for the tests of the I2C library and of the drivers that
 * use it. Header only. */
#ifndef FAKE_I2C_BUS_H
#define FAKE_I2C_BUS_H

#include <gtest/gtest.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fake_i2c {

typedef std::vector<uint8_t> bytes_t;

/* The bus in a temporary directory, served by its own thread, with one slave on it. Every
 * transfer is recorded as the bus saw it: a write as 'W', address, length (2 bytes) and the bytes;
 * a read as 'R', address and length. The slave can be made absent, to not acknowledge its first
 * transfers or every read, to answer reads with given bytes (padded with 0x00 up to the length
 * read), to answer with a wrong byte, or to drop the connection at a given transfer. Like an
 * encoder module it can stay busy after each write: it then does not acknowledge the single 0x00
 * byte that asks whether it is done until its busy time has passed. */
class FakeBus {
 public:
  explicit FakeBus(uint8_t slave) : slave_(slave) {
    char dir_template[] = "/tmp/i2cXXXXXX";
    if (mkdtemp(dir_template) == NULL) {
      return;
    }
    dir_ = dir_template;
    path_ = dir_ + "/bus";
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
    bound_ = bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0 &&
             listen(listen_fd_, 4) == 0 && pipe(wake_) == 0;
    if (bound_) {
      thread_ = std::thread(&FakeBus::run, this);
    }
  }

  ~FakeBus() {
    if (bound_) {
      const char stop = 's';
      EXPECT_EQ(write(wake_[1], &stop, 1), 1);
      thread_.join();
      close(wake_[0]);
      close(wake_[1]);
    }
    if (listen_fd_ >= 0) {
      close(listen_fd_);
    }
    if (!dir_.empty()) {
      unlink(path_.c_str());
      rmdir(dir_.c_str());
    }
  }

  FakeBus(const FakeBus&) = delete;
  FakeBus& operator=(const FakeBus&) = delete;

  bool ready() const { return bound_; }
  const char* path() const { return path_.c_str(); }

  void set_present(bool present) {
    std::lock_guard<std::mutex> lock(mutex_);
    present_ = present;
  }
  void nack_first(int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    nacks_left_ = count;
  }
  void set_nack_reads(bool nack_reads) {
    std::lock_guard<std::mutex> lock(mutex_);
    nack_reads_ = nack_reads;
  }
  void set_read_bytes(const bytes_t& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    read_bytes_ = bytes;
  }
  void set_ack_byte(uint8_t ack) {
    std::lock_guard<std::mutex> lock(mutex_);
    ack_byte_ = ack;
  }
  void set_busy_ms(uint32_t busy_ms) {
    std::lock_guard<std::mutex> lock(mutex_);
    busy_ = std::chrono::milliseconds(busy_ms);
  }
  /* After `count` more transfers, the next one's header is read, then the connection is closed
   * without an answer. */
  void vanish_after(int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    vanish_countdown_ = count;
  }
  void vanish_on_next_transfer() { vanish_after(0); }

  std::vector<bytes_t> frames() {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  size_t transfers() { return frames().size(); }
  int connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
  }
  /* Forgets the recorded transfers and connections. */
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    frames_.clear();
    connections_ = 0;
  }

 private:
  typedef std::chrono::steady_clock bus_clock_t;

  /* Waits until fd is readable; false when the bus is being stopped. */
  bool wait_readable(int fd) {
    struct pollfd fds[2] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    while (poll(fds, 2, -1) < 0) {
    }
    return (fds[1].revents & POLLIN) == 0;
  }

  bool recv_exact(int fd, uint8_t* data, size_t size) {
    while (size > 0) {
      if (!wait_readable(fd)) {
        return false;
      }
      const ssize_t got = recv(fd, data, size, 0);
      if (got <= 0) {
        return false;
      }
      data += got;
      size -= static_cast<size_t>(got);
    }
    return true;
  }

  static void send_bytes(int fd, const bytes_t& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) {
        return;
      }
      sent += static_cast<size_t>(n);
    }
  }

  void run() {
    while (wait_readable(listen_fd_)) {
      const int conn = accept(listen_fd_, NULL, NULL);
      if (conn < 0) {
        continue;
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        connections_++;
      }
      while (serve_transfer(conn)) {
      }
      close(conn);
    }
  }

  /* Called with the mutex held: true when this transfer is the one to vanish at. */
  bool vanishes_now() {
    if (vanish_countdown_ < 0) {
      return false;
    }
    return vanish_countdown_-- == 0;
  }

  /* One transfer on the connection; false when the connection is to be closed. */
  bool serve_transfer(int conn) {
    uint8_t header[4];
    if (!recv_exact(conn, header, sizeof(header))) {
      return false;
    }
    const size_t len = (static_cast<size_t>(header[2]) << 8) | header[3];
    bytes_t frame(header, header + sizeof(header));
    std::unique_lock<std::mutex> lock(mutex_);
    if (vanishes_now()) {
      frames_.push_back(frame);
      return false;
    }
    lock.unlock();
    if (header[0] == 'W') {
      frame.resize(sizeof(header) + len);
      if (!recv_exact(conn, frame.data() + sizeof(header), len)) {
        return false;
      }
    }
    lock.lock();
    frames_.push_back(frame);
    send_bytes(conn, answer(frame));
    return true;
  }

  /* Called with the mutex held. The single 0x00 byte is how a master asks a busy slave whether it
   * is done. */
  bool acknowledges(const bytes_t& frame) {
    if (nacks_left_ > 0) {
      nacks_left_--;
      return false;
    }
    if (!present_ || frame[1] != slave_) {
      return false;
    }
    if (frame[0] == 'R') {
      return !nack_reads_;
    }
    const bool asks_done = frame.size() == 5 && frame[4] == 0x00;
    if (asks_done) {
      return bus_clock_t::now() >= busy_until_;
    }
    busy_until_ = bus_clock_t::now() + busy_;
    return true;
  }

  /* Called with the mutex held. */
  bytes_t answer(const bytes_t& frame) {
    if (!acknowledges(frame)) {
      return bytes_t{0x01};
    }
    bytes_t reply{ack_byte_};
    if (frame[0] == 'R') {
      bytes_t data = read_bytes_;
      data.resize((static_cast<size_t>(frame[2]) << 8) | frame[3], 0x00);
      reply.insert(reply.end(), data.begin(), data.end());
    }
    return reply;
  }

  const uint8_t slave_;
  std::string dir_;
  std::string path_;
  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};
  bool bound_ = false;
  std::thread thread_;

  std::mutex mutex_;
  bool present_ = true;
  int nacks_left_ = 0;
  bool nack_reads_ = false;
  bytes_t read_bytes_;
  uint8_t ack_byte_ = 0x00;
  bus_clock_t::duration busy_ = bus_clock_t::duration::zero();
  bus_clock_t::time_point busy_until_;
  int vanish_countdown_ = -1;
  std::vector<bytes_t> frames_;
  int connections_ = 0;
};

}  // namespace fake_i2c

#endif
