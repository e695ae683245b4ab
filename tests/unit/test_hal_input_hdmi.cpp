#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dbg.h"
#include "hal.h"
#include "hal_input_hdmi.h"
#include "hal_output_rf.h"
#include "hal_test_support.h"
#include "hal_ts.h"

namespace {

using namespace hal_test;

/* The fake encoder: every operation records its call and fails when it is the one named in
 * `failing`; reads return the values in `hw`. */
hal_input_hdmi_settings_t hw;
hal_input_hdmi_status_t hw_status;
uint8_t hw_debug_enable;

HAL_TEST_FAKE_ACCESSORS(video_bitrate, uint16_t, hw.video_bitrate_kbps)
HAL_TEST_FAKE_ACCESSORS(video_gopsize, uint8_t, hw.video_gopsize)
HAL_TEST_FAKE_ACCESSORS(audio_bitrate, uint16_t, hw.audio_bitrate_kbps)

hal_err_t fake_get_status(void* user, hal_input_hdmi_status_t* status) {
  return fake_read(user, "status", status, hw_status);
}

hal_err_t fake_set_hw_debug_code(void* user, uint8_t code, uint8_t enable) {
  return record(user, "set hw_debug_code " + std::to_string(code) + " " + std::to_string(enable),
                "hw_debug_code");
}

hal_err_t fake_get_hw_debug_code(void* user, uint8_t code, uint8_t* enable) {
  hal_err_t err = record(user, "get hw_debug_code " + std::to_string(code), "hw_debug_code");
  if (err == HAL_OK) *enable = hw_debug_enable;
  return err;
}

hal_err_t fake_apply(void* user) { return record(user, "apply", "apply"); }

void fake_ts_delete(hal_object_t* object) {
  calls.emplace_back("delete ts");
  delete_hal_object(object);
}

void wire(hal_input_hdmi_t* hdmi) {
  hdmi->hal_object.user = &driver;
  hdmi->apply = fake_apply;
  hdmi->set.video_bitrate = fake_set_video_bitrate;
  hdmi->set.video_gopsize = fake_set_video_gopsize;
  hdmi->set.audio_bitrate = fake_set_audio_bitrate;
  hdmi->set.hw_debug_code = fake_set_hw_debug_code;
  hdmi->get.video_bitrate = fake_get_video_bitrate;
  hdmi->get.video_gopsize = fake_get_video_gopsize;
  hdmi->get.audio_bitrate = fake_get_audio_bitrate;
  hdmi->get.status = fake_get_status;
  hdmi->get.hw_debug_code = fake_get_hw_debug_code;
}

const std::string opening = msg("<APPLY> hal_input_hdmi") + msg("<APPLY_SETTINGS>");
const std::string closing = msg("</APPLY_SETTINGS>") + msg("</APPLY> hal_input_hdmi");

class HalInputHdmi : public HalTest {
 protected:
  hal_input_hdmi_t* hdmi;

  void SetUp() override {
    HalTest::SetUp();
    failure = HAL_MOD_TARN_ERR;
    hw = {8000, 25, 192};
    hw_status = {1, 1080, 'i', 50};
    hw_debug_enable = 1;
    hdmi = new_hal_input_hdmi();
    ASSERT_NE(hdmi, nullptr);
    hdmi->tsout = new_hal_ts();
  }
  void TearDown() override {
    if (hdmi->hal_object.node.owner == NULL) hdmi->hal_object.delete_(&hdmi->hal_object);
    HalTest::TearDown();
  }

