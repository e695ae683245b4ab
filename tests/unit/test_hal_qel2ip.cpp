#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "boxroot.h"
#include "dbg.h"
#include "hal.h"
#include "hal_output_ip.h"
#include "hal_qel2ip.h"
#include "hal_test_support.h"
#include "hal_ts.h"

namespace {

using namespace hal_test;

std::string read_text(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return "<missing>";
  std::string text;
  char chunk[256];
  size_t length;
  while ((length = fread(chunk, 1, sizeof(chunk), file)) > 0) text.append(chunk, length);
  EXPECT_EQ(fclose(file), 0);
  return text;
}

void write_text(const std::string& path, const std::string& text, mode_t mode = 0644) {
  FILE* file = fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr) << path;
  EXPECT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
  EXPECT_EQ(fclose(file), 0);
  chmod(path.c_str(), mode);
}

/* The seconds that a stop waits for the child, 10 ms per poll: a child that ends sooner is reaped
 * sooner, one that does not end costs all of it. */
constexpr double kStopBudget = QEL2IP_STOP_TIMEOUT * 0.01;

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string pid_text(pid_t pid) { return std::to_string(static_cast<int>(pid)); }

/* The PID a stand-in wrote to a file, on a line of its own; 0 when there is none. */
pid_t pid_in(const std::string& path) {
  const std::string text = read_text(path);
  char* end = nullptr;
  const long pid = strtol(text.c_str(), &end, 10);
  EXPECT_STREQ(end, "\n") << path;
  return static_cast<pid_t>(pid);
}

/* True when the process has no child at all, running or waiting to be reaped. */
bool no_children() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

/* Waits until a process that is not ours has ended: gone, or a zombie left to its new parent. */
bool ends(pid_t pid) {
  auto start = std::chrono::steady_clock::now();
  while (seconds_since(start) < 5.0) {
    std::string stat = read_text("/proc/" + pid_text(pid) + "/stat");
    size_t state = stat.rfind(") ");
    if (stat == "<missing>" || (state != std::string::npos && stat.compare(state + 2, 1, "Z") == 0))
      return true;
    usleep(1000);
  }
  return false;
}

/* The messages about the streaming program among those of a poll cycle. */
std::vector<std::string> streaming_messages(const std::string& out) {
  std::vector<std::string> found;
  for (const std::string& text : messages_in(out)) {
    if (text.find("qel2ip") != std::string::npos || text.find("Qel2ip") != std::string::npos) found.push_back(text);
  }
  return found;
}

/* True when `pid` is no longer a child of this process: it was reaped. */
bool reaped(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD; }

