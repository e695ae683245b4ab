#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "dbg.h"
#include "fake_i2c_bus.h"
#include "hal_test_support.h"
#include "mod_tarn.h"

namespace {

/* The one failure of close() that a bus cannot cause: the kernel reporting an error while it
 * releases the connection. While set, closing the driver's end of a connection to `failing_bus`
 * releases it and then reports EIO. */
std::atomic<bool> fail_bus_close{false};
char failing_bus[sizeof(sockaddr_un::sun_path)];

bool is_client_of_failing_bus(int fd) {
  struct sockaddr_un peer;
  socklen_t size = sizeof(peer);
  memset(&peer, 0, sizeof(peer));
  if (getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &size) != 0) return false;
  return peer.sun_family == AF_UNIX && strncmp(peer.sun_path, failing_bus, sizeof(peer.sun_path)) == 0;
}

}  // namespace

extern "C" int close(int fd) {
  const bool fail = fail_bus_close.load() && is_client_of_failing_bus(fd);
  const long rc = syscall(SYS_close, fd);
  if (fail) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(rc);
}

namespace {

using fake_i2c::bytes_t;
using fake_i2c::FakeBus;
using hal_test::messages_in;
using hal_test::printed_by;
using hal_test::printed_t;
using hal_test::warnings_in;
typedef std::vector<std::string> lines_t;
typedef std::chrono::steady_clock steady_clock;

const uint8_t MODULE = 0x30;
const uint8_t CR = '\r';

bytes_t written(const bytes_t& bytes) {
  bytes_t frame{'W', MODULE, static_cast<uint8_t>(bytes.size() >> 8), static_cast<uint8_t>(bytes.size())};
  frame.insert(frame.end(), bytes.begin(), bytes.end());
  return frame;
}
bytes_t read_of(uint16_t size) {
  return {'R', MODULE, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
}
const bytes_t WAIT = written({0x00});

/* What the bus sees of one transaction: the command, the wait byte, the read of the reply. */
std::vector<bytes_t> transaction(const bytes_t& cmd, uint16_t rpl_size) {
  return {written(cmd), WAIT, read_of(rpl_size)};
}

bytes_t reply(uint8_t code, uint8_t err, const bytes_t& payload = {}) {
  bytes_t frame{'#', code, err, static_cast<uint8_t>(payload.size())};
  frame.insert(frame.end(), payload.begin(), payload.end());
  frame.push_back(CR);
  return frame;
}

std::string warning(const std::string& func, const std::string& text) {
  return func + ": mod_tarn_0 - " + text;
}

/* How long the command and the reply transfers are retried, and how long a busy module is waited
 * for. A time-out is told from the other by a bound that adds what the retries themselves may
 * cost under valgrind or qemu-arm on a loaded machine. */
constexpr long kFrameTimeoutMs = 500;
constexpr long kModuleWaitMs = 30000;
constexpr long kSlowMs = 10000;
static_assert(kFrameTimeoutMs + kSlowMs < kModuleWaitMs, "a frame time-out is told from the module wait");

long milliseconds_since(steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - start).count();
}

class ModTarn : public ::testing::Test {
 protected:
  void SetUp() override {
    verbose = 0;
    ASSERT_TRUE(bus_.ready());
    ASSERT_EQ(i2c_init(&i2c_, "i2c_0", bus_.path()), I2C_OK);
    mod_ = mod_tarn_t{};
    strcpy(mod_.name, "mod_tarn_0");
    mod_.i2c = &i2c_;
    mod_.i2c_addr = MODULE;
    mod_.level_offset_below_500 = 5;
    mod_.level_offset_between_500_and_1000 = 8;
    mod_.level_offset_std = 10;
  }
  void TearDown() override {
    verbose = 0;
    fail_bus_close = false;
    i2c_close(&i2c_);
  }

  void module_replies(const bytes_t& bytes) { bus_.set_read_bytes(bytes); }

  /* Runs an operation; its console output is kept in printed_. */
  template <typename F>
  auto run(F&& f) {
    decltype(f()) result{};
    printed_ = printed_by([&] { result = f(); });
    return result;
  }
  lines_t warnings() const { return warnings_in(printed_.err); }

  FakeBus bus_{MODULE};
  i2c_t i2c_;
  mod_tarn_t mod_;
  printed_t printed_;
};

/* ---- the transaction ---- */

TEST_F(ModTarn, TransactionWritesWaitsReadsAndCloses) {
  module_replies(reply(0x03, 0x00));
  const uint8_t cmd[8] = {'#', 0x03, 0x04, 0x00, 0x07, 0x3B, 0x90, CR};
  uint8_t rpl[5];
  EXPECT_EQ(run([&] { return mod_tarn_send_cmd(&mod_, cmd, sizeof(cmd), rpl, sizeof(rpl)); }), MOD_TARN_OK);
  EXPECT_EQ(mod_.err, MOD_TARN_OK);
  EXPECT_EQ(bus_.frames(), transaction({'#', 0x03, 0x04, 0x00, 0x07, 0x3B, 0x90, CR}, 5));
  EXPECT_EQ(bytes_t(rpl, rpl + 5), reply(0x03, 0x00));
  EXPECT_EQ(bus_.connections(), 1);
  EXPECT_EQ(i2c_.fd, -1);
  EXPECT_EQ(printed_.err, "");
}

TEST_F(ModTarn, ReadIsExactlyTheCallersSize) {
  module_replies(reply(0x99, 0x00, {'a', 'b'}));
  const uint8_t cmd[4] = {'#', 0x99, 0x00, CR};
  uint8_t rpl[20];
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, cmd, sizeof(cmd), rpl, 17), MOD_TARN_OK);
  EXPECT_EQ(bus_.frames(), transaction({'#', 0x99, 0x00, CR}, 17));
}

TEST_F(ModTarn, BusyModuleIsWaitedForOnTheWaitByte) {
  module_replies(reply(0x70, 0x00));
  bus_.set_busy_ms(150);
  const steady_clock::time_point start = steady_clock::now();
  EXPECT_EQ(run([&] { return mod_tarn_apply(&mod_); }), MOD_TARN_OK);
  EXPECT_GE(milliseconds_since(start), 150);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_GE(frames.size(), 4u);
  EXPECT_EQ(frames.front(), written({'#', 0x70, 0x00, CR}));
  EXPECT_EQ(frames.back(), read_of(5));
  for (size_t i = 1; i + 1 < frames.size(); i++) EXPECT_EQ(frames[i], WAIT);
  EXPECT_EQ(bus_.connections(), 1);
  EXPECT_EQ(printed_.err, "");
}

/* Longer than the command and reply transfers are given. */
TEST_F(ModTarn, WaitOutlastsTheOtherTimeOuts) {
  module_replies(reply(0x70, 0x00));
  bus_.set_busy_ms(800);
  const steady_clock::time_point start = steady_clock::now();
  EXPECT_EQ(run([&] { return mod_tarn_apply(&mod_); }), MOD_TARN_OK);
  EXPECT_GE(milliseconds_since(start), 800);
  EXPECT_EQ(bus_.frames().back(), read_of(5));
}

TEST_F(ModTarn, AbsentModuleFailsAtTheCommandAfterItsTimeOut) {
  bus_.set_present(false);
  uint32_t freq = 1;
  const steady_clock::time_point start = steady_clock::now();
  EXPECT_EQ(run([&] { return mod_tarn_get_frequency(&mod_, &freq); }), MOD_TARN_I2C_ERR);
  const long elapsed = milliseconds_since(start);
  EXPECT_GE(elapsed, kFrameTimeoutMs);
  EXPECT_LT(elapsed, kFrameTimeoutMs + kSlowMs);
  EXPECT_EQ(freq, 1u);
  for (const bytes_t& frame : bus_.frames()) EXPECT_EQ(frame, written({'#', 0x83, 0x00, CR}));
  EXPECT_EQ(warnings(),
            lines_t{warning("mod_tarn_get_frequency", "Could not get frequency (hdmi i2c error)")});
  EXPECT_EQ(i2c_.fd, -1);
}

