#include <gtest/gtest.h>
#include <string.h>

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

/* The fake modulator: every operation records its call and fails when it is the one named in
 * `failing`; reads return the values in `hw`. */
hal_output_rf_settings_t hw;
hal_output_rf_status_t hw_status;
int8_t hw_cal_i, hw_cal_q;

/* What the PSI hook was handed, and the TSID it saw at that moment. */
hal_ts_t* psi_to;
hal_ts_t* psi_from;
uint16_t psi_tsid;

HAL_TEST_FAKE_ACCESSORS(type, hal_output_type_t, hw.type)
HAL_TEST_FAKE_ACCESSORS(level, int8_t, hw.level_dbm)
HAL_TEST_FAKE_ACCESSORS(enable, uint8_t, hw.enable)
HAL_TEST_FAKE_ACCESSORS(frequency, uint32_t, hw.frequency_khz)
HAL_TEST_FAKE_ACCESSORS(bandwidth, uint8_t, hw.bandwidth_mhz)
HAL_TEST_FAKE_ACCESSORS(symbolrate, uint16_t, hw.symbolrate_kbaud)
HAL_TEST_FAKE_ACCESSORS(constellation, hal_constellation_t, hw.constellation)
HAL_TEST_FAKE_ACCESSORS(guardinterval, hal_guardinterval_t, hw.guardinterval)
HAL_TEST_FAKE_ACCESSORS(coderate, hal_coderate_t, hw.coderate)
HAL_TEST_FAKE_ACCESSORS(fftmode, hal_fftmode_t, hw.fftmode)
HAL_TEST_FAKE_ACCESSORS(carriertype, hal_carriertype_t, hw.carriertype)
HAL_TEST_FAKE_ACCESSORS(interleave, hal_interleave_t, hw.interleave)
HAL_TEST_FAKE_ACCESSORS(syncframe, hal_syncframe_t, hw.syncframe)

hal_err_t fake_get_status(void* user, hal_output_rf_status_t* status) {
  return fake_read(user, "status", status, hw_status);
}

hal_err_t fake_set_calibration(void* user, int8_t i, int8_t q, uint8_t enable) {
  return record(user, "set calibration " + number(i) + " " + number(q) + " " + number(enable), "calibration");
}

hal_err_t fake_get_calibration(void* user, int8_t* i, int8_t* q) {
  hal_err_t err = record(user, "get calibration", "calibration");
  if (err != HAL_OK) return err;
  *i = hw_cal_i;
  *q = hw_cal_q;
  return HAL_OK;
}

hal_err_t fake_apply(void* user) { return record(user, "apply", "apply"); }

void wire(hal_output_rf_t* rf) {
  rf->hal_object.user = &driver;
  rf->apply = fake_apply;
  rf->set = {fake_set_type,      fake_set_level,      fake_set_enable,        fake_set_frequency,
             fake_set_bandwidth, fake_set_symbolrate, fake_set_constellation, fake_set_guardinterval,
             fake_set_coderate,  fake_set_fftmode,    fake_set_carriertype,   fake_set_interleave,
             fake_set_syncframe, fake_set_calibration};
  rf->get = {fake_get_type,      fake_get_level,      fake_get_enable,        fake_get_frequency,
             fake_get_bandwidth, fake_get_symbolrate, fake_get_constellation, fake_get_guardinterval,
             fake_get_coderate,  fake_get_fftmode,    fake_get_carriertype,   fake_get_interleave,
             fake_get_syncframe, fake_get_status,     fake_get_calibration};
}

/* The module side of tsin: its network setters and its PSI hook. */
hal_err_t fake_tsin_psi(hal_ts_t* ts_to, hal_ts_t* ts_from) {
  psi_to = ts_to;
  psi_from = ts_from;
  psi_tsid = ts_to->settings.tsid;
  return record(ts_to->hal_object.user, "psi", "psi");
}

void wire_ts(hal_ts_t* ts) {
  ts->hal_object.user = &driver;
  ts->set.tsid = [](void* user, uint16_t tsid) { return record(user, "tsin tsid " + number(tsid), "tsid"); };
  ts->set.onid = [](void* user, uint16_t onid) { return record(user, "tsin onid " + number(onid), "onid"); };
  ts->set.nid = [](void* user, uint16_t nid) { return record(user, "tsin nid " + number(nid), "nid"); };
  ts->set.private_data_specifier = [](void* user, uint32_t pds) {
    return record(user, "tsin pds " + number(pds), "pds");
  };
  ts->set.network_name = [](void* user, const char* name) {
    return record(user, std::string("tsin network_name ") + name, "network_name");
  };
  ts->set.network_version = [](void* user, uint8_t version) {
    return record(user, "tsin network_version " + number(version), "network_version");
  };
  ts->sync.psi = fake_tsin_psi;
}