class HalQel2ip : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    char dir[] = "/tmp/tvqXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    setenv("TAVID_ROOT", root.c_str(), 1);
    char probe[BOXROOT_PATH_LEN];
    if (boxroot_init() != 0 || std::string(boxroot_path(probe, sizeof(probe), "/x")) == "/x") {
      GTEST_SKIP() << "needs the host build's box root";
    }
    for (const char* dir_name : {"/opt", "/opt/bin", "/tmp"}) mkdir((root + dir_name).c_str(), 0755);
    tsin = new_hal_ts();
    create(0);
    verbose = 1;
  }

  void TearDown() override {
    verbose = 0;
    destroy();
    if (tsin != nullptr) delete_object(tsin);
    HalTest::TearDown();
    EXPECT_TRUE(no_children()) << "a child was left behind";
    if (!root.empty()) {
      EXPECT_EQ(system(("rm -rf " + root).c_str()), 0);
    }
  }

  /* A new output on `from`, the fixture's own tsin unless another producer is given. */
  void create(uint8_t qel_id, hal_ts_t* from = nullptr) {
    out = new_hal_qel2ip_output_ip(qel_id, from != nullptr ? from : tsin);
    ASSERT_NE(out, nullptr);
    q = static_cast<hal_qel2ip_t*>(out->hal_object.user);
  }

  /* Kills a child still running and deletes the output without waiting on a stop. */
  void destroy() {
    if (out == nullptr) return;
    if (q->proc_id > 0 && waitpid(q->proc_id, nullptr, WNOHANG) == 0) {
      kill(q->proc_id, SIGKILL);
      waitpid(q->proc_id, nullptr, 0);
    }
    q->proc_id = -1;
    printed_by([this] { delete_object(out); });
    out = nullptr;
    q = nullptr;
  }

  /* The stand-in for the streaming program: a shell script run with an empty environment, so
   * the root is written into it. Each started child appends its PID to tmp/started as its last
   * step before it waits. */
  void install(const std::string& body, mode_t mode = 0755) {
    write_text(root + "/opt/bin/qel2ip", "#!/bin/sh\n" + body, mode);
  }
  std::string started_line() { return "echo $$ >> " + root + "/tmp/started\n"; }

  /* Records its arguments, its environment and which of the descriptors 0 to 2 it got open, then
   * sleeps until a signal ends it. */
  void install_recording() {
    install("printf '%s\\n' \"$0\" \"$@\" > " + root + "/tmp/argv\n" + "/bin/cat /proc/$$/environ > " + root +
            "/tmp/environ\n" +
            "open=\nfor fd in 0 1 2; do [ -e /proc/$$/fd/$fd ] && open=\"$open$fd\"; done\n" +
            "echo \"open:$open\" > " + root + "/tmp/fds\n" + started_line() + "exec /bin/sleep 30\n");
  }
  /* Only SIGKILL ends it. */
  void install_ignoring() { install("trap '' TERM\n" + started_line() + "exec /bin/sleep 30\n"); }
  /* Catches SIGTERM and exits normally, ending its sleep first. The sleep is forked before the
   * trap is set, so that it never holds the shell's handler and always dies of that SIGTERM. */
  void install_exiting_on_sigterm() {
    install("/bin/sleep 30 &\necho $! > " + root + "/tmp/sleeper\ntrap 'kill $!; exit 0' TERM\n" +
            started_line() + "wait\n");
  }
  /* Ends by itself at once. */
  void install_short_lived() { install(started_line() + "exit 0\n"); }

  /* Waits until the child has run its script up to its wait. */
  void wait_started(pid_t pid) {
    const std::string line = pid_text(pid) + "\n";
    auto start = std::chrono::steady_clock::now();
    while (read_text(root + "/tmp/started").find(line) == std::string::npos) {
      ASSERT_LT(seconds_since(start), 10.0) << "child " << pid << " did not start";
      usleep(1000);
    }
  }

  /* Waits until the child has ended, without reaping it. */
  static void wait_ended(pid_t pid) {
    auto start = std::chrono::steady_clock::now();
    siginfo_t info = {};
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0) {
      ASSERT_LT(seconds_since(start), 10.0) << "child " << pid << " did not end";
      usleep(1000);
    }
  }

  /* Starts the child, which must come up; returns its PID. */
  pid_t start_child() {
    printed_by([this] { EXPECT_EQ(hal_qel2ip_start(q), HAL_OK); });
    pid_t pid = q->proc_id;
    EXPECT_GT(pid, 0);
    if (pid > 0) wait_started(pid);
    return pid;
  }

  void set_destination(const char* addr, const char* port) {
    ASSERT_EQ(hal_output_ip_set_dst_addr(out, addr), HAL_OK);
    ASSERT_EQ(hal_output_ip_set_dst_port(out, port), HAL_OK);
  }

  std::string stat_path(const char* unit) { return root + "/tmp/qelstat" + unit; }

  std::string root;
  hal_ts_t* tsin = nullptr;
  hal_output_ip_t* out = nullptr;
  hal_qel2ip_t* q = nullptr;
};

/* ---- construction and destination ---- */

TEST_F(HalQel2ip, ConstructorFillsTheOutputOperations) {
  EXPECT_EQ(out->hal_object.type, HAL_OUTPUT_IP);
  EXPECT_EQ(out->hal_object.delete_, delete_hal_qel2ip_output_ip);
  EXPECT_EQ(out->hal_object.strerror, nullptr);
  EXPECT_EQ(out->hal_object.node.owner, nullptr);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(out->set.s_dst_addr, hal_qel2ip_set_dst_addr);
  EXPECT_EQ(out->set.s_dst_port, hal_qel2ip_set_dst_port);
  EXPECT_EQ(out->get.s_dst_addr, hal_qel2ip_get_dst_addr);
  EXPECT_EQ(out->get.s_dst_port, hal_qel2ip_get_dst_port);
  EXPECT_EQ(out->get.bitrate_kbps, hal_qel2ip_get_bitrate);
  EXPECT_EQ(out->apply, hal_qel2ip_apply);
  EXPECT_EQ(out->tsin, tsin);
  ASSERT_NE(out->tsout, nullptr);
  EXPECT_EQ(tsin->tag, 0u);
  EXPECT_EQ(out->tsout->tag, 1u);
  EXPECT_STREQ(q->s_qel_id, "0");
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_STREQ(q->s_dst_addr, "");
  EXPECT_STREQ(q->s_dst_port, "");
  EXPECT_STREQ(out->settings.s_dst_addr, "");
  EXPECT_STREQ(out->settings.s_dst_port, "");
  EXPECT_EQ(hal.node_count, 0u);
}

