/* What the fuzzing harnesses share: a temporary box root whose scripts are harmless stand-ins, a
 * simulated I2C bus served by its own thread, the four encoder/modulator modules answering on it
 * with plausible factory values, and the RF box built on them. Header only; each harness includes
 * it once. */
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <errno.h>
#include <ftw.h>
#include <jansson.h>
#include <pthread.h>
#include <sanitizer/common_interface_defs.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "boxroot.h"
#include "cmd_json.h"
#include "hal.h"
#include "hal_ts.h"

/* The box root is a temporary directory: flushing every disk of the machine after each stored
 * setting would only make every run wait for the other work on it. */
// NOLINTNEXTLINE(misc-definitions-in-headers): replaces the C library's sync; one harness, one include
extern "C" void sync(void) noexcept {}

namespace fuzz {

typedef std::vector<uint8_t> bytes_t;

/* The harness cannot go on: told where the sanitizers report, which stays open when the fuzzer
 * closes the harness's own stderr. */
[[noreturn]] inline void die(const char* what) {
  __sanitizer_report_error_summary((std::string("fuzz: ") + what + " (" + strerror(errno) + ")").c_str());
  exit(1);
}

/* ---- the box root ---- */

inline std::string& root_dir() {
  static std::string dir;
  return dir;
}

inline std::string root_path(const std::string& box_path) { return root_dir() + box_path; }

inline void write_file(const std::string& box_path, const std::string& text, mode_t mode = 0644) {
  const std::string path = root_path(box_path);
  FILE* file = fopen(path.c_str(), "w");
  if (file == NULL || fwrite(text.data(), 1, text.size(), file) != text.size() || fclose(file) != 0 ||
      chmod(path.c_str(), mode) != 0) {
    die(("could not write " + path).c_str());
  }
}

inline std::string read_file(const std::string& box_path) {
  std::string text;
  FILE* file = fopen(root_path(box_path).c_str(), "r");
  if (file == NULL) return text;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0) text.append(chunk, got);
  (void)fclose(file); /* read only */
  return text;
}

inline void make_dirs(const std::string& box_path) {
  for (size_t slash = 1; slash != std::string::npos;) {
    slash = box_path.find('/', slash + 1);
    const std::string path = root_path(box_path.substr(0, slash));
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) die(("could not create " + path).c_str());
  }
}

inline int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

inline void remove_root(void) { nftw(root_dir().c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS); }

/* A script that does nothing and succeeds: what the box would reboot or restart with. */
inline void write_stand_in(const std::string& box_path) { write_file(box_path, "#!/bin/sh\nexit 0\n", 0755); }

/* A new temporary box root, named by TAVID_ROOT, with its sbin and bin first in PATH. Every command a
 * request can run (reboot, the restart scripts, the streaming program) is a stand-in that exits 0,
 * so that no input can reach the machine. The root is removed when the harness exits. The path is
 * kept short: the bus socket lives inside it. */