TEST_F(ModTarn, ReplyNotReadableFailsAfterItsTimeOut) {
  bus_.set_nack_reads(true);
  const steady_clock::time_point start = steady_clock::now();
  EXPECT_EQ(run([&] { return mod_tarn_apply(&mod_); }), MOD_TARN_I2C_ERR);
  const long elapsed = milliseconds_since(start);
  EXPECT_GE(elapsed, kFrameTimeoutMs);
  EXPECT_LT(elapsed, kFrameTimeoutMs + kSlowMs);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_GE(frames.size(), 3u);
  EXPECT_EQ(frames[0], written({'#', 0x70, 0x00, CR}));
  EXPECT_EQ(frames[1], WAIT);
  for (size_t i = 2; i < frames.size(); i++) EXPECT_EQ(frames[i], read_of(5));
  EXPECT_EQ(warnings(), lines_t{warning("mod_tarn_apply", "Could not apply (hdmi i2c error)")});
}

TEST_F(ModTarn, FailedWaitSkipsTheRead) {
  bus_.vanish_after(1);
  EXPECT_EQ(run([&] { return mod_tarn_apply(&mod_); }), MOD_TARN_I2C_ERR);
  EXPECT_EQ(bus_.frames(), (std::vector<bytes_t>{written({'#', 0x70, 0x00, CR}), {'W', MODULE, 0x00, 0x01}}));
  EXPECT_EQ(i2c_.fd, -1);
}

TEST_F(ModTarn, BusThatCannotBeOpenedIsAnI2cError) {
  ASSERT_EQ(i2c_init(&i2c_, "i2c_0", "/nonexistent/i2c-0"), I2C_OK);
  EXPECT_EQ(run([&] { return mod_tarn_apply(&mod_); }), MOD_TARN_I2C_ERR);
  EXPECT_EQ(bus_.connections(), 0);
  EXPECT_EQ(warnings(), lines_t{warning("mod_tarn_apply", "Could not apply (hdmi i2c error)")});
}

/* The bus is closed also when it was never used: here it was left open before the call. */
TEST_F(ModTarn, CommandWithoutEndByteIsRefusedBeforeAnyTransfer) {
  ASSERT_EQ(i2c_open(&i2c_, MODULE), I2C_OK);
  const uint8_t cmd[5] = {'#', 0x03, 0x01, 0x05, 0x00};
  uint8_t rpl[5];
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, cmd, sizeof(cmd), rpl, sizeof(rpl)), MOD_TARN_CMD_INVLD);
  EXPECT_EQ(mod_.err, MOD_TARN_CMD_INVLD);
  EXPECT_STREQ(mod_tarn_strerror(&mod_), "hdmi command invalid");
  EXPECT_EQ(i2c_.fd, -1);
  EXPECT_EQ(bus_.transfers(), 0u);
}

TEST_F(ModTarn, MalformedCommandsAreInvalid) {
  uint8_t rpl[5];
  const uint8_t wrong_tag[4] = {'$', 0x70, 0x00, CR};
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, wrong_tag, sizeof(wrong_tag), rpl, sizeof(rpl)), MOD_TARN_CMD_INVLD);
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, NULL, 4, rpl, sizeof(rpl)), MOD_TARN_CMD_INVLD);
  const uint8_t length_past_the_frame[4] = {'#', 0x70, 0xF0, CR};
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, length_past_the_frame, sizeof(length_past_the_frame), rpl, sizeof(rpl)),
            MOD_TARN_CMD_INVLD);
  const uint8_t end_beyond_size[4] = {'#', 0x70, 0x00, CR};
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, end_beyond_size, 3, rpl, sizeof(rpl)), MOD_TARN_CMD_INVLD);
  EXPECT_EQ(bus_.connections(), 0);
}

TEST_F(ModTarn, NoReplyBufferIsAnInvalidReplyWithoutTransfer) {
  const uint8_t cmd[4] = {'#', 0x70, 0x00, CR};
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, cmd, sizeof(cmd), NULL, 5), MOD_TARN_RPL_INVLD);
  EXPECT_EQ(mod_.err, MOD_TARN_RPL_INVLD);
  EXPECT_EQ(bus_.connections(), 0);
}

TEST_F(ModTarn, FailingCloseTurnsSuccessIntoAnI2cError) {
  module_replies(reply(0x70, 0x00));
  strncpy(failing_bus, bus_.path(), sizeof(failing_bus) - 1);
  fail_bus_close = true;
  EXPECT_EQ(run([&] { return mod_tarn_apply(&mod_); }), MOD_TARN_I2C_ERR);
  fail_bus_close = false;
  EXPECT_EQ(bus_.frames(), transaction({'#', 0x70, 0x00, CR}, 5));
  EXPECT_EQ(i2c_.fd, -1);
  EXPECT_EQ(warnings(), lines_t{warning("mod_tarn_apply", "Could not apply (hdmi i2c error)")});
}

TEST_F(ModTarn, FailingCloseReplacesAModuleError) {
  module_replies(reply(0x70, 0x04));
  strncpy(failing_bus, bus_.path(), sizeof(failing_bus) - 1);
  fail_bus_close = true;
  EXPECT_EQ(run([&] { return mod_tarn_apply(&mod_); }), MOD_TARN_I2C_ERR);
}

/* ---- replies ---- */

struct error_byte_t {
  uint8_t byte;
  mod_tarn_err_t err;
  const char* text;
};

TEST_F(ModTarn, ErrorByteGivesTheDriverError) {
  const error_byte_t table[] = {
      {0, MOD_TARN_OK, "hdmi ok"},
      {1, MOD_TARN_CMD_INVLD, "hdmi command invalid"},
      {2, MOD_TARN_CMD_UNKNOWN, "hdmi command unknown"},
      {3, MOD_TARN_CMD_TIMEOUT, "hdmi command timeout"},
      {4, MOD_TARN_CMD_OOB, "hdmi command argument out of bounds"},
      {5, MOD_TARN_CMD_ERR, "hdmi command error"},
      {6, MOD_TARN_CMD_ERR, "hdmi command error"},
      {0x80, MOD_TARN_CMD_ERR, "hdmi command error"},
      {0xFF, MOD_TARN_CMD_ERR, "hdmi command error"},
  };
  const uint8_t cmd[4] = {'#', 0x70, 0x00, CR};
  uint8_t rpl[5];
  for (const error_byte_t& row : table) {
    SCOPED_TRACE(static_cast<int>(row.byte));
    module_replies(reply(0x70, row.byte));
    EXPECT_EQ(mod_tarn_send_cmd(&mod_, cmd, sizeof(cmd), rpl, sizeof(rpl)), row.err);
    EXPECT_EQ(mod_.err, row.err);
    EXPECT_STREQ(mod_tarn_strerror(&mod_), row.text);
  }
}

TEST_F(ModTarn, ErrorByteFiveOrMoreWarnsOfACommandError) {
  module_replies(reply(0x03, 0x05));
  EXPECT_EQ(run([&] { return mod_tarn_set_frequency(&mod_, 474000); }), MOD_TARN_CMD_ERR);
  EXPECT_EQ(
      hal_test::without_lines(printed_.err),
      hal_test::wrn("mod_tarn_set_frequency", "mod_tarn_0 - Could not set frequency (hdmi command error)"));
}