TEST_F(HalQel2ip, UnitNumberIsWrittenInDecimal) {
  destroy();
  create(255);
  EXPECT_STREQ(q->s_qel_id, "255");
  destroy();
  create(4);
  EXPECT_STREQ(q->s_qel_id, "4");
}

TEST_F(HalQel2ip, DestinationIsCutToItsBuffers) {
  set_destination("192.168.100.200", "123456");
  EXPECT_STREQ(q->s_dst_addr, "192.168.100.200");
  EXPECT_STREQ(out->settings.s_dst_addr, "192.168.100.200");
  EXPECT_STREQ(q->s_dst_port, "12345");
  EXPECT_STREQ(out->settings.s_dst_port, "12345");

  set_destination("10.20.30.40.50.60.70", "80");
  EXPECT_STREQ(q->s_dst_addr, "10.20.30.40.50.");
  EXPECT_STREQ(out->settings.s_dst_addr, "10.20.30.40.50.");
  EXPECT_STREQ(q->s_dst_port, "80");
}

TEST_F(HalQel2ip, GettersCopyTheChildsDestination) {
  set_destination("10.0.0.1", "1234");
  snprintf(q->s_dst_addr, sizeof(q->s_dst_addr), "%s", "10.0.0.9");
  snprintf(q->s_dst_port, sizeof(q->s_dst_port), "%s", "4321");
  char addr[32] = "untouched";
  char port[32] = "untouched";
  EXPECT_EQ(hal_output_ip_get_dst_addr(out, addr, sizeof(addr)), HAL_OK);
  EXPECT_EQ(hal_output_ip_get_dst_port(out, port, sizeof(port)), HAL_OK);
  EXPECT_STREQ(addr, "10.0.0.9");
  EXPECT_STREQ(port, "4321");
  EXPECT_STREQ(out->settings.s_dst_addr, "10.0.0.9");
  EXPECT_STREQ(out->settings.s_dst_port, "4321");

  char small[4] = "xyz";
  EXPECT_EQ(hal_qel2ip_get_dst_addr(q, small, sizeof(small)), HAL_OK);
  EXPECT_STREQ(small, "10.");
  EXPECT_EQ(hal_qel2ip_get_dst_port(q, small, sizeof(small)), HAL_OK);
  EXPECT_STREQ(small, "432");
}

/* ---- start ---- */

TEST_F(HalQel2ip, StartWithTheProgramMissingWarnsAndForksNothing) {
  hal_err_t err = HAL_OK;
  printed_t printed = printed_by([&] { err = hal_qel2ip_start(q); });
  EXPECT_EQ(err, HAL_QEL2IP_ERR);
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_EQ(printed.out, msg("Starting qel2ip..."));
  EXPECT_EQ(without_lines(printed.err),
            wrn("hal_qel2ip_start", "Qel2ip does not exist or is not executable"));
  EXPECT_TRUE(no_children());

  /* The PID of a child that ended earlier is kept as well. */
  pid_t gone = fork();
  if (gone == 0) _exit(0);
  ASSERT_GT(gone, 0);
  ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
  q->proc_id = gone;
  printed = printed_by([&] { err = hal_qel2ip_start(q); });
  EXPECT_EQ(err, HAL_QEL2IP_ERR);
  EXPECT_EQ(q->proc_id, gone);
  EXPECT_EQ(printed.out, msg("Starting qel2ip..."));
  EXPECT_TRUE(no_children());
}

TEST_F(HalQel2ip, StartWithTheProgramNotExecutableWarnsAndForksNothing) {
  install_recording();
  chmod((root + "/opt/bin/qel2ip").c_str(), 0644);
  hal_err_t err = HAL_OK;
  printed_t printed = printed_by([&] { err = hal_qel2ip_start(q); });
  EXPECT_EQ(err, HAL_QEL2IP_ERR);
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_EQ(warnings_in(printed.err),
            std::vector<std::string>{"hal_qel2ip_start: Qel2ip does not exist or is not executable"});
  EXPECT_TRUE(no_children());
  EXPECT_EQ(read_text(root + "/tmp/argv"), "<missing>");
}

