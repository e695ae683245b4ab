#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "fake_i2c_bus.h"
#include "i2c.h"

namespace {

using fake_i2c::bytes_t;
using fake_i2c::FakeBus;

const uint32_t SHORT_TIMEOUT_MS = 50;
const uint32_t LONG_TIMEOUT_MS = 2000;
const uint8_t SLAVE = 0x21;
const uint8_t OTHER_SLAVE = 0x22;

/* Counts SIGPIPE while it lives, so that a raised one is seen instead of killing the test. */
class SigpipeCounter {
 public:
  SigpipeCounter() {
    count_ = 0;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_sigpipe;
    sigemptyset(&action.sa_mask);
    sigaction(SIGPIPE, &action, &previous_);
  }
  SigpipeCounter(const SigpipeCounter&) = delete;
  SigpipeCounter& operator=(const SigpipeCounter&) = delete;
  ~SigpipeCounter() { sigaction(SIGPIPE, &previous_, NULL); }
  static int count() { return count_; }

 private:
  static void on_sigpipe(int) { count_ = count_ + 1; }
  static volatile sig_atomic_t count_;
  struct sigaction previous_;
};

volatile sig_atomic_t SigpipeCounter::count_ = 0;

int open_fd_count() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dir != NULL && readdir(dir) != NULL) {
    count++;
  }
  if (dir != NULL) {
    closedir(dir);
  }
  return count;
}

class I2cBus : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ready());
    ASSERT_EQ(i2c_init(&i2c_, "i2c_0", bus_.path()), I2C_OK);
  }
  void TearDown() override { i2c_close(&i2c_); }

  FakeBus bus_{SLAVE};
  i2c_t i2c_;
};

/* A directory with a regular file in it, for device paths that are not a bus. */
class I2cDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir_template[] = "/tmp/i2cXXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    dir_ = dir_template;
    file_ = dir_ + "/i2c-0";
    const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    // cppcheck-suppress resourceLeak ; the assertion fails only when nothing was opened
    ASSERT_GE(fd, 0);
    close(fd);
  }
  void TearDown() override {
    unlink(file_.c_str());
    rmdir(dir_.c_str());
  }

  static void expect_open_fails(const char* dev) {
    i2c_t i2c;
    ASSERT_EQ(i2c_init(&i2c, "i2c_0", dev), I2C_OK);
    const int fds_before = open_fd_count();
    EXPECT_EQ(i2c_open(&i2c, SLAVE), I2C_ERR);
    EXPECT_EQ(i2c.err, I2C_ERR);
    EXPECT_EQ(i2c.fd, -1);
    EXPECT_EQ(open_fd_count(), fds_before);
    EXPECT_EQ(i2c_close(&i2c), I2C_OK);
  }

  std::string dir_;
  std::string file_;
};

TEST(I2cInit, CopiesNameAndDeviceAndLeavesTheHandleClosed) {
  i2c_t i2c;
  memset(&i2c, 0x5A, sizeof(i2c));
  EXPECT_EQ(i2c_init(&i2c, "i2c_0", "/dev/i2c-0"), I2C_OK);
  EXPECT_STREQ(i2c.name, "i2c_0");
  EXPECT_STREQ(i2c.dev, "/dev/i2c-0");
  EXPECT_EQ(i2c.fd, -1);
  EXPECT_EQ(i2c.err, I2C_OK);
}

TEST(I2cInit, AcceptsSixtyFourCharacters) {
  const std::string longest(64, 'n');
  i2c_t i2c;
  EXPECT_EQ(i2c_init(&i2c, longest.c_str(), longest.c_str()), I2C_OK);
  EXPECT_EQ(std::string(i2c.name), longest);
  EXPECT_EQ(std::string(i2c.dev), longest);
}

TEST(I2cInit, RejectsOverLongDeviceOrName) {
  const std::string too_long(65, 'd');
  i2c_t i2c;
  EXPECT_EQ(i2c_init(&i2c, "i2c_0", too_long.c_str()), I2C_ERR);
  EXPECT_EQ(i2c.err, I2C_ERR);
  EXPECT_EQ(i2c.fd, -1);
  EXPECT_EQ(i2c_init(&i2c, too_long.c_str(), "/dev/i2c-0"), I2C_ERR);
  EXPECT_EQ(i2c.err, I2C_ERR);
}