/* H.264 streams on PIDs 0x100 upwards at the given bitrates. */
std::vector<hal_stream_settings_t> h264(const std::vector<uint16_t>& bitrates) {
  std::vector<hal_stream_settings_t> streams;
  uint16_t pid = 0x100;
  streams.reserve(bitrates.size());
  for (uint16_t bitrate : bitrates) streams.push_back({pid++, HAL_H264, bitrate});
  return streams;
}

void expect_settings(const hal_output_rf_settings_t& actual, const hal_output_rf_settings_t& expected) {
  EXPECT_EQ(actual.type, expected.type);
  EXPECT_EQ(actual.level_dbm, expected.level_dbm);
  EXPECT_EQ(actual.enable, expected.enable);
  EXPECT_EQ(actual.frequency_khz, expected.frequency_khz);
  EXPECT_EQ(actual.bandwidth_mhz, expected.bandwidth_mhz);
  EXPECT_EQ(actual.symbolrate_kbaud, expected.symbolrate_kbaud);
  EXPECT_EQ(actual.constellation, expected.constellation);
  EXPECT_EQ(actual.guardinterval, expected.guardinterval);
  EXPECT_EQ(actual.coderate, expected.coderate);
  EXPECT_EQ(actual.fftmode, expected.fftmode);
  EXPECT_EQ(actual.carriertype, expected.carriertype);
  EXPECT_EQ(actual.interleave, expected.interleave);
  EXPECT_EQ(actual.syncframe, expected.syncframe);
}

class HalOutputRf : public HalTest {
 protected:
  hal_ts_t* tsin; /* stands for the TS of the producer that feeds the output */
  hal_output_rf_t* rf;
  std::string out, err;

  void SetUp() override {
    HalTest::SetUp();
    failure = HAL_MOD_TARN_ERR;
    hw = {HAL_DVB_C,
          -3,
          1,
          474000,
          8,
          6900,
          HAL_256QAM,
          HAL_1_8,
          HAL_3_4,
          HAL_8K,
          HAL_SINGLE_CARRIER,
          HAL_INTLV_720,
          HAL_SYNC_945};
    hw_status = {31668, 1};
    hw_cal_i = -7;
    hw_cal_q = 9;
    psi_to = psi_from = nullptr;
    psi_tsid = 0;
    tsin = new_hal_ts();
    rf = new_hal_output_rf(tsin);
    ASSERT_NE(rf, nullptr);
  }
  void TearDown() override {
    if (rf->hal_object.node.owner == NULL) rf->hal_object.delete_(&rf->hal_object);
    HalTest::TearDown();
    tsin->hal_object.delete_(&tsin->hal_object);
  }

  /* The output's change test, with the TS warnings kept off the console. */
  uint8_t changed() {
    return quietly([this] { return hal_output_rf_changed(rf); });
  }
  /* Everything taken in, as after a poll cycle: the producer takes tsin in, the output the rest. */
  void settle() {
    changed();
    take_in(tsin);
    rf->sync_required = rf->apply_required = 0;
  }
  /* Runs the sync with its output kept in `out` and `err`. */
  void sync() {
    printed_t printed = printed_by([this] { EXPECT_EQ(hal_output_rf_sync(rf), HAL_OK); });
    err = without_lines(printed.err);
    out = printed.out;
  }
  std::string apply_output() {
    return printed_by([this] { hal_output_rf_apply(rf); }).out;
  }
  uint32_t bitrate() {
    uint32_t bitrate_kbps = 12345;
    EXPECT_EQ(hal_output_rf_get_bitrate(rf, &bitrate_kbps), HAL_OK);
    return bitrate_kbps;
  }
};

