#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "boxroot.h"
#include "cmd_json.h"
#include "cmd_json_output_rf.h"
#include "dbg.h"
#include "hal_output_rf.h"
#include "hal_test_support.h"
#include "hal_ts.h"

namespace {

using namespace hal_test;

/* ---- the fake modulator: every operation records its call; reads return these values ---- */

hal_output_rf_settings_t hw;
hal_output_rf_status_t hw_status;
int8_t hw_cal_i;
int8_t hw_cal_q;

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
  if (err == HAL_OK) {
    *i = hw_cal_i;
    *q = hw_cal_q;
  }
  return err;
}

/* A DVB-T output as the modulator would report it. */
const hal_output_rf_settings_t dvb_t = {
    HAL_DVB_T,      -3,          1, 474000, 8, 6900, HAL_64QAM, HAL_1_4, HAL_2_3, HAL_8K, HAL_MULTI_CARRIER,
    HAL_INTLV_NONE, HAL_SYNC_420};

/* Its modulation keys as a get reports them. */
const std::string dvb_t_keys =
    "\"type\":\"dvb-t\",\"frequency\":\"474000\",\"level\":\"-3\",\"bandwidth\":\"8\",\"symbolrate\":"
    "\"6900\","
    "\"constellation\":\"64-qam\",\"guardinterval\":\"1/4\",\"coderate\":\"2/3\",\"fftmode\":\"8k\","
    "\"carriertype\":\"multi\",\"interleave\":\"none\",\"syncframe\":\"420\",\"enabled\":\"1\"";

/* ---- requests and replies ---- */

struct free_deleter {
  void operator()(char* p) const { free(p); }
};

std::string handle(const std::string& request) {
  std::vector<char> text(request.begin(), request.end());
  text.push_back('\0');
  std::unique_ptr<char, free_deleter> answer(cmd_json_handler(text.data()));
  return answer ? std::string(answer.get()) : std::string("<null>");
}

std::string request(const std::string& action, const std::string& object, const std::string& args) {
  return "{\"action\":\"" + action + "\",\"object\":\"" + object + "\",\"args\":" + args + "}";
}

std::string set(const std::string& object, const std::string& args) {
  return handle(request("set", object, args));
}
std::string get(const std::string& object, const std::string& args) {
  return handle(request("get", object, args));
}

std::string error(const std::string& description) {
  return "{\"errorCode\":5002,\"description\":\"" + description + "\"}";
}
std::string warning(const std::string& description) {
  return "{\"warningCode\":1103,\"description\":\"" + description + "\"}";
}

json_ptr parse(const std::string& text) {
  json_error_t e;
  return json_ptr(json_loads(text.c_str(), 0, &e));
}

/* The text of `key` in the result of a get reply. */
std::string result_key(const std::string& reply, const std::string& key) {
  json_ptr value = parse(reply);
  const char* text = json_string_value(json_object_get(json_object_get(value.get(), "result"), key.c_str()));
  return text != NULL ? text : "<missing in " + reply + ">";
}

class CmdJsonOutputRf : public HalTest {
 protected:
  hal_ts_t* tsin = NULL;
  hal_output_rf_t* rf = NULL;

  void SetUp() override {
    HalTest::SetUp();
    cmd_json_s_arg = NULL;
    flag_restoring = 1; /* no settings file here: the store has tests of its own below */
    hw = dvb_t;
    hw_status = {24128, 0};
    hw_cal_i = -3;
    hw_cal_q = 7;
    tsin = new_hal_ts();
    rf = add_output();
  }
  void TearDown() override {
    flag_restoring = 0;
    cmd_json_s_arg = NULL;
    HalTest::TearDown();
    hal_ts_delete(tsin);
  }

  /* A new DVB-T output reading tsin, with the fake modulator's setters, in the registry, where
   * the newest is instance 0. Its getters are wired only where a test wants the modulator's
   * values. */
  hal_output_rf_t* add_output() {
    hal_output_rf_t* output = new_hal_output_rf(tsin);
    EXPECT_NE(output, nullptr);
    output->hal_object.user = &driver;
    output->settings = dvb_t;
    output->set = {fake_set_type,      fake_set_level,      fake_set_enable,        fake_set_frequency,
                   fake_set_bandwidth, fake_set_symbolrate, fake_set_constellation, fake_set_guardinterval,
                   fake_set_coderate,  fake_set_fftmode,    fake_set_carriertype,   fake_set_interleave,
                   fake_set_syncframe, fake_set_calibration};
    output->get.status = fake_get_status;
    output->get.calibration = fake_get_calibration;
    lnklist_push_node(&hal, &output->hal_object.node);
    return output;
  }

  void wire_getters() {
    rf->get = {fake_get_type,      fake_get_level,      fake_get_enable,        fake_get_frequency,
               fake_get_bandwidth, fake_get_symbolrate, fake_get_constellation, fake_get_guardinterval,
               fake_get_coderate,  fake_get_fftmode,    fake_get_carriertype,   fake_get_interleave,
               fake_get_syncframe, fake_get_status,     fake_get_calibration};
  }

