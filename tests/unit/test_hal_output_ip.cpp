#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dbg.h"
#include "hal.h"
#include "hal_output_ip.h"
#include "hal_test_support.h"
#include "hal_ts.h"

namespace {

using namespace hal_test;

std::string label(void* user) { return user != nullptr ? static_cast<const char*>(user) : "-"; }

hal_err_t fake_set_addr(void* user, const char* text) { return record(label(user) + " set addr " + text); }
hal_err_t fake_set_port(void* user, const char* text) { return record(label(user) + " set port " + text); }

/* The driver refreshes the stored text in place. */
hal_err_t fake_get_addr(void* user, char* text, size_t size) {
  hal_err_t err = record(label(user) + " get addr " + std::to_string(size));
  if (err == HAL_OK) snprintf(text, HAL_OUTPUT_IP_ADDR_SIZE, "%s", "10.1.2.3");
  return err;
}
hal_err_t fake_get_port(void* user, char* text, size_t size) {
  hal_err_t err = record(label(user) + " get port " + std::to_string(size));
  if (err == HAL_OK) snprintf(text, HAL_OUTPUT_IP_PORT_SIZE, "%s", "1234");
  return err;
}

hal_err_t fake_get_bitrate(void* user, uint32_t* bitrate_kbps) {
  hal_err_t err = record(label(user) + " get bitrate");
  *bitrate_kbps = 12500;
  return err;
}

/* Records what the streaming would see: the first service of tsout and its switch. */
hal_err_t fake_apply(hal_output_ip_t* out) {
  hal_service_t* first = reinterpret_cast<hal_service_t*>(out->tsout->service_list.head);
  return record("apply " + std::string(first != nullptr && first->enabled ? "on" : "off"));
}

/* Type 1, LCN SID + 100 and PMT PID SID + 0x100; H.264 streams at twice their PID in kbit/s. */
hal_service_t* add_h264_service(hal_ts_t* ts, uint16_t sid, const char* name,
                                const std::vector<uint16_t>& pids) {
  std::vector<hal_stream_settings_t> streams;
  streams.reserve(pids.size());
  for (uint16_t pid : pids) streams.push_back({pid, HAL_H264, static_cast<uint16_t>(pid * 2)});
  hal_service_t* service = add_service(ts, sid, name, streams);
  hal_service_set_type(service, 1);
  hal_service_set_lcn(service, static_cast<uint16_t>(sid + 100));
  hal_service_set_pmt_pid(service, static_cast<uint16_t>(sid + 0x100));
  return service;
}

class HalOutputIp : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    failure = HAL_QEL2IP_ERR;
    tsin = new_hal_ts();
    out = new_hal_output_ip(tsin);
    ASSERT_NE(out, nullptr);
  }
  void TearDown() override {
    out->hal_object.delete_(&out->hal_object);
    tsin->hal_object.delete_(&tsin->hal_object);
    HalTest::TearDown();
  }
  /* Runs the sync step; returns its log lines, and its warnings in `warnings`. */
  std::string sync(std::string* warnings = nullptr) {
    printed_t printed = printed_by([this] { EXPECT_EQ(hal_output_ip_sync(out), HAL_OK); });
    if (warnings != nullptr) *warnings = without_lines(printed.err);
    return printed.out;
  }
  /* Takes in every change, as a settled poll cycle leaves the streams. */
  void settle() {
    quietly([this] {
      hal_ts_changed(tsin, 1);
      hal_ts_changed(out->tsout, 1);
      hal_output_ip_settings_changed(out, 1);
    });
    out->sync_required = out->apply_required = 0;
  }
  uint8_t changed() {
    return quietly([this] { return hal_output_ip_changed(out); });
  }

  hal_ts_t* tsin = nullptr;
  hal_output_ip_t* out = nullptr;
};