TEST(I2cInit, RejectsNull) {
  i2c_t i2c;
  EXPECT_EQ(i2c_init(&i2c, NULL, "/dev/i2c-0"), I2C_ERR);
  EXPECT_EQ(i2c.err, I2C_ERR);
  EXPECT_EQ(i2c_init(&i2c, "i2c_0", NULL), I2C_ERR);
  EXPECT_EQ(i2c.err, I2C_ERR);
  EXPECT_EQ(i2c_init(NULL, "i2c_0", "/dev/i2c-0"), I2C_ERR);
}

TEST_F(I2cDevice, OpenOfAMissingDeviceFails) { expect_open_fails((dir_ + "/missing").c_str()); }

TEST_F(I2cDevice, OpenOfARegularFileFails) { expect_open_fails(file_.c_str()); }

TEST_F(I2cDevice, OpenOfADirectoryFails) { expect_open_fails(dir_.c_str()); }

TEST_F(I2cDevice, OpenOfACharacterDeviceThatIsNoI2cBusFails) { expect_open_fails("/dev/null"); }

TEST(I2cClosed, TransfersOnAHandleThatIsNotOpenFail) {
  i2c_t i2c;
  ASSERT_EQ(i2c_init(&i2c, "i2c_0", "/dev/i2c-0"), I2C_OK);
  const uint8_t out[1] = {0x00};
  uint8_t in[1];
  EXPECT_EQ(i2c_write(&i2c, out, 1, 0), I2C_ERR);
  EXPECT_EQ(i2c.err, I2C_ERR);
  EXPECT_EQ(i2c_read(&i2c, in, 1, 0), I2C_ERR);
  EXPECT_EQ(i2c.err, I2C_ERR);
}

TEST(I2cClosed, CloseOfAHandleThatIsNotOpenIsOk) {
  i2c_t i2c;
  ASSERT_EQ(i2c_init(&i2c, "i2c_0", "/dev/i2c-0"), I2C_OK);
  EXPECT_EQ(i2c_close(&i2c), I2C_OK);
  EXPECT_EQ(i2c_close(&i2c), I2C_OK);
  EXPECT_EQ(i2c.err, I2C_OK);
  EXPECT_EQ(i2c.fd, -1);
}

TEST(I2cClosed, NullHandleIsAnError) {
  uint8_t byte = 0;
  EXPECT_EQ(i2c_open(NULL, SLAVE), I2C_ERR);
  EXPECT_EQ(i2c_write(NULL, &byte, 1, 0), I2C_ERR);
  EXPECT_EQ(i2c_read(NULL, &byte, 1, 0), I2C_ERR);
  EXPECT_EQ(i2c_close(NULL), I2C_ERR);
}

TEST(I2cStrerror, DescribesTheLastResult) {
  i2c_t i2c;
  ASSERT_EQ(i2c_init(&i2c, "i2c_0", "/dev/i2c-0"), I2C_OK);
  EXPECT_STREQ(i2c_strerror(&i2c), "I2C ok");
  i2c.err = I2C_ERR;
  EXPECT_STREQ(i2c_strerror(&i2c), "I2C error");
  i2c.err = I2C_TIME_OUT;
  EXPECT_STREQ(i2c_strerror(&i2c), "I2C time out");
  i2c.err = static_cast<i2c_err_t>(3);
  EXPECT_STREQ(i2c_strerror(&i2c), "I2C error: 3");
  EXPECT_LE(strlen(i2c_strerror(&i2c)), static_cast<size_t>(I2C_STRERROR_LEN));
}

TEST_F(I2cBus, OpenConnectsAndCloseReleases) {
  EXPECT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  EXPECT_GE(i2c_.fd, 0);
  EXPECT_EQ(i2c_close(&i2c_), I2C_OK);
  EXPECT_EQ(i2c_.fd, -1);
  EXPECT_EQ(i2c_close(&i2c_), I2C_OK);
}