  /* Runs a request with stderr captured into `errors`. */
  std::string handle_quietly(const std::string& text) {
    testing::internal::CaptureStderr();
    std::string answer = handle(text);
    errors = without_lines(testing::internal::GetCapturedStderr());
    return answer;
  }
};

/* ---- the tables ---- */

std::vector<std::string> keys(const cmd_json_arg_t* args) {
  std::vector<std::string> names;
  for (; args->name != NULL; args++) {
    names.emplace_back(args->name);
    EXPECT_NE(args->set, nullptr) << args->name;
    EXPECT_NE(args->get, nullptr) << args->name;
    EXPECT_EQ(args->mandatory_for_set, 0) << args->name;
  }
  EXPECT_EQ(args->set, nullptr);
  EXPECT_EQ(args->get, nullptr);
  return names;
}

const std::vector<std::string> modulation_keys = {
    "type",     "frequency", "level",       "bandwidth",  "symbolrate", "constellation", "guardinterval",
    "coderate", "fftmode",   "carriertype", "interleave", "syncframe",  "enabled"};

TEST(CmdJsonOutputRfTables, ListTheKeysInOrder) {
  std::vector<std::string> ext = modulation_keys;
  ext.emplace_back("ts");
  EXPECT_EQ(keys(cmd_json_output_rf_ext_args), ext);
  EXPECT_EQ(keys(cmd_json_output_rf_mod_args), modulation_keys);
}

TEST(CmdJsonOutputRfTables, TheRowsCarryTheOutputHandlers) {
  struct row_t {
    const char* name;
    cmd_json_put_t set;
    cmd_json_take_t get;
    cmd_json_take_t store;
  };
  const row_t rows[] = {
      {"output_calibration", cmd_json_set_output_rf_cal, cmd_json_get_output_rf_cal, NULL},
      {"output_rf", cmd_json_set_output_rf_ext, cmd_json_get_output_rf_ext, cmd_json_get_output_rf_ext},
      {"output_rf_mod", cmd_json_set_output_rf_mod, cmd_json_get_output_rf_mod, NULL},
      {"output_rf_ts", cmd_json_set_output_rf_ts, cmd_json_get_output_rf_ts, NULL},
      {"output_rf_services", cmd_json_set_output_rf_service, cmd_json_get_output_rf_services, NULL},
      {"output_rf_status", NULL, cmd_json_get_output_rf_status, NULL},
  };
  for (const row_t& expected : rows) {
    const cmd_json_object_t* row = cmd_json_object_by_name(expected.name);
    ASSERT_NE(row, nullptr) << expected.name;
    EXPECT_EQ(row->hal_type, HAL_OUTPUT_RF) << expected.name;
    EXPECT_STREQ(row->id, "output_id") << expected.name;
    EXPECT_EQ(row->set, expected.set) << expected.name;
    EXPECT_EQ(row->get, expected.get) << expected.name;
    EXPECT_EQ(row->execute, nullptr) << expected.name;
    EXPECT_EQ(row->store, expected.store) << expected.name;
  }
}

/* ---- the vocabularies, every word both ways ---- */

struct word_case {
  const char* key;
  const char* text;
  int value;
};

std::ostream& operator<<(std::ostream& os, const word_case& c) {
  return os << c.key << "=\"" << c.text << "\"";
}

/* The modulator's value of `key`. */
void put_hw(const std::string& key, int value) {
  if (key == "type") hw.type = static_cast<hal_output_type_t>(value);
  if (key == "constellation") hw.constellation = static_cast<hal_constellation_t>(value);
  if (key == "guardinterval") hw.guardinterval = static_cast<hal_guardinterval_t>(value);
  if (key == "coderate") hw.coderate = static_cast<hal_coderate_t>(value);
  if (key == "fftmode") hw.fftmode = static_cast<hal_fftmode_t>(value);
  if (key == "carriertype") hw.carriertype = static_cast<hal_carriertype_t>(value);
  if (key == "interleave") hw.interleave = static_cast<hal_interleave_t>(value);
  if (key == "syncframe") hw.syncframe = static_cast<hal_syncframe_t>(value);
}

class CmdJsonOutputRfWords : public CmdJsonOutputRf, public ::testing::WithParamInterface<word_case> {};

TEST_P(CmdJsonOutputRfWords, ATextSetsItsValue) {
  const word_case& c = GetParam();
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"" + std::string(c.key) + "\":\"" + c.text + "\"}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set " + std::string(c.key) + " " + std::to_string(c.value)}));
  /* Read back from the stored settings. */
  EXPECT_EQ(result_key(get("output_rf_mod", "{\"output_id\":\"0\"}"), c.key), c.text);
}

