/* In-process measurements of the daemon's own work: the box of one output mode is assembled on the
 * bus of a running box simulator (TAVID_ROOT names its root) and brought to where the daemon is after
 * its first pass (first poll cycle, settings restored, restored settings pushed). Then each operation
 * named on the command line runs once unmeasured, to warm the caches and the lazy symbol binding,
 * and once measured.
 *
 * A measured operation runs alone between CALLGRIND_ZERO_STATS and CALLGRIND_DUMP_STATS_AT, so that
 * under callgrind each dump holds exactly that operation; run natively the client requests cost
 * nothing and only the wall-clock figures count. One JSON line per measurement goes to stdout:
 * "label", "wall_ns", "start"/"end" (CLOCK_REALTIME seconds, to find the operation's transfers in
 * the simulator's bus log) and what the operation produced.
 *
 *   tavid_bench MODE [-n REPEAT] OP...
 *   tavid_bench none idle_loop:PORT
 *
 * MODE is rf, ip_spts or ip_mpts; OP is one of
 *   poll                  one poll cycle with nothing changed
 *   request:NAME=TEXT     the request TEXT through the JSON handler ("reply" is what it answered;
 *                         the poll cycles that push its changes follow unmeasured), then the Jansson
 *                         floor of the same request, labelled NAME.floor: parsing TEXT and
 *                         serialising the reply, with the handler's own flags
 *   store                 one store of the settings file ("bytes": the file's size afterwards),
 *                         then its Jansson floor, store.floor: serialising the records it wrote
 *   replace               the part of a store that puts the file on the disk alone: the settings
 *                         file's bytes written to the temporary file, then cmd_store_replace (the
 *                         file flushed to the disk, renamed over the settings file, the directory
 *                         synced)
 * -n repeats each measurement (for wall-clock figures).
 *
 * idle_loop is the main loop with nothing behind it: the command channel polled on PORT, then the
 * loop's sleep, for ever, without a box. Its CPU time is the floor of the daemon's idle cost. */
#include <jansson.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <functional>
#include <string>
#include <vector>

#include "boxroot.h"
#include "cmd.h"
#include "cmd_json.h"
#include "hal.h"
#include "tavid.h"

namespace {

/* What the handler uses: parse with JSON_DISABLE_EOF_CHECK, serialise compact in insertion order. */
constexpr size_t BENCH_PARSE_FLAGS = JSON_DISABLE_EOF_CHECK;
constexpr size_t BENCH_DUMP_FLAGS = JSON_COMPACT | JSON_PRESERVE_ORDER;

struct bench_mode_t {
  const char* name;
  hal_err_t (*init)(void);
};

constexpr bench_mode_t bench_modes[] = {
    {"rf", hal_init_rf},
    {"ip_spts", hal_init_ip_spts},
    {"ip_mpts", hal_init_ip_mpts},
};

[[noreturn]] void bench_die(const std::string& what) {
  fprintf(stderr, "tavid_bench: %s\n", what.c_str());
  exit(2);
}

/* A whole decimal number of the command line, at least 1. */
int bench_number(const std::string& text) {
  char* end = NULL;
  const long value = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < 1 || value > INT_MAX) bench_die("not a number: " + text);
  return static_cast<int>(value);
}

double bench_realtime_s() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

long long bench_monotonic_ns() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

/* The operation alone between the client requests; the label names callgrind's dump. */
json_t* bench_measure(const std::string& label, const std::function<void()>& op) {
  const double start = bench_realtime_s();
  const long long begin_ns = bench_monotonic_ns();
  CALLGRIND_ZERO_STATS;
  op();
  CALLGRIND_DUMP_STATS_AT(label.c_str());
  const long long wall_ns = bench_monotonic_ns() - begin_ns;
  json_t* line = json_pack("{s:s, s:I, s:f, s:f}", "label", label.c_str(), "wall_ns",
                           static_cast<json_int_t>(wall_ns), "start", start, "end", bench_realtime_s());
  if (line == NULL) bench_die("could not report " + label);
  return line;
}