TEST_F(ModTarn, UnknownCommandIsSilent) {
  module_replies(reply(0x03, 0x02));
  verbose = 1;
  EXPECT_EQ(run([&] { return mod_tarn_set_frequency(&mod_, 474000); }), MOD_TARN_CMD_UNKNOWN);
  EXPECT_EQ(mod_.err, MOD_TARN_CMD_UNKNOWN);
  EXPECT_EQ(printed_.err, "");
  EXPECT_EQ(printed_.out, "");
}

TEST_F(ModTarn, WrongEchoedCodeIsAccepted) {
  module_replies(reply(0x55, 0x00, {0x00, 0x07, 0x3B, 0x90}));
  uint32_t freq = 0;
  EXPECT_EQ(run([&] { return mod_tarn_get_frequency(&mod_, &freq); }), MOD_TARN_OK);
  EXPECT_EQ(freq, 474000u);
  EXPECT_EQ(printed_.err, "");
}

/* Payload length is not compared: a shorter payload is taken with the bytes that follow it. */
TEST_F(ModTarn, ShorterPayloadThanExpectedIsAccepted) {
  module_replies(reply(0x83, 0x00, {0x12}));
  uint32_t freq = 0;
  EXPECT_EQ(mod_tarn_get_frequency(&mod_, &freq), MOD_TARN_OK);
  EXPECT_EQ(freq, 0x120D0000u);
}

struct bad_reply_t {
  const char* what;
  bytes_t bytes;
};

TEST_F(ModTarn, BadRepliesAreInvalidAndLeaveTheOutput) {
  const bad_reply_t table[] = {
      {"wrong tag", {'$', 0x83, 0x00, 0x04, 0x00, 0x07, 0x3B, 0x90, CR}},
      {"no end byte", {'#', 0x83, 0x00, 0x04, 0x00, 0x07, 0x3B, 0x90, 0x00}},
      {"end byte elsewhere", {'#', 0x83, 0x00, 0x03, 0x00, 0x07, 0x3B, 0x90, CR}},
      {"length past the read", {'#', 0x83, 0x00, 0xC8, 0x00, 0x07, 0x3B, 0x90, CR}},
      {"length just past the read", {'#', 0x83, 0x00, 0x05, 0x00, 0x07, 0x3B, 0x90, CR}},
      {"nothing", {}},
  };
  for (const bad_reply_t& row : table) {
    SCOPED_TRACE(row.what);
    module_replies(row.bytes);
    uint32_t freq = 1;
    EXPECT_EQ(run([&] { return mod_tarn_get_frequency(&mod_, &freq); }), MOD_TARN_RPL_INVLD);
    EXPECT_EQ(freq, 1u);
    EXPECT_EQ(warnings(),
              lines_t{warning("mod_tarn_get_frequency", "Could not get frequency (hdmi reply invalid)")});
  }
}

/* A buffer of exactly the bytes read: a length byte pointing past them is not followed. */
TEST_F(ModTarn, ReplyIsNotReadPastTheBytesRead) {
  const uint8_t cmd[4] = {'#', 0x70, 0x00, CR};
  module_replies({'#', 0x70, 0x00, 0xFF, CR});
  std::vector<uint8_t> rpl(5);
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, cmd, sizeof(cmd), rpl.data(), 5), MOD_TARN_RPL_INVLD);
  std::vector<uint8_t> short_rpl(3);
  EXPECT_EQ(mod_tarn_send_cmd(&mod_, cmd, sizeof(cmd), short_rpl.data(), 3), MOD_TARN_RPL_INVLD);
  EXPECT_EQ(bus_.frames().back(), read_of(3));
}

/* ---- texts ---- */

TEST_F(ModTarn, StrerrorNamesEveryError) {
  const char* const texts[] = {"hdmi ok",
                               "hdmi i2c error",
                               "hdmi command error",
                               "hdmi command invalid",
                               "hdmi command unknown",
                               "hdmi command timeout",
                               "hdmi command argument out of bounds",
                               "hdmi reply invalid"};
  for (int err = 0; err < 8; err++) {
    mod_.err = static_cast<mod_tarn_err_t>(err);
    EXPECT_STREQ(mod_tarn_strerror(&mod_), texts[err]);
  }
  mod_.err = static_cast<mod_tarn_err_t>(9);
  EXPECT_STREQ(mod_tarn_strerror(&mod_), "hdmi error: 9");
  mod_.err = static_cast<mod_tarn_err_t>(-1);
  EXPECT_STREQ(mod_tarn_strerror(&mod_), "hdmi error: -1");
}

TEST_F(ModTarn, StrerrorBufferIsSharedByAllModules) {
  mod_tarn_t other = mod_;
  other.err = MOD_TARN_CMD_OOB;
  mod_.err = MOD_TARN_OK;
  const char* text = mod_tarn_strerror(&mod_);
  EXPECT_EQ(mod_tarn_strerror(&other), text);
  EXPECT_STREQ(text, "hdmi command argument out of bounds");
}

/* ---- every command ---- */

typedef std::function<mod_tarn_err_t(mod_tarn_t*)> op_t;

/* An operation with its arguments bound. */
template <typename... Params, typename... Args>
op_t call_of(mod_tarn_err_t (*f)(mod_tarn_t*, Params...), Args... args) {
  return [=](mod_tarn_t* mod) { return f(mod, static_cast<Params>(args)...); };
}

/* Somewhere for a getter to write. */
template <typename T>
T* out() {
  static T value;
  return &value;
}
char name_out[32];

struct command_t {
  const char* func;
  op_t op;
  bytes_t cmd;
  uint16_t rpl_size;
  const char* failed;
};