TEST_P(CmdJsonOutputRfWords, AValueIsReportedAsItsText) {
  const word_case& c = GetParam();
  wire_getters();
  put_hw(c.key, c.value);
  EXPECT_EQ(result_key(get("output_rf_mod", "{\"output_id\":\"0\"}"), c.key), c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Vocabularies, CmdJsonOutputRfWords,
    ::testing::Values(
        word_case{"type", "dvb-t", HAL_DVB_T}, word_case{"type", "dvb-c", HAL_DVB_C},
        word_case{"type", "atsc-t", HAL_ATSC_T}, word_case{"type", "atsc-c", HAL_ATSC_C},
        word_case{"type", "dtmb", HAL_DTMB}, word_case{"type", "isdb-t", HAL_ISDBT},
        word_case{"constellation", "qpsk", HAL_QPSK}, word_case{"constellation", "8-vsb", HAL_8VSB},
        word_case{"constellation", "16-qam", HAL_16QAM}, word_case{"constellation", "32-qam", HAL_32QAM},
        word_case{"constellation", "64-qam", HAL_64QAM}, word_case{"constellation", "128-qam", HAL_128QAM},
        word_case{"constellation", "256-qam", HAL_256QAM}, word_case{"constellation", "4-qam", HAL_4QAM},
        word_case{"constellation", "4nr-qam", HAL_4NRQAM}, word_case{"guardinterval", "1/32", HAL_1_32},
        word_case{"guardinterval", "1/16", HAL_1_16}, word_case{"guardinterval", "1/8", HAL_1_8},
        word_case{"guardinterval", "1/4", HAL_1_4}, word_case{"coderate", "1/2", HAL_1_2},
        word_case{"coderate", "2/3", HAL_2_3}, word_case{"coderate", "3/4", HAL_3_4},
        word_case{"coderate", "5/6", HAL_5_6}, word_case{"coderate", "7/8", HAL_7_8},
        word_case{"coderate", "0.4", HAL_0_4}, word_case{"coderate", "0.6", HAL_0_6},
        word_case{"coderate", "0.8", HAL_0_8}, word_case{"fftmode", "2k", HAL_2K},
        word_case{"fftmode", "8k", HAL_8K}, word_case{"carriertype", "multi", HAL_MULTI_CARRIER},
        word_case{"carriertype", "single", HAL_SINGLE_CARRIER},
        word_case{"interleave", "none", HAL_INTLV_NONE}, word_case{"interleave", "240", HAL_INTLV_240},
        word_case{"interleave", "720", HAL_INTLV_720}, word_case{"syncframe", "420", HAL_SYNC_420},
        word_case{"syncframe", "945", HAL_SYNC_945}, word_case{"syncframe", "595", HAL_SYNC_595}));

TEST_F(CmdJsonOutputRf, ATypeInUpperCaseIsOutOfBounds) {
  rf->settings.type = HAL_DVB_C;
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"type\":\"DVB-T\"}"),
            error("JSON command argument out of bounds (type)"));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(rf->settings.type, HAL_DVB_C);
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"type\":\"dvb-t\"}"), "{}");
  EXPECT_EQ(rf->settings.type, HAL_DVB_T);
}

TEST_F(CmdJsonOutputRf, OnlyTheWholeTextMatches) {
  for (const char* text : {"dvb-t ", " dvb-t", "dvb", "DVB-t", ""}) {
    EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"type\":\"" + std::string(text) + "\"}"),
              error("JSON command argument out of bounds (type)"))
        << text;
  }
  EXPECT_TRUE(calls.empty());
}

TEST_F(CmdJsonOutputRf, AnFftModeOf4kIsOutOfBounds) {
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"fftmode\":\"4k\"}"),
            error("JSON command argument out of bounds (fftmode)"));
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"fftmode\":\"4K\"}"),
            error("JSON command argument out of bounds (fftmode)"));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(rf->settings.fftmode, HAL_8K);
}

TEST_F(CmdJsonOutputRf, AWordThatIsNotTextIsAnInvalidArgument) {
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"type\":1}"),
            error("JSON command has an invalid argument (type)"));
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"coderate\":null}"),
            error("JSON command has an invalid argument (coderate)"));
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"syncframe\":[\"420\"]}"),
            error("JSON command has an invalid argument (syncframe)"));
  EXPECT_TRUE(calls.empty());
}

TEST_F(CmdJsonOutputRf, A4kModeReportedByTheModulatorFailsTheWholeGet) {
  wire_getters();
  hw.fftmode = HAL_4K;
  EXPECT_EQ(get("output_rf_mod", "{\"output_id\":\"0\"}"),
            error("JSON command argument out of bounds (fftmode)"));
  EXPECT_EQ(get("output_rf", "{\"output_id\":\"0\"}"),
            error("JSON command argument out of bounds (fftmode)"));
  EXPECT_EQ(rf->settings.fftmode, HAL_4K);
}

