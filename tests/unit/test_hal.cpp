#include <gtest/gtest.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "dbg.h"
#include "hal.h"
#include "hal_test_support.h"

namespace {

using namespace hal_test;

/* A driven object whose change test reports what the test marked as changed. */
struct fake_t {
  hal_object_t hal_object;
  uint32_t settings_crc;
  uint8_t sync_required;
  uint8_t apply_required;
  uint8_t changed_sync;  /* a change that owes a sync */
  uint8_t changed_apply; /* a change that owes an apply */
  fake_t* feeds;         /* whose input its sync rewrites */
  int number;
};

std::vector<std::string> steps;

uint8_t fake_changed(hal_object_t* object) {
  fake_t* fake = reinterpret_cast<fake_t*>(object);
  if (fake->changed_sync) fake->sync_required = 1;
  if (fake->changed_apply) fake->apply_required = 1;
  fake->changed_sync = fake->changed_apply = 0;
  return fake->sync_required | fake->apply_required;
}

hal_err_t fake_sync(hal_object_t* object) {
  fake_t* fake = reinterpret_cast<fake_t*>(object);
  steps.push_back("sync " + std::to_string(fake->number));
  if (fake->feeds != nullptr) fake->feeds->changed_sync = 1;
  fake->apply_required = 1;
  fake->sync_required = 0;
  return HAL_OK;
}

hal_err_t fake_apply(hal_object_t* object) {
  fake_t* fake = reinterpret_cast<fake_t*>(object);
  steps.push_back("apply " + std::to_string(fake->number));
  fake->apply_required = 0;
  return HAL_OK;
}

const hal_poll_ops_t fake_ip_ops = {"hal_output_ip",
                                    fake_changed,
                                    fake_sync,
                                    fake_apply,
                                    offsetof(fake_t, sync_required),
                                    offsetof(fake_t, apply_required)};
const hal_poll_ops_t fake_rf_ops = {"hal_output_rf",
                                    fake_changed,
                                    fake_sync,
                                    fake_apply,
                                    offsetof(fake_t, sync_required),
                                    offsetof(fake_t, apply_required)};
const hal_poll_ops_t fake_mux_ops = {"hal_tsmux_5x1",
                                     fake_changed,
                                     fake_sync,
                                     NULL,
                                     offsetof(fake_t, sync_required),
                                     offsetof(fake_t, apply_required)};
const hal_poll_ops_t fake_hdmi_ops = {"hal_input_hdmi",
                                      fake_changed,
                                      NULL,
                                      fake_apply,
                                      offsetof(fake_t, sync_required),
                                      offsetof(fake_t, apply_required)};

int deletes;

void fake_delete(hal_object_t* object) {
  deletes++;
  delete_hal_object(object);
}

fake_t* add_fake(hal_object_type_t type, int number) {
  fake_t* fake = reinterpret_cast<fake_t*>(hal_object_alloc(sizeof(fake_t)));
  fake->hal_object.type = type;
  fake->hal_object.delete_ = fake_delete;
  fake->number = number;
  lnklist_push_node(&hal, &fake->hal_object.node);
  return fake;
}

/* What the poll cycle prints for one step of one object. */
std::string step_block(const std::string& tag, const std::string& kind, int id) {
  std::string suffix = kind + " (" + std::to_string(id) + ")";
  return "\n\r" + msg("<" + tag + "> " + suffix) + msg("</" + tag + "> " + suffix) + "\n\r";
}

class Hal : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    hal_poll_register(HAL_OUTPUT_IP, &fake_ip_ops);
    hal_poll_register(HAL_OUTPUT_RF, &fake_rf_ops);
    hal_poll_register(HAL_TSMUX_5X1, &fake_mux_ops);
    hal_poll_register(HAL_INPUT_HDMI, &fake_hdmi_ops);
    steps.clear();
    deletes = 0;
    verbose = 1;
  }
};