  /* The change test, with the TS's change warnings kept off the console. */
  uint8_t changed() {
    return quietly([this] { return hal_input_hdmi_changed(hdmi); });
  }
  /* Everything taken in and applied. */
  void settle() {
    changed();
    hal_input_hdmi_apply(hdmi);
    calls.clear();
  }
  std::string apply_output() {
    return printed_by([this] { hal_input_hdmi_apply(hdmi); }).out;
  }
};

TEST_F(HalInputHdmi, NewInputIsZeroFilledWithoutTsout) {
  hal_input_hdmi_t* fresh = new_hal_input_hdmi();
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(fresh->hal_object.type, HAL_INPUT_HDMI);
  EXPECT_EQ(fresh->hal_object.delete_, delete_hal_input_hdmi);
  EXPECT_EQ(fresh->hal_object.strerror, nullptr);
  EXPECT_EQ(fresh->hal_object.user, nullptr);
  EXPECT_EQ(fresh->hal_object.node.owner, nullptr);
  EXPECT_EQ(fresh->tsout, nullptr);
  EXPECT_EQ(fresh->apply, nullptr);
  EXPECT_EQ(fresh->set.video_gopsize, nullptr);
  EXPECT_EQ(fresh->get.status, nullptr);
  EXPECT_EQ(fresh->settings_crc, 0u);
  EXPECT_EQ(fresh->apply_required, 0);
  EXPECT_EQ(fresh->settings.video_bitrate_kbps, 0);
  EXPECT_EQ(fresh->status.video_height, 0);
  EXPECT_EQ(hal.node_count, 0u); /* the assembly registers it, not the constructor */
  fresh->hal_object.delete_(&fresh->hal_object);
}

TEST_F(HalInputHdmi, DeleteTakesItsTsoutAlongAndLeavesTheRegistry) {
  hdmi->tsout->hal_object.delete_ = fake_ts_delete;
  lnklist_push_node(&hal, &hdmi->hal_object.node);
  hdmi->hal_object.delete_(&hdmi->hal_object);
  EXPECT_EQ(calls, (std::vector<std::string>{"delete ts"}));
  EXPECT_EQ(hal.head, nullptr);
  EXPECT_EQ(hal.node_count, 0u);
  hdmi = new_hal_input_hdmi(); /* for TearDown */
}

TEST_F(HalInputHdmi, DeleteWithoutTsoutFreesTheInputAlone) {
  hal_input_hdmi_t* bare = new_hal_input_hdmi();
  ASSERT_NE(bare, nullptr);
  delete_hal_input_hdmi(&bare->hal_object);
  EXPECT_TRUE(calls.empty());
}

TEST_F(HalInputHdmi, WithoutOperationsItIsPlainStorage) {
  EXPECT_EQ(hal_input_hdmi_set_video_bitrate(hdmi, 12000), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi, 30), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_set_audio_bitrate(hdmi, 256), HAL_OK);
  uint16_t video_bitrate = 0;
  uint16_t audio_bitrate = 0;
  uint8_t gopsize = 0;
  EXPECT_EQ(hal_input_hdmi_get_video_bitrate(hdmi, &video_bitrate), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_get_video_gopsize(hdmi, &gopsize), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_get_audio_bitrate(hdmi, &audio_bitrate), HAL_OK);
  EXPECT_EQ(video_bitrate, 12000);
  EXPECT_EQ(gopsize, 30);
  EXPECT_EQ(audio_bitrate, 256);
  EXPECT_EQ(hal_input_hdmi_set_all(hdmi), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_get_all(hdmi), HAL_OK);
  EXPECT_EQ(hdmi->settings.video_bitrate_kbps, 12000);
  EXPECT_EQ(hdmi->settings.video_gopsize, 30);
  EXPECT_EQ(hdmi->settings.audio_bitrate_kbps, 256);
}

TEST_F(HalInputHdmi, WithoutOperationsApplyOnlyLogsAndClears) {
  EXPECT_EQ(changed(), 1);
  verbose = 1;
  EXPECT_EQ(apply_output(), opening + closing);
  EXPECT_EQ(hdmi->apply_required, 0);
  EXPECT_EQ(hdmi->hal_object.err, HAL_OK);
}

TEST_F(HalInputHdmi, WithoutOperationsStatusAndDebugCodeDoNothing) {
  hdmi->status = {1, 720, 'p', 60};
  EXPECT_EQ(hal_input_hdmi_get_status(hdmi), HAL_OK);
  EXPECT_EQ(hdmi->status.video_height, 720);
  EXPECT_EQ(hdmi->status.video_scan_mode, 'p');
  EXPECT_EQ(hal_input_hdmi_set_hw_debug_code(hdmi, 50, 1), HAL_OK);
  uint8_t enable = 7;
  EXPECT_EQ(hal_input_hdmi_get_hw_debug_code(hdmi, 50, &enable), HAL_OK);
  EXPECT_EQ(enable, 7);
}