const std::vector<command_t>& commands() {
  static const std::vector<command_t> table = {
      {"mod_tarn_get_alive",
       call_of(mod_tarn_get_alive, out<uint8_t>()),
       {'#', 0x00, 0x00, CR},
       5,
       "Not alive"},
      {"mod_tarn_get_info", call_of(mod_tarn_get_info), {'#', 0xFF, 0x00, CR}, 11, "Could not get info"},
      {"mod_tarn_get_status", call_of(mod_tarn_get_status), {'#', 0xFE, 0x00, CR}, 13, "Could not get info"},
      {"mod_tarn_apply", call_of(mod_tarn_apply), {'#', 0x70, 0x00, CR}, 5, "Could not apply"},
      {"mod_tarn_factory_reset",
       call_of(mod_tarn_factory_reset),
       {'#', 0x72, 0x00, CR},
       5,
       "Could not reset to factory defaults"},
      {"mod_tarn_set_cal",
       call_of(mod_tarn_set_cal, -3, 4, 1),
       {'#', 0x61, 0x03, 0x01, 0xFD, 0x04, CR},
       5,
       "Could not set calibration"},
      {"mod_tarn_get_cal",
       call_of(mod_tarn_get_cal, out<int8_t>(), out<int8_t>()),
       {'#', 0xE1, 0x00, CR},
       7,
       "Could not get calibration info"},
      {"mod_tarn_set_output_type",
       call_of(mod_tarn_set_output_type, MOD_TARN_ATSC_C),
       {'#', 0x01, 0x01, 0x08, CR},
       5,
       "Could not set output type"},
      {"mod_tarn_get_output_type",
       call_of(mod_tarn_get_output_type, out<mod_tarn_output_type_t>()),
       {'#', 0x81, 0x00, CR},
       6,
       "Could not get output type"},
      {"mod_tarn_set_level",
       call_of(mod_tarn_set_level, -20, 474000),
       {'#', 0x02, 0x01, 0xF1, CR},
       5,
       "Could not set level"},
      {"mod_tarn_get_level",
       call_of(mod_tarn_get_level, out<int8_t>(), 474000),
       {'#', 0x82, 0x00, CR},
       6,
       "Could not get level"},
      {"mod_tarn_set_frequency",
       call_of(mod_tarn_set_frequency, 474000),
       {'#', 0x03, 0x04, 0x00, 0x07, 0x3B, 0x90, CR},
       5,
       "Could not set frequency"},
      {"mod_tarn_get_frequency",
       call_of(mod_tarn_get_frequency, out<uint32_t>()),
       {'#', 0x83, 0x00, CR},
       9,
       "Could not get frequency"},
      {"mod_tarn_set_bandwidth",
       call_of(mod_tarn_set_bandwidth, 8),
       {'#', 0x04, 0x01, 0x08, CR},
       5,
       "Could not set bandwidth"},
      {"mod_tarn_get_bandwidth",
       call_of(mod_tarn_get_bandwidth, out<uint8_t>()),
       {'#', 0x84, 0x00, CR},
       6,
       "Could not get bandwidth"},
      {"mod_tarn_set_symbolrate",
       call_of(mod_tarn_set_symbolrate, 6900),
       {'#', 0x05, 0x02, 0x1A, 0xF4, CR},
       5,
       "Could not set symbol rate"},
      {"mod_tarn_get_symbolrate",
       call_of(mod_tarn_get_symbolrate, out<uint16_t>()),
       {'#', 0x85, 0x00, CR},
       7,
       "Could not get symbol rate"},
      {"mod_tarn_set_constellation",
       call_of(mod_tarn_set_constellation, MOD_TARN_256QAM),
       {'#', 0x06, 0x01, 0x08, CR},
       5,
       "Could not set constellation"},
      {"mod_tarn_get_constellation",
       call_of(mod_tarn_get_constellation, out<mod_tarn_constellation_t>()),
       {'#', 0x86, 0x00, CR},
       6,
       "Could not get constellation"},
      {"mod_tarn_set_guardinterval",
       call_of(mod_tarn_set_guardinterval, MOD_TARN_1_4),
       {'#', 0x07, 0x01, 0x03, CR},
       5,
       "Could not set guard interval"},
      {"mod_tarn_get_guardinterval",
       call_of(mod_tarn_get_guardinterval, out<mod_tarn_guardinterval_t>()),
       {'#', 0x87, 0x00, CR},
       6,
       "Could not get guard interval"},
      {"mod_tarn_set_coderate",
       call_of(mod_tarn_set_coderate, MOD_TARN_0_8),
       {'#', 0x08, 0x01, 0x07, CR},
       5,
       "Could not set code rate"},
      {"mod_tarn_get_coderate",
       call_of(mod_tarn_get_coderate, out<mod_tarn_coderate_t>()),
       {'#', 0x88, 0x00, CR},
       6,
       "Could not get code rate"},
      {"mod_tarn_set_fftmode",
       call_of(mod_tarn_set_fftmode, MOD_TARN_4K),
       {'#', 0x09, 0x01, 0x02, CR},
       5,
       "Could not set FFT mode"},
      {"mod_tarn_get_fftmode",
       call_of(mod_tarn_get_fftmode, out<mod_tarn_fftmode_t>()),
       {'#', 0x89, 0x00, CR},
       6,
       "Could not get FFT mode"},
      {"mod_tarn_set_carriertype",
       call_of(mod_tarn_set_carriertype, MOD_TARN_SINGLE_CARRIER),
       {'#', 0x0A, 0x01, 0x01, CR},
       5,
       "Could not set carrier type"},
      {"mod_tarn_get_carriertype",
       call_of(mod_tarn_get_carriertype, out<mod_tarn_carriertype_t>()),
       {'#', 0x8A, 0x00, CR},
       6,
       "Could not get carrier type"},
      {"mod_tarn_set_interleave",
       call_of(mod_tarn_set_interleave, MOD_TARN_INTLV_720),
       {'#', 0x0B, 0x01, 0x02, CR},
       5,
       "Could not set interleave"},
      {"mod_tarn_get_interleave",
       call_of(mod_tarn_get_interleave, out<mod_tarn_interleave_t>()),
       {'#', 0x8B, 0x00, CR},
       6,
       "Could not get interleave"},
      {"mod_tarn_set_syncframe",
       call_of(mod_tarn_set_syncframe, MOD_TARN_SYNC_595),
       {'#', 0x0C, 0x01, 0x02, CR},
       5,
       "Could not set sync frame"},
      {"mod_tarn_get_syncframe",
       call_of(mod_tarn_get_syncframe, out<mod_tarn_syncframe_t>()),
       {'#', 0x8C, 0x00, CR},
       6,
       "Could not get sync frame"},
      {"mod_tarn_set_video_bitrate",
       call_of(mod_tarn_set_video_bitrate, 12000),
       {'#', 0x0E, 0x02, 0x2E, 0xE0, CR},
       5,
       "Could not set video bitrate"},
      {"mod_tarn_get_video_bitrate",
       call_of(mod_tarn_get_video_bitrate, out<uint16_t>()),
       {'#', 0x8E, 0x00, CR},
       7,
       "Could not get video bitrate"},
      {"mod_tarn_set_video_gopsize",
       call_of(mod_tarn_set_video_gopsize, 25),
       {'#', 0x0F, 0x01, 0x19, CR},
       5,
       "Could not set video GOP size"},
      {"mod_tarn_get_video_gopsize",
       call_of(mod_tarn_get_video_gopsize, out<uint8_t>()),
       {'#', 0x8F, 0x00, CR},
       6,
       "Could not get video GOP size"},
      {"mod_tarn_set_audio_stream_type",
       call_of(mod_tarn_set_audio_stream_type, MOD_TARN_MPEG2),
       {'#', 0x10, 0x01, 0x02, CR},
       5,
       "Could not set audio encoding type"},
      {"mod_tarn_get_audio_stream_type",
       call_of(mod_tarn_get_audio_stream_type, out<mod_tarn_stream_type_t>()),
       {'#', 0x90, 0x00, CR},
       6,
       "Could not get audio encoding type"},
      {"mod_tarn_set_audio_bitrate",
       call_of(mod_tarn_set_audio_bitrate, 192),
       {'#', 0x11, 0x02, 0x00, 0xC0, CR},
       5,
       "Could not set audio bitrate"},
      {"mod_tarn_get_audio_bitrate",
       call_of(mod_tarn_get_audio_bitrate, out<uint16_t>()),
       {'#', 0x91, 0x00, CR},
       7,
       "Could not get audio bitrate"},
      {"mod_tarn_set_sid",
       call_of(mod_tarn_set_sid, 0x1234),
       {'#', 0x12, 0x02, 0x12, 0x34, CR},
       5,
       "Could not set SID"},
      {"mod_tarn_get_sid",
       call_of(mod_tarn_get_sid, out<uint16_t>()),
       {'#', 0x92, 0x00, CR},
       7,
       "Could not get SID"},
      {"mod_tarn_set_tsid",
       call_of(mod_tarn_set_tsid, 0xBEEF),
       {'#', 0x13, 0x02, 0xBE, 0xEF, CR},
       5,
       "Could not set TSID"},
      {"mod_tarn_get_tsid",
       call_of(mod_tarn_get_tsid, out<uint16_t>()),
       {'#', 0x93, 0x00, CR},
       7,
       "Could not get TSID"},
      {"mod_tarn_set_onid",
       call_of(mod_tarn_set_onid, 0x2014),
       {'#', 0x14, 0x02, 0x20, 0x14, CR},
       5,
       "Could not set ONID"},
      {"mod_tarn_get_onid",
       call_of(mod_tarn_get_onid, out<uint16_t>()),
       {'#', 0x94, 0x00, CR},
       7,
       "Could not get ONID"},
      {"mod_tarn_set_nid",
       call_of(mod_tarn_set_nid, 0x3001),
       {'#', 0x15, 0x02, 0x30, 0x01, CR},
       5,
       "Could not set NID"},
      {"mod_tarn_get_nid",
       call_of(mod_tarn_get_nid, out<uint16_t>()),
       {'#', 0x95, 0x00, CR},
       7,
       "Could not get NID"},
      {"mod_tarn_set_private_data_specifier",
       call_of(mod_tarn_set_private_data_specifier, 0x11223344),
       {'#', 0x16, 0x04, 0x11, 0x22, 0x33, 0x44, CR},
       5,
       "Could not set private data specifier"},
      {"mod_tarn_get_private_data_specifier",
       call_of(mod_tarn_get_private_data_specifier, out<uint32_t>()),
       {'#', 0x96, 0x00, CR},
       9,
       "Could not get private data specifier"},
      {"mod_tarn_set_lcn",
       call_of(mod_tarn_set_lcn, 801),
       {'#', 0x17, 0x02, 0x03, 0x21, CR},
       5,
       "Could not set LCN"},
      {"mod_tarn_get_lcn",
       call_of(mod_tarn_get_lcn, out<uint16_t>()),
       {'#', 0x97, 0x00, CR},
       7,
       "Could not get LCN"},
      {"mod_tarn_set_service_name",
       call_of(mod_tarn_set_service_name, "News"),
       {'#', 0x18, 0x04, 'N', 'e', 'w', 's', CR},
       5,
       "Could not set service name"},
      {"mod_tarn_get_service_name",
       call_of(mod_tarn_get_service_name, name_out, sizeof(name_out)),
       {'#', 0x98, 0x00, CR},
       20,
       "Could not get service name"},
      {"mod_tarn_set_network_name",
       call_of(mod_tarn_set_network_name, "Tavnet"),
       {'#', 0x19, 0x06, 'T', 'a', 'v', 'n', 'e', 't', CR},
       5,
       "Could not set network name"},
      {"mod_tarn_get_network_name",
       call_of(mod_tarn_get_network_name, name_out, sizeof(name_out)),
       {'#', 0x99, 0x00, CR},
       20,
       "Could not get network name"},
      {"mod_tarn_set_network_version",
       call_of(mod_tarn_set_network_version, 7),
       {'#', 0x1A, 0x01, 0x07, CR},
       5,
       "Could not set network version"},
      {"mod_tarn_get_network_version",
       call_of(mod_tarn_get_network_version, out<uint8_t>()),
       {'#', 0x9A, 0x00, CR},
       6,
       "Could not get network version"},
      {"mod_tarn_set_pmt_pid",
       call_of(mod_tarn_set_pmt_pid, 0x0100),
       {'#', 0x1B, 0x02, 0x01, 0x00, CR},
       5,
       "Could not set PMT PID"},
      {"mod_tarn_get_pmt_pid",
       call_of(mod_tarn_get_pmt_pid, out<uint16_t>()),
       {'#', 0x9B, 0x00, CR},
       7,
       "Could not get PMT PID"},
      {"mod_tarn_set_video_pid",
       call_of(mod_tarn_set_video_pid, 0x0200),
       {'#', 0x1C, 0x02, 0x02, 0x00, CR},
       5,
       "Could not set video PID"},
      {"mod_tarn_get_video_pid",
       call_of(mod_tarn_get_video_pid, out<uint16_t>()),
       {'#', 0x9C, 0x00, CR},
       7,
       "Could not get video PID"},
      {"mod_tarn_set_audio_pid",
       call_of(mod_tarn_set_audio_pid, 0x0201),
       {'#', 0x1D, 0x02, 0x02, 0x01, CR},
       5,
       "Could not set audio PID"},
      {"mod_tarn_get_audio_pid",
       call_of(mod_tarn_get_audio_pid, out<uint16_t>()),
       {'#', 0x9D, 0x00, CR},
       7,
       "Could not get audio PID"},
      {"mod_tarn_set_extra_service_info_enable",
       call_of(mod_tarn_set_extra_service_info_enable, 2, 1),
       {'#', 0x62, 0x02, 0x02, 0x01, CR},
       5,
       "Could not set extra service enable"},
      {"mod_tarn_get_extra_service_info_enable",
       call_of(mod_tarn_get_extra_service_info_enable, 2, out<uint8_t>()),
       {'#', 0xE2, 0x01, 0x02, CR},
       6,
       "Could not get extra service enable"},
      {"mod_tarn_set_extra_service_info_sid",
       call_of(mod_tarn_set_extra_service_info_sid, 1, 0x4321),
       {'#', 0x63, 0x03, 0x01, 0x43, 0x21, CR},
       5,
       "Could not set extra service SID"},
      {"mod_tarn_get_extra_service_info_sid",
       call_of(mod_tarn_get_extra_service_info_sid, 1, out<uint16_t>()),
       {'#', 0xE3, 0x01, 0x01, CR},
       7,
       "Could not get extra service SID"},
      {"mod_tarn_set_extra_service_info_lcn",
       call_of(mod_tarn_set_extra_service_info_lcn, 0, 12),
       {'#', 0x64, 0x03, 0x00, 0x00, 0x0C, CR},
       5,
       "Could not set extra service info LCN"},
      {"mod_tarn_get_extra_service_info_lcn",
       call_of(mod_tarn_get_extra_service_info_lcn, 0, out<uint16_t>()),
       {'#', 0xE4, 0x01, 0x00, CR},
       7,
       "Could not get extra service info LCN"},
      {"mod_tarn_set_extra_service_info_service_name",
       call_of(mod_tarn_set_extra_service_info_service_name, 1, "Sport"),
       {'#', 0x65, 0x06, 0x01, 'S', 'p', 'o', 'r', 't', CR},
       5,
       "Could not set extra info service name"},
      {"mod_tarn_get_extra_service_info_service_name",
       call_of(mod_tarn_get_extra_service_info_service_name, 1, name_out, sizeof(name_out)),
       {'#', 0xE5, 0x01, 0x01, CR},
       20,
       "Could not get extra info service name"},
      {"mod_tarn_set_extra_service_info_pmt",
       call_of(mod_tarn_set_extra_service_info_pmt, 2, 0x0300),
       {'#', 0x66, 0x03, 0x02, 0x03, 0x00, CR},
       5,
       "Could not set extra info PMT PID"},
      {"mod_tarn_get_extra_service_info_pmt",
       call_of(mod_tarn_get_extra_service_info_pmt, 2, out<uint16_t>()),
       {'#', 0xE6, 0x01, 0x02, CR},
       7,
       "Could not get extra info PMT PID"},
      {"mod_tarn_set_extra_service_info_video_pid",
       call_of(mod_tarn_set_extra_service_info_video_pid, 0, 0x0301),
       {'#', 0x67, 0x03, 0x00, 0x03, 0x01, CR},
       5,
       "Could not set extra info video PID"},
      {"mod_tarn_get_extra_service_info_video_pid",
       call_of(mod_tarn_get_extra_service_info_video_pid, 0, out<uint16_t>()),
       {'#', 0xE7, 0x01, 0x00, CR},
       7,
       "Could not get extra service info video PID"},
      {"mod_tarn_set_extra_service_info_audio_pid",
       call_of(mod_tarn_set_extra_service_info_audio_pid, 1, 0x0302),
       {'#', 0x68, 0x03, 0x01, 0x03, 0x02, CR},
       5,
       "Could not set extra service info audio PID"},
      {"mod_tarn_get_extra_service_info_audio_pid",
       call_of(mod_tarn_get_extra_service_info_audio_pid, 1, out<uint16_t>()),
       {'#', 0xE8, 0x01, 0x01, CR},
       7,
       "Could not get extra service info audio PID"},
      {"mod_tarn_set_extra_service_info_audio_stream_type",
       call_of(mod_tarn_set_extra_service_info_audio_stream_type, 2, MOD_TARN_AAC),
       {'#', 0x69, 0x02, 0x02, 0x00, CR},
       5,
       "Could not set extra service info audio encoding type"},
      {"mod_tarn_get_extra_service_info_audio_stream_type",
       call_of(mod_tarn_get_extra_service_info_audio_stream_type, 2, out<mod_tarn_stream_type_t>()),
       {'#', 0xE9, 0x01, 0x02, CR},
       6,
       "Could not get extra service audio encoding type"},
      {"mod_tarn_set_rf_out_enable",
       call_of(mod_tarn_set_rf_out_enable, 1),
       {'#', 0x6A, 0x01, 0x01, CR},
       5,
       "Could not set RF out enable"},
      {"mod_tarn_get_rf_out_enable",
       call_of(mod_tarn_get_rf_out_enable, out<uint8_t>()),
       {'#', 0xEA, 0x00, CR},
       6,
       "Could not get RF out enable"},
      {"mod_tarn_set_hw_debug_code",
       call_of(mod_tarn_set_hw_debug_code, 5, 1),
       {'#', 0x6B, 0x02, 0x05, 0x01, CR},
       5,
       "Could not set HW debug code enable"},
      {"mod_tarn_get_hw_debug_code",
       call_of(mod_tarn_get_hw_debug_code, 5, out<uint8_t>()),
       {'#', 0xEB, 0x01, 0x05, CR},
       6,
       "Could not get HW code enable"},
  };
  return table;
}