TEST_F(HalOutputIp, ConstructorBuildsAnInMemoryOutputOutsideTheRegistry) {
  EXPECT_EQ(out->hal_object.type, HAL_OUTPUT_IP);
  EXPECT_EQ(out->hal_object.delete_, delete_hal_output_ip);
  EXPECT_EQ(out->hal_object.user, nullptr);
  EXPECT_EQ(out->hal_object.strerror, nullptr);
  EXPECT_EQ(out->hal_object.node.owner, nullptr);
  EXPECT_EQ(out->tsin, tsin);
  ASSERT_NE(out->tsout, nullptr);
  EXPECT_EQ(out->tsout->tag, 1u);
  EXPECT_EQ(out->tsout->hal_object.node.owner, nullptr);
  EXPECT_EQ(out->apply, nullptr);
  EXPECT_EQ(out->set.s_dst_addr, nullptr);
  EXPECT_EQ(out->get.bitrate_kbps, nullptr);
  EXPECT_STREQ(out->settings.s_dst_addr, "");
  EXPECT_STREQ(out->settings.s_dst_port, "");
  EXPECT_EQ(out->settings_crc, 0u);
  EXPECT_EQ(hal.node_count, 0u);
}

TEST_F(HalOutputIp, DeleteLeavesTsinAlone) {
  add_h264_service(tsin, 1, "One", {0x100});
  hal_output_ip_t* second = new_hal_output_ip(tsin);
  hal_ts_new_service(second->tsout);
  lnklist_push_node(&hal, &second->hal_object.node);
  second->hal_object.delete_(&second->hal_object);
  EXPECT_EQ(hal.node_count, 0u);
  EXPECT_EQ(tsin->service_list.node_count, 1u);
}

TEST_F(HalOutputIp, AFullDottedAddressIsStoredWhole) {
  EXPECT_EQ(hal_output_ip_set_dst_addr(out, "255.255.255.255"), HAL_OK);
  EXPECT_STREQ(out->settings.s_dst_addr, "255.255.255.255");
}

TEST_F(HalOutputIp, ATwentyCharacterAddressIsCutToFifteen) {
  EXPECT_EQ(hal_output_ip_set_dst_addr(out, "123.123.123.123.1234"), HAL_OK);
  EXPECT_STREQ(out->settings.s_dst_addr, "123.123.123.123");
}

TEST_F(HalOutputIp, ASixDigitPortIsCutToFive) {
  EXPECT_EQ(hal_output_ip_set_dst_port(out, "123456"), HAL_OK);
  EXPECT_STREQ(out->settings.s_dst_port, "12345");
}

TEST_F(HalOutputIp, SettersHandTheTextToTheDriverFirst) {
  out->hal_object.user = const_cast<char*>("qel");
  out->set.s_dst_addr = fake_set_addr;
  out->set.s_dst_port = fake_set_port;
  EXPECT_EQ(hal_output_ip_set_dst_addr(out, "239.0.0.1"), HAL_OK);
  EXPECT_EQ(hal_output_ip_set_dst_port(out, "5000"), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"qel set addr 239.0.0.1", "qel set port 5000"}));
  EXPECT_STREQ(out->settings.s_dst_addr, "239.0.0.1");
  EXPECT_STREQ(out->settings.s_dst_port, "5000");
}

TEST_F(HalOutputIp, ARefusedValueIsNotStored) {
  out->set.s_dst_addr = fake_set_addr;
  out->set.s_dst_port = fake_set_port;
  hal_output_ip_set_dst_addr(out, "239.0.0.1");
  hal_output_ip_set_dst_port(out, "5000");
  failing = "- set addr 239.0.0.2";
  EXPECT_EQ(hal_output_ip_set_dst_addr(out, "239.0.0.2"), HAL_QEL2IP_ERR);
  EXPECT_EQ(out->hal_object.err, HAL_QEL2IP_ERR);
  EXPECT_STREQ(out->settings.s_dst_addr, "239.0.0.1");
  failing = "- set port 6000";
  EXPECT_EQ(hal_output_ip_set_dst_port(out, "6000"), HAL_QEL2IP_ERR);
  EXPECT_STREQ(out->settings.s_dst_port, "5000");
}

