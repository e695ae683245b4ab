/* What the fuzzing harnesses share: a temporary box root whose scripts are harmless stand-ins, a
 * simulated I2C bus served by its own thread, the four encoder/modulator modules answering on it
 * with plausible factory values, and the box of each output mode built on them. Header only; each harness
 * includes it once. */
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
#include <sys/wait.h>
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
#include "module_bus.h"

/* The box root is a temporary directory: flushing every disk of the machine after each stored
 * setting would only make every run wait for the other work on it. */
// NOLINTNEXTLINE(misc-definitions-in-headers): replaces the C library's sync; one harness, one include
extern "C" void sync(void) noexcept {}

namespace fuzz {

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

/* ---- the simulated bus and its modules ---- */

using simbus::bytes_t;
using simbus::ModuleBus;
using simbus::SimBus;

/* ---- the box of each output mode ---- */

inline ModuleBus& module_bus(void) {
  /* Never destroyed: its thread serves until the harness exits. */
  static ModuleBus* bus = new ModuleBus;
  return *bus;
}

/* The output modes, in the order of the byte that picks one (modulo their count). */
struct box_mode_t {
  const char* name; /* as -m and the default settings files name it */
  hal_err_t (*init)(void);
};
constexpr box_mode_t BOX_MODES[] = {
    {"rf", hal_init_rf}, {"ip_spts", hal_init_ip_spts}, {"ip_mpts", hal_init_ip_mpts}};
constexpr size_t BOX_MODE_COUNT = sizeof(BOX_MODES) / sizeof(BOX_MODES[0]);

inline size_t box_mode_of(uint8_t byte) { return byte % BOX_MODE_COUNT; }

/* The settings file each box stores at the factory; which box the last run left, and whether that
 * run may have changed it. */
struct boxes_t {
  std::string factory_settings[BOX_MODE_COUNT];
  size_t mode;
  bool changed;
};

inline boxes_t& boxes(void) {
  static boxes_t state = {{}, 0, false};
  return state;
}

/* Every child the daemon started, the streaming program's included, must be gone by the time its
 * objects are: stopped, or killed. A killed child may still wait to be reaped (the stop looks once
 * after SIGKILL, and on a loaded machine the child has not ended by then); it is reaped here. One
 * still running a second later was never stopped. */
inline void check_no_child_left(void) {
  constexpr int kLooks = 100;
  int status;
  for (int look = 0; look < kLooks; look++) {
    const pid_t child = waitpid(-1, &status, WNOHANG);
    if (child < 0) return;
    if (child == 0) usleep(10000);
  }
  fail("a child of the daemon outlived the box that started it");
}

/* The box of one output mode as the daemon has it after its first poll cycle, built afresh on
 * factory-fresh modules with the tags counted from zero, and its factory settings file: every run
 * that starts from here starts from the same state. */
inline void build_box(size_t mode) {
  hal_cleanup();
  check_no_child_left();
  module_bus().factory_reset();
  hal_ts_tag = hal_service_tag = hal_stream_tag = 0;
  if (BOX_MODES[mode].init() != HAL_OK) die("could not build the box");
  hal_poll();
  write_file(TAVID_CMD_SETTINGS_FILE, boxes().factory_settings[mode]);
}

/* The box root, the module bus in it and the factory settings file of every mode, stored by its
 * box and kept as that mode's default settings; the box of the first mode stays built. The boxes
 * are taken down when the harness exits, so that no streaming program outlives it. */
inline void start_boxes(void) {
  make_box_root();
  if (!module_bus().start(root_path("/dev/i2c-0"))) die("could not serve the bus");
  for (size_t mode = BOX_MODE_COUNT; mode-- > 0;) {
    build_box(mode);
    if (cmd_store_settings(NULL, NULL) != CMD_JSON_OK) die("could not store the factory settings");
    boxes().factory_settings[mode] = read_file(TAVID_CMD_SETTINGS_FILE);
    write_file(std::string("/opt/bin/default_settings_") + BOX_MODES[mode].name + ".conf",
               boxes().factory_settings[mode]);
  }
  if (atexit(hal_cleanup) != 0) die("could not arrange the boxes' removal");
}

/* Readies the box of `mode` for a run: built anew unless the last run left that box unchanged. */
inline void box_for_run(size_t mode) {
  boxes_t& state = boxes();
  if (state.changed || state.mode != mode) build_box(mode);
  state.mode = mode;
  state.changed = false;
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