TEST_F(ModTarn, EveryCommandSendsItsFrameAndReadsItsReply) {
  EXPECT_EQ(commands().size(), 83u);
  for (const command_t& command : commands()) {
    SCOPED_TRACE(command.func);
    bus_.clear();
    module_replies(reply(command.cmd[1], 0x00));
    EXPECT_EQ(run([&] { return command.op(&mod_); }), MOD_TARN_OK);
    EXPECT_EQ(mod_.err, MOD_TARN_OK);
    EXPECT_EQ(bus_.frames(), transaction(command.cmd, command.rpl_size));
    EXPECT_EQ(bus_.connections(), 1);
    EXPECT_EQ(printed_.err, "");
  }
}

TEST_F(ModTarn, EveryCommandWarnsInItsOwnWords) {
  for (const command_t& command : commands()) {
    SCOPED_TRACE(command.func);
    module_replies(reply(command.cmd[1], 0x04));
    EXPECT_EQ(run([&] { return command.op(&mod_); }), MOD_TARN_CMD_OOB);
    EXPECT_EQ(mod_.err, MOD_TARN_CMD_OOB);
    EXPECT_EQ(warnings(), lines_t{warning(command.func, std::string(command.failed) +
                                                            " (hdmi command argument out of bounds)")});
  }
}