TEST_F(HalOutputIp, GettersCopyOutWithinTheCallersSize) {
  hal_output_ip_set_dst_addr(out, "192.168.100.200");
  hal_output_ip_set_dst_port(out, "49152");
  char addr[8];
  char port[3];
  EXPECT_EQ(hal_output_ip_get_dst_addr(out, addr, sizeof(addr)), HAL_OK);
  EXPECT_STREQ(addr, "192.168");
  EXPECT_EQ(hal_output_ip_get_dst_port(out, port, sizeof(port)), HAL_OK);
  EXPECT_STREQ(port, "49");
  char full[HAL_OUTPUT_IP_ADDR_SIZE];
  EXPECT_EQ(hal_output_ip_get_dst_addr(out, full, sizeof(full)), HAL_OK);
  EXPECT_STREQ(full, "192.168.100.200");
}

TEST_F(HalOutputIp, GettersLetTheDriverRefreshTheStoredText) {
  out->hal_object.user = const_cast<char*>("qel");
  out->get.s_dst_addr = fake_get_addr;
  out->get.s_dst_port = fake_get_port;
  char addr[32];
  char port[32];
  EXPECT_EQ(hal_output_ip_get_dst_addr(out, addr, sizeof(addr)), HAL_OK);
  EXPECT_EQ(hal_output_ip_get_dst_port(out, port, 7), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"qel get addr 32", "qel get port 7"}));
  EXPECT_STREQ(addr, "10.1.2.3");
  EXPECT_STREQ(port, "1234");
  EXPECT_STREQ(out->settings.s_dst_addr, "10.1.2.3");
}

TEST_F(HalOutputIp, AFailingGetterLeavesTheCallersBufferAlone) {
  out->get.s_dst_addr = fake_get_addr;
  failing = "- get addr 16";
  char addr[HAL_OUTPUT_IP_ADDR_SIZE] = "untouched";
  EXPECT_EQ(hal_output_ip_get_dst_addr(out, addr, sizeof(addr)), HAL_QEL2IP_ERR);
  EXPECT_EQ(out->hal_object.err, HAL_QEL2IP_ERR);
  EXPECT_STREQ(addr, "untouched");
}

TEST_F(HalOutputIp, BitrateWithoutAnOperationLeavesTheValueUntouched) {
  uint32_t bitrate = 4711;
  out->hal_object.err = HAL_ERR;
  EXPECT_EQ(hal_output_ip_get_bitrate(out, &bitrate), HAL_OK);
  EXPECT_EQ(bitrate, 4711u);
  EXPECT_EQ(out->hal_object.err, HAL_OK);
}

TEST_F(HalOutputIp, BitrateComesFromTheDriverWithItsResult) {
  out->get.bitrate_kbps = fake_get_bitrate;
  uint32_t bitrate = 0;
  EXPECT_EQ(hal_output_ip_get_bitrate(out, &bitrate), HAL_OK);
  EXPECT_EQ(bitrate, 12500u);
  failing = "- get bitrate";
  EXPECT_EQ(hal_output_ip_get_bitrate(out, &bitrate), HAL_QEL2IP_ERR);
  EXPECT_EQ(out->hal_object.err, HAL_QEL2IP_ERR);
}

TEST_F(HalOutputIp, SettingsChangeTestTakesTheChangeInOnlyWhenAsked) {
  hal_output_ip_settings_changed(out, 1);
  hal_output_ip_set_dst_port(out, "5000");
  EXPECT_EQ(hal_output_ip_settings_changed(out, 0), 1);
  EXPECT_EQ(hal_output_ip_settings_changed(out, 0), 1);
  EXPECT_EQ(hal_output_ip_settings_changed(out, 1), 1);
  EXPECT_EQ(hal_output_ip_settings_changed(out, 0), 0);
}

TEST_F(HalOutputIp, ANewOutputOwesBothSteps) {
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(out->sync_required, 1);
  EXPECT_EQ(out->apply_required, 1);
}