TEST_F(HalQel2ip, StartRunsTheProgramWithItsArgumentsAndAnEmptyEnvironment) {
  install_recording();
  set_destination("239.1.2.3", "5004");
  hal_err_t err = HAL_ERR;
  printed_t printed = printed_by([&] { err = hal_qel2ip_start(q); });
  ASSERT_EQ(err, HAL_OK);
  pid_t pid = q->proc_id;
  ASSERT_GT(pid, 0);
  wait_started(pid);
  EXPECT_TRUE(hal_qel2ip_running(q));
  EXPECT_EQ(messages_in(printed.out),
            (std::vector<std::string>{
                "Starting qel2ip...",
                "qel2ip started for destination 239.1.2.3:5004 (QEL: 0) (PID " + pid_text(pid) + ")"}));
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(read_text(root + "/tmp/argv"), root + "/opt/bin/qel2ip\n-d\n239.1.2.3\n-p\n5004\n-i\n0\n");
  EXPECT_EQ(read_text(root + "/tmp/environ"), "");
  EXPECT_EQ(read_text(root + "/tmp/fds"), "open:\n");
}

TEST_F(HalQel2ip, StartWithAnEmptyDestinationPassesEmptyArguments) {
  install_recording();
  pid_t pid = start_child();
  EXPECT_EQ(read_text(root + "/tmp/argv"), root + "/opt/bin/qel2ip\n-d\n\n-p\n\n-i\n0\n");
  EXPECT_EQ(q->proc_id, pid);
}

TEST_F(HalQel2ip, StartWhileRunningStopsTheOldChildFirst) {
  install_recording();
  set_destination("10.0.0.1", "1234");
  pid_t first = start_child();
  set_destination("10.0.0.2", "5678");

  hal_err_t err = HAL_ERR;
  printed_t printed = printed_by([&] { err = hal_qel2ip_start(q); });
  ASSERT_EQ(err, HAL_OK);
  pid_t second = q->proc_id;
  ASSERT_GT(second, 0);
  wait_started(second);
  EXPECT_NE(second, first);
  EXPECT_TRUE(reaped(first));
  EXPECT_EQ(messages_in(printed.out),
            (std::vector<std::string>{
                "Starting qel2ip...", "Qel2ip already running (PID " + pid_text(first) + ")",
                "Stopping qel2ip... (PID " + pid_text(first) + ")",
                "Qel2ip stopped with SIGTERM (PID " + pid_text(first) + ")",
                "qel2ip started for destination 10.0.0.2:5678 (QEL: 0) (PID " + pid_text(second) + ")"}));
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(read_text(root + "/tmp/started"), pid_text(first) + "\n" + pid_text(second) + "\n");
  EXPECT_EQ(read_text(root + "/tmp/argv"), root + "/opt/bin/qel2ip\n-d\n10.0.0.2\n-p\n5678\n-i\n0\n");
}

TEST_F(HalQel2ip, RestartGivesUpWhenTheOldChildCannotBeStopped) {
  install_exiting_on_sigterm();
  pid_t first = start_child();

  hal_err_t err = HAL_OK;
  printed_t printed = printed_by([&] { err = hal_qel2ip_start(q); });
  EXPECT_EQ(err, HAL_QEL2IP_ERR);
  EXPECT_EQ(q->proc_id, first);
  EXPECT_TRUE(no_children());
  EXPECT_TRUE(ends(pid_in(root + "/tmp/sleeper")));
  const std::string pid = " (PID " + pid_text(first) + ")";
  EXPECT_EQ(messages_in(printed.out),
            (std::vector<std::string>{"Starting qel2ip...", "Qel2ip already running" + pid,
                                      "Stopping qel2ip..." + pid}));
  EXPECT_EQ(warnings_in(printed.err), (std::vector<std::string>{
                                          "hal_qel2ip_stop: Could not stop qel2ip with SIGTERM" + pid,
                                          "hal_qel2ip_stop: Could not send SIGKILL to qel2ip" + pid,
                                          "hal_qel2ip_stop: Could not stop qel2ip with SIGKILL" + pid,
                                          "hal_qel2ip_start: Could not restart qel2ip" + pid,
                                      }));
  EXPECT_EQ(read_text(root + "/tmp/started"), pid_text(first) + "\n");
}

/* The daemon does not reap a child that ends by itself: it stays a zombie, still counted as running,
 * until the next start tries to stop it. */
