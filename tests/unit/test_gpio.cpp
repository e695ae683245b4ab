#include "gpio.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

/* A directory standing in for /sys/class/gpio/gpio17, with value and direction files. */
class Gpio : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir_template[] = "/tmp/gpioXXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    dir_ = dir_template;
    value_ = dir_ + "/value";
    direction_ = dir_ + "/direction";
    write_text(value_, "1");
    write_text(direction_, "in");
    gpio_ = {value_.c_str(), direction_.c_str(), "17", -1};
  }
  void TearDown() override {
    unlink(value_.c_str());
    unlink(direction_.c_str());
    rmdir(dir_.c_str());
  }

  static void write_text(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
  }
  static std::string read_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string dir_;
  std::string value_;
  std::string direction_;
  gpio_t gpio_;
};

TEST_F(Gpio, DirectionZeroMakesTheLineAnOutput) {
  EXPECT_EQ(gpio_set_direction(&gpio_, 0), GPIO_NO_ERR);
  EXPECT_EQ(read_text(direction_), "out");
  EXPECT_EQ(gpio_.fd, -1);
}

TEST_F(Gpio, DirectionOneMakesTheLineAnInput) {
  write_text(direction_, "out");
  EXPECT_EQ(gpio_set_direction(&gpio_, GPIO_DIRECTION_IN), GPIO_NO_ERR);
  EXPECT_EQ(read_text(direction_), "in");
  EXPECT_EQ(gpio_.fd, -1);
}

TEST_F(Gpio, UnknownDirectionIsRejectedAndWritesNothing) {
  EXPECT_EQ(gpio_set_direction(&gpio_, 2), GPIO_DIRECTION_ERR);
  EXPECT_EQ(read_text(direction_), "in");
}

TEST_F(Gpio, MissingDirectionFileIsADeviceError) {
  unlink(direction_.c_str());
  EXPECT_EQ(gpio_set_direction(&gpio_, 0), GPIO_DEV_ERR);
  EXPECT_EQ(gpio_.fd, -1);
}

TEST_F(Gpio, FailedDirectionWriteIsAWriteError) {
  gpio_.direction = "/dev/full";
  EXPECT_EQ(gpio_set_direction(&gpio_, 0), GPIO_DEV_WR_ERR);
  EXPECT_EQ(gpio_.fd, -1);
}

TEST_F(Gpio, ResetPulseActiveLowEndsHigh) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(gpio_toggle_reset(&gpio_, 0), GPIO_NO_ERR);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(read_text(value_), "1");
  EXPECT_EQ(gpio_.fd, -1);
  EXPECT_GE(elapsed, std::chrono::milliseconds(2 * GPIO_RESET_HOLD_MS));
}

TEST_F(Gpio, ResetPulseActiveHighEndsLow) {
  EXPECT_EQ(gpio_toggle_reset(&gpio_, 1), GPIO_NO_ERR);
  EXPECT_EQ(read_text(value_), "0");
}

TEST_F(Gpio, ResetPulseWritesActiveThenInactiveLevel) {
  /* A pipe as the value file keeps every write, in order. */
  unlink(value_.c_str());
  ASSERT_EQ(mkfifo(value_.c_str(), 0600), 0);
  const int reader = open(value_.c_str(), O_RDWR | O_NONBLOCK);
  // cppcheck-suppress resourceLeak ; the assertion fails only when nothing was opened
  ASSERT_GE(reader, 0);
  EXPECT_EQ(gpio_toggle_reset(&gpio_, 0), GPIO_NO_ERR);
  char written[8] = {};
  EXPECT_EQ(read(reader, written, sizeof(written) - 1), 2);
  EXPECT_STREQ(written, "01");
  close(reader);
}

TEST_F(Gpio, UnknownResetLevelIsRejectedAndWritesNothing) {
  write_text(value_, "x");
  EXPECT_EQ(gpio_toggle_reset(&gpio_, 2), GPIO_VALUE_ERR);
  EXPECT_EQ(read_text(value_), "x");
}

TEST_F(Gpio, MissingValueFileIsADeviceError) {
  unlink(value_.c_str());
  EXPECT_EQ(gpio_toggle_reset(&gpio_, 0), GPIO_DEV_ERR);
  EXPECT_EQ(gpio_.fd, -1);
}

TEST_F(Gpio, FailedValueWriteIsAWriteError) {
  gpio_.value = "/dev/full";
  EXPECT_EQ(gpio_toggle_reset(&gpio_, 0), GPIO_DEV_WR_ERR);
  EXPECT_EQ(gpio_.fd, -1);
}

TEST_F(Gpio, NullHandleOrPathIsAnError) {
  EXPECT_EQ(gpio_set_direction(NULL, 0), GPIO_ERR);
  EXPECT_EQ(gpio_toggle_reset(NULL, 0), GPIO_ERR);
  gpio_t no_paths = {NULL, NULL, "17", -1};
  EXPECT_EQ(gpio_set_direction(&no_paths, 0), GPIO_ERR);
  EXPECT_EQ(gpio_toggle_reset(&no_paths, 0), GPIO_ERR);
}

TEST(GpioErrors, CodesHaveTheirFixedValues) {
  EXPECT_EQ(GPIO_NO_ERR, 0);
  EXPECT_EQ(GPIO_ERR, 1);
  EXPECT_EQ(GPIO_DEV_ERR, 2);
  EXPECT_EQ(GPIO_DEV_WR_ERR, 3);
  EXPECT_EQ(GPIO_DEV_RD_ERR, 4);
  EXPECT_EQ(GPIO_EXPORT_ERR, 5);
  EXPECT_EQ(GPIO_DIRECTION_ERR, 6);
  EXPECT_EQ(GPIO_VALUE_ERR, 7);
}

}  // namespace