TEST_F(I2cBus, OneConnectionPerOpenCloseBracket) {
  const uint8_t byte[1] = {0x00};
  for (int i = 0; i < 2; i++) {
    ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
    EXPECT_EQ(i2c_write(&i2c_, byte, 1, 0), I2C_OK);
    EXPECT_EQ(i2c_write(&i2c_, byte, 1, 0), I2C_OK);
    EXPECT_EQ(i2c_close(&i2c_), I2C_OK);
  }
  EXPECT_EQ(bus_.connections(), 2);
  EXPECT_EQ(bus_.transfers(), 4u);
}

TEST_F(I2cBus, OpenOfAnOpenHandleFailsAndKeepsTheConnection) {
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const int fd = i2c_.fd;
  EXPECT_EQ(i2c_open(&i2c_, OTHER_SLAVE), I2C_ERR);
  EXPECT_EQ(i2c_.fd, fd);
  const uint8_t byte[1] = {0x00};
  EXPECT_EQ(i2c_write(&i2c_, byte, 1, 0), I2C_OK);
  ASSERT_EQ(bus_.transfers(), 1u);
  EXPECT_EQ(bus_.frames()[0][1], SLAVE);
  EXPECT_EQ(bus_.connections(), 1);
}

TEST_F(I2cBus, OpenRejectsAnAddressWiderThanSevenBits) {
  EXPECT_EQ(i2c_open(&i2c_, 0x80), I2C_ERR);
  EXPECT_EQ(i2c_.fd, -1);
}

TEST_F(I2cBus, WriteSendsTheFrameExactly) {
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t data[3] = {0x10, 0x00, 0xFF};
  EXPECT_EQ(i2c_write(&i2c_, data, sizeof(data), SHORT_TIMEOUT_MS), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0], (bytes_t{0x57, SLAVE, 0x00, 0x03, 0x10, 0x00, 0xFF}));
}

TEST_F(I2cBus, WriteLengthIsBigEndian) {
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  bytes_t data(300);
  for (size_t i = 0; i < data.size(); i++) {
    data[i] = static_cast<uint8_t>(i);
  }
  EXPECT_EQ(i2c_write(&i2c_, data.data(), static_cast<uint32_t>(data.size()), 0), I2C_OK);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_EQ(frames.size(), 1u);
  bytes_t expected{0x57, SLAVE, 0x01, 0x2C};
  expected.insert(expected.end(), data.begin(), data.end());
  EXPECT_EQ(frames[0], expected);
}

TEST_F(I2cBus, WriteOfAnEmptyTransferSendsTheHeaderOnly) {
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  EXPECT_EQ(i2c_write(&i2c_, NULL, 0, 0), I2C_OK);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0], (bytes_t{0x57, SLAVE, 0x00, 0x00}));
}

TEST_F(I2cBus, TransferLongerThanTheProtocolAllowsFailsWithoutSending) {
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  bytes_t data(65536);
  EXPECT_EQ(i2c_write(&i2c_, data.data(), 65536, 0), I2C_ERR);
  EXPECT_EQ(i2c_.err, I2C_ERR);
  EXPECT_EQ(i2c_read(&i2c_, data.data(), 65536, 0), I2C_ERR);
  EXPECT_EQ(i2c_.err, I2C_ERR);
  const uint8_t byte[1] = {0x42};
  EXPECT_EQ(i2c_write(&i2c_, byte, 1, 0), I2C_OK);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0], (bytes_t{0x57, SLAVE, 0x00, 0x01, 0x42}));
}

TEST_F(I2cBus, TransferWithoutABufferFails) {
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  EXPECT_EQ(i2c_write(&i2c_, NULL, 2, 0), I2C_ERR);
  EXPECT_EQ(i2c_read(&i2c_, NULL, 2, 0), I2C_ERR);
  EXPECT_EQ(bus_.transfers(), 0u);
}