TEST_F(HalOutputIp, NoChangeOwesNothing) {
  settle();
  EXPECT_EQ(changed(), 0);
  EXPECT_EQ(out->sync_required, 0);
  EXPECT_EQ(out->apply_required, 0);
}

TEST_F(HalOutputIp, AChangeOfTsoutOwesSyncAndApplyAndIsTakenIn) {
  add_h264_service(tsin, 1, "One", {});
  sync();
  settle();
  hal_service_set_enabled(service_at(out->tsout, 0), 1);
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(out->sync_required, 1);
  EXPECT_EQ(out->apply_required, 1);
  EXPECT_EQ(ts_changed(out->tsout), 0);
}

TEST_F(HalOutputIp, ADestinationChangeOwesOnlyTheApply) {
  settle();
  hal_output_ip_set_dst_addr(out, "239.1.1.1");
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(out->sync_required, 0);
  EXPECT_EQ(out->apply_required, 1);
  out->apply_required = 0;
  EXPECT_EQ(changed(), 0);
}

TEST_F(HalOutputIp, AChangeOfTsinOwesTheSyncAndIsLeftToItsProducer) {
  settle();
  add_h264_service(tsin, 1, "One", {});
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(out->sync_required, 1);
  EXPECT_EQ(out->apply_required, 0);
  EXPECT_EQ(ts_changed(tsin), 1);
}

TEST_F(HalOutputIp, TheChangeTestNeverClearsAFlag) {
  settle();
  out->sync_required = 1;
  out->apply_required = 1;
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(out->sync_required, 1);
  EXPECT_EQ(out->apply_required, 1);
}

TEST_F(HalOutputIp, TheFirstSyncOffersEveryServiceOfTsinSwitchedOff) {
  hal_service_t* one = add_h264_service(tsin, 1, "One", {0x100, 0x101});
  hal_service_t* two = add_h264_service(tsin, 2, "Two", {0x200});
  one->enabled = 1;
  sync();
  ASSERT_EQ(out->tsout->service_list.node_count, 2u);
  hal_service_t* mirrors[] = {hal_ts_find_service_by_tag(out->tsout, one->tag),
                              hal_ts_find_service_by_tag(out->tsout, two->tag)};
  hal_service_t* sources[] = {one, two};
  for (int i = 0; i < 2; i++) {
    ASSERT_NE(mirrors[i], nullptr);
    EXPECT_EQ(mirrors[i]->enabled, 0);
    EXPECT_EQ(memcmp(&mirrors[i]->settings, &sources[i]->settings, sizeof(sources[i]->settings)), 0);
    ASSERT_EQ(mirrors[i]->stream_list.node_count, sources[i]->stream_list.node_count);
    for (uint32_t s = 0; s < sources[i]->stream_list.node_count; s++) {
      hal_stream_t* source = stream_at(sources[i], static_cast<int>(s));
      hal_stream_t* copy = hal_service_find_stream_by_tag(mirrors[i], source->tag);
      ASSERT_NE(copy, nullptr);
      EXPECT_EQ(memcmp(&copy->settings, &source->settings, sizeof(source->settings)), 0);
    }
  }
  /* The switch set on tsout, off for a new mirror, is what tsin carries afterwards. */
  EXPECT_EQ(one->enabled, 0);
  EXPECT_EQ(out->sync_required, 0);
}

TEST_F(HalOutputIp, SyncLogsEveryStepWithAnEmptyLineAfterTheTsinUpdate) {
  add_h264_service(tsin, 7, "One", {0x100});
  set_identity(out->tsout, {16, 2, 3, 4, "Net", 5});
  verbose = 1;
  std::string expected =
      msg("<SYNC> hal_output_ip") + msg("<SYNC_TSOUT>") +
      msg("Add service (tag: 0, name: \"One\", enabled: 0)") + msg("</SYNC_TSOUT>") + msg("<SYNC_TSIN>") +
      msg("Update TSIN (TSID: 16, ONID: 2, NID: 3, private_data_spec: 4, network_name: \"Net\", "
          "network_version: 5)") +
      msg("") + msg("Update service (tag: 0, name: \"One\", enabled: 0)") + msg("Update PSI") +
      msg("</SYNC_TSIN>") + msg("</SYNC> hal_output_ip");
  std::string warnings;
  EXPECT_EQ(sync(&warnings), expected);
  EXPECT_EQ(warnings, "");
}