TEST_F(HalInputHdmi, SetterHandsTheValueToTheDriverFirst) {
  wire(hdmi);
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi, 30), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_set_video_bitrate(hdmi, 9000), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_set_audio_bitrate(hdmi, 128), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"set video_gopsize 30", "set video_bitrate 9000",
                                             "set audio_bitrate 128"}));
  EXPECT_EQ(hdmi->settings.video_gopsize, 30);
  EXPECT_EQ(hdmi->settings.video_bitrate_kbps, 9000);
  EXPECT_EQ(hdmi->settings.audio_bitrate_kbps, 128);
}

TEST_F(HalInputHdmi, FailingSetterKeepsTheStoredValue) {
  wire(hdmi);
  hdmi->settings.video_gopsize = 25;
  failing = "video_gopsize";
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi, 30), HAL_MOD_TARN_ERR);
  EXPECT_EQ(hdmi->settings.video_gopsize, 25);
  EXPECT_EQ(hdmi->hal_object.err, HAL_MOD_TARN_ERR);
  failing.clear();
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi, 30), HAL_OK);
  EXPECT_EQ(hdmi->hal_object.err, HAL_OK);
}

TEST_F(HalInputHdmi, GetterOverwritesTheStoredValueWithTheHardwares) {
  wire(hdmi);
  hdmi->settings.video_bitrate_kbps = 5000;
  uint16_t video_bitrate = 0;
  EXPECT_EQ(hal_input_hdmi_get_video_bitrate(hdmi, &video_bitrate), HAL_OK);
  EXPECT_EQ(video_bitrate, 8000);
  EXPECT_EQ(hdmi->settings.video_bitrate_kbps, 8000);
  EXPECT_EQ(calls, (std::vector<std::string>{"get video_bitrate"}));
}

TEST_F(HalInputHdmi, FailingGetterLeavesTheOutputUnwritten) {
  wire(hdmi);
  hdmi->settings.audio_bitrate_kbps = 96;
  failing = "audio_bitrate";
  uint16_t audio_bitrate = 777;
  EXPECT_EQ(hal_input_hdmi_get_audio_bitrate(hdmi, &audio_bitrate), HAL_MOD_TARN_ERR);
  EXPECT_EQ(audio_bitrate, 777);
  EXPECT_EQ(hdmi->settings.audio_bitrate_kbps, 96);
  EXPECT_EQ(hdmi->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalInputHdmi, SetAllPushesTheStoredSettingsInOrder) {
  wire(hdmi);
  hdmi->settings = {6000, 12, 160};
  EXPECT_EQ(hal_input_hdmi_set_all(hdmi), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"set video_bitrate 6000", "set video_gopsize 12",
                                             "set audio_bitrate 160"}));
  EXPECT_EQ(hdmi->hal_object.err, HAL_OK);
}

TEST_F(HalInputHdmi, SetAllStopsAtTheFirstFailure) {
  wire(hdmi);
  hdmi->settings = {6000, 12, 160};
  failing = "video_gopsize";
  EXPECT_EQ(hal_input_hdmi_set_all(hdmi), HAL_MOD_TARN_ERR);
  EXPECT_EQ(calls, (std::vector<std::string>{"set video_bitrate 6000", "set video_gopsize 12"}));
  EXPECT_EQ(hdmi->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalInputHdmi, GetAllLoadsTheHardwareValuesInOrder) {
  wire(hdmi);
  EXPECT_EQ(hal_input_hdmi_get_all(hdmi), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"get video_bitrate", "get video_gopsize", "get audio_bitrate"}));
  EXPECT_EQ(hdmi->settings.video_bitrate_kbps, 8000);
  EXPECT_EQ(hdmi->settings.video_gopsize, 25);
  EXPECT_EQ(hdmi->settings.audio_bitrate_kbps, 192);
}