TEST_F(Hal, EmptyRegistryPollsNothingAndCountsZero) {
  EXPECT_EQ(poll(), "");
  for (int type = HAL_NONE; type < HAL_OBJECT_TYPE_COUNT; type++) {
    EXPECT_EQ(hal_object_count_by_type(static_cast<hal_object_type_t>(type)), 0u);
  }
  EXPECT_EQ(hal_object_by_type(HAL_DEVICE, 0), nullptr);
}

TEST_F(Hal, CleanupOfAnEmptyRegistryReturnsAtOnce) {
  hal_cleanup();
  EXPECT_EQ(hal.head, nullptr);
  EXPECT_EQ(deletes, 0);
}

TEST_F(Hal, LookupCountsAmongItsKindNewestFirst) {
  fake_t* hdmi[4];
  for (int n = 3; n >= 0; n--) {
    add_fake(HAL_I2C, 100 + n);
    hdmi[n] = add_fake(HAL_INPUT_HDMI, n);
    add_fake(HAL_OUTPUT_RF, 200 + n);
  }
  EXPECT_EQ(hal_object_count_by_type(HAL_INPUT_HDMI), 4u);
  EXPECT_EQ(hal_object_count_by_type(HAL_TS), 0u);
  /* Created from the highest number down, so number 0 is the newest and index 0. */
  for (uint32_t n = 0; n < 4; n++) EXPECT_EQ(hal_object_by_type(HAL_INPUT_HDMI, n), &hdmi[n]->hal_object);
  EXPECT_EQ(hal_object_by_type(HAL_INPUT_HDMI, 3), &hdmi[3]->hal_object);
  EXPECT_EQ(hal_object_by_type(HAL_INPUT_HDMI, 4), nullptr);
}

TEST_F(Hal, DeleteTakesTheObjectOutOfTheRegistry) {
  fake_t* a = add_fake(HAL_DEVICE, 0);
  add_fake(HAL_DEVICE, 1);
  delete_hal_object(&a->hal_object);
  EXPECT_EQ(hal.node_count, 1u);
  EXPECT_EQ(hal_object_count_by_type(HAL_DEVICE), 1u);
}

TEST_F(Hal, CleanupDeletesEveryObject) {
  for (int n = 0; n < 5; n++) add_fake(static_cast<hal_object_type_t>(HAL_I2C + n), n);
  hal_cleanup();
  EXPECT_EQ(deletes, 5);
  EXPECT_EQ(hal.head, nullptr);
  EXPECT_EQ(hal.node_count, 0u);
}

TEST_F(Hal, AnHdmiSettingsChangeAppliesOnlyThatInputInTheSameCycle) {
  add_fake(HAL_INPUT_HDMI, 1);
  fake_t* hdmi0 = add_fake(HAL_INPUT_HDMI, 0);
  add_fake(HAL_OUTPUT_RF, 0);
  hdmi0->changed_apply = 1;
  EXPECT_EQ(poll(), step_block("APPLY_REQUIRED", "hal_input_hdmi", 0));
  EXPECT_EQ(steps, (std::vector<std::string>{"apply 0"}));
}

TEST_F(Hal, AMultiplexerInputChangeSyncsThenNestsUntilQuietThenApplies) {
  fake_t* out = add_fake(HAL_OUTPUT_RF, 1);
  fake_t* mux = add_fake(HAL_TSMUX_5X1, 2);
  mux->feeds = out;
  mux->changed_sync = 1;
  std::string expected = step_block("SYNC_REQUIRED", "hal_tsmux_5x1", 0) +
                         step_block("SYNC_REQUIRED", "hal_output_rf", 0) +
                         step_block("APPLY_REQUIRED", "hal_output_rf", 0);
  EXPECT_EQ(poll(), expected);
  EXPECT_EQ(steps, (std::vector<std::string>{"sync 2", "sync 1", "apply 1"}));
}

TEST_F(Hal, SyncOrderIsIpThenRfThenMultiplexers) {
  fake_t* mux = add_fake(HAL_TSMUX_5X1, 3);
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 2);
  fake_t* ip = add_fake(HAL_OUTPUT_IP, 1);
  mux->changed_sync = rf->changed_sync = ip->changed_sync = 1;
  poll();
  EXPECT_EQ(steps, (std::vector<std::string>{"sync 1", "sync 2", "sync 3", "apply 1", "apply 2"}));
}