TEST_F(HalOutputIp, ASecondSyncUpdatesTheMirrorKeepingItsSwitch) {
  hal_service_t* source = add_h264_service(tsin, 7, "One", {0x100});
  sync();
  hal_service_t* mirror = service_at(out->tsout, 0);
  mirror->enabled = 1;
  hal_service_set_name(source, "Renamed");
  source->settings.lcn = 42;
  hal_stream_set_pid(stream_at(source, 0), 0x333);
  verbose = 1;
  std::string log = sync();
  EXPECT_NE(log.find(msg("<SYNC_TSOUT>") + msg("Update service (tag: 0, name: \"Renamed\", enabled: 1)") +
                     msg("</SYNC_TSOUT>")),
            std::string::npos);
  EXPECT_EQ(out->tsout->service_list.node_count, 1u);
  EXPECT_STREQ(mirror->settings.service_name, "Renamed");
  EXPECT_EQ(mirror->settings.lcn, 42);
  EXPECT_EQ(mirror->enabled, 1);
  EXPECT_EQ(stream_at(mirror, 0)->settings.pid, 0x333);
  EXPECT_EQ(source->enabled, 1);
}

TEST_F(HalOutputIp, AStaleServiceIsRemovedWithItsWarningAndCountsAsAChange) {
  hal_service_t* one = add_h264_service(tsin, 1, "One", {0x100});
  hal_service_t* two = add_h264_service(tsin, 2, "Two", {0x200});
  add_h264_service(tsin, 3, "Three", {0x300});
  sync();
  settle();
  uint32_t crc = out->tsout->settings_crc;
  /* The mirrors of one and two are neighbours at the head of tsout's list. */
  one->hal_object.delete_(&one->hal_object);
  two->hal_object.delete_(&two->hal_object);
  verbose = 1;
  std::string warnings;
  std::string log = sync(&warnings);
  EXPECT_NE(log.find(msg("<SYNC_TSOUT>") + msg("Remove service (tag: 0, name: \"One\")") +
                     msg("Remove service (tag: 1, name: \"Two\")") +
                     msg("Update service (tag: 2, name: \"Three\", enabled: 0)") + msg("</SYNC_TSOUT>")),
            std::string::npos);
  EXPECT_EQ(warnings, wrn("hal_output_ip_sync", "D") + wrn("hal_output_ip_sync", "D"));
  EXPECT_EQ(out->tsout->service_list.node_count, 1u);
  EXPECT_EQ(service_at(out->tsout, 0)->tag, 2u);
  EXPECT_EQ(out->tsout->settings_crc, crc + 2);
  EXPECT_EQ(ts_changed(out->tsout), 1);
}

TEST_F(HalOutputIp, AStaleStreamIsRemovedWithItsWarningAndCountsAsAChange) {
  hal_service_t* source = add_h264_service(tsin, 1, "One", {0x100, 0x101, 0x102});
  sync();
  settle();
  hal_service_t* mirror = service_at(out->tsout, 0);
  uint32_t crc = mirror->settings_crc;
  hal_stream_t* kept = stream_at(source, 2);
  stream_at(source, 0)->hal_object.delete_(&stream_at(source, 0)->hal_object);
  stream_at(source, 0)->hal_object.delete_(&stream_at(source, 0)->hal_object);
  std::string warnings;
  sync(&warnings);
  EXPECT_EQ(warnings, wrn("hal_output_ip_sync", "E") + wrn("hal_output_ip_sync", "E"));
  ASSERT_EQ(mirror->stream_list.node_count, 1u);
  EXPECT_EQ(stream_at(mirror, 0)->tag, kept->tag);
  EXPECT_EQ(mirror->settings_crc, crc + 2);
  EXPECT_EQ(ts_changed(out->tsout), 1);
}