TEST_F(HalOutputRf, EnumerationsKeepTheirValues) {
  EXPECT_EQ((std::vector<int>{HAL_DVB_T, HAL_DVB_C, HAL_ATSC_T, HAL_ATSC_C, HAL_DTMB, HAL_ISDBT}),
            (std::vector<int>{1, 2, 4, 8, 16, 32}));
  EXPECT_EQ((std::vector<int>{HAL_QPSK, HAL_8VSB, HAL_16QAM, HAL_32QAM, HAL_64QAM, HAL_128QAM, HAL_256QAM,
                              HAL_4QAM, HAL_4NRQAM}),
            (std::vector<int>{2, 3, 4, 5, 6, 7, 8, 18, 34}));
  EXPECT_EQ((std::vector<int>{HAL_1_32, HAL_1_16, HAL_1_8, HAL_1_4}), (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ((std::vector<int>{HAL_1_2, HAL_2_3, HAL_3_4, HAL_5_6, HAL_7_8, HAL_0_4, HAL_0_6, HAL_0_8}),
            (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ((std::vector<int>{HAL_2K, HAL_8K, HAL_4K}), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ((std::vector<int>{HAL_MULTI_CARRIER, HAL_SINGLE_CARRIER}), (std::vector<int>{0, 1}));
  EXPECT_EQ((std::vector<int>{HAL_INTLV_NONE, HAL_INTLV_240, HAL_INTLV_720}), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ((std::vector<int>{HAL_SYNC_420, HAL_SYNC_945, HAL_SYNC_595}), (std::vector<int>{0, 1, 2}));
}

TEST_F(HalOutputRf, NewOutputReadsTsinAndOwnsANewTsout) {
  EXPECT_EQ(rf->hal_object.type, HAL_OUTPUT_RF);
  EXPECT_EQ(rf->hal_object.delete_, delete_hal_output_rf);
  EXPECT_EQ(rf->hal_object.strerror, nullptr);
  EXPECT_EQ(rf->hal_object.user, nullptr);
  EXPECT_EQ(rf->hal_object.node.owner, nullptr);
  EXPECT_EQ(rf->tsin, tsin);
  ASSERT_NE(rf->tsout, nullptr);
  EXPECT_EQ(rf->tsin->tag, 0u);
  EXPECT_EQ(rf->tsout->tag, 1u);
  EXPECT_EQ(rf->apply, nullptr);
  EXPECT_EQ(rf->set.frequency, nullptr);
  EXPECT_EQ(rf->get.calibration, nullptr);
  EXPECT_EQ(rf->settings_crc, 0u);
  EXPECT_EQ(rf->settings.type, 0);
  EXPECT_EQ(rf->settings.frequency_khz, 0u);
  EXPECT_EQ(hal.node_count, 0u); /* the assembly registers it, not the constructor */
}

TEST_F(HalOutputRf, DeleteTakesTsoutAlongButNeverTsin) {
  add_service(rf->tsout, 1, "Out", h264({100}));
  add_service(tsin, 2, "In", h264({200}));
  lnklist_push_node(&hal, &rf->hal_object.node);
  rf->hal_object.delete_(&rf->hal_object);
  EXPECT_EQ(hal.node_count, 0u);
  /* tsin is still whole: its producer deletes it. */
  ASSERT_NE(hal_ts_find_service(tsin, 2), nullptr);
  EXPECT_STREQ(hal_ts_find_service(tsin, 2)->settings.service_name, "In");
  rf = new_hal_output_rf(tsin); /* for TearDown */
}

TEST_F(HalOutputRf, NegativeLevelIsStoredSigned) {
  EXPECT_EQ(hal_output_rf_set_level(rf, -5), HAL_OK);
  EXPECT_EQ(rf->settings.level_dbm, -5);
  int8_t level = 0;
  EXPECT_EQ(hal_output_rf_get_level(rf, &level), HAL_OK);
  EXPECT_EQ(level, -5);
}

TEST_F(HalOutputRf, AnyFrequencyIsStoredInKhzWithoutRangeCheck) {
  EXPECT_EQ(hal_output_rf_set_frequency(rf, 4294967295u), HAL_OK);
  EXPECT_EQ(rf->settings.frequency_khz, 4294967295u);
  EXPECT_EQ(hal_output_rf_set_frequency(rf, 0), HAL_OK);
  EXPECT_EQ(rf->settings.frequency_khz, 0u);
  EXPECT_EQ(hal_output_rf_set_frequency(rf, 474000), HAL_OK);
  uint32_t frequency = 0;
  EXPECT_EQ(hal_output_rf_get_frequency(rf, &frequency), HAL_OK);
  EXPECT_EQ(frequency, 474000u);
}

TEST_F(HalOutputRf, NoSetterChecksTheFitToTheStandard) {
  EXPECT_EQ(hal_output_rf_set_type(rf, HAL_DVB_C), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_guardinterval(rf, HAL_1_4), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_constellation(rf, HAL_4NRQAM), HAL_OK);
  EXPECT_EQ(rf->settings.guardinterval, HAL_1_4);
  EXPECT_EQ(rf->settings.constellation, HAL_4NRQAM);
}

TEST_F(HalOutputRf, EachSetterReachesItsOwnDriverOperationFirst) {
  wire(rf);
  hal_output_rf_set_type(rf, HAL_DTMB);
  hal_output_rf_set_level(rf, -12);
  hal_output_rf_set_enable(rf, 1);
  hal_output_rf_set_frequency(rf, 666000);
  hal_output_rf_set_bandwidth(rf, 7);
  hal_output_rf_set_symbolrate(rf, 6875);
  hal_output_rf_set_constellation(rf, HAL_4QAM);
  hal_output_rf_set_guardinterval(rf, HAL_1_16);
  hal_output_rf_set_coderate(rf, HAL_0_6);
  hal_output_rf_set_fftmode(rf, HAL_4K);
  hal_output_rf_set_carriertype(rf, HAL_SINGLE_CARRIER);
  hal_output_rf_set_interleave(rf, HAL_INTLV_240);
  hal_output_rf_set_syncframe(rf, HAL_SYNC_595);
  EXPECT_EQ(calls,
            (std::vector<std::string>{"set type 16", "set level -12", "set enable 1", "set frequency 666000",
                                      "set bandwidth 7", "set symbolrate 6875", "set constellation 18",
                                      "set guardinterval 1", "set coderate 6", "set fftmode 2",
                                      "set carriertype 1", "set interleave 1", "set syncframe 2"}));
  expect_settings(rf->settings, {HAL_DTMB, -12, 1, 666000, 7, 6875, HAL_4QAM, HAL_1_16, HAL_0_6, HAL_4K,
                                 HAL_SINGLE_CARRIER, HAL_INTLV_240, HAL_SYNC_595});
}

TEST_F(HalOutputRf, FailingSetterKeepsTheSettingAndReturnsTheError) {
  wire(rf);
  rf->settings.frequency_khz = 474000;
  failing = "frequency";
  EXPECT_EQ(hal_output_rf_set_frequency(rf, 666000), HAL_MOD_TARN_ERR);
  EXPECT_EQ(rf->settings.frequency_khz, 474000u);
  EXPECT_EQ(rf->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalOutputRf, GetterOverwritesTheStoredValueWithTheHardwares) {
  wire(rf);
  rf->settings.symbolrate_kbaud = 5000;
  uint16_t symbolrate = 0;
  EXPECT_EQ(hal_output_rf_get_symbolrate(rf, &symbolrate), HAL_OK);
  EXPECT_EQ(symbolrate, 6900);
  EXPECT_EQ(rf->settings.symbolrate_kbaud, 6900);
}

TEST_F(HalOutputRf, FailingGetterLeavesTheOutputUnwritten) {
  wire(rf);
  rf->settings.coderate = HAL_2_3;
  failing = "coderate";
  hal_coderate_t coderate = HAL_7_8;
  EXPECT_EQ(hal_output_rf_get_coderate(rf, &coderate), HAL_MOD_TARN_ERR);
  EXPECT_EQ(coderate, HAL_7_8);
  EXPECT_EQ(rf->settings.coderate, HAL_2_3);
  EXPECT_EQ(rf->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalOutputRf, SetAllWritesTheLevelAfterTheFrequency) {
  wire(rf);
  rf->settings = hw;
  EXPECT_EQ(hal_output_rf_set_all(rf), HAL_OK);
  EXPECT_EQ(calls,
            (std::vector<std::string>{"set type 2", "set enable 1", "set frequency 474000", "set level -3",
                                      "set bandwidth 8", "set symbolrate 6900", "set constellation 8",
                                      "set guardinterval 2", "set coderate 2", "set fftmode 1",
                                      "set carriertype 1", "set interleave 2", "set syncframe 1"}));
  EXPECT_EQ(rf->hal_object.err, HAL_OK);
}

TEST_F(HalOutputRf, SetAllStopsAtTheFirstFailure) {
  wire(rf);
  rf->settings = hw;
  failing = "frequency";
  EXPECT_EQ(hal_output_rf_set_all(rf), HAL_MOD_TARN_ERR);
  EXPECT_EQ(calls, (std::vector<std::string>{"set type 2", "set enable 1", "set frequency 474000"}));
  EXPECT_EQ(rf->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalOutputRf, GetAllReadsTheLevelBeforeTheFrequency) {
  wire(rf);
  EXPECT_EQ(hal_output_rf_get_all(rf), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"get type", "get enable", "get level", "get frequency",
                                             "get bandwidth", "get symbolrate", "get constellation",
                                             "get guardinterval", "get coderate", "get fftmode",
                                             "get carriertype", "get interleave", "get syncframe"}));
  expect_settings(rf->settings, hw);
}

TEST_F(HalOutputRf, GetAllStopsAtTheFirstFailure) {
  wire(rf);
  failing = "level";
  EXPECT_EQ(hal_output_rf_get_all(rf), HAL_MOD_TARN_ERR);
  EXPECT_EQ(calls, (std::vector<std::string>{"get type", "get enable", "get level"}));
  EXPECT_EQ(rf->settings.type, HAL_DVB_C);
  EXPECT_EQ(rf->settings.frequency_khz, 0u);
}

TEST_F(HalOutputRf, GetStatusFillsTheStatusFromTheModulator) {
  wire(rf);
  EXPECT_EQ(hal_output_rf_get_status(rf), HAL_OK);
  EXPECT_EQ(rf->status.max_bitrate_kbps, 31668);
  EXPECT_EQ(rf->status.overflow, 1);
}

TEST_F(HalOutputRf, GetStatusWithoutOperationOrOnFailureKeepsTheStatus) {
  rf->status = {1000, 0};
  EXPECT_EQ(hal_output_rf_get_status(rf), HAL_OK);
  EXPECT_EQ(rf->status.max_bitrate_kbps, 1000);
  wire(rf);
  failing = "status";
  EXPECT_EQ(hal_output_rf_get_status(rf), HAL_MOD_TARN_ERR);
  EXPECT_EQ(rf->status.max_bitrate_kbps, 1000);
  EXPECT_EQ(rf->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalOutputRf, CalibrationGoesStraightToTheModulatorAndIsNotKept) {
  wire(rf);
  settle();
  EXPECT_EQ(hal_output_rf_set_cal(rf, -3, 4, 1), HAL_OK);
  int8_t i = 0;
  int8_t q = 0;
  EXPECT_EQ(hal_output_rf_get_cal(rf, &i, &q), HAL_OK);
  EXPECT_EQ(i, -7);
  EXPECT_EQ(q, 9);
  EXPECT_EQ(calls, (std::vector<std::string>{"set calibration -3 4 1", "get calibration"}));
  EXPECT_EQ(changed(), 0);
}

TEST_F(HalOutputRf, CalibrationWithoutOperationLeavesTheOutputsAlone) {
  EXPECT_EQ(hal_output_rf_set_cal(rf, -3, 4, 1), HAL_OK);
  int8_t i = 11;
  int8_t q = 22;
  EXPECT_EQ(hal_output_rf_get_cal(rf, &i, &q), HAL_OK);
  EXPECT_EQ(i, 11);
  EXPECT_EQ(q, 22);
}

TEST_F(HalOutputRf, FailingCalibrationReturnsTheError) {
  wire(rf);
  failing = "calibration";
  EXPECT_EQ(hal_output_rf_set_cal(rf, 1, 1, 1), HAL_MOD_TARN_ERR);
  int8_t i = 11;
  int8_t q = 22;
  EXPECT_EQ(hal_output_rf_get_cal(rf, &i, &q), HAL_MOD_TARN_ERR);
  EXPECT_EQ(i, 11);
  EXPECT_EQ(q, 22);
  EXPECT_EQ(rf->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalOutputRf, ANewOutputOwesASyncAndAnApply) {
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(rf->sync_required, 1);
  EXPECT_EQ(rf->apply_required, 1);
}

TEST_F(HalOutputRf, ATsoutChangeOwesASyncOnly) {
  settle();
  EXPECT_EQ(hal_ts_set_tsid(rf->tsout, 5), HAL_OK);
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(rf->sync_required, 1);
  EXPECT_EQ(rf->apply_required, 0);
  rf->sync_required = 0;
  EXPECT_EQ(changed(), 0); /* taken in */
}

TEST_F(HalOutputRf, ASettingsChangeOwesAnApplyOnly) {
  settle();
  EXPECT_EQ(hal_output_rf_set_bandwidth(rf, 6), HAL_OK);
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(rf->sync_required, 0);
  EXPECT_EQ(rf->apply_required, 1);
  rf->apply_required = 0;
  EXPECT_EQ(changed(), 0);
}

TEST_F(HalOutputRf, ATsinChangeOwesASyncAndKeepsReportingUntilItsProducerTakesItIn) {
  settle();
  uint32_t tsin_crc = tsin->settings_crc;
  EXPECT_EQ(hal_ts_set_nid(tsin, 9), HAL_OK);
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(rf->sync_required, 1);
  EXPECT_EQ(rf->apply_required, 0);
  EXPECT_EQ(tsin->settings_crc, tsin_crc);
  rf->sync_required = 0;
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(rf->sync_required, 1);
  settle();
  EXPECT_EQ(changed(), 0);
}

TEST_F(HalOutputRf, TheChangeTestNeverClearsAFlag) {
  settle();
  rf->sync_required = rf->apply_required = 1;
  EXPECT_EQ(changed(), 1);
  EXPECT_EQ(rf->sync_required, 1);
  EXPECT_EQ(rf->apply_required, 1);
}

TEST_F(HalOutputRf, SyncLogsEachStepInOrder) {
  hal_service_t* news = add_service(tsin, 0x10, "News", h264({100}));
  hal_service_set_enabled(news, 1);
  hal_service_t* old = add_service(rf->tsout, 0x20, "Old");
  EXPECT_EQ(news->tag, 0u);
  EXPECT_EQ(old->tag, 1u);
  set_identity(rf->tsout, {7, 8, 9, 40, "Net", 3});
  verbose = 1;
  sync();
  EXPECT_EQ(
      out, msg("<SYNC> hal_output_rf") + msg("<SYNC_TSOUT>") + msg("Remove service (tag: 1, name: \"Old\")") +
               msg("Add service (tag: 0, name: \"News\", enabled: 0)") + msg("</SYNC_TSOUT>") +
               msg("<SYNC_TSIN>") +
               msg("Update TSIN (TSID: 7, ONID: 8, NID: 9, private_data_spec: 40, network_name: \"Net\", "
                   "network_version: 3)") +
               msg("Update service (tag: 0, name: \"News\", enabled: 0)") + msg("Update PSI") +
               msg("</SYNC_TSIN>") + msg("</SYNC> hal_output_rf"));
  EXPECT_EQ(err, wrn("hal_output_rf_sync", "F"));
}

TEST_F(HalOutputRf, SyncLogsOnlyTheWarningsWithoutVerbose) {
  add_service(rf->tsout, 0x20, "Old");
  sync();
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, wrn("hal_output_rf_sync", "F"));
}

TEST_F(HalOutputRf, AServiceGoneFromTsinLeavesTsoutWithOneWarning) {
  add_service(tsin, 1, "A", h264({100}));
  hal_service_t* b = add_service(tsin, 2, "B", h264({200, 64}));
  sync();
  ASSERT_EQ(rf->tsout->service_list.node_count, 2u);
  b->hal_object.delete_(&b->hal_object);
  uint32_t tsout_crc = rf->tsout->settings_crc;
  sync();
  EXPECT_EQ(err, wrn("hal_output_rf_sync", "F"));
  EXPECT_EQ(rf->tsout->service_list.node_count, 1u);
  EXPECT_EQ(hal_ts_find_service(rf->tsout, 2), nullptr);
  EXPECT_NE(hal_ts_find_service(rf->tsout, 1), nullptr);
  EXPECT_EQ(rf->tsout->settings_crc, tsout_crc + 1);
}

TEST_F(HalOutputRf, AStreamGoneFromTsinLeavesTsoutWithOneWarning) {
  hal_service_t* a = add_service(tsin, 1, "A", h264({100, 64}));
  sync();
  hal_service_t* mirror = hal_ts_find_service_by_tag(rf->tsout, a->tag);
  ASSERT_NE(mirror, nullptr);
  ASSERT_EQ(mirror->stream_list.node_count, 2u);
  hal_stream_t* gone = hal_service_find_stream(a, 0x101);
  uint32_t gone_tag = gone->tag;
  delete_hal_object(&gone->hal_object);
  uint32_t mirror_crc = mirror->settings_crc;
  sync();
  EXPECT_EQ(err, wrn("hal_output_rf_sync", "G"));
  EXPECT_EQ(mirror->stream_list.node_count, 1u);
  EXPECT_EQ(hal_service_find_stream_by_tag(mirror, gone_tag), nullptr);
  EXPECT_NE(hal_service_find_stream(mirror, 0x100), nullptr);
  EXPECT_EQ(mirror->settings_crc, mirror_crc + 1);
}

TEST_F(HalOutputRf, ANewInputServiceIsCopiedIntoTsoutDisabled) {
  hal_service_t* a = add_service(tsin, 0x44, "Sports", h264({3000, 192}));
  hal_service_set_lcn(a, 12);
  hal_service_set_pmt_pid(a, 0x1000);
  hal_service_set_enabled(a, 1);
  sync();
  hal_service_t* copy = hal_ts_find_service_by_tag(rf->tsout, a->tag);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, a);
  EXPECT_EQ(copy->settings.sid, 0x44);
  EXPECT_STREQ(copy->settings.service_name, "Sports");
  EXPECT_EQ(copy->settings.lcn, 12);
  EXPECT_EQ(copy->settings.pmt_pid, 0x1000);
  EXPECT_EQ(copy->enabled, 0);
  ASSERT_EQ(copy->stream_list.node_count, 2u);
  lnklist_node_t* node;
  FOREACH_NODE(&a->stream_list, node) {
    hal_stream_t* source = reinterpret_cast<hal_stream_t*>(node);
    hal_stream_t* stream = hal_service_find_stream_by_tag(copy, source->tag);
    ASSERT_NE(stream, nullptr);
    EXPECT_NE(stream, source);
    EXPECT_EQ(stream->settings.pid, source->settings.pid);
    EXPECT_EQ(stream->settings.type, HAL_H264);
    EXPECT_EQ(stream->settings.bitrate_kbps, source->settings.bitrate_kbps);
  }
}

TEST_F(HalOutputRf, EnabledIsNeverCopiedFromTsinToTsout) {
  hal_service_t* a = add_service(tsin, 1, "A", h264({100}));
  sync();
  hal_service_set_enabled(a, 1);
  sync();
  EXPECT_EQ(hal_ts_find_service_by_tag(rf->tsout, a->tag)->enabled, 0);
  EXPECT_EQ(a->enabled, 0); /* the operator's choice on tsout wins */
}

TEST_F(HalOutputRf, DisablingAServiceOnTsoutDisablesItInTsinAndLowersTheBitrate) {
  hal_service_t* a = add_service(tsin, 1, "A", h264({100, 200}));
  hal_service_t* b = add_service(tsin, 2, "B", h264({50}));
  sync();
  EXPECT_EQ(bitrate(), 0u);
  hal_service_t* a_out = hal_ts_find_service_by_tag(rf->tsout, a->tag);
  hal_service_t* b_out = hal_ts_find_service_by_tag(rf->tsout, b->tag);
  hal_service_set_enabled(a_out, 1);
  hal_service_set_enabled(b_out, 1);
  EXPECT_EQ(bitrate(), 350u);
  sync();
  EXPECT_EQ(a->enabled, 1);
  EXPECT_EQ(b->enabled, 1);
  hal_service_set_enabled(b_out, 0);
  EXPECT_EQ(bitrate(), 300u);
  sync();
  EXPECT_EQ(a->enabled, 1);
  EXPECT_EQ(b->enabled, 0);
}

TEST_F(HalOutputRf, BitrateCountsOnlyEnabledServicesOfTsout) {
  hal_service_t* on = add_service(rf->tsout, 1, "On", h264({1000, 128, 64}));
  add_service(rf->tsout, 2, "Off", h264({5000}));
  hal_service_t* empty = add_service(rf->tsout, 3, "Empty");
  hal_service_set_enabled(on, 1);
  hal_service_set_enabled(empty, 1);
  add_service(tsin, 4, "Input", h264({9000}))->enabled = 1;
  EXPECT_EQ(bitrate(), 1192u);
}

TEST_F(HalOutputRf, BitrateIsZeroWithNothingEnabled) {
  add_service(rf->tsout, 2, "Off", h264({5000}));
  EXPECT_EQ(bitrate(), 0u);
}

TEST_F(HalOutputRf, ARenameOnTsoutIsUndoneByTheInput) {
  hal_service_t* a = add_service(tsin, 1, "News", h264({100}));
  sync();
  hal_service_t* a_out = hal_ts_find_service_by_tag(rf->tsout, a->tag);
  hal_service_set_name(a_out, "Mine");
  hal_service_set_sid(a_out, 99);
  sync();
  EXPECT_STREQ(a_out->settings.service_name, "News");
  EXPECT_EQ(a_out->settings.sid, 1);
}

TEST_F(HalOutputRf, ATsidChangeOnTsoutReachesTsinAndThePsi) {
  wire_ts(tsin);
  EXPECT_EQ(hal_ts_set_tsid(rf->tsout, 0x1234), HAL_OK);
  sync();
  EXPECT_EQ(tsin->settings.tsid, 0x1234);
  EXPECT_EQ(psi_to, tsin);
  EXPECT_EQ(psi_from, rf->tsout);
  EXPECT_EQ(psi_tsid, 0x1234);
}

TEST_F(HalOutputRf, SyncPushesTheIdentityThroughTsinsSettersThenThePsi) {
  wire_ts(tsin);
  set_identity(rf->tsout, {7, 8, 9, 40, "Net", 3});
  sync();
  EXPECT_EQ(calls, (std::vector<std::string>{"tsin tsid 7", "tsin onid 8", "tsin nid 9", "tsin pds 40",
                                             "tsin network_name Net", "tsin network_version 3", "psi"}));
  EXPECT_EQ(memcmp(&tsin->settings, &rf->tsout->settings, sizeof(tsin->settings)), 0);
}

TEST_F(HalOutputRf, ARefusedIdentityDoesNotStopTheSync) {
  wire_ts(tsin);
  rf->sync_required = 1;
  hal_ts_set_tsid(rf->tsout, 7);
  failing = "tsid";
  sync();
  EXPECT_EQ(calls, (std::vector<std::string>{"tsin tsid 7", "psi"}));
  EXPECT_EQ(rf->sync_required, 0);
  EXPECT_EQ(rf->hal_object.err, HAL_OK);
}

TEST_F(HalOutputRf, ApplyCallsTheModulatorAndClosesWithoutTheObjectName) {
  wire(rf);
  changed();
  verbose = 1;
  EXPECT_EQ(apply_output(), msg("<APPLY> hal_output_rf") + msg("<APPLY_SETTINGS>") +
                                msg("</APPLY_SETTINGS>") + msg("</APPLY>"));
  EXPECT_EQ(calls, (std::vector<std::string>{"apply"}));
  EXPECT_EQ(rf->apply_required, 0);
  EXPECT_EQ(rf->hal_object.err, HAL_OK);
}

TEST_F(HalOutputRf, WithoutOperationApplyOnlyLogsAndClears) {
  changed();
  verbose = 1;
  EXPECT_EQ(apply_output(), msg("<APPLY> hal_output_rf") + msg("<APPLY_SETTINGS>") +
                                msg("</APPLY_SETTINGS>") + msg("</APPLY>"));
  EXPECT_EQ(rf->apply_required, 0);
}

TEST_F(HalOutputRf, FailingApplyLogsOnlyTheOpeningLinesAndIsRetried) {
  wire(rf);
  changed();
  failing = "apply";
  verbose = 1;
  EXPECT_EQ(apply_output(), msg("<APPLY> hal_output_rf") + msg("<APPLY_SETTINGS>"));
  EXPECT_EQ(rf->apply_required, 1);
  EXPECT_EQ(rf->hal_object.err, HAL_MOD_TARN_ERR);
  EXPECT_EQ(changed(), 1);
  failing.clear();
  apply_output();
  EXPECT_EQ(calls, (std::vector<std::string>{"apply", "apply"}));
  EXPECT_EQ(rf->apply_required, 0);
}

/* The output in the box: fed by an HDMI input's TS, as a chain without multiplexer. */
class HalOutputRfPoll : public HalTest {
 protected:
  hal_input_hdmi_t* hdmi;
  hal_output_rf_t* rf;

  static hal_err_t fake_hdmi_apply(void* user) { return record(user, "apply hdmi", "apply hdmi"); }
  static hal_err_t fake_rf_apply(void* user) { return record(user, "apply rf", "apply rf"); }

  void SetUp() override {
    HalTest::SetUp();
    failure = HAL_MOD_TARN_ERR;
    hdmi = new_hal_input_hdmi();
    hdmi->hal_object.user = &driver;
    hdmi->apply = fake_hdmi_apply;
    hdmi->tsout = new_hal_ts();
    hdmi->tsout->hal_object.user = &driver;
    hdmi->tsout->sync.psi = fake_tsin_psi;
    hal_service_set_enabled(add_service(hdmi->tsout, 1, "Camera", h264({4000, 128})), 1);
    lnklist_push_node(&hal, &hdmi->hal_object.node);
    rf = new_hal_output_rf(hdmi->tsout);
    rf->hal_object.user = &driver;
    rf->apply = fake_rf_apply;
    lnklist_push_node(&hal, &rf->hal_object.node);
    verbose = 1;
  }
  /* The poll cycle's own step lines, in order. */
  std::vector<std::string> poll() { return step_lines(HalTest::poll()); }
};

TEST_F(HalOutputRfPoll, ANewChainSyncsUntilQuietThenApplies) {
  EXPECT_EQ(poll(), (std::vector<std::string>{
                        "<SYNC_REQUIRED> hal_output_rf (0)", "</SYNC_REQUIRED> hal_output_rf (0)",
                        "<SYNC_REQUIRED> hal_output_rf (0)", "</SYNC_REQUIRED> hal_output_rf (0)",
                        "<APPLY_REQUIRED> hal_output_rf (0)", "</APPLY_REQUIRED> hal_output_rf (0)",
                        "<APPLY_REQUIRED> hal_input_hdmi (0)", "</APPLY_REQUIRED> hal_input_hdmi (0)"}));
  EXPECT_EQ(calls, (std::vector<std::string>{"psi", "psi", "apply rf", "apply hdmi"}));
  ASSERT_EQ(rf->tsout->service_list.node_count, 1u);
  EXPECT_STREQ(reinterpret_cast<hal_service_t*>(rf->tsout->service_list.head)->settings.service_name,
               "Camera");
}

TEST_F(HalOutputRfPoll, ASecondPollWithoutChangeDoesNothing) {
  poll();
  calls.clear();
  EXPECT_EQ(poll(), std::vector<std::string>{});
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(calls.empty());
}

TEST_F(HalOutputRfPoll, AModulationChangeAppliesTheOutputOnly) {
  poll();
  calls.clear();
  EXPECT_EQ(hal_output_rf_set_frequency(rf, 506000), HAL_OK);
  EXPECT_EQ(poll(), (std::vector<std::string>{"<APPLY_REQUIRED> hal_output_rf (0)",
                                              "</APPLY_REQUIRED> hal_output_rf (0)"}));
  EXPECT_EQ(calls, (std::vector<std::string>{"apply rf"}));
}

TEST_F(HalOutputRfPoll, EnablingAServiceOnTsoutSyncsItIntoTheInputAndAppliesBoth) {
  poll();
  calls.clear();
  hal_service_t* camera = reinterpret_cast<hal_service_t*>(rf->tsout->service_list.head);
  hal_service_set_enabled(camera, 1);
  EXPECT_EQ(poll(), (std::vector<std::string>{
                        "<SYNC_REQUIRED> hal_output_rf (0)", "</SYNC_REQUIRED> hal_output_rf (0)",
                        "<APPLY_REQUIRED> hal_input_hdmi (0)", "</APPLY_REQUIRED> hal_input_hdmi (0)"}));
  EXPECT_EQ(calls, (std::vector<std::string>{"psi", "apply hdmi"}));
  EXPECT_EQ(reinterpret_cast<hal_service_t*>(hdmi->tsout->service_list.head)->enabled, 1);
}

}  // namespace