TEST_F(ModTarn, EveryCommandIsSilentWhenTheModuleDoesNotKnowIt) {
  for (const command_t& command : commands()) {
    SCOPED_TRACE(command.func);
    module_replies(reply(command.cmd[1], 0x02));
    EXPECT_EQ(run([&] { return command.op(&mod_); }), MOD_TARN_CMD_UNKNOWN);
    EXPECT_EQ(printed_.err, "");
  }
}

/* ---- commands that are not parameters ---- */

TEST_F(ModTarn, AliveModuleReportsOne) {
  module_replies(reply(0x00, 0x00));
  uint8_t alive = 7;
  EXPECT_EQ(mod_tarn_get_alive(&mod_, &alive), MOD_TARN_OK);
  EXPECT_EQ(alive, 1);
}

TEST_F(ModTarn, ModuleNotKnowingAliveReportsZeroSilently) {
  module_replies(reply(0x00, 0x02));
  uint8_t alive = 7;
  EXPECT_EQ(run([&] { return mod_tarn_get_alive(&mod_, &alive); }), MOD_TARN_CMD_UNKNOWN);
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(printed_.err, "");
}

TEST_F(ModTarn, FailingAliveReportsZeroAndWarns) {
  module_replies(reply(0x00, 0x03));
  uint8_t alive = 7;
  EXPECT_EQ(run([&] { return mod_tarn_get_alive(&mod_, &alive); }), MOD_TARN_CMD_TIMEOUT);
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(warnings(), lines_t{warning("mod_tarn_get_alive", "Not alive (hdmi command timeout)")});
}

TEST_F(ModTarn, InfoTakesTheVersionFromTheLastFourBytes) {
  module_replies(reply(0xFF, 0x00, {0xEE, 0xDD, 0x41, 0x01, 0x02, 0x03}));
  EXPECT_EQ(mod_tarn_get_info(&mod_), MOD_TARN_OK);
  EXPECT_EQ(mod_.info.sw_version, 0x41010203u);
}

TEST_F(ModTarn, FailedInfoKeepsTheVersion) {
  mod_.info.sw_version = 0x42000001;
  module_replies(reply(0xFF, 0x01, {}));
  EXPECT_EQ(run([&] { return mod_tarn_get_info(&mod_); }), MOD_TARN_CMD_INVLD);
  EXPECT_EQ(mod_.info.sw_version, 0x42000001u);
  EXPECT_EQ(warnings(), lines_t{warning("mod_tarn_get_info", "Could not get info (hdmi command invalid)")});
}

TEST_F(ModTarn, StatusFillsEveryField) {
  module_replies(reply(0xFE, 0x00, {0x01, 0x04, 0x38, 'p', 50, 0x5D, 0xC0, 0x01}));
  EXPECT_EQ(mod_tarn_get_status(&mod_), MOD_TARN_OK);
  EXPECT_EQ(mod_.status.lock, 1);
  EXPECT_EQ(mod_.status.video_height, 1080);
  EXPECT_EQ(mod_.status.video_scan_mode, 'p');
  EXPECT_EQ(mod_.status.video_frame_rate, 50);
  EXPECT_EQ(mod_.status.max_output_bitrate_kbps, 24000);
  EXPECT_EQ(mod_.status.overflow, 1);
}

TEST_F(ModTarn, FailedStatusKeepsTheOldOneAndWarnsInTheWordsOfInfo) {
  mod_.status = {1, 720, 'i', 25, 19000, 0};
  module_replies(reply(0xFE, 0x04, {}));
  EXPECT_EQ(run([&] { return mod_tarn_get_status(&mod_); }), MOD_TARN_CMD_OOB);
  EXPECT_EQ(mod_.status.lock, 1);
  EXPECT_EQ(mod_.status.video_height, 720);
  EXPECT_EQ(mod_.status.video_scan_mode, 'i');
  EXPECT_EQ(mod_.status.video_frame_rate, 25);
  EXPECT_EQ(mod_.status.max_output_bitrate_kbps, 19000);
  EXPECT_EQ(mod_.status.overflow, 0);
  EXPECT_EQ(warnings(), lines_t{warning("mod_tarn_get_status",
                                        "Could not get info (hdmi command argument out of bounds)")});
}