TEST_F(HalOutputIp, ANewStreamIsMirroredWithItsSourcesTag) {
  hal_service_t* source = add_h264_service(tsin, 1, "One", {0x100});
  sync();
  hal_stream_t* added = hal_service_new_stream(source);
  added->settings.pid = 0x1AB;
  hal_stream_tag = 50;
  sync();
  hal_service_t* mirror = service_at(out->tsout, 0);
  ASSERT_EQ(mirror->stream_list.node_count, 2u);
  hal_stream_t* copy = hal_service_find_stream_by_tag(mirror, added->tag);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->settings.pid, 0x1AB);
  EXPECT_EQ(hal_stream_tag, 51u);
}

TEST_F(HalOutputIp, SyncPushesTheIdentityOfTsoutIntoTsin) {
  tsin->set.tsid = fake_ts_tsid;
  tsin->set.network_name = fake_ts_network_name;
  hal_ts_set_tsid(out->tsout, 0x1234);
  hal_ts_set_nid(out->tsout, 0x55);
  hal_ts_set_network_name(out->tsout, "Box");
  sync();
  EXPECT_EQ(calls, (std::vector<std::string>{"tsid 4660", "network_name Box"}));
  EXPECT_EQ(memcmp(&tsin->settings, &out->tsout->settings, sizeof(tsin->settings)), 0);
}

TEST_F(HalOutputIp, SyncSucceedsWhateverTheProducerOfTsinAnswers) {
  tsin->set.tsid = fake_ts_tsid;
  tsin->sync.psi = fake_psi;
  failing = "tsid 9";
  hal_ts_set_tsid(out->tsout, 9);
  out->sync_required = 1;
  out->apply_required = 1;
  sync();
  EXPECT_EQ(calls, (std::vector<std::string>{"tsid 9", "psi 0 from 1"}));
  EXPECT_EQ(out->hal_object.err, HAL_OK);
  EXPECT_EQ(out->sync_required, 0);
  EXPECT_EQ(out->apply_required, 1);
}

TEST_F(HalOutputIp, SyncCopiesTheSwitchesOfTsoutBackToTsin) {
  hal_service_t* one = add_h264_service(tsin, 1, "One", {});
  hal_service_t* two = add_h264_service(tsin, 2, "Two", {});
  sync();
  hal_ts_find_service_by_tag(out->tsout, two->tag)->enabled = 1;
  verbose = 1;
  std::string log = sync();
  EXPECT_NE(log.find(msg("") + msg("Update service (tag: 1, name: \"Two\", enabled: 1)") +
                     msg("Update service (tag: 0, name: \"One\", enabled: 0)") + msg("Update PSI")),
            std::string::npos);
  EXPECT_EQ(one->enabled, 0);
  EXPECT_EQ(two->enabled, 1);
}

TEST_F(HalOutputIp, ApplyCallsTheOperationIgnoresItsResultAndAlwaysClearsTheFlag) {
  out->apply = fake_apply;
  out->apply_required = 1;
  out->sync_required = 1;
  failing = "apply off";
  verbose = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(hal_output_ip_apply(out), HAL_OK);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), msg("<APPLY> hal_output_ip") + msg("<APPLY_SETTINGS>") +
                                                        msg("</APPLY_SETTINGS>") + msg("</APPLY>"));
  EXPECT_EQ(calls, (std::vector<std::string>{"apply off"}));
  EXPECT_EQ(out->hal_object.err, HAL_OK);
  EXPECT_EQ(out->apply_required, 0);
  EXPECT_EQ(out->sync_required, 1);
}

