/* A simulated I2C bus on a Unix socket with the box's four encoder/modulator modules on it, for the
 * tests and the fuzzing harnesses that build a whole box. Header only.
 *
 * SimBus serves the socket from its own thread, one connection per bus transaction, transfers as
 * 'W' addr len(2) bytes / 'R' addr len(2), each answered with what its slaves make of it; the
 * thread stops when the bus is destroyed. ModuleBus puts the modules at 0x30 to 0x33 on it. */
#ifndef MODULE_BUS_H
#define MODULE_BUS_H

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace simbus {

typedef std::vector<uint8_t> bytes_t;

class SimBus {
 public:
  SimBus() = default;
  SimBus(const SimBus&) = delete;
  SimBus& operator=(const SimBus&) = delete;
  virtual ~SimBus() {
    if (thread_.joinable()) {
      const char stop = 's';
      if (write(wake_[1], &stop, 1) == 1) thread_.join();
    }
    for (int fd : {listen_fd_, wake_[0], wake_[1]}) {
      if (fd >= 0) close(fd);
    }
    if (!path_.empty()) unlink(path_.c_str());
  }

  /* Serves the bus at `path` (a socket path below 108 bytes); false when it cannot. */
  bool start(const std::string& path) {
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
      return false;
    }
    path_ = path;
    if (listen(listen_fd_, 4) != 0 || pipe2(wake_, O_CLOEXEC) != 0) return false;
    thread_ = std::thread(&SimBus::run, this);
    return true;
  }

 protected:
  /* The bytes the bus sends back for one transfer; with hang_up set it then drops the connection. */
  struct answer_t {
    bytes_t bytes;
    bool hang_up;
  };

  static answer_t nack() { return {{0x01}, false}; }

  /* Called on the bus thread while the caller waits for the transaction. */
  virtual answer_t on_write(uint8_t addr, const bytes_t& data) = 0;
  virtual answer_t on_read(uint8_t addr, size_t len) = 0;

 private:
  /* Waits until fd is readable; false when the bus is being stopped. */
  bool wait_readable(int fd) const {
    struct pollfd fds[2] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    while (poll(fds, 2, -1) < 0) {
      if (errno != EINTR) return false;
    }
    return (fds[1].revents & POLLIN) == 0;
  }

  bool recv_exact(int fd, uint8_t* data, size_t size) const {
    while (size > 0) {
      if (!wait_readable(fd)) return false;
      const ssize_t got = recv(fd, data, size, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      data += got;
      size -= static_cast<size_t>(got);
    }
    return true;
  }

  static void send_all(int fd, const bytes_t& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }

  void run() {
    while (wait_readable(listen_fd_)) {
      const int conn = accept(listen_fd_, NULL, NULL);
      if (conn < 0) continue;
      while (serve(conn)) {
      }
      close(conn);
    }
  }

  bool serve(int conn) {
    uint8_t header[4];
    if (!recv_exact(conn, header, sizeof(header))) return false;
    const size_t len = static_cast<size_t>(header[2]) << 8 | header[3];
    answer_t answer;
    if (header[0] == 'W') {
      bytes_t data(len);
      if (!recv_exact(conn, data.data(), len)) return false;
      answer = on_write(header[1], data);
    } else if (header[0] == 'R') {
      answer = on_read(header[1], len);
    } else {
      return false;
    }
    send_all(conn, answer.bytes);
    return !answer.hang_up;
  }

  std::string path_;
  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};
  std::thread thread_;
};

/* ---- the modules ---- */

inline bytes_t be16(uint16_t value) {
  return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}
inline bytes_t be32(uint32_t value) {
  return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
          static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}
inline bytes_t text_bytes(const std::string& text) { return {text.begin(), text.end()}; }

inline bytes_t reply_frame(uint8_t code, uint8_t error_byte, const bytes_t& payload = {}) {
  bytes_t frame{'#', code, error_byte, static_cast<uint8_t>(payload.size())};
  frame.insert(frame.end(), payload.begin(), payload.end());
  frame.push_back('\r');
  return frame;
}

/* One encoder/modulator module: what each get answers, keyed by get code and slot (-1 without). Set
 * commands stage their payload as the value of the matching get; a code it does not know is
 * answered with error byte 2. */
class Module {
 public:
  static constexpr uint8_t FIRST_ADDR = 0x30;
  static constexpr int COUNT = 4;
  static constexpr int SLOTS = 3;

  explicit Module(int index) : index_(index) { factory_reset(); }