TEST_F(CmdJsonOutputRf, AValueWithoutTextIsOutOfBounds) {
  rf->settings.type = static_cast<hal_output_type_t>(0);
  EXPECT_EQ(get("output_rf_mod", "{\"output_id\":\"0\"}"),
            error("JSON command argument out of bounds (type)"));
  rf->settings.type = HAL_DVB_T;
  rf->settings.constellation = static_cast<hal_constellation_t>(9);
  EXPECT_EQ(get("output_rf_mod", "{\"output_id\":\"0\"}"),
            error("JSON command argument out of bounds (constellation)"));
}

/* No parameter is checked against the standard here. */
TEST_F(CmdJsonOutputRf, AGuardIntervalIsTakenForDvbC) {
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"type\":\"dvb-c\",\"guardinterval\":\"1/32\"}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set type 2", "set guardinterval 0"}));
}

TEST_F(CmdJsonOutputRf, AWordTheModulatorRefusesIsUnsuccessful) {
  failing = "constellation";
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"constellation\":\"qpsk\"}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(rf->settings.constellation, HAL_64QAM);
  wire_getters();
  EXPECT_EQ(get("output_rf_mod", "{\"output_id\":\"0\"}"), warning("JSON command unsuccessful (error: 13)"));
}

/* ---- numbers ---- */

struct number_case {
  const char* key;
  const char* text;
  const char* call;   /* what the modulator is handed */
  const char* stored; /* as a get reports it */
};

std::ostream& operator<<(std::ostream& os, const number_case& c) {
  return os << c.key << "=\"" << c.text << "\"";
}

class CmdJsonOutputRfNumbers : public CmdJsonOutputRf, public ::testing::WithParamInterface<number_case> {};

TEST_P(CmdJsonOutputRfNumbers, AreCutToTheFieldAndReadBack) {
  const number_case& c = GetParam();
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"" + std::string(c.key) + "\":\"" + c.text + "\"}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{c.call}));
  EXPECT_EQ(result_key(get("output_rf_mod", "{\"output_id\":\"0\"}"), c.key), c.stored);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, CmdJsonOutputRfNumbers,
    ::testing::Values(number_case{"frequency", "474000", "set frequency 474000", "474000"},
                      number_case{"frequency", "0xFFFFFFFF", "set frequency 4294967295", "4294967295"},
                      number_case{"frequency", "01000", "set frequency 512", "512"},
                      number_case{"level", "-10", "set level -10", "-10"},
                      number_case{"level", "0x7f", "set level 127", "127"},
                      number_case{"level", "200", "set level -56", "-56"},
                      number_case{"level", "0x80", "set level -128", "-128"},
                      number_case{"level", "-129", "set level 127", "127"},
                      number_case{"bandwidth", "264", "set bandwidth 8", "8"},
                      number_case{"bandwidth", "7", "set bandwidth 7", "7"},
                      number_case{"symbolrate", "6875", "set symbolrate 6875", "6875"},
                      number_case{"symbolrate", "70000", "set symbolrate 4464", "4464"},
                      number_case{"enabled", "0", "set enable 0", "0"},
                      number_case{"enabled", "257", "set enable 1", "1"},
                      number_case{"enabled", "-1", "set enable 255", "255"}));

TEST_F(CmdJsonOutputRf, ALevelIsReadBackSignedFromTheModulator) {
  wire_getters();
  hw.level_dbm = -10;
  EXPECT_EQ(result_key(get("output_rf_mod", "{\"output_id\":\"0\"}"), "level"), "-10");
  hw.enable = 200;
  EXPECT_EQ(result_key(get("output_rf_mod", "{\"output_id\":\"0\"}"), "enabled"), "200");
  EXPECT_EQ(rf->settings.level_dbm, -10);
}

TEST_F(CmdJsonOutputRf, ANumberThatIsNotTextIsNotFound) {
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"frequency\":474000}"),
            error("JSON command argument not found (frequency)"));
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"level\":-3}"),
            error("JSON command argument not found (level)"));
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"level\":\"12a\"}"),
            error("JSON command has an invalid argument (level)"));
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"enabled\":\"yes\"}"),
            error("JSON command has an invalid argument (enabled)"));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(rf->settings.frequency_khz, 474000u);
  EXPECT_EQ(rf->settings.level_dbm, -3);
}

TEST_F(CmdJsonOutputRf, KeysApplyInTableOrderUntilOneFails) {
  EXPECT_EQ(
      set("output_rf_mod",
          "{\"output_id\":\"0\",\"enabled\":\"0\",\"syncframe\":\"945\",\"interleave\":\"720\","
          "\"carriertype\":\"single\",\"fftmode\":\"2k\",\"coderate\":\"0.8\",\"guardinterval\":\"1/8\","
          "\"constellation\":\"4-qam\",\"symbolrate\":\"5000\",\"bandwidth\":\"6\",\"level\":\"-7\","
          "\"frequency\":\"666000\",\"type\":\"dtmb\"}"),
      "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set type 16", "set frequency 666000", "set level -7",
                                             "set bandwidth 6", "set symbolrate 5000", "set constellation 18",
                                             "set guardinterval 2", "set coderate 7", "set fftmode 0",
                                             "set carriertype 1", "set interleave 2", "set syncframe 1",
                                             "set enable 0"}));
  calls.clear();
  failing = "frequency";
  EXPECT_EQ(
      set("output_rf_mod", "{\"output_id\":\"0\",\"level\":\"-1\",\"frequency\":\"1\",\"type\":\"dvb-c\"}"),
      warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(calls, (std::vector<std::string>{"set type 2", "set frequency 1"}));
  EXPECT_EQ(rf->settings.type, HAL_DVB_C);
  EXPECT_EQ(rf->settings.frequency_khz, 666000u);
  EXPECT_EQ(rf->settings.level_dbm, -7);
}

