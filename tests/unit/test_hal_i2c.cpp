#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fake_i2c_bus.h"
#include "hal_i2c.h"
#include "hal_test_support.h"

namespace {

using fake_i2c::bytes_t;
using fake_i2c::FakeBus;
using hal_test::printed_by;
using hal_test::printed_t;
using hal_test::warnings_in;

const uint8_t SLAVE = 0x30;

class HalI2c : public hal_test::HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    ASSERT_TRUE(bus_.ready());
  }
  void TearDown() override {
    if (hal_i2c_ != nullptr) hal_i2c_->hal_object.delete_(&hal_i2c_->hal_object);
    HalTest::TearDown();
  }

  hal_i2c_t* create() {
    hal_i2c_ = new_hal_i2c("i2c_0", bus_.path());
    return hal_i2c_;
  }

  FakeBus bus_{SLAVE};
  hal_i2c_t* hal_i2c_ = nullptr;
};

TEST_F(HalI2c, NewBindsTheBusHandleWithoutOpeningIt) {
  printed_t printed = printed_by([this] { create(); });
  ASSERT_NE(hal_i2c_, nullptr);
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(hal_i2c_->hal_object.type, HAL_I2C);
  EXPECT_EQ(hal_i2c_->hal_object.err, HAL_OK);
  EXPECT_EQ(hal_i2c_->hal_object.user, &hal_i2c_->i2c);
  EXPECT_EQ(hal_i2c_->hal_object.delete_, delete_hal_i2c);
  EXPECT_EQ(hal_i2c_->hal_object.strerror, hal_i2c_strerror);
  EXPECT_EQ(hal_i2c_->open, hal_i2c_open);
  EXPECT_EQ(hal_i2c_->close, hal_i2c_close);
  EXPECT_EQ(hal_i2c_->write, hal_i2c_write);
  EXPECT_EQ(hal_i2c_->read, hal_i2c_read);
  EXPECT_STREQ(hal_i2c_->i2c.name, "i2c_0");
  EXPECT_STREQ(hal_i2c_->i2c.dev, bus_.path());
  EXPECT_EQ(hal_i2c_->i2c.fd, -1);
  EXPECT_EQ(hal_object_count_by_type(HAL_I2C), 0u);
  EXPECT_EQ(bus_.connections(), 0);
}

TEST_F(HalI2c, OverLongDeviceYieldsNullAndOneWarning) {
  const std::string device(I2C_DEV_LEN + 1, 'd');
  hal_i2c_t* hal_i2c = reinterpret_cast<hal_i2c_t*>(1);
  printed_t printed = printed_by([&] { hal_i2c = new_hal_i2c("i2c_0", device.c_str()); });
  EXPECT_EQ(hal_i2c, nullptr);
  EXPECT_EQ(warnings_in(printed.err), std::vector<std::string>{"new_hal_i2c: Could not create"});
  EXPECT_EQ(hal_test::without_lines(printed.err), hal_test::wrn("new_hal_i2c", "Could not create"));
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(hal.node_count, 0u);
}

TEST_F(HalI2c, OverLongNameYieldsNullAndOneWarning) {
  const std::string name(I2C_NAME_LEN + 1, 'n');
  hal_i2c_t* hal_i2c = reinterpret_cast<hal_i2c_t*>(1);
  printed_t printed = printed_by([&] { hal_i2c = new_hal_i2c(name.c_str(), bus_.path()); });
  EXPECT_EQ(hal_i2c, nullptr);
  EXPECT_EQ(warnings_in(printed.err), std::vector<std::string>{"new_hal_i2c: Could not create"});
  EXPECT_EQ(hal.node_count, 0u);
}

TEST_F(HalI2c, OperationsTransferOnTheBus) {
  ASSERT_NE(create(), nullptr);
  bus_.set_read_bytes({0x23, 0x00, 0x00});
  const uint8_t data[3] = {0x23, 0x70, 0x00};
  uint8_t reply[3] = {0, 0, 0};
  EXPECT_EQ(hal_i2c_->open(hal_i2c_, SLAVE), HAL_OK);
  EXPECT_EQ(hal_i2c_->write(hal_i2c_, data, sizeof(data), 500), HAL_OK);
  EXPECT_EQ(hal_i2c_->read(hal_i2c_, reply, sizeof(reply), 500), HAL_OK);
  EXPECT_EQ(hal_i2c_->close(hal_i2c_), HAL_OK);
  EXPECT_EQ(hal_i2c_->hal_object.err, HAL_OK);
  EXPECT_EQ(bytes_t(reply, reply + 3), (bytes_t{0x23, 0x00, 0x00}));
  EXPECT_EQ(bus_.frames(),
            (std::vector<bytes_t>{{'W', SLAVE, 0x00, 0x03, 0x23, 0x70, 0x00}, {'R', SLAVE, 0x00, 0x03}}));
  EXPECT_EQ(bus_.connections(), 1);
  EXPECT_EQ(hal_i2c_->i2c.fd, -1);
}