/* Runs `op` once to warm up, then `repeat` times measured; `after` runs unmeasured after each run
 * and returns what the run produced (or null), which goes on the measurement's line. */
void bench_run(const std::string& label, int repeat, const std::function<void()>& op,
               const std::function<json_t*()>& after) {
  op();
  if (after) json_decref(after());
  for (int i = 0; i < repeat; i++) {
    json_ptr line(bench_measure(label, op));
    json_ptr produced(after ? after() : NULL);
    if (produced) json_object_update(line.get(), produced.get());
    text_ptr text(json_dumps(line.get(), BENCH_DUMP_FLAGS));
    printf("%s\n", text.get());
    fflush(stdout);
  }
}

/* The daemon's first pass: a poll cycle, the restore, and the cycle that pushes what it restored. */
void bench_build_box(const char* mode) {
  for (const bench_mode_t& candidate : bench_modes) {
    if (strcmp(candidate.name, mode) != 0) continue;
    if (candidate.init() != HAL_OK) bench_die(std::string("could not assemble the box in mode ") + mode);
    hal_poll();
    cmd_restore_settings(NULL, NULL);
    hal_poll();
    return;
  }
  bench_die(std::string("unknown mode ") + mode);
}

void bench_poll(const std::string&, int repeat) {
  bench_run(
      "poll", repeat, [] { hal_poll(); }, nullptr);
}

/* The request as the channel hands it over: a writable, terminated copy per run. */
std::string bench_handle(const std::string& text) {
  std::string request(text);
  text_ptr reply(cmd_json_handler(request.data()));
  if (!reply) bench_die("no reply to " + text);
  return reply.get();
}

void bench_floor(const std::string& label, int repeat, const std::string& text, const std::string& reply) {
  json_error_t error;
  json_ptr reply_value(json_loads(reply.c_str(), 0, &error));
  if (!reply_value) bench_die("the reply is not JSON: " + reply);
  json_t* value = reply_value.get();
  bench_run(
      label, repeat,
      [&text, value] {
        json_error_t parse_error;
        json_ptr request(json_loads(text.c_str(), BENCH_PARSE_FLAGS, &parse_error));
        text_ptr dumped(json_dumps(value, BENCH_DUMP_FLAGS));
      },
      nullptr);
}

void bench_request(const std::string& spec, int repeat) {
  const size_t equals = spec.find('=');
  if (equals == std::string::npos) bench_die("request without a text: " + spec);
  const std::string name = spec.substr(0, equals);
  const std::string text = spec.substr(equals + 1);
  std::string reply;
  /* Each run is followed by the poll cycles that push its changes, as the main loop would run them. */
  bench_run(
      name, repeat, [&text, &reply] { reply = bench_handle(text); },
      [&reply] {
        hal_poll();
        return json_pack("{s:s}", "reply", reply.c_str());
      });
  bench_floor(name + ".floor", repeat, text, reply);
}

long long bench_settings_bytes() {
  char path[BOXROOT_PATH_LEN];
  struct stat status;
  if (stat(boxroot_path(path, sizeof(path), TAVID_CMD_SETTINGS_FILE), &status) != 0) return -1;
  return static_cast<long long>(status.st_size);
}

/* The records of the settings file as values, in the file's order. */
std::vector<json_ptr> bench_settings_records() {
  char path[BOXROOT_PATH_LEN];
  file_ptr file(fopen(boxroot_path(path, sizeof(path), TAVID_CMD_SETTINGS_FILE), "r"));
  if (!file) bench_die("no settings file");
  std::vector<json_ptr> records;
  json_error_t error;
  for (json_t* record; (record = json_loadf(file.get(), JSON_DISABLE_EOF_CHECK, &error)) != NULL;)
    records.emplace_back(record);
  return records;
}