TEST_F(I2cBus, ReadReturnsExactlyTheBytes) {
  bus_.set_read_bytes({0xA0, 0xA1, 0xA2, 0xA3, 0xA4});
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  uint8_t data[8];
  memset(data, 0xEE, sizeof(data));
  EXPECT_EQ(i2c_read(&i2c_, data, 5, SHORT_TIMEOUT_MS), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  EXPECT_EQ(bytes_t(data, data + sizeof(data)), (bytes_t{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xEE, 0xEE, 0xEE}));
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0], (bytes_t{0x52, SLAVE, 0x00, 0x05}));
}

TEST_F(I2cBus, ReadAfterWriteKeepsTheStreamInStep) {
  bus_.set_read_bytes({0x01, 0x02});
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t cmd[2] = {0x07, 0x08};
  uint8_t reply[4];
  EXPECT_EQ(i2c_write(&i2c_, cmd, sizeof(cmd), 0), I2C_OK);
  EXPECT_EQ(i2c_read(&i2c_, reply, sizeof(reply), 0), I2C_OK);
  EXPECT_EQ(bytes_t(reply, reply + sizeof(reply)), (bytes_t{0x01, 0x02, 0x00, 0x00}));
  EXPECT_EQ(i2c_write(&i2c_, cmd, sizeof(cmd), 0), I2C_OK);
  EXPECT_EQ(bus_.transfers(), 3u);
}

TEST_F(I2cBus, AbsentSlaveTimesOutAfterRetrying) {
  bus_.set_present(false);
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t data[1] = {0x00};
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(i2c_write(&i2c_, data, 1, SHORT_TIMEOUT_MS), I2C_TIME_OUT);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(i2c_.err, I2C_TIME_OUT);
  EXPECT_GE(elapsed, std::chrono::milliseconds(SHORT_TIMEOUT_MS));
  EXPECT_GE(bus_.transfers(), 2u);
}

TEST_F(I2cBus, ReadFromAnAbsentSlaveTimesOut) {
  ASSERT_EQ(i2c_open(&i2c_, OTHER_SLAVE), I2C_OK);
  uint8_t data[4];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(i2c_read(&i2c_, data, sizeof(data), SHORT_TIMEOUT_MS), I2C_TIME_OUT);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(i2c_.err, I2C_TIME_OUT);
  EXPECT_GE(elapsed, std::chrono::milliseconds(SHORT_TIMEOUT_MS));
  EXPECT_GE(bus_.transfers(), 2u);
  for (const bytes_t& frame : bus_.frames()) {
    EXPECT_EQ(frame, (bytes_t{0x52, OTHER_SLAVE, 0x00, 0x04}));
  }
}

TEST_F(I2cBus, ZeroTimeOutTriesOnce) {
  bus_.set_present(false);
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t data[1] = {0x00};
  EXPECT_EQ(i2c_write(&i2c_, data, 1, 0), I2C_TIME_OUT);
  EXPECT_EQ(bus_.transfers(), 1u);
}