TEST_F(HalQel2ip, ChildThatEndedByItselfIsReapedByTheNextStartAndRunAgainByTheOneAfter) {
  install_short_lived();
  pid_t first = start_child();
  wait_ended(first);
  EXPECT_TRUE(hal_qel2ip_running(q));

  const std::string pid = " (PID " + pid_text(first) + ")";
  printed_t printed = printed_by([this] { EXPECT_EQ(hal_qel2ip_start(q), HAL_QEL2IP_ERR); });
  EXPECT_TRUE(reaped(first));
  EXPECT_EQ(q->proc_id, first);
  EXPECT_FALSE(hal_qel2ip_running(q));
  EXPECT_EQ(warnings_in(printed.err).back(), "hal_qel2ip_start: Could not restart qel2ip" + pid);

  uint32_t bitrate_kbps = 777;
  printed = printed_by([&] { EXPECT_EQ(hal_qel2ip_get_bitrate(q, &bitrate_kbps), HAL_OK); });
  EXPECT_EQ(bitrate_kbps, 0u);
  EXPECT_EQ(printed.err, "");

  printed = printed_by([&] { EXPECT_EQ(hal_qel2ip_start(q), HAL_OK); });
  pid_t second = q->proc_id;
  EXPECT_NE(second, first);
  EXPECT_EQ(
      messages_in(printed.out),
      (std::vector<std::string>{"Starting qel2ip...",
                                "qel2ip started for destination : (QEL: 0) (PID " + pid_text(second) + ")"}));
  wait_started(second);
}

/* ---- stop ---- */

TEST_F(HalQel2ip, StopWithoutAChildOnlyLogs) {
  hal_err_t err = HAL_ERR;
  printed_t printed = printed_by([&] { err = hal_qel2ip_stop(q); });
  EXPECT_EQ(err, HAL_OK);
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_EQ(printed.out, msg("Stopping qel2ip... (PID -1)"));
  EXPECT_EQ(printed.err, "");
}

TEST_F(HalQel2ip, StopEndsTheChildWithSigterm) {
  install_recording();
  pid_t pid = start_child();
  hal_err_t err = HAL_ERR;
  auto start = std::chrono::steady_clock::now();
  printed_t printed = printed_by([&] { err = hal_qel2ip_stop(q); });
  EXPECT_LT(seconds_since(start), kStopBudget) << "the child was waited for to the end";
  EXPECT_EQ(err, HAL_OK);
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_TRUE(reaped(pid));
  EXPECT_EQ(printed.out, msg("Stopping qel2ip... (PID " + pid_text(pid) + ")") +
                             msg("Qel2ip stopped with SIGTERM (PID " + pid_text(pid) + ")"));
  EXPECT_EQ(printed.err, "");
}

TEST_F(HalQel2ip, ChildIgnoringSigtermIsKilledAfterTheWholeWait) {
  install_ignoring();
  pid_t pid = start_child();
  const std::string in_pid = " (PID " + pid_text(pid) + ")";
  hal_err_t err = HAL_OK;
  auto start = std::chrono::steady_clock::now();
  printed_t printed = printed_by([&] { err = hal_qel2ip_stop(q); });
  double elapsed = seconds_since(start);

  EXPECT_GE(elapsed, 5.0); /* 500 sleeps of 10 ms */
  EXPECT_LT(elapsed, 30.0);
  std::vector<std::string> messages = messages_in(printed.out);
  std::vector<std::string> warnings = warnings_in(printed.err);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), "Stopping qel2ip..." + in_pid);
  ASSERT_FALSE(warnings.empty());
  EXPECT_EQ(warnings.front(), "hal_qel2ip_stop: Could not stop qel2ip with SIGTERM" + in_pid);
  /* The single poll after SIGKILL may come before the child is gone: either it was reaped then,
   * or the stop fails and the child is left to be reaped here. */
  if (err == HAL_OK) {
    EXPECT_EQ(messages, (std::vector<std::string>{"Stopping qel2ip..." + in_pid,
                                                  "Qel2ip stopped with SIGKILL" + in_pid}));
    EXPECT_EQ(warnings.size(), 1u);
    EXPECT_EQ(q->proc_id, -1);
    EXPECT_TRUE(reaped(pid));
  } else {
    EXPECT_EQ(err, HAL_QEL2IP_ERR);
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_EQ(warnings,
              (std::vector<std::string>{"hal_qel2ip_stop: Could not stop qel2ip with SIGTERM" + in_pid,
                                        "hal_qel2ip_stop: Could not stop qel2ip with SIGKILL" + in_pid}));
    EXPECT_EQ(q->proc_id, pid);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  }
}