TEST_F(HalI2c, TimeOutIsAnI2cErrorWithTheLibraryText) {
  ASSERT_NE(create(), nullptr);
  bus_.set_present(false);
  const uint8_t data[1] = {0x00};
  uint8_t reply[1];
  ASSERT_EQ(hal_i2c_->open(hal_i2c_, SLAVE), HAL_OK);
  EXPECT_EQ(hal_i2c_->write(hal_i2c_, data, 1, 0), HAL_I2C_ERR);
  EXPECT_EQ(hal_i2c_->hal_object.err, HAL_I2C_ERR);
  EXPECT_EQ(hal_i2c_->i2c.err, I2C_TIME_OUT);
  EXPECT_STREQ(hal_i2c_->hal_object.strerror(&hal_i2c_->hal_object), "I2C time out");
  EXPECT_EQ(hal_i2c_->read(hal_i2c_, reply, 1, 0), HAL_I2C_ERR);
  EXPECT_EQ(hal_i2c_->hal_object.err, HAL_I2C_ERR);
  EXPECT_STREQ(hal_i2c_strerror(&hal_i2c_->hal_object), "I2C time out");
}

TEST_F(HalI2c, OtherFailuresAreI2cErrorsWithTheLibraryText) {
  ASSERT_NE(create(), nullptr);
  const uint8_t data[1] = {0x00};
  EXPECT_EQ(hal_i2c_->write(hal_i2c_, data, 1, 0), HAL_I2C_ERR);
  EXPECT_EQ(hal_i2c_->i2c.err, I2C_ERR);
  EXPECT_STREQ(hal_i2c_strerror(&hal_i2c_->hal_object), "I2C error");
  EXPECT_EQ(hal_i2c_->open(hal_i2c_, 0x80), HAL_I2C_ERR);
  EXPECT_EQ(hal_i2c_->hal_object.err, HAL_I2C_ERR);
  EXPECT_EQ(bus_.connections(), 0);
}

TEST_F(HalI2c, EachOperationLeavesItsOwnResult) {
  ASSERT_NE(create(), nullptr);
  const uint8_t data[1] = {0x00};
  EXPECT_EQ(hal_i2c_->write(hal_i2c_, data, 1, 0), HAL_I2C_ERR);
  EXPECT_EQ(hal_i2c_->open(hal_i2c_, SLAVE), HAL_OK);
  EXPECT_EQ(hal_i2c_->hal_object.err, HAL_OK);
  EXPECT_STREQ(hal_i2c_strerror(&hal_i2c_->hal_object), "I2C ok");
  EXPECT_EQ(hal_i2c_->open(hal_i2c_, SLAVE), HAL_I2C_ERR);
  EXPECT_EQ(hal_i2c_->close(hal_i2c_), HAL_OK);
  EXPECT_EQ(hal_i2c_->hal_object.err, HAL_OK);
  EXPECT_EQ(hal_i2c_->close(hal_i2c_), HAL_OK);
}

TEST(HalI2cTranslate, OnlyOkIsOk) {
  EXPECT_EQ(hal_translate_i2c_err(I2C_OK), HAL_OK);
  EXPECT_EQ(hal_translate_i2c_err(I2C_ERR), HAL_I2C_ERR);
  EXPECT_EQ(hal_translate_i2c_err(I2C_TIME_OUT), HAL_I2C_ERR);
  EXPECT_EQ(hal_translate_i2c_err(static_cast<i2c_err_t>(9)), HAL_I2C_ERR);
}

/* The handle is left as it was: a connection opened through it stays open. */
TEST_F(HalI2c, DeleteCallsNoLibraryFunction) {
  ASSERT_NE(create(), nullptr);
  ASSERT_EQ(hal_i2c_->open(hal_i2c_, SLAVE), HAL_OK);
  const int fd = hal_i2c_->i2c.fd;
  ASSERT_GE(fd, 0);
  lnklist_push_node(&hal, &hal_i2c_->hal_object.node);
  printed_t printed = printed_by([this] { hal_i2c_->hal_object.delete_(&hal_i2c_->hal_object); });
  hal_i2c_ = nullptr;
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(hal.node_count, 0u);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(bus_.transfers(), 0u);
}

}  // namespace