TEST_F(ModTarn, CalibrationReadsBackSigned) {
  module_replies(reply(0xE1, 0x00, {0xFE, 0x05}));
  int8_t i = 0;
  int8_t q = 0;
  EXPECT_EQ(mod_tarn_get_cal(&mod_, &i, &q), MOD_TARN_OK);
  EXPECT_EQ(i, -2);
  EXPECT_EQ(q, 5);
}

TEST_F(ModTarn, CalibrationSendsEnableBeforeIAndQ) {
  module_replies(reply(0x61, 0x00));
  EXPECT_EQ(mod_tarn_set_cal(&mod_, 0x11, -128, 0), MOD_TARN_OK);
  EXPECT_EQ(bus_.frames()[0], written({'#', 0x61, 0x03, 0x00, 0x11, 0x80, CR}));
}

/* ---- initialisation ---- */

TEST_F(ModTarn, InitNamesTheModuleAndPrintsItsVersion) {
  mod_tarn_t mod = mod_tarn_t{};
  module_replies(reply(0xFF, 0x00, {0x00, 0x00, 0x41, 0x01, 0x02, 0x03}));
  verbose = 1;
  EXPECT_EQ(run([&] { return mod_tarn_init(&mod, "mod_tarn_1", MODULE, &i2c_); }), MOD_TARN_OK);
  EXPECT_EQ(mod.err, MOD_TARN_OK);
  EXPECT_STREQ(mod.name, "mod_tarn_1");
  EXPECT_EQ(mod.i2c, &i2c_);
  EXPECT_EQ(mod.i2c_addr, MODULE);
  EXPECT_EQ(mod.level_offset_below_500, 5);
  EXPECT_EQ(mod.level_offset_between_500_and_1000, 8);
  EXPECT_EQ(mod.level_offset_std, 10);
  EXPECT_EQ(mod.info.sw_version, 0x41010203u);
  EXPECT_EQ(messages_in(printed_.out),
            (lines_t{"mod_tarn_1 - Initializing...", "mod_tarn_1 - SW Version > A1.2.3"}));
  EXPECT_EQ(printed_.out, hal_test::msg("mod_tarn_1 - Initializing...") +
                              hal_test::msg("mod_tarn_1 - SW Version > A1.2.3"));
  EXPECT_EQ(printed_.err, "");
  EXPECT_EQ(bus_.frames(), transaction({'#', 0xFF, 0x00, CR}, 11));
}

TEST_F(ModTarn, InitIsQuietWhenNotVerbose) {
  mod_tarn_t mod = mod_tarn_t{};
  module_replies(reply(0xFF, 0x00, {0x00, 0x00, 0x41, 0x01, 0x02, 0x03}));
  EXPECT_EQ(run([&] { return mod_tarn_init(&mod, "mod_tarn_1", MODULE, &i2c_); }), MOD_TARN_OK);
  EXPECT_EQ(printed_.out, "");
  EXPECT_EQ(printed_.err, "");
}

TEST_F(ModTarn, InitSucceedsWhenTheInfoCannotBeRead) {
  mod_tarn_t mod = mod_tarn_t{};
  module_replies(reply(0xFF, 0x01));
  verbose = 1;
  EXPECT_EQ(run([&] { return mod_tarn_init(&mod, "mod_tarn_2", MODULE, &i2c_); }), MOD_TARN_OK);
  EXPECT_EQ(mod.err, MOD_TARN_OK);
  EXPECT_EQ(mod.info.sw_version, 0u);
  EXPECT_EQ(warnings_in(printed_.err),
            lines_t{"mod_tarn_get_info: mod_tarn_2 - Could not get info (hdmi command invalid)"});
  EXPECT_EQ(printed_.out, hal_test::msg("mod_tarn_2 - Initializing...") +
                              hal_test::msg(std::string("mod_tarn_2 - SW Version > ") + '\0' + "0.0.0"));
}

TEST_F(ModTarn, InitKeepsSixtyFourCharactersOfTheName) {
  mod_tarn_t mod = mod_tarn_t{};
  module_replies(reply(0xFF, 0x00, {0, 0, 0x41, 0, 0, 0}));
  const std::string name(70, 'm');
  EXPECT_EQ(run([&] { return mod_tarn_init(&mod, name.c_str(), MODULE, &i2c_); }), MOD_TARN_OK);
  EXPECT_EQ(std::string(mod.name), name.substr(0, 64));
}

/* ---- parameters ---- */

struct level_case_t {
  uint32_t freq;
  int8_t level;
  uint8_t byte;
};

TEST_F(ModTarn, LevelOffsetFollowsTheFrequency) {
  const level_case_t table[] = {
      {500000, 0, 5},   {500001, 0, 8},      {999999, 0, 8},
      {1000000, 0, 10}, {474000, -20, 0xF1}, {1000000, 127, 0x89},
  };
  for (const level_case_t& row : table) {
    SCOPED_TRACE(std::to_string(row.freq) + " kHz, " + std::to_string(row.level) + " dBm");
    bus_.clear();
    module_replies(reply(0x02, 0x00));
    EXPECT_EQ(mod_tarn_set_level(&mod_, row.level, row.freq), MOD_TARN_OK);
    EXPECT_EQ(bus_.frames()[0], written({'#', 0x02, 0x01, row.byte, CR}));
  }
}

TEST_F(ModTarn, LevelReadsBackAsItWasSetAtTheSameFrequency) {
  const level_case_t table[] = {
      {474000, -20, 0xF1}, {750000, 0, 8}, {1000000, -3, 7}, {1000000, -128, 0x8A}, {1000000, 118, 0x80},
  };
  for (const level_case_t& row : table) {
    SCOPED_TRACE(std::to_string(row.freq) + " kHz, byte " + std::to_string(row.byte));
    module_replies(reply(0x82, 0x00, {row.byte}));
    int8_t level = 1;
    EXPECT_EQ(mod_tarn_get_level(&mod_, &level, row.freq), MOD_TARN_OK);
    EXPECT_EQ(level, row.level);
  }
}

TEST_F(ModTarn, FrequencyIsSentBigEndian) {
  module_replies(reply(0x03, 0x00));
  EXPECT_EQ(mod_tarn_set_frequency(&mod_, 474000), MOD_TARN_OK);
  EXPECT_EQ(bus_.frames()[0], written({'#', 0x03, 0x04, 0x00, 0x07, 0x3B, 0x90, CR}));
}

TEST_F(ModTarn, NumbersAreReadBigEndian) {
  module_replies(reply(0x83, 0x00, {0x00, 0x07, 0x3B, 0x90}));
  uint32_t freq = 0;
  EXPECT_EQ(mod_tarn_get_frequency(&mod_, &freq), MOD_TARN_OK);
  EXPECT_EQ(freq, 474000u);
  module_replies(reply(0x96, 0x00, {0xDE, 0xAD, 0xBE, 0xEF}));
  uint32_t pds = 0;
  EXPECT_EQ(mod_tarn_get_private_data_specifier(&mod_, &pds), MOD_TARN_OK);
  EXPECT_EQ(pds, 0xDEADBEEFu);
  module_replies(reply(0x85, 0x00, {0x1A, 0xF4}));
  uint16_t symbolrate = 0;
  EXPECT_EQ(mod_tarn_get_symbolrate(&mod_, &symbolrate), MOD_TARN_OK);
  EXPECT_EQ(symbolrate, 6900);
  module_replies(reply(0x84, 0x00, {0x07}));
  uint8_t bandwidth = 0;
  EXPECT_EQ(mod_tarn_get_bandwidth(&mod_, &bandwidth), MOD_TARN_OK);
  EXPECT_EQ(bandwidth, 7);
}