TEST_F(I2cBus, WriteNotAcknowledgedAtFirstSucceedsOnRetry) {
  bus_.nack_first(3);
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t data[1] = {0x00};
  EXPECT_EQ(i2c_write(&i2c_, data, 1, LONG_TIMEOUT_MS), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  const std::vector<bytes_t> frames = bus_.frames();
  ASSERT_EQ(frames.size(), 4u);
  for (const bytes_t& frame : frames) {
    EXPECT_EQ(frame, (bytes_t{0x57, SLAVE, 0x00, 0x01, 0x00}));
  }
}

TEST_F(I2cBus, ReadNotAcknowledgedAtFirstSucceedsOnRetry) {
  bus_.nack_first(2);
  bus_.set_read_bytes({0x5A, 0xA5});
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  uint8_t data[2] = {0, 0};
  EXPECT_EQ(i2c_read(&i2c_, data, sizeof(data), LONG_TIMEOUT_MS), I2C_OK);
  EXPECT_EQ(data[0], 0x5A);
  EXPECT_EQ(data[1], 0xA5);
  EXPECT_EQ(bus_.transfers(), 3u);
}

TEST_F(I2cBus, UnknownAnswerByteIsAnError) {
  bus_.set_ack_byte(0x07);
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t data[1] = {0x00};
  EXPECT_EQ(i2c_write(&i2c_, data, 1, SHORT_TIMEOUT_MS), I2C_ERR);
  EXPECT_EQ(i2c_.err, I2C_ERR);
  EXPECT_EQ(bus_.transfers(), 1u);
}

TEST_F(I2cBus, VanishedBusIsAnErrorAndRaisesNoSigpipe) {
  SigpipeCounter sigpipe;
  bus_.vanish_on_next_transfer();
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t data[2] = {0x01, 0x02};
  uint8_t reply[2];
  EXPECT_EQ(i2c_write(&i2c_, data, sizeof(data), SHORT_TIMEOUT_MS), I2C_ERR);
  EXPECT_EQ(i2c_.err, I2C_ERR);
  EXPECT_EQ(i2c_write(&i2c_, data, sizeof(data), SHORT_TIMEOUT_MS), I2C_ERR);
  EXPECT_EQ(i2c_read(&i2c_, reply, sizeof(reply), SHORT_TIMEOUT_MS), I2C_ERR);
  EXPECT_EQ(i2c_.err, I2C_ERR);
  EXPECT_EQ(i2c_close(&i2c_), I2C_OK);
  EXPECT_EQ(sigpipe.count(), 0);
  EXPECT_EQ(bus_.transfers(), 1u);
}

TEST_F(I2cBus, ReadOfAVanishingBusIsAnError) {
  SigpipeCounter sigpipe;
  bus_.vanish_on_next_transfer();
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  uint8_t reply[2];
  EXPECT_EQ(i2c_read(&i2c_, reply, sizeof(reply), SHORT_TIMEOUT_MS), I2C_ERR);
  EXPECT_EQ(i2c_.err, I2C_ERR);
  EXPECT_EQ(sigpipe.count(), 0);
}

TEST_F(I2cBus, BusReachableAgainAfterReopening) {
  bus_.vanish_on_next_transfer();
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  const uint8_t data[1] = {0x09};
  EXPECT_EQ(i2c_write(&i2c_, data, 1, 0), I2C_ERR);
  EXPECT_EQ(i2c_close(&i2c_), I2C_OK);
  ASSERT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  EXPECT_EQ(i2c_write(&i2c_, data, 1, 0), I2C_OK);
  EXPECT_EQ(bus_.connections(), 2);
}

TEST_F(I2cBus, EveryCallLeavesItsResultInTheHandle) {
  const uint8_t data[1] = {0x00};
  uint8_t reply[1];
  i2c_.err = I2C_TIME_OUT;
  EXPECT_EQ(i2c_open(&i2c_, SLAVE), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  i2c_.err = I2C_ERR;
  EXPECT_EQ(i2c_write(&i2c_, data, 1, 0), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  i2c_.err = I2C_ERR;
  EXPECT_EQ(i2c_read(&i2c_, reply, 1, 0), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  bus_.set_present(false);
  EXPECT_EQ(i2c_write(&i2c_, data, 1, 0), I2C_TIME_OUT);
  EXPECT_EQ(i2c_.err, I2C_TIME_OUT);
  EXPECT_STREQ(i2c_strerror(&i2c_), "I2C time out");
  EXPECT_EQ(i2c_read(&i2c_, reply, 1, 0), I2C_TIME_OUT);
  EXPECT_EQ(i2c_.err, I2C_TIME_OUT);
  i2c_.err = I2C_ERR;
  EXPECT_EQ(i2c_close(&i2c_), I2C_OK);
  EXPECT_EQ(i2c_.err, I2C_OK);
  EXPECT_EQ(i2c_write(&i2c_, data, 1, 0), I2C_ERR);
  EXPECT_EQ(i2c_.err, I2C_ERR);
  EXPECT_STREQ(i2c_strerror(&i2c_), "I2C error");
}

}  // namespace