TEST_F(CmdJsonOutputRf, ANumberTheModulatorCannotReadIsUnsuccessful) {
  wire_getters();
  failing = "level";
  EXPECT_EQ(get("output_rf_mod", "{\"output_id\":\"0\"}"), warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(calls, (std::vector<std::string>{"get type", "get frequency", "get level"}));
}

/* ---- "output_rf", "output_rf_mod", "output_rf_ts", "output_rf_services" ---- */

TEST_F(CmdJsonOutputRf, AGetReturnsTheModulationAndTheWholeTs) {
  hal_service_t* service = add_service(rf->tsout, 100, "One", streams_of({256}, HAL_H264, 8000));
  service->enabled = 1;
  hal_ts_set_tsid(rf->tsout, 5);
  EXPECT_EQ(
      get("output_rf", "{\"output_id\":\"0\"}"),
      "{\"result\":{" + dvb_t_keys +
          ",\"ts\":{\"ts_tag\":\"1\",\"tsid\":\"5\",\"onid\":\"0\",\"nid\":\"0\","
          "\"private_data_specifier\":\"0\",\"network_name\":\"\",\"network_version\":\"0\",\"services\":["
          "{\"service_tag\":\"0\",\"sid\":\"100\",\"type\":\"0\",\"service_name\":\"One\",\"lcn\":\"0\","
          "\"pmt_pid\":\"0\",\"enabled\":\"1\",\"streams\":[{\"stream_tag\":\"0\",\"pid\":\"256\","
          "\"type\":\"27\",\"bitrate\":\"8000\"}]}]},\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonOutputRf, TheModulationObjectHasNoTs) {
  EXPECT_EQ(get("output_rf_mod", "{\"output_id\":\"0\"}"),
            "{\"result\":{" + dvb_t_keys + ",\"output_id\":\"0\"}}");
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"ts\":{\"tsid\":\"9\"}}"), "{}");
  EXPECT_EQ(rf->tsout->settings.tsid, 0);
}

TEST_F(CmdJsonOutputRf, ASetTakesTheModulationThenTheTs) {
  hal_service_t* service = add_service(rf->tsout, 100, "One");
  fake_ts_identity(rf->tsout);
  EXPECT_EQ(set("output_rf",
                "{\"output_id\":\"0\",\"ts\":{\"nid\":\"0x10\",\"services\":[{\"service_tag\":\"0\","
                "\"enabled\":\"1\"}]},\"frequency\":\"482000\"}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set frequency 482000", "nid 16"}));
  EXPECT_EQ(service->enabled, 1);
  EXPECT_EQ(set("output_rf", "{\"output_id\":\"0\",\"ts\":[]}"),
            error("JSON command has an invalid argument (ts)"));
  EXPECT_EQ(set("output_rf", "{\"output_id\":\"0\",\"ts\":\"x\"}"),
            error("JSON command has an invalid argument (ts)"));
}