TEST_F(Hal, ApplyOrderIsIpThenRfThenHdmi) {
  fake_t* hdmi = add_fake(HAL_INPUT_HDMI, 3);
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 2);
  fake_t* ip = add_fake(HAL_OUTPUT_IP, 1);
  hdmi->changed_apply = rf->changed_apply = ip->changed_apply = 1;
  poll();
  EXPECT_EQ(steps, (std::vector<std::string>{"apply 1", "apply 2", "apply 3"}));
}

TEST_F(Hal, ASecondPollWithoutChangeDoesNothing) {
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 0);
  rf->changed_apply = 1;
  poll();
  steps.clear();
  EXPECT_EQ(poll(), "");
  EXPECT_TRUE(steps.empty());
}

TEST_F(Hal, NoLinesWithoutVerbose) {
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 0);
  rf->changed_sync = 1;
  verbose = 0;
  EXPECT_EQ(poll(), "");
  EXPECT_EQ(steps, (std::vector<std::string>{"sync 0", "apply 0"}));
}

/* zlib's crc32 of the bytes laid end to end, computed directly. */
uint32_t zlib_crc(const std::string& bytes) {
  return static_cast<uint32_t>(crc32(crc32(0, NULL, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                                     static_cast<uInt>(bytes.size())));
}

TEST(HalCrcMemo, GivesZlibsChecksumOfTheBytesLaidEndToEnd) {
  hal_crc_memo_t memo = {};
  const std::string head = "settings";
  const uint8_t tail = 1;
  EXPECT_EQ(zlib_crc(head + '\x01'), hal_crc32_memo(&memo, head.data(), head.size(), &tail, 1));
  EXPECT_EQ(zlib_crc(head + '\x01'), hal_crc32_memo(&memo, head.data(), head.size(), &tail, 1));
  EXPECT_EQ(zlib_crc(head), hal_crc32_memo(&memo, head.data(), head.size()));
}

TEST(HalCrcMemo, BytesThatMovedSinceTheLastChecksumAreHashedAgain) {
  hal_crc_memo_t memo = {};
  std::string group(40, 'a');
  hal_crc32_memo(&memo, group.data(), group.size());
  group[39] = 'b';
  EXPECT_EQ(zlib_crc(group), hal_crc32_memo(&memo, group.data(), group.size()));
  uint8_t tail = 0;
  hal_crc32_memo(&memo, group.data(), group.size(), &tail, 1);
  tail = 1;
  EXPECT_EQ(zlib_crc(group + '\x01'), hal_crc32_memo(&memo, group.data(), group.size(), &tail, 1));
}

TEST(HalCrcMemo, AGroupLargerThanTheMemoIsStillHashed) {
  hal_crc_memo_t memo = {};
  std::string group(HAL_CRC_MEMO_SIZE + 1, 'a');
  EXPECT_EQ(zlib_crc(group), hal_crc32_memo(&memo, group.data(), group.size()));
  group[0] = 'b';
  EXPECT_EQ(zlib_crc(group), hal_crc32_memo(&memo, group.data(), group.size()));
}

TEST(HalCrcMemo, ChangeTestTakesInOnlyWhenAsked) {
  hal_crc_memo_t memo = {};
  const std::string group = "group";
  uint32_t settings_crc = 0;
  EXPECT_EQ(1, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 0));
  EXPECT_EQ(0u, settings_crc);
  EXPECT_EQ(1, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 1));
  EXPECT_EQ(zlib_crc(group), settings_crc);
  EXPECT_EQ(0, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 1));
  settings_crc++; /* a forced change */
  EXPECT_EQ(1, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 1));
}

TEST_F(Hal, AlloceZeroFills) {
  fake_t* fake = add_fake(HAL_DEVICE, 0);
  EXPECT_EQ(fake->settings_crc, 0u);
  EXPECT_EQ(fake->feeds, nullptr);
  EXPECT_EQ(fake->hal_object.user, nullptr);
  EXPECT_EQ(fake->hal_object.err, HAL_OK);
}

}  // namespace