TEST_F(ModTarn, SlotGetsCarryTheValueAlone) {
  module_replies(reply(0xE3, 0x00, {0x43, 0x21}));
  uint16_t sid = 0;
  EXPECT_EQ(mod_tarn_get_extra_service_info_sid(&mod_, 2, &sid), MOD_TARN_OK);
  EXPECT_EQ(sid, 0x4321);
  module_replies(reply(0xE2, 0x00, {0x01}));
  uint8_t enable = 0;
  EXPECT_EQ(mod_tarn_get_extra_service_info_enable(&mod_, 0, &enable), MOD_TARN_OK);
  EXPECT_EQ(enable, 1);
}

TEST_F(ModTarn, DebugCodeReadsItsEnableFlag) {
  module_replies(reply(0xEB, 0x00, {0x01}));
  uint8_t enable = 0;
  EXPECT_EQ(mod_tarn_get_hw_debug_code(&mod_, 9, &enable), MOD_TARN_OK);
  EXPECT_EQ(enable, 1);
  EXPECT_EQ(bus_.frames()[0], written({'#', 0xEB, 0x01, 0x09, CR}));
}

TEST_F(ModTarn, SlotIsSentAsItIs) {
  module_replies(reply(0x62, 0x00));
  EXPECT_EQ(mod_tarn_set_extra_service_info_enable(&mod_, 7, 0), MOD_TARN_OK);
  EXPECT_EQ(bus_.frames()[0], written({'#', 0x62, 0x02, 0x07, 0x00, CR}));
}

TEST_F(ModTarn, EnumerationGetKeepsAnyByte) {
  module_replies(reply(0x81, 0x00, {0x99}));
  mod_tarn_output_type_t type = MOD_TARN_DVB_T;
  EXPECT_EQ(mod_tarn_get_output_type(&mod_, &type), MOD_TARN_OK);
  EXPECT_EQ(static_cast<int>(type), 0x99);
  module_replies(reply(0x86, 0x00, {0x01}));
  mod_tarn_constellation_t constellation = MOD_TARN_QPSK;
  EXPECT_EQ(mod_tarn_get_constellation(&mod_, &constellation), MOD_TARN_OK);
  EXPECT_EQ(static_cast<int>(constellation), 1);
  module_replies(reply(0xE9, 0x00, {0xFF}));
  mod_tarn_stream_type_t stream_type = MOD_TARN_AAC;
  EXPECT_EQ(mod_tarn_get_extra_service_info_audio_stream_type(&mod_, 0, &stream_type), MOD_TARN_OK);
  EXPECT_EQ(static_cast<int>(stream_type), 0xFF);
}

TEST_F(ModTarn, FailedGetLeavesItsOutput) {
  module_replies(reply(0x83, 0x04, {}));
  uint32_t freq = 123;
  EXPECT_EQ(run([&] { return mod_tarn_get_frequency(&mod_, &freq); }), MOD_TARN_CMD_OOB);
  EXPECT_EQ(freq, 123u);
  module_replies(reply(0x82, 0x02, {}));
  int8_t level = 9;
  EXPECT_EQ(run([&] { return mod_tarn_get_level(&mod_, &level, 474000); }), MOD_TARN_CMD_UNKNOWN);
  EXPECT_EQ(level, 9);
  module_replies(reply(0x98, 0x01, {}));
  char name[8] = "keep";
  EXPECT_EQ(run([&] { return mod_tarn_get_service_name(&mod_, name, sizeof(name)); }), MOD_TARN_CMD_INVLD);
  EXPECT_STREQ(name, "keep");
}

TEST_F(ModTarn, LongServiceNameIsCutToFifteenCharacters) {
  module_replies(reply(0x18, 0x00));
  EXPECT_EQ(mod_tarn_set_service_name(&mod_, "ABCDEFGHIJKLMNOPQRST"), MOD_TARN_OK);
  const bytes_t frame = {'#', 0x18, 15,  'A', 'B', 'C', 'D', 'E', 'F', 'G',
                         'H', 'I',  'J', 'K', 'L', 'M', 'N', 'O', CR};
  EXPECT_EQ(frame.size(), 19u);
  EXPECT_EQ(bus_.frames()[0], written(frame));
}

TEST_F(ModTarn, LongNetworkNameIsCutToFifteenCharacters) {
  module_replies(reply(0x19, 0x00));
  EXPECT_EQ(mod_tarn_set_network_name(&mod_, "0123456789abcdefghij"), MOD_TARN_OK);
  EXPECT_EQ(bus_.frames()[0], written({'#', 0x19, 15, '0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a',
                                       'b', 'c', 'd', 'e', CR}));
}

TEST_F(ModTarn, LongExtraServiceNameIsCutAfterItsSlot) {
  module_replies(reply(0x65, 0x00));
  EXPECT_EQ(mod_tarn_set_extra_service_info_service_name(&mod_, 2, "ABCDEFGHIJKLMNOPQRST"), MOD_TARN_OK);
  const bytes_t frame = {'#', 0x65, 16,  0x02, 'A', 'B', 'C', 'D', 'E', 'F',
                         'G', 'H',  'I', 'J',  'K', 'L', 'M', 'N', 'O', CR};
  EXPECT_EQ(frame.size(), 20u);
  EXPECT_EQ(bus_.frames()[0], written(frame));
}

TEST_F(ModTarn, EmptyNameIsSentAsLengthZero) {
  module_replies(reply(0x18, 0x00));
  EXPECT_EQ(mod_tarn_set_service_name(&mod_, ""), MOD_TARN_OK);
  module_replies(reply(0x65, 0x00));
  EXPECT_EQ(mod_tarn_set_extra_service_info_service_name(&mod_, 1, ""), MOD_TARN_OK);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_EQ(frames.size(), 6u);
  EXPECT_EQ(frames[0], written({'#', 0x18, 0x00, CR}));
  EXPECT_EQ(frames[3], written({'#', 0x65, 0x01, 0x01, CR}));
}

TEST_F(ModTarn, NameIsReadAsLongAsItsLengthByteSays) {
  module_replies(reply(0x98, 0x00, {'S', 'p', 'o', 'r', 't'}));
  char name[32];
  memset(name, 'x', sizeof(name));
  EXPECT_EQ(mod_tarn_get_service_name(&mod_, name, sizeof(name)), MOD_TARN_OK);
  EXPECT_STREQ(name, "Sport");
  EXPECT_EQ(name[6], 'x');
  EXPECT_EQ(bus_.frames().back(), read_of(20));
}

TEST_F(ModTarn, NameIsCutToTheBuffer) {
  module_replies(reply(0x99, 0x00, {'T', 'a', 'v', 'n', 'e', 't'}));
  char name[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(mod_tarn_get_network_name(&mod_, name, 4), MOD_TARN_OK);
  EXPECT_EQ(std::string(name, 6), std::string("Tav\0xx", 6));
}

TEST_F(ModTarn, FifteenCharacterNameIsReadWhole) {
  module_replies(
      reply(0xE5, 0x00, {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O'}));
  char name[16];
  EXPECT_EQ(mod_tarn_get_extra_service_info_service_name(&mod_, 0, name, sizeof(name)), MOD_TARN_OK);
  EXPECT_STREQ(name, "ABCDEFGHIJKLMNO");
  EXPECT_EQ(bus_.frames(), transaction({'#', 0xE5, 0x01, 0x00, CR}, 20));
}

TEST_F(ModTarn, NameIntoAnEmptyBufferWritesNothing) {
  module_replies(reply(0x98, 0x00, {'A'}));
  char name[1] = {'x'};
  EXPECT_EQ(mod_tarn_get_service_name(&mod_, name, 0), MOD_TARN_OK);
  EXPECT_EQ(name[0], 'x');
}

}  // namespace