inline void make_box_root(void) {
  char dir[] = "/tmp/tfzXXXXXX";
  if (mkdtemp(dir) == NULL) die("could not create the box root");
  root_dir() = dir;
  if (atexit(remove_root) != 0) die("could not arrange the box root's removal");
  for (const char* box_dir :
       {"/dev", "/data", "/bin", "/sbin", "/tmp", "/storage", "/opt/bin", "/etc/rc.d/init.d",
        "/sys/class/gpio/gpio17", "/sys/class/gpio/gpio193", "/sys/class/gpio/gpio196",
        "/sys/class/leds/rgb_red", "/sys/class/hwmon/hwmon0/device",
        "/sys/devices/virtual/thermal/thermal_zone0"}) {
    make_dirs(box_dir);
  }
  for (const char* script :
       {"/sbin/reboot", "/etc/rc.d/init.d/tavid", "/etc/rc.d/init.d/network_eth1", "/opt/bin/qel2ip"}) {
    write_stand_in(script);
  }
  for (const char* gpio : {"17", "193", "196"}) {
    write_file(std::string("/sys/class/gpio/gpio") + gpio + "/value", "0\n");
    write_file(std::string("/sys/class/gpio/gpio") + gpio + "/direction", "out\n");
  }
  for (const char* led : {"/sys/class/leds/rgb_red", "/storage"}) {
    write_file(std::string(led) + "/brightness", "0\n");
    write_file(std::string(led) + "/trigger", "none\n");
  }
  write_file("/sys/class/hwmon/hwmon0/device/temp1_input", "45000\n");
  write_file("/sys/devices/virtual/thermal/thermal_zone0/temp", "41000\n");
  for (const char* mode : {"rf", "ip_spts", "ip_mpts"}) {
    write_file(std::string("/opt/bin/default_settings_") + mode + ".conf",
               std::string("{\"action\":\"set\",\"object\":\"device\",\"args\":{\"output_mode\":\"") + mode +
                   "\",\"device_id\":\"0\"}}\n\r");
  }
  if (setenv("TAVID_ROOT", dir, 1) != 0 || boxroot_init() != 0) die("could not enter the box root");
}

/* ---- one run ---- */

/* Longer than any run takes unless something hangs: the fuzzer's own limit is given as 30 s. */
constexpr int RUN_LIMIT_S = 25;

/* A failed check of a harness: reported where the sanitizers report (the harness's own stderr may be
 * closed), then a crash the fuzzer keeps the input of. */
[[noreturn]] inline void fail(const std::string& what) {
  __sanitizer_report_error_summary(("fuzz: check failed: " + what).c_str());
  abort();
}

inline std::atomic<int64_t>& run_started_s() {
  static std::atomic<int64_t> started{0};
  return started;
}

inline int64_t monotonic_s() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

/* What holds during one run of a harness. The fuzzer's time-out watch is SIGALRM, which would cut the
 * daemon's poll, accept and recv calls short with EINTR, something no client, module or service makes
 * them see: within a run the signal is held back from the fuzzing thread (and the threads it starts),
 * and a watchdog thread reports a run that hangs, as a crash whose input is kept. Requests may switch
 * the output mode, which restarts the daemon through SIGUSR1: within a run that signal is ignored. */
class Run {
 public:
  Run() {
    static const bool watching = start_watchdog();
    (void)watching;
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, &saved_mask_);
    struct sigaction ignore;
    memset(&ignore, 0, sizeof(ignore));
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGUSR1, &ignore, &saved_usr1_);
    run_started_s() = monotonic_s();
  }
  ~Run() {
    run_started_s() = 0;
    sigaction(SIGUSR1, &saved_usr1_, NULL);
    pthread_sigmask(SIG_SETMASK, &saved_mask_, NULL);
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

 private:
  static bool start_watchdog() {
    std::thread([] {
      for (;;) {
        sleep(1);
        const int64_t started = run_started_s();
        if (started != 0 && monotonic_s() - started > RUN_LIMIT_S) {
          fail("a run took longer than " + std::to_string(RUN_LIMIT_S) + " s");
        }
      }
    }).detach();
    return true;
  }

  sigset_t saved_mask_;
  struct sigaction saved_usr1_;
};

/* ---- the simulated bus ---- */

/* The bus socket, served by its own thread for as long as the harness runs: one connection per
 * bus transaction, transfers as 'W' addr len(2) bytes / 'R' addr len(2), each answered with what the
 * slaves make of it. */
class SimBus {
 public:
  SimBus() = default;
  SimBus(const SimBus&) = delete;
  SimBus& operator=(const SimBus&) = delete;
  virtual ~SimBus() = default;

  void start(const std::string& path) {
    const int listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (listen_fd < 0 || bind(listen_fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listen_fd, 4) != 0) {
      die(("could not serve the bus at " + path).c_str());
    }
    std::thread(&SimBus::run, this, listen_fd).detach();
    // cppcheck-suppress resourceLeak ; the bus thread serves the socket until the harness exits
  }