TEST_F(HalQel2ip, ChildExitingNormallyOnSigtermDoesNotCountAsStopped) {
  install_exiting_on_sigterm();
  pid_t pid = start_child();
  const std::string in_pid = " (PID " + pid_text(pid) + ")";
  hal_err_t err = HAL_OK;
  auto start = std::chrono::steady_clock::now();
  printed_t printed = printed_by([&] { err = hal_qel2ip_stop(q); });
  EXPECT_LT(seconds_since(start), kStopBudget) << "the child was waited for to the end";
  EXPECT_EQ(err, HAL_QEL2IP_ERR);
  EXPECT_EQ(q->proc_id, pid);
  EXPECT_TRUE(reaped(pid));
  EXPECT_FALSE(hal_qel2ip_running(q));
  EXPECT_TRUE(ends(pid_in(root + "/tmp/sleeper")));
  EXPECT_EQ(printed.out, msg("Stopping qel2ip..." + in_pid));
  EXPECT_EQ(without_lines(printed.err),
            wrn("hal_qel2ip_stop", "Could not stop qel2ip with SIGTERM" + in_pid) +
                wrn("hal_qel2ip_stop", "Could not send SIGKILL to qel2ip" + in_pid) +
                wrn("hal_qel2ip_stop", "Could not stop qel2ip with SIGKILL" + in_pid));
}

TEST_F(HalQel2ip, WaitWithItsBudgetUsedUpPollsOnceWithoutSleeping) {
  install_ignoring();
  pid_t pid = start_child();
  uint32_t waited = QEL2IP_STOP_TIMEOUT;
  EXPECT_EQ(hal_qel2ip_wait(q, &waited), 0);
  EXPECT_EQ(waited, static_cast<uint32_t>(QEL2IP_STOP_TIMEOUT));
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "the child is still running";
}

TEST_F(HalQel2ip, WaitAddsItsSleepsToTheBudget) {
  install_ignoring();
  start_child();
  uint32_t waited = QEL2IP_STOP_TIMEOUT - 3;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(hal_qel2ip_wait(q, &waited), 0);
  EXPECT_GE(seconds_since(start), 0.03);
  EXPECT_EQ(waited, static_cast<uint32_t>(QEL2IP_STOP_TIMEOUT));
}

TEST_F(HalQel2ip, WaitReapsAChildEndedByASignal) {
  install_recording();
  pid_t pid = start_child();
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  uint32_t waited = 0;
  EXPECT_EQ(hal_qel2ip_wait(q, &waited), 1);
  EXPECT_LT(waited, static_cast<uint32_t>(QEL2IP_STOP_TIMEOUT));
  EXPECT_TRUE(reaped(pid));
  EXPECT_EQ(q->proc_id, pid);
}

TEST_F(HalQel2ip, DeleteStopsTheChild) {
  install_recording();
  pid_t pid = start_child();
  printed_t printed = printed_by([this] { delete_object(out); });
  out = nullptr;
  q = nullptr;
  EXPECT_TRUE(reaped(pid));
  EXPECT_EQ(printed.out, msg("Stopping qel2ip... (PID " + pid_text(pid) + ")") +
                             msg("Qel2ip stopped with SIGTERM (PID " + pid_text(pid) + ")"));
  EXPECT_EQ(printed.err, "");
}

/* ---- bitrate ---- */

struct bitrate_case_t {
  const char* text;
  uint32_t kbps;
  hal_err_t err;
  const char* warning; /* null for none */
};

TEST_F(HalQel2ip, BitrateIsReadFromTheStatisticsFile) {
  install_recording();
  start_child();
  const bitrate_case_t cases[] = {
      {"12.5", 12500, HAL_OK, nullptr},
      {"12.5\n", 12500, HAL_QEL2IP_ERR, "Couldn't convert bitrate from '/tmp/qelstat0'"},
      {"fast", 0, HAL_QEL2IP_ERR, "Couldn't convert bitrate from '/tmp/qelstat0'"},
      {"3.5 Mbit/s", 3500, HAL_QEL2IP_ERR, "Couldn't convert bitrate from '/tmp/qelstat0'"},
      {"", 0, HAL_QEL2IP_ERR, "Couldn't read '/tmp/qelstat0'"},
      {"0.0019", 1, HAL_OK, nullptr},
      {"40", 40000, HAL_OK, nullptr},
      {"-2", 0, HAL_OK, nullptr},
      {"5000000", 4294967295u, HAL_OK, nullptr},
  };
  for (const bitrate_case_t& c : cases) {
    SCOPED_TRACE(c.text);
    write_text(stat_path("0"), c.text);
    uint32_t bitrate_kbps = 777;
    hal_err_t err = HAL_ERR;
    printed_t printed = printed_by([&] { err = hal_qel2ip_get_bitrate(q, &bitrate_kbps); });
    EXPECT_EQ(err, c.err);
    EXPECT_EQ(bitrate_kbps, c.kbps);
    EXPECT_EQ(without_lines(printed.err), c.warning ? wrn("hal_qel2ip_get_bitrate", c.warning) : "");
  }
}