TEST_F(HalInputHdmi, GetAllStopsAtTheFirstFailure) {
  wire(hdmi);
  failing = "video_bitrate";
  EXPECT_EQ(hal_input_hdmi_get_all(hdmi), HAL_MOD_TARN_ERR);
  EXPECT_EQ(calls, (std::vector<std::string>{"get video_bitrate"}));
  EXPECT_EQ(hdmi->settings.video_gopsize, 0);
}

TEST_F(HalInputHdmi, GetStatusFillsTheStatusFromTheDriver) {
  wire(hdmi);
  EXPECT_EQ(hal_input_hdmi_get_status(hdmi), HAL_OK);
  EXPECT_EQ(hdmi->status.lock, 1);
  EXPECT_EQ(hdmi->status.video_height, 1080);
  EXPECT_EQ(hdmi->status.video_scan_mode, 'i');
  EXPECT_EQ(hdmi->status.video_frame_rate, 50);
}

TEST_F(HalInputHdmi, FailingGetStatusKeepsTheLastStatus) {
  wire(hdmi);
  hdmi->status = {0, 576, 'i', 25};
  failing = "status";
  EXPECT_EQ(hal_input_hdmi_get_status(hdmi), HAL_MOD_TARN_ERR);
  EXPECT_EQ(hdmi->status.video_height, 576);
  EXPECT_EQ(hdmi->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalInputHdmi, DebugCodeGoesStraightToTheDriverAndIsNotKept) {
  wire(hdmi);
  settle();
  EXPECT_EQ(hal_input_hdmi_set_hw_debug_code(hdmi, 50, 1), HAL_OK);
  uint8_t enable = 0;
  EXPECT_EQ(hal_input_hdmi_get_hw_debug_code(hdmi, 50, &enable), HAL_OK);
  EXPECT_EQ(enable, 1);
  EXPECT_EQ(calls, (std::vector<std::string>{"set hw_debug_code 50 1", "get hw_debug_code 50"}));
  EXPECT_EQ(changed(), 0);
}

TEST_F(HalInputHdmi, FailingDebugCodeReturnsTheError) {
  wire(hdmi);
  failing = "hw_debug_code";
  EXPECT_EQ(hal_input_hdmi_set_hw_debug_code(hdmi, 50, 1), HAL_MOD_TARN_ERR);
  uint8_t enable = 9;
  EXPECT_EQ(hal_input_hdmi_get_hw_debug_code(hdmi, 50, &enable), HAL_MOD_TARN_ERR);
  EXPECT_EQ(enable, 9);
  EXPECT_EQ(hdmi->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalInputHdmi, FindTsByTagMatchesOnlyTheOutputStream) {
  hal_ts_t* other = new_hal_ts();
  EXPECT_EQ(hdmi->tsout->tag, 0u);
  EXPECT_EQ(hal_input_hdmi_find_ts_by_tag(hdmi, 0), hdmi->tsout);
  EXPECT_EQ(hal_input_hdmi_find_ts_by_tag(hdmi, other->tag), nullptr);
  EXPECT_EQ(hal_input_hdmi_find_ts_by_tag(hdmi, 12345), nullptr);
  other->hal_object.delete_(&other->hal_object);
}

TEST_F(HalInputHdmi, ANewInputCountsAsChanged) {
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(hdmi->apply_required, 1);
  EXPECT_EQ(hdmi->sync_required, 0);
}

TEST_F(HalInputHdmi, TheSameValueTwiceIsNoChange) {
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi, 30), HAL_OK);
  EXPECT_EQ(changed(), 1);
  hal_input_hdmi_apply(hdmi);
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi, 30), HAL_OK);
  EXPECT_EQ(changed(), 0);
  EXPECT_EQ(hdmi->apply_required, 0);
}

TEST_F(HalInputHdmi, AChangedStreamOfTsoutMarksTheInputForApply) {
  hal_service_t* service = hal_ts_new_service(hdmi->tsout);
  hal_stream_t* stream = hal_service_new_stream(service);
  settle();
  uint32_t settings_crc = hdmi->settings_crc;
  EXPECT_EQ(hal_stream_set_pid(stream, 0x101), HAL_OK);
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(hdmi->apply_required, 1);
  EXPECT_EQ(hdmi->settings_crc, settings_crc);
}