TEST_F(HalOutputIp, ApplyWithoutAnOperationStillClearsTheFlag) {
  out->apply_required = 1;
  EXPECT_EQ(hal_output_ip_apply(out), HAL_OK);
  EXPECT_EQ(out->apply_required, 0);
}

/* ---- the output in the poll cycle ---- */

class HalOutputIpPoll : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    failure = HAL_QEL2IP_ERR;
    input = add_fake_input(1);
    out = new_hal_output_ip(input->tsout);
    ASSERT_NE(out, nullptr);
    out->apply = fake_apply;
    input->tsout->sync.psi = fake_psi;
    lnklist_push_node(&hal, &out->hal_object.node);
    verbose = 1;
  }

  fake_input_t* input = nullptr;
  hal_output_ip_t* out = nullptr;
};

TEST_F(HalOutputIpPoll, TheFirstPollOffersTheInputsServicesSwitchedOff) {
  hal_service_t* one = add_h264_service(input->tsout, 1, "One", {0x100});
  hal_service_t* two = add_h264_service(input->tsout, 2, "Two", {0x200, 0x201});
  poll();
  ASSERT_EQ(out->tsout->service_list.node_count, 2u);
  for (hal_service_t* source : {one, two}) {
    hal_service_t* mirror = hal_ts_find_service_by_tag(out->tsout, source->tag);
    ASSERT_NE(mirror, nullptr);
    EXPECT_EQ(mirror->enabled, 0);
    EXPECT_EQ(mirror->stream_list.node_count, source->stream_list.node_count);
  }
  EXPECT_EQ(calls.back(), "input apply");
  EXPECT_NE(std::find(calls.begin(), calls.end(), "apply off"), calls.end());
}

TEST_F(HalOutputIpPoll, EnablingAServiceSyncsNestsOnceThenApplies) {
  add_h264_service(input->tsout, 1, "One", {0x100});
  poll();
  calls.clear();
  hal_service_set_enabled(service_at(out->tsout, 0), 1);
  std::string log = poll();
  EXPECT_EQ(step_lines(log), (std::vector<std::string>{
                                 "<SYNC_REQUIRED> hal_output_ip (0)",
                                 "</SYNC_REQUIRED> hal_output_ip (0)",
                                 "<APPLY_REQUIRED> hal_output_ip (0)",
                                 "</APPLY_REQUIRED> hal_output_ip (0)",
                                 "<APPLY_REQUIRED> hal_input_hdmi (0)",
                                 "</APPLY_REQUIRED> hal_input_hdmi (0)",
                             }));
  /* The producer takes in the switch copied back by the sync, once in the syncing cycle and once
   * in the nested one, which syncs nothing and applies. */
  EXPECT_EQ(calls, (std::vector<std::string>{"psi 0 from 1", "input test", "input test", "apply on",
                                             "input test", "input apply"}));
  EXPECT_EQ(service_at(input->tsout, 0)->enabled, 1);
}

TEST_F(HalOutputIpPoll, ASecondPollWithoutAChangeDoesNothing) {
  add_h264_service(input->tsout, 1, "One", {0x100});
  poll();
  hal_service_set_enabled(service_at(out->tsout, 0), 1);
  poll();
  calls.clear();
  EXPECT_EQ(poll(), "");
  EXPECT_EQ(errors, "");
  EXPECT_EQ(calls, (std::vector<std::string>{"input test", "input test"}));
}

TEST_F(HalOutputIpPoll, ADestinationChangeAppliesWithoutSync) {
  add_h264_service(input->tsout, 1, "One", {0x100});
  poll();
  calls.clear();
  hal_output_ip_set_dst_addr(out, "239.2.2.2");
  EXPECT_EQ(step_lines(poll()), (std::vector<std::string>{"<APPLY_REQUIRED> hal_output_ip (0)",
                                                          "</APPLY_REQUIRED> hal_output_ip (0)"}));
  EXPECT_EQ(calls, (std::vector<std::string>{"input test", "apply off", "input test"}));
}

}  // namespace