TEST_F(CmdJsonOutputRf, TheTsKeysComeDirectlyInTheArguments) {
  fake_ts_identity(rf->tsout);
  EXPECT_EQ(set("output_rf_ts", "{\"output_id\":\"0\",\"network_version\":\"257\",\"network_name\":\"Net\"}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"network_name Net", "network_version 1"}));
  EXPECT_EQ(get("output_rf_ts", "{\"output_id\":\"0\"}"),
            "{\"result\":{\"ts_tag\":\"1\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"0\","
            "\"private_data_specifier\":\"0\",\"network_name\":\"Net\",\"network_version\":\"1\","
            "\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonOutputRf, TsArgumentsThatAreNotAnObjectAreInvalid) {
  json_ptr array = parse("[]");
  json_ptr text = parse("\"x\"");
  EXPECT_EQ(cmd_json_set_output_rf_ts(&rf->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_output_rf_ts(&rf->hal_object, text.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_output_rf_service(&rf->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_output_rf_service(&rf->hal_object, NULL), CMD_JSON_ARG_FRMT_ERR);
}

TEST_F(CmdJsonOutputRf, AnOutputWithoutTsTakesTsArgumentsAndReportsNothing) {
  hal_ts_delete(rf->tsout);
  rf->tsout = NULL;
  EXPECT_EQ(set("output_rf_ts", "{\"output_id\":\"0\",\"tsid\":\"5\"}"), "{}");
  EXPECT_EQ(set("output_rf_services", "{\"output_id\":\"0\",\"service_tag\":\"0\"}"), "{}");
  EXPECT_EQ(set("output_rf", "{\"output_id\":\"0\",\"ts\":{\"tsid\":\"5\"},\"level\":\"1\"}"), "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set level 1"}));
  json_t* value = NULL;
  EXPECT_EQ(cmd_json_get_output_rf_ts(&rf->hal_object, &value), CMD_JSON_OK);
  EXPECT_EQ(cmd_json_get_output_rf_services(&rf->hal_object, &value), CMD_JSON_OK);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(get("output_rf_ts", "{\"output_id\":\"0\"}"), warning("JSON command unsuccessful (error: 8)"));
}

TEST_F(CmdJsonOutputRf, AServiceIsChosenByItsTag) {
  hal_service_t* first = add_service(rf->tsout, 1, "One", streams_of({256}, HAL_H264, 100));
  hal_service_t* second = add_service(rf->tsout, 2, "Two");
  EXPECT_EQ(set("output_rf_services", "{\"output_id\":\"0\",\"service_tag\":\"0\",\"enabled\":\"1\"}"), "{}");
  EXPECT_EQ(first->enabled, 1);
  EXPECT_EQ(second->enabled, 0);
  EXPECT_EQ(
      get("output_rf_services", "{\"output_id\":\"0\"}"),
      "{\"arrayedResult\":[{\"service_tag\":\"1\",\"sid\":\"2\",\"type\":\"0\",\"service_name\":\"Two\","
      "\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"0\",\"output_id\":\"0\"},"
      "{\"service_tag\":\"0\",\"sid\":\"1\",\"type\":\"0\",\"service_name\":\"One\",\"lcn\":\"0\","
      "\"pmt_pid\":\"0\",\"enabled\":\"1\",\"output_id\":\"0\"}]}");
}

TEST_F(CmdJsonOutputRf, AServiceWithoutTagIsMissingAndAnUnknownTagOutOfBounds) {
  add_service(rf->tsout, 1, "One");
  EXPECT_EQ(set("output_rf_services", "{\"output_id\":\"0\",\"enabled\":\"1\"}"),
            error("JSON command is missing a mandatory argument ((null))"));
  EXPECT_EQ(set("output_rf_services", "{\"output_id\":\"0\",\"service_tag\":\"3\",\"enabled\":\"1\"}"),
            error("JSON command argument out of bounds ((null))"));
  EXPECT_EQ(service_at(rf->tsout, 0)->enabled, 0);
}

TEST_F(CmdJsonOutputRf, ThereIsNoStreamsObject) {
  EXPECT_EQ(get("output_rf_streams", "{\"output_id\":\"0\"}"),
            error("JSON command has an unknown object (output_rf_streams)"));
}

/* Only the on/off switch of a service set here outlasts the sync. */
TEST_F(CmdJsonOutputRf, TheSyncKeepsOnlyTheEnabledFlagOfAService) {
  add_service(tsin, 100, "In");
  quietly([this] { hal_output_rf_sync(rf); });
  EXPECT_EQ(set("output_rf_services",
                "{\"output_id\":\"0\",\"service_tag\":\"0\",\"service_name\":\"Mine\",\"enabled\":\"1\"}"),
            "{}");
  EXPECT_STREQ(hal_ts_find_service_by_tag(rf->tsout, 0)->settings.service_name, "Mine");
  quietly([this] { hal_output_rf_sync(rf); });
  EXPECT_EQ(
      get("output_rf_services", "{\"output_id\":\"0\"}"),
      "{\"arrayedResult\":[{\"service_tag\":\"0\",\"sid\":\"100\",\"type\":\"0\",\"service_name\":\"In\","
      "\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"1\",\"output_id\":\"0\"}]}");
  EXPECT_EQ(hal_ts_find_service_by_tag(tsin, 0)->enabled, 1);
}

/* ---- "output_rf_status" ---- */

TEST_F(CmdJsonOutputRf, TheStatusHasTheLimitTheOverflowAndTheConfiguredBitrate) {
  hal_service_t* on = add_service(rf->tsout, 1, "On", streams_of({256, 257}, HAL_H264, 4000));
  hal_service_t* off = add_service(rf->tsout, 2, "Off", streams_of({512}, HAL_H264, 3000));
  on->enabled = 1;
  off->enabled = 0;
  EXPECT_EQ(get("output_rf_status", "{\"output_id\":\"0\"}"),
            "{\"result\":{\"max_bitrate\":\"24128\",\"overflow\":\"no\",\"bitrate\":\"8000\",\"output_id\":"
            "\"0\"}}");
  EXPECT_EQ(calls, (std::vector<std::string>{"get status"}));
  off->enabled = 1;
  hw_status = {65535, 1};
  EXPECT_EQ(get("output_rf_status", "{\"output_id\":\"0\"}"),
            "{\"result\":{\"max_bitrate\":\"65535\",\"overflow\":\"yes\",\"bitrate\":\"11000\","
            "\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonOutputRf, OnlyAnOverflowFlagOf1IsYes) {
  hw_status = {100, 2};
  EXPECT_EQ(result_key(get("output_rf_status", "{\"output_id\":\"0\"}"), "overflow"), "no");
  hw_status = {100, 255};
  EXPECT_EQ(result_key(get("output_rf_status", "{\"output_id\":\"0\"}"), "overflow"), "no");
  hw_status = {100, 0};
  EXPECT_EQ(result_key(get("output_rf_status", "{\"output_id\":\"0\"}"), "overflow"), "no");
}

TEST_F(CmdJsonOutputRf, WithoutServicesTheBitrateIsZero) {
  rf->get.status = NULL;
  rf->status = {300, 1};
  EXPECT_EQ(
      get("output_rf_status", "{\"output_id\":\"0\"}"),
      "{\"result\":{\"max_bitrate\":\"300\",\"overflow\":\"yes\",\"bitrate\":\"0\",\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonOutputRf, AFailingStatusReadIsUnsuccessful) {
  failing = "status";
  EXPECT_EQ(get("output_rf_status", "{\"output_id\":\"0\"}"),
            warning("JSON command unsuccessful (error: 13)"));
}

TEST_F(CmdJsonOutputRf, TheStatusCannotBeSet) {
  EXPECT_EQ(set("output_rf_status", "{\"output_id\":\"0\",\"overflow\":\"no\"}"),
            error("JSON command has an unknown action (set)"));
}

TEST_F(CmdJsonOutputRf, TheIdChoosesTheOutputAndWithoutItEveryOutputAnswers) {
  hal_output_rf_t* newest = add_output();
  newest->get.status = NULL;
  newest->status = {100, 1};
  EXPECT_EQ(get("output_rf_status", "{}"),
            "{\"arrayedResult\":[{\"max_bitrate\":\"100\",\"overflow\":\"yes\",\"bitrate\":\"0\","
            "\"output_id\":\"0\"},{\"max_bitrate\":\"24128\",\"overflow\":\"no\",\"bitrate\":\"0\","
            "\"output_id\":\"1\"}]}");
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"1\",\"level\":\"5\"}"), "{}");
  EXPECT_EQ(rf->settings.level_dbm, 5);
  EXPECT_EQ(newest->settings.level_dbm, -3);
}

/* ---- "output_calibration" ---- */

TEST_F(CmdJsonOutputRf, ACalibrationGoesToTheModulatorCutToEightBits) {
  EXPECT_EQ(handle_quietly(request("set", "output_calibration",
                                   "{\"output_id\":\"0\",\"q\":\"0x1FF\",\"i\":\"-3\",\"enabled\":\"257\"}")),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set calibration -3 -1 1"}));
  EXPECT_EQ(errors, wrn("cmd_json_set_output_rf_cal", "B"));
  calls.clear();
  EXPECT_EQ(handle_quietly(request("set", "output_calibration",
                                   "{\"output_id\":\"0\",\"i\":\"200\",\"q\":\"127\",\"enabled\":\"0\"}")),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set calibration -56 127 0"}));
  EXPECT_EQ(errors, wrn("cmd_json_set_output_rf_cal", "B"));
}

TEST_F(CmdJsonOutputRf, EveryCalibrationKeyIsRequired) {
  for (const char* args : {"{\"output_id\":\"0\",\"i\":\"1\",\"q\":\"1\"}",
                           "{\"output_id\":\"0\",\"enabled\":\"1\",\"q\":\"1\"}",
                           "{\"output_id\":\"0\",\"enabled\":\"1\",\"i\":\"1\"}"}) {
    EXPECT_EQ(handle_quietly(request("set", "output_calibration", args)), warning("JSON error")) << args;
    EXPECT_EQ(errors, wrn("cmd_json_set_output_rf_cal", "JSON error")) << args;
  }
  EXPECT_TRUE(calls.empty());
}

TEST_F(CmdJsonOutputRf, CalibrationValuesMustBeNumericText) {
  EXPECT_EQ(handle_quietly(request("set", "output_calibration",
                                   "{\"output_id\":\"0\",\"enabled\":\"1\",\"i\":1,\"q\":\"1\"}")),
            error("JSON command argument not found ((null))"));
  EXPECT_EQ(handle_quietly(request("set", "output_calibration",
                                   "{\"output_id\":\"0\",\"enabled\":\"on\",\"i\":\"1\",\"q\":\"1\"}")),
            error("JSON command has an invalid argument ((null))"));
  EXPECT_EQ(handle_quietly(request("set", "output_calibration",
                                   "{\"output_id\":\"0\",\"enabled\":\"1\",\"i\":\"1\",\"q\":\"-1-\"}")),
            error("JSON command has an invalid argument ((null))"));
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(calls.empty());
  json_ptr array = parse("[]");
  EXPECT_EQ(cmd_json_set_output_rf_cal(&rf->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_output_rf_cal(&rf->hal_object, NULL), CMD_JSON_ARG_FRMT_ERR);
}

TEST_F(CmdJsonOutputRf, ACalibrationTheModulatorRefusesIsUnsuccessfulWithoutB) {
  failing = "calibration";
  EXPECT_EQ(handle_quietly(request("set", "output_calibration",
                                   "{\"output_id\":\"0\",\"enabled\":\"1\",\"i\":\"1\",\"q\":\"1\"}")),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(errors, "");
}

TEST_F(CmdJsonOutputRf, ACalibrationGetLogsGetCalAndReportsIAndQ) {
  EXPECT_EQ(handle_quietly(request("get", "output_calibration", "{\"output_id\":\"0\"}")),
            "{\"result\":{\"i\":\"-3\",\"q\":\"7\",\"output_id\":\"0\"}}");
  EXPECT_EQ(errors, wrn("cmd_json_get_output_rf_cal", "GET CAL"));
  EXPECT_EQ(calls, (std::vector<std::string>{"get calibration"}));
}

TEST_F(CmdJsonOutputRf, AFailingCalibrationGetStillLogsGetCal) {
  failing = "calibration";
  EXPECT_EQ(handle_quietly(request("get", "output_calibration", "{\"output_id\":\"0\"}")),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(errors, wrn("cmd_json_get_output_rf_cal", "GET CAL"));
}

TEST_F(CmdJsonOutputRf, WithoutCalibrationOperationBothValuesAreZero) {
  rf->get.calibration = NULL;
  rf->set.calibration = NULL;
  EXPECT_EQ(handle_quietly(request("get", "output_calibration", "{\"output_id\":\"0\"}")),
            "{\"result\":{\"i\":\"0\",\"q\":\"0\",\"output_id\":\"0\"}}");
  EXPECT_EQ(errors, wrn("cmd_json_get_output_rf_cal", "GET CAL"));
  EXPECT_EQ(handle_quietly(request("set", "output_calibration",
                                   "{\"output_id\":\"0\",\"enabled\":\"1\",\"i\":\"1\",\"q\":\"1\"}")),
            "{}");
  EXPECT_EQ(errors, wrn("cmd_json_set_output_rf_cal", "B"));
}

/* ---- the settings file ---- */

std::string read_file(const std::string& path) {
  std::string text;
  FILE* file = fopen(path.c_str(), "rb");
  if (file == NULL) return "<missing>";
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), file)) > 0) text.append(buf, n);
  EXPECT_EQ(fclose(file), 0);
  return text;
}

class CmdJsonOutputRfSettings : public CmdJsonOutputRf {
 protected:
  std::string root;

  void SetUp() override {
    CmdJsonOutputRf::SetUp();
    char dir[] = "/tmp/tvrXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    setenv("TAVID_ROOT", root.c_str(), 1);
    char probe[BOXROOT_PATH_LEN];
    if (boxroot_init() != 0 || std::string(boxroot_path(probe, sizeof(probe), "/x")) == "/x") {
      GTEST_SKIP() << "needs the host build's box root";
    }
    mkdir((root + "/data").c_str(), 0755);
    flag_restoring = 0;
  }
  void TearDown() override {
    CmdJsonOutputRf::TearDown();
    if (!root.empty()) {
      EXPECT_EQ(system(("rm -rf " + root).c_str()), 0);
    }
  }
  std::string settings() { return read_file(root + "/data/settings.conf"); }
};

TEST_F(CmdJsonOutputRfSettings, AnAcceptedSetStoresTheWholeOutput) {
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"level\":\"-5\"}"), "{}");
  std::string stored_keys = dvb_t_keys;
  stored_keys.replace(stored_keys.find("\"-3\""), 4, "\"-5\"");
  EXPECT_EQ(settings(),
            "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{" + stored_keys +
                ",\"ts\":{\"ts_tag\":\"1\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"0\","
                "\"private_data_specifier\":\"0\",\"network_name\":\"\",\"network_version\":\"0\","
                "\"services\":[]},\"output_id\":\"0\"}}\n\r");
}

TEST_F(CmdJsonOutputRfSettings, ARestoreReplaysTheModulationInTableOrder) {
  EXPECT_EQ(set("output_rf_mod", "{\"output_id\":\"0\",\"type\":\"dvb-c\"}"), "{}");
  rf->settings = dvb_t;
  calls.clear();
  EXPECT_EQ(handle_quietly("{\"action\":\"execute\",\"object\":\"restore_settings\",\"args\":{}}"), "{}");
  EXPECT_EQ(errors, "");
  EXPECT_EQ(calls,
            (std::vector<std::string>{"set type 2", "set frequency 474000", "set level -3", "set bandwidth 8",
                                      "set symbolrate 6900", "set constellation 6", "set guardinterval 3",
                                      "set coderate 1", "set fftmode 1", "set carriertype 0",
                                      "set interleave 0", "set syncframe 0", "set enable 1"}));
  EXPECT_EQ(rf->settings.type, HAL_DVB_C);
}

}  // namespace