/* The settings file's bytes, as the last store wrote them. */
std::string bench_settings_text() {
  char path[BOXROOT_PATH_LEN];
  file_ptr file(fopen(boxroot_path(path, sizeof(path), TAVID_CMD_SETTINGS_FILE), "r"));
  if (!file) bench_die("no settings file");
  std::string text;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof(buf), file.get())) > 0;) text.append(buf, n);
  return text;
}

void bench_replace(const std::string&, int repeat) {
  const std::string text = bench_settings_text();
  char tmp_path[BOXROOT_PATH_LEN];
  boxroot_path(tmp_path, sizeof(tmp_path), TAVID_CMD_SETTINGS_TMP_FILE);
  bench_run(
      "replace", repeat,
      [&text, &tmp_path] {
        FILE* tmp = fopen(tmp_path, "we");
        if (tmp == NULL) bench_die("could not open the temporary settings file");
        const bool written = fwrite(text.data(), 1, text.size(), tmp) == text.size();
        if (cmd_store_replace(tmp, written ? CMD_JSON_OK : CMD_JSON_FILE_ERR) != CMD_JSON_OK)
          bench_die("the replace failed");
      },
      [] { return json_pack("{s:I}", "bytes", static_cast<json_int_t>(bench_settings_bytes())); });
}

void bench_store(const std::string&, int repeat) {
  bench_run(
      "store", repeat,
      [] {
        if (cmd_store_settings(NULL, NULL) != CMD_JSON_OK) bench_die("the store failed");
      },
      [] { return json_pack("{s:I}", "bytes", static_cast<json_int_t>(bench_settings_bytes())); });
  const std::vector<json_ptr> records = bench_settings_records();
  bench_run(
      "store.floor", repeat,
      [&records] {
        for (const json_ptr& record : records) text_ptr dumped(json_dumps(record.get(), BENCH_DUMP_FLAGS));
      },
      [&records] { return json_pack("{s:I}", "records", static_cast<json_int_t>(records.size())); });
}

/* The main loop's passes without a box: poll the channel, sleep; ended by a signal. */
[[noreturn]] void bench_idle_loop(const std::string& port, int) {
  cmd_t channel = {
      CMD_FRMT_JSON, CMD_IF_TCP, {{-1, static_cast<uint16_t>(bench_number(port))}}, "cmd-json", CMD_OK};
  if (cmd_open(&channel) != CMD_OK) bench_die("could not open port " + port);
  for (;;) {
    cmd_poll(&channel, 0);
    usleep(TAVID_LOOP_SLEEP_US);
  }
}

/* The operations by name; what follows "name:" on the command line is their argument. */
struct bench_op_t {
  const char* name;
  void (*run)(const std::string& arg, int repeat);
};

constexpr bench_op_t bench_ops[] = {
    {"poll", bench_poll},       {"request", bench_request},     {"store", bench_store},
    {"replace", bench_replace}, {"idle_loop", bench_idle_loop},
};

void bench_op(const std::string& op, int repeat) {
  const size_t colon = op.find(':');
  const std::string name = op.substr(0, colon);
  const std::string arg = colon == std::string::npos ? std::string() : op.substr(colon + 1);
  for (const bench_op_t& candidate : bench_ops) {
    if (name == candidate.name) return candidate.run(arg, repeat);
  }
  bench_die("unknown operation " + op);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) bench_die("usage: tavid_bench MODE [-n REPEAT] OP...");
  int first_op = 2;
  int repeat = 1;
  if (strcmp(argv[2], "-n") == 0 && argc > 4) {
    repeat = bench_number(argv[3]);
    first_op = 4;
  }
  if (strcmp(argv[1], "none") != 0) {
    if (boxroot_init() != 0) bench_die("TAVID_ROOT must name the simulator's box root");
    bench_build_box(argv[1]);
  }
  for (int i = first_op; i < argc; i++) bench_op(argv[i], repeat);
  hal_cleanup();
  return 0;
}