TEST_F(HalInputHdmi, OneTestTakesInBothTheSettingsAndTsout) {
  settle();
  EXPECT_EQ(hal_input_hdmi_set_audio_bitrate(hdmi, 128), HAL_OK);
  EXPECT_EQ(hal_ts_set_tsid(hdmi->tsout, 2), HAL_OK);
  EXPECT_EQ(changed(), 1);
  hal_input_hdmi_apply(hdmi);
  EXPECT_EQ(changed(), 0);
  EXPECT_EQ(hal_ts_changed(hdmi->tsout, 0), 0);
}

TEST_F(HalInputHdmi, ApplyPendsUntilApplied) {
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(changed(), 1); /* nothing new, but the apply is still owed */
  hal_input_hdmi_apply(hdmi);
  EXPECT_EQ(changed(), 0);
}

TEST_F(HalInputHdmi, ApplyCallsTheDriverAndLogsAllFourLines) {
  wire(hdmi);
  changed();
  verbose = 1;
  EXPECT_EQ(apply_output(), opening + closing);
  EXPECT_EQ(calls, (std::vector<std::string>{"apply"}));
  EXPECT_EQ(hdmi->apply_required, 0);
}

TEST_F(HalInputHdmi, ApplyLogsNothingWithoutVerbose) {
  changed();
  EXPECT_EQ(apply_output(), "");
  EXPECT_EQ(hdmi->apply_required, 0);
}

TEST_F(HalInputHdmi, FailingApplyStaysRequiredAndLogsOnlyTheOpeningLines) {
  wire(hdmi);
  changed();
  failing = "apply";
  verbose = 1;
  EXPECT_EQ(apply_output(), opening);
  EXPECT_EQ(hdmi->apply_required, 1);
  EXPECT_EQ(hdmi->hal_object.err, HAL_MOD_TARN_ERR);
  EXPECT_EQ(changed(), 1);
  failing.clear();
  EXPECT_EQ(apply_output(), opening + closing);
  EXPECT_EQ(calls, (std::vector<std::string>{"apply", "apply"}));
  EXPECT_EQ(hdmi->apply_required, 0);
  EXPECT_EQ(hdmi->hal_object.err, HAL_OK);
}

/* The input among the box's other objects: a second input and an RF output reading its TS. */
class HalInputHdmiPoll : public HalInputHdmi {
 protected:
  void SetUp() override {
    HalInputHdmi::SetUp();
    other = new_hal_input_hdmi();
    other->tsout = new_hal_ts();
    lnklist_push_node(&hal, &other->hal_object.node);
    wire(hdmi);
    lnklist_push_node(&hal, &hdmi->hal_object.node);
    hal_output_rf_t* rf = new_hal_output_rf(hdmi->tsout);
    lnklist_push_node(&hal, &rf->hal_object.node);
    poll(); /* takes in the new objects */
    calls.clear();
    verbose = 1;
  }
  hal_input_hdmi_t* other;
};

TEST_F(HalInputHdmiPoll, ASettingsChangeAloneAppliesOnlyThatInput) {
  EXPECT_EQ(hal_object_by_type(HAL_INPUT_HDMI, 0), &hdmi->hal_object);
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi, 30), HAL_OK);
  calls.clear();
  EXPECT_EQ(poll(), "\n\r" + msg("<APPLY_REQUIRED> hal_input_hdmi (0)") + opening + closing +
                        msg("</APPLY_REQUIRED> hal_input_hdmi (0)") + "\n\r");
  EXPECT_EQ(calls, (std::vector<std::string>{"apply"}));
  EXPECT_EQ(errors, "");
}

TEST_F(HalInputHdmiPoll, ASecondPollWithoutChangeDoesNothing) {
  EXPECT_EQ(hal_input_hdmi_set_video_bitrate(hdmi, 4000), HAL_OK);
  poll();
  calls.clear();
  EXPECT_EQ(poll(), "");
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(calls.empty());
}

}  // namespace