TEST_F(HalQel2ip, BitrateReadsAtMost63Characters) {
  install_recording();
  start_child();
  write_text(stat_path("0"), "1." + std::string(61, '0') + "x");
  uint32_t bitrate_kbps = 0;
  EXPECT_EQ(quietly([&] { return hal_qel2ip_get_bitrate(q, &bitrate_kbps); }), HAL_OK);
  EXPECT_EQ(bitrate_kbps, 1000u);
}

TEST_F(HalQel2ip, BitrateWithoutTheStatisticsFileWarns) {
  install_recording();
  start_child();
  uint32_t bitrate_kbps = 777;
  hal_err_t err = HAL_OK;
  printed_t printed = printed_by([&] { err = hal_qel2ip_get_bitrate(q, &bitrate_kbps); });
  EXPECT_EQ(err, HAL_QEL2IP_ERR);
  EXPECT_EQ(bitrate_kbps, 0u);
  EXPECT_EQ(without_lines(printed.err), wrn("hal_qel2ip_get_bitrate", "Couldn't open '/tmp/qelstat0'"));
}

TEST_F(HalQel2ip, BitrateWhileNoChildRunsIsZeroWithoutTheFile) {
  uint32_t bitrate_kbps = 777;
  hal_err_t err = HAL_ERR;
  printed_t printed = printed_by([&] { err = hal_qel2ip_get_bitrate(q, &bitrate_kbps); });
  EXPECT_EQ(err, HAL_OK);
  EXPECT_EQ(bitrate_kbps, 0u);
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, "");
}

TEST_F(HalQel2ip, OutputBitrateComesFromTheChild) {
  install_recording();
  start_child();
  write_text(stat_path("0"), "12.5\n");
  uint32_t bitrate_kbps = 0;
  EXPECT_EQ(quietly([&] { return hal_output_ip_get_bitrate(out, &bitrate_kbps); }), HAL_QEL2IP_ERR);
  EXPECT_EQ(out->hal_object.err, HAL_QEL2IP_ERR);
  EXPECT_EQ(bitrate_kbps, 12500u);
  write_text(stat_path("0"), "12.5");
  EXPECT_EQ(hal_output_ip_get_bitrate(out, &bitrate_kbps), HAL_OK);
  EXPECT_EQ(out->hal_object.err, HAL_OK);
  EXPECT_EQ(bitrate_kbps, 12500u);
}

TEST_F(HalQel2ip, UnitNumberFourNamesItsArgumentAndItsStatisticsFile) {
  destroy();
  create(4);
  install_recording();
  set_destination("239.0.0.4", "1234");
  start_child();
  EXPECT_EQ(read_text(root + "/tmp/argv"), root + "/opt/bin/qel2ip\n-d\n239.0.0.4\n-p\n1234\n-i\n4\n");

  write_text(stat_path("0"), "1");
  write_text(stat_path("4"), "7.25");
  uint32_t bitrate_kbps = 0;
  EXPECT_EQ(hal_qel2ip_get_bitrate(q, &bitrate_kbps), HAL_OK);
  EXPECT_EQ(bitrate_kbps, 7250u);

  write_text(stat_path("4"), "7.25\n");
  printed_t printed =
      printed_by([&] { EXPECT_EQ(hal_qel2ip_get_bitrate(q, &bitrate_kbps), HAL_QEL2IP_ERR); });
  EXPECT_EQ(
      warnings_in(printed.err),
      std::vector<std::string>{"hal_qel2ip_get_bitrate: Couldn't convert bitrate from '/tmp/qelstat4'"});

  unlink(stat_path("4").c_str());
  printed = printed_by([&] { EXPECT_EQ(hal_qel2ip_get_bitrate(q, &bitrate_kbps), HAL_QEL2IP_ERR); });
  EXPECT_EQ(warnings_in(printed.err),
            std::vector<std::string>{"hal_qel2ip_get_bitrate: Couldn't open '/tmp/qelstat4'"});
}

/* ---- apply ---- */