 protected:
  /* The bytes the bus sends back for one transfer; with hang_up set it then drops the connection. */
  struct answer_t {
    bytes_t bytes;
    bool hang_up;
  };

  static answer_t nack() { return {{0x01}, false}; }

  /* Called on the bus thread while the harness waits for the transaction. */
  virtual answer_t on_write(uint8_t addr, const bytes_t& data) = 0;
  virtual answer_t on_read(uint8_t addr, size_t len) = 0;

 private:
  static bool recv_exact(int fd, uint8_t* data, size_t size) {
    while (size > 0) {
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

  void run(int listen_fd) {
    for (;;) {
      const int conn = accept(listen_fd, NULL, NULL);
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

/* ---- the RF box ---- */

inline ModuleBus& module_bus(void) {
  /* Never destroyed: its thread serves until the harness exits. */
  static ModuleBus* bus = new ModuleBus;
  return *bus;
}

/* The settings file the RF box stores at the factory. */
inline std::string& factory_settings(void) {
  static std::string text;
  return text;
}

/* The RF box as the daemon has it after its first poll cycle, built afresh on factory-fresh
 * modules with the tags counted from zero, and its factory settings file: every run that starts
 * from here starts from the same state. */
inline void build_rf_box(void) {
  hal_cleanup();
  module_bus().factory_reset();
  hal_ts_tag = hal_service_tag = hal_stream_tag = 0;
  if (hal_init_rf() != HAL_OK) die("could not build the RF box");
  hal_poll();
  write_file(TAVID_CMD_SETTINGS_FILE, factory_settings());
}

/* The box root, the module bus in it and the RF box, with its factory settings file. */
inline void start_rf_box(void) {
  make_box_root();
  module_bus().start(root_path("/dev/i2c-0"));
  build_rf_box();
  if (cmd_store_settings(NULL, NULL) != CMD_JSON_OK) die("could not store the factory settings");
  factory_settings() = read_file(TAVID_CMD_SETTINGS_FILE);
  write_file("/opt/bin/default_settings_rf.conf", factory_settings());
}

/* Whether a text reaches a set or execute handler: only those change the box, so that after
 * anything else the next run can skip the rebuild, which costs a hundred module transactions. The
 * text is parsed as the dispatcher parses it. */
inline bool changes_box(const char* text, size_t size) {
  json_error_t error;
  json_t* request = json_loadb(text, size, JSON_DISABLE_EOF_CHECK, &error);
  const char* action = json_string_value(json_object_get(request, "action"));
  const bool changes = action != NULL && (strcmp(action, "set") == 0 || strcmp(action, "execute") == 0);
  json_decref(request);
  return changes;
}

/* Whether the restore of a settings file replays anything: its first record parses. */
inline bool starts_with_record(const char* text, size_t size) {
  json_error_t error;
  json_t* record = json_loadb(text, size, JSON_DISABLE_EOF_CHECK, &error);
  json_decref(record);
  return record != NULL;
}

/* Every reply is one JSON object: empty, or a result, an error or a warning. */
inline bool reply_well_formed(const char* reply) {
  if (reply == NULL) return false;
  json_error_t error;
  json_t* parsed = json_loads(reply, 0, &error);
  bool good =
      json_is_object(parsed) && (json_object_size(parsed) == 0 || json_object_get(parsed, "result") != NULL ||
                                 json_object_get(parsed, "arrayedResult") != NULL ||
                                 (json_is_integer(json_object_get(parsed, "errorCode")) &&
                                  json_is_string(json_object_get(parsed, "description"))) ||
                                 (json_is_integer(json_object_get(parsed, "warningCode")) &&
                                  json_is_string(json_object_get(parsed, "description"))));
  json_decref(parsed);
  return good;
}

}  // namespace fuzz

#endif