  /* The module on board place `index` leaves the factory with its own service, PIDs and
   * frequency, so that the four share one multiplex. */
  void factory_reset() {
    const uint16_t pmt_pid = static_cast<uint16_t>(0x100 * (index_ + 1));
    const uint16_t number = static_cast<uint16_t>(index_ + 1);
    values_.clear();
    const std::map<uint8_t, bytes_t> plain = {
        {0xFF, {0x00, 0x00, 'A', 1, 2, 3}},
        {0xFE, {1, 0x04, 0x38, 'p', 50, 0x4D, 0xC1, 0}},
        {0x81, {1}},
        {0x82, {5}},
        {0x83, be32(474000 + 8000 * static_cast<uint32_t>(index_))},
        {0x84, {8}},
        {0x85, be16(6900)},
        {0x86, {6}},
        {0x87, {0}},
        {0x88, {1}},
        {0x89, {1}},
        {0x8A, {0}},
        {0x8B, {0}},
        {0x8C, {0}},
        {0x8D, {0}},
        {0x8E, be16(8000)},
        {0x8F, {25}},
        {0x90, {0}},
        {0x91, be16(192)},
        {0x92, be16(number)},
        {0x93, be16(1)},
        {0x94, be16(1)},
        {0x95, be16(1)},
        {0x96, be32(0x28)},
        {0x97, be16(number)},
        {0x98, text_bytes("HDMI " + std::to_string(number))},
        {0x99, text_bytes("tavi")},
        {0x9A, {0}},
        {0x9B, be16(pmt_pid)},
        {0x9C, be16(static_cast<uint16_t>(pmt_pid + 1))},
        {0x9D, be16(static_cast<uint16_t>(pmt_pid + 2))},
        {0xE0, {0}},
        {0xE1, {0, 0}},
        {0xEA, {1}},
    };
    for (const auto& entry : plain) values_[{entry.first, -1}] = entry.second;
    const std::map<uint8_t, bytes_t> slot_values = {{0xE2, {0}},     {0xE3, be16(0)}, {0xE4, be16(0)},
                                                    {0xE5, {}},      {0xE6, be16(0)}, {0xE7, be16(0)},
                                                    {0xE8, be16(0)}, {0xE9, {0}}};
    for (int slot = 0; slot < SLOTS; slot++) {
      for (const auto& entry : slot_values) values_[{entry.first, slot}] = entry.second;
    }
  }

  /* One command frame; the reply waits for the read that follows. */
  void execute(const bytes_t& frame) { reply_ = reply_to(frame); }

  /* The reply frame, padded with 0x00 up to the length read, as the module puts it on the bus. */
  bytes_t reply(size_t len) const {
    bytes_t padded = reply_;
    padded.resize(len, 0x00);
    return padded;
  }

 private:
  struct key_t {
    uint8_t code;
    int slot;
    bool operator<(const key_t& other) const {
      return code != other.code ? code < other.code : slot < other.slot;
    }
  };

  /* The extra services and the debug codes are kept per slot (or code): the first payload byte. */
  static bool slotted(uint8_t code) {
    const uint8_t set_code = code & 0x7F;
    return (set_code >= 0x62 && set_code <= 0x69) || set_code == 0x6B;
  }

  static bool is_action(uint8_t code) { return code == 0x00 || (code >= 0x70 && code <= 0x72); }

  bytes_t reply_to(const bytes_t& frame) {
    if (frame.size() < 4 || frame[0] != '#' || 3u + frame[2] >= frame.size()) return reply_frame(0, 1);
    const uint8_t code = frame[1];
    bytes_t payload(frame.begin() + 3, frame.begin() + 3 + frame[2]);
    int slot = -1;
    if (slotted(code) && !payload.empty()) {
      slot = payload[0];
      payload.erase(payload.begin());
    }
    if (slotted(code) && (code & 0x7F) != 0x6B && (slot < 0 || slot >= SLOTS)) return reply_frame(code, 4);
    if (code == 0x72) factory_reset();
    if (is_action(code)) return reply_frame(code, 0);
    if (code == 0xEB) return reply_frame(code, 0, lookup({code, slot}, bytes_t{0}));
    if (code & 0x80) {
      auto found = values_.find({code, slot});
      return found == values_.end() ? reply_frame(code, 2) : reply_frame(code, 0, found->second);
    }
    const key_t get_key = {static_cast<uint8_t>(code | 0x80), slot};
    if (code != 0x6B && values_.count(get_key) == 0) return reply_frame(code, 2);
    if (code == 0x61 && !payload.empty())
      payload.erase(payload.begin()); /* the enable flag is not read back */
    values_[get_key] = payload;
    return reply_frame(code, 0);
  }

  bytes_t lookup(const key_t& key, const bytes_t& otherwise) const {
    auto found = values_.find(key);
    return found == values_.end() ? otherwise : found->second;
  }

  const int index_;
  std::map<key_t, bytes_t> values_;
  bytes_t reply_;
};

/* The four modules at 0x30 to 0x33 on one bus; every other address is absent. A module is never
 * busy: it acknowledges the wait byte at once. */
class ModuleBus : public SimBus {
 public:
  ModuleBus() {
    for (int n = 0; n < Module::COUNT; n++) modules_.emplace_back(n);
  }

  void factory_reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Module& module : modules_) module.factory_reset();
  }

 protected:
  answer_t on_write(uint8_t addr, const bytes_t& data) override {
    std::lock_guard<std::mutex> lock(mutex_);
    Module* module = at(addr);
    if (module == NULL) return nack();
    if (!(data.size() == 1 && data[0] == 0x00)) module->execute(data);
    return {{0x00}, false};
  }

  answer_t on_read(uint8_t addr, size_t len) override {
    std::lock_guard<std::mutex> lock(mutex_);
    Module* module = at(addr);
    if (module == NULL) return nack();
    answer_t answer = {{0x00}, false};
    const bytes_t reply = module->reply(len);
    answer.bytes.insert(answer.bytes.end(), reply.begin(), reply.end());
    return answer;
  }

 private:
  Module* at(uint8_t addr) {
    const int n = addr - Module::FIRST_ADDR;
    return n >= 0 && n < Module::COUNT ? &modules_[static_cast<size_t>(n)] : NULL;
  }

  std::mutex mutex_;
  std::vector<Module> modules_;
};

}  // namespace simbus

#endif