TEST_F(HalQel2ip, ApplyWithNoServiceSwitchedOnStopsTheChild) {
  install_recording();
  hal_ts_new_service(out->tsout);
  hal_ts_new_service(out->tsout);
  pid_t pid = start_child();
  printed_t printed = printed_by([this] { EXPECT_EQ(hal_output_ip_apply(out), HAL_OK); });
  EXPECT_TRUE(reaped(pid));
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_EQ(messages_in(printed.out),
            (std::vector<std::string>{
                "<APPLY> hal_output_ip", "<APPLY_SETTINGS>", "Stopping qel2ip... (PID " + pid_text(pid) + ")",
                "Qel2ip stopped with SIGTERM (PID " + pid_text(pid) + ")", "</APPLY_SETTINGS>", "</APPLY>"}));

  printed = printed_by([this] { EXPECT_EQ(hal_qel2ip_apply(out), HAL_OK); });
  EXPECT_EQ(printed.out, msg("Stopping qel2ip... (PID -1)"));
}

TEST_F(HalQel2ip, ApplyWithAServiceSwitchedOnStartsAndRestartsTheChild) {
  install_recording();
  hal_service_t* older = hal_ts_new_service(out->tsout);
  hal_ts_new_service(out->tsout);
  older->enabled = 1;
  set_destination("10.0.0.1", "1234");

  printed_t printed = printed_by([this] { EXPECT_EQ(hal_qel2ip_apply(out), HAL_OK); });
  pid_t first = q->proc_id;
  ASSERT_GT(first, 0);
  wait_started(first);
  EXPECT_EQ(messages_in(printed.out),
            (std::vector<std::string>{
                "Starting qel2ip...",
                "qel2ip started for destination 10.0.0.1:1234 (QEL: 0) (PID " + pid_text(first) + ")"}));

  set_destination("10.0.0.2", "1234");
  printed = printed_by([this] { EXPECT_EQ(hal_qel2ip_apply(out), HAL_OK); });
  pid_t second = q->proc_id;
  ASSERT_GT(second, 0);
  wait_started(second);
  EXPECT_NE(second, first);
  EXPECT_TRUE(reaped(first));
  EXPECT_EQ(messages_in(printed.out)[1], "Qel2ip already running (PID " + pid_text(first) + ")");
  EXPECT_EQ(read_text(root + "/tmp/argv"), root + "/opt/bin/qel2ip\n-d\n10.0.0.2\n-p\n1234\n-i\n0\n");
}

TEST_F(HalQel2ip, ApplyThatCannotStartLeavesNoChild) {
  hal_ts_new_service(out->tsout)->enabled = 1;
  printed_t printed = printed_by([this] { EXPECT_EQ(hal_qel2ip_apply(out), HAL_QEL2IP_ERR); });
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_TRUE(no_children());
  EXPECT_EQ(warnings_in(printed.err),
            std::vector<std::string>{"hal_qel2ip_start: Qel2ip does not exist or is not executable"});
}

TEST_F(HalQel2ip, SwitchingAServiceInThePollCycleStartsAndStopsTheChild) {
  install_recording();
  destroy();
  fake_input_t* input = add_fake_input(0);
  create(0, input->tsout);
  ASSERT_EQ(out->tsin, input->tsout);
  add_service(input->tsout, 1, "One");
  lnklist_push_node(&hal, &out->hal_object.node);
  set_destination("239.1.1.1", "1234");
  poll();
  ASSERT_NE(service_at(out->tsout, 0), nullptr);
  EXPECT_EQ(service_at(out->tsout, 0)->enabled, 0);
  EXPECT_EQ(q->proc_id, -1);

  hal_service_set_enabled(service_at(out->tsout, 0), 1);
  std::string printed = poll();
  pid_t pid = q->proc_id;
  ASSERT_GT(pid, 0);
  wait_started(pid);
  EXPECT_EQ(service_at(input->tsout, 0)->enabled, 1);
  EXPECT_EQ(streaming_messages(printed),
            (std::vector<std::string>{"Starting qel2ip...", "qel2ip started for destination 239.1.1.1:1234 (QEL: 0) (PID " +
                                                                pid_text(pid) + ")"}));

  hal_service_set_enabled(service_at(out->tsout, 0), 0);
  printed = poll();
  EXPECT_EQ(q->proc_id, -1);
  EXPECT_TRUE(reaped(pid));
  EXPECT_EQ(streaming_messages(printed),
            (std::vector<std::string>{"Stopping qel2ip... (PID " + pid_text(pid) + ")",
                                      "Qel2ip stopped with SIGTERM (PID " + pid_text(pid) + ")"}));
}

}  // namespace
