#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "boxroot.h"
#include "cmd_json.h"
#include "cmd_json_input_hdmi.h"
#include "dbg.h"
#include "hal_input_hdmi.h"
#include "hal_test_support.h"
#include "hal_ts.h"

namespace {

using namespace hal_test;

/* ---- the fake encoder: every operation records its call; reads return these values ---- */

hal_input_hdmi_settings_t hw;
hal_input_hdmi_status_t hw_status;
uint8_t hw_debug_enable;

HAL_TEST_FAKE_ACCESSORS(video_gopsize, uint8_t, hw.video_gopsize)

hal_err_t fake_get_status(void* user, hal_input_hdmi_status_t* status) {
  return fake_read(user, "status", status, hw_status);
}

hal_err_t fake_set_hw_debug_code(void* user, uint8_t code, uint8_t enable) {
  return record(user, "set hw_debug_code " + number(code) + " " + number(enable), "hw_debug_code");
}

hal_err_t fake_get_hw_debug_code(void* user, uint8_t code, uint8_t* enable) {
  hal_err_t err = record(user, "get hw_debug_code " + number(code), "hw_debug_code");
  if (err == HAL_OK) *enable = hw_debug_enable;
  return err;
}

hal_err_t fake_apply(void* user) { return record(user, "apply", "apply"); }

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

/* The TS of a fresh input as a get reports it, before "services". */
const std::string plain_ts =
    "\"ts_tag\":\"0\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
    "\"network_name\":\"\",\"network_version\":\"0\"";

class CmdJsonInputHdmi : public HalTest {
 protected:
  hal_input_hdmi_t* hdmi = NULL;

  void SetUp() override {
    HalTest::SetUp();
    cmd_json_s_arg = NULL;
    flag_restoring = 1; /* no settings file here: the store has tests of its own below */
    hw = {8000, 25, 192};
    hw_status = {1, 1080, 'p', 50};
    hw_debug_enable = 1;
    hdmi = add_input();
  }
  void TearDown() override {
    flag_restoring = 0;
    cmd_json_s_arg = NULL;
    HalTest::TearDown();
  }

  /* A new input with an empty TS and the fake encoder, in the registry, where the newest is
   * instance 0. The GOP size is read only in the tests that want the encoder's value. */
  static hal_input_hdmi_t* add_input() {
    hal_input_hdmi_t* input = new_hal_input_hdmi();
    EXPECT_NE(input, nullptr);
    input->tsout = new_hal_ts();
    input->hal_object.user = &driver;
    input->apply = fake_apply;
    input->set.video_gopsize = fake_set_video_gopsize;
    input->set.hw_debug_code = fake_set_hw_debug_code;
    input->get.status = fake_get_status;
    input->get.hw_debug_code = fake_get_hw_debug_code;
    lnklist_push_node(&hal, &input->hal_object.node);
    return input;
  }

  /* Leaves the input without a TS. */
  void drop_tsout() {
    hal_ts_delete(hdmi->tsout);
    hdmi->tsout = NULL;
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

TEST(CmdJsonInputHdmiTables, ListTheKeysInOrder) {
  EXPECT_EQ(keys(cmd_json_input_hdmi_ext_args), (std::vector<std::string>{"video_gopsize", "ts"}));
  EXPECT_EQ(keys(cmd_json_input_hdmi_enc_args), (std::vector<std::string>{"video_gopsize"}));
}

TEST(CmdJsonInputHdmiTables, TheRowsCarryTheInputHandlers) {
  struct row_t {
    const char* name;
    const char* id;
    cmd_json_put_t set;
    cmd_json_take_t get;
    cmd_json_take_t store;
  };
  const row_t rows[] = {
      {"input_hdmi", "input_id", cmd_json_set_input_hdmi_ext, cmd_json_get_input_hdmi_ext,
       cmd_json_get_input_hdmi_ext},
      {"input_hdmi_enc", "input_id", cmd_json_set_input_hdmi_enc, cmd_json_get_input_hdmi_enc, NULL},
      {"input_hdmi_ts", "input_id", cmd_json_set_input_hdmi_ts, cmd_json_get_input_hdmi_ts, NULL},
      {"input_hdmi_services", "input_id", cmd_json_set_input_hdmi_service, cmd_json_get_input_hdmi_services,
       NULL},
      {"input_hdmi_streams", "input_id", cmd_json_set_input_hdmi_stream, cmd_json_get_input_hdmi_streams,
       NULL},
      {"input_hdmi_status", "input_id", NULL, cmd_json_get_input_hdmi_status, NULL},
      {"debug_code", "id", cmd_json_set_input_hdmi_hw_debug_code, cmd_json_get_input_hdmi_hw_debug_code,
       NULL},
  };
  for (const row_t& expected : rows) {
    const cmd_json_object_t* row = cmd_json_object_by_name(expected.name);
    ASSERT_NE(row, nullptr) << expected.name;
    EXPECT_EQ(row->hal_type, HAL_INPUT_HDMI) << expected.name;
    EXPECT_STREQ(row->id, expected.id) << expected.name;
    EXPECT_EQ(row->set, expected.set) << expected.name;
    EXPECT_EQ(row->get, expected.get) << expected.name;
    EXPECT_EQ(row->execute, nullptr) << expected.name;
    EXPECT_EQ(row->store, expected.store) << expected.name;
  }
}

/* ---- "input_hdmi": the GOP size and the whole TS ---- */

TEST_F(CmdJsonInputHdmi, AGetReturnsTheGopSizeAndTheWholeTs) {
  hdmi->get.video_gopsize = fake_get_video_gopsize;
  hal_service_t* service = add_service(hdmi->tsout, 100, "One", streams_of({256}, HAL_H264, 8000));
  service->enabled = 1;
  EXPECT_EQ(
      get("input_hdmi", "{\"input_id\":\"0\"}"),
      "{\"result\":{\"video_gopsize\":\"25\",\"ts\":{" + plain_ts +
          ",\"services\":[{\"service_tag\":\"0\",\"sid\":\"100\",\"type\":\"0\",\"service_name\":\"One\","
          "\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"1\",\"streams\":[{\"stream_tag\":\"0\","
          "\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"8000\"}]}]},\"input_id\":\"0\"}}");
  /* The encoder's value has overwritten the desired one. */
  EXPECT_EQ(calls, (std::vector<std::string>{"get video_gopsize"}));
  EXPECT_EQ(hdmi->settings.video_gopsize, 25);
}

TEST_F(CmdJsonInputHdmi, ASetAppliesTheGopSizeThenTheTs) {
  hal_service_t* service = add_service(hdmi->tsout, 100, "One", streams_of({256}));
  fake_ts_identity(hdmi->tsout);
  EXPECT_EQ(set("input_hdmi",
                "{\"ts\":{\"tsid\":\"0x10\",\"network_name\":\"Net\",\"services\":[{\"service_tag\":\"0\","
                "\"enabled\":\"1\",\"streams\":[{\"stream_tag\":\"0\",\"pid\":\"300\"}]}]},"
                "\"video_gopsize\":\"12\",\"input_id\":\"0\"}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set video_gopsize 12", "tsid 16", "network_name Net"}));
  EXPECT_EQ(hdmi->settings.video_gopsize, 12);
  EXPECT_EQ(hdmi->tsout->settings.tsid, 16);
  EXPECT_EQ(service->enabled, 1);
  EXPECT_EQ(stream_at(service, 0)->settings.pid, 300);
}

TEST_F(CmdJsonInputHdmi, AGopSizeOf300Stores44) {
  EXPECT_EQ(set("input_hdmi", "{\"input_id\":\"0\",\"video_gopsize\":\"300\"}"), "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set video_gopsize 44"}));
  EXPECT_EQ(hdmi->settings.video_gopsize, 44);
  EXPECT_EQ(get("input_hdmi_enc", "{\"input_id\":\"0\"}"),
            "{\"result\":{\"video_gopsize\":\"44\",\"input_id\":\"0\"}}");
}

TEST_F(CmdJsonInputHdmi, AGopSizeIsReadWithAutomaticBase) {
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"0\",\"video_gopsize\":\"0x1e\"}"), "{}");
  EXPECT_EQ(hdmi->settings.video_gopsize, 30);
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"0\",\"video_gopsize\":\"017\"}"), "{}");
  EXPECT_EQ(hdmi->settings.video_gopsize, 15);
  EXPECT_EQ(calls, (std::vector<std::string>{"set video_gopsize 30", "set video_gopsize 15"}));
}

TEST_F(CmdJsonInputHdmi, AGopSizeThatIsNotTextIsNotFound) {
  hdmi->settings.video_gopsize = 9;
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"0\",\"video_gopsize\":12}"),
            error("JSON command argument not found (video_gopsize)"));
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"0\",\"video_gopsize\":\"12a\"}"),
            error("JSON command has an invalid argument (video_gopsize)"));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(hdmi->settings.video_gopsize, 9);
}

TEST_F(CmdJsonInputHdmi, AGopSizeTheEncoderRefusesIsUnsuccessful) {
  hdmi->settings.video_gopsize = 9;
  failing = "video_gopsize";
  EXPECT_EQ(set("input_hdmi", "{\"input_id\":\"0\",\"video_gopsize\":\"12\",\"ts\":{\"tsid\":\"5\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(hdmi->settings.video_gopsize, 9);
  /* The keys after the failing one are not applied. */
  EXPECT_EQ(hdmi->tsout->settings.tsid, 0);
  hdmi->get.video_gopsize = fake_get_video_gopsize;
  EXPECT_EQ(get("input_hdmi_enc", "{\"input_id\":\"0\"}"), warning("JSON command unsuccessful (error: 13)"));
}

TEST_F(CmdJsonInputHdmi, ATsThatIsNotAnObjectIsAnInvalidArgument) {
  hal_ts_new_service(hdmi->tsout);
  EXPECT_EQ(set("input_hdmi", "{\"input_id\":\"0\",\"ts\":[{\"tsid\":\"5\"}]}"),
            error("JSON command has an invalid argument (ts)"));
  EXPECT_EQ(set("input_hdmi", "{\"input_id\":\"0\",\"ts\":\"5\"}"),
            error("JSON command has an invalid argument (ts)"));
  EXPECT_EQ(hdmi->tsout->settings.tsid, 0);
}

TEST_F(CmdJsonInputHdmi, TheEncoderObjectHasOnlyTheGopSize) {
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"0\",\"video_gopsize\":\"20\",\"ts\":{\"tsid\":\"5\"}}"),
            "{}");
  EXPECT_EQ(hdmi->settings.video_gopsize, 20);
  EXPECT_EQ(hdmi->tsout->settings.tsid, 0);
  EXPECT_EQ(get("input_hdmi_enc", "{\"input_id\":\"0\"}"),
            "{\"result\":{\"video_gopsize\":\"20\",\"input_id\":\"0\"}}");
}

TEST_F(CmdJsonInputHdmi, TheIdChoosesTheInputAndWithoutItEveryInputAnswers) {
  hal_input_hdmi_t* newest = add_input();
  hdmi->settings.video_gopsize = 1;
  newest->settings.video_gopsize = 2;
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"1\",\"video_gopsize\":\"11\"}"), "{}");
  EXPECT_EQ(hdmi->settings.video_gopsize, 11);
  EXPECT_EQ(newest->settings.video_gopsize, 2);
  EXPECT_EQ(get("input_hdmi_enc", "{}"),
            "{\"arrayedResult\":[{\"video_gopsize\":\"2\",\"input_id\":\"0\"},"
            "{\"video_gopsize\":\"11\",\"input_id\":\"1\"}]}");
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"2\",\"video_gopsize\":\"11\"}"),
            error("JSON command argument out of bounds (input_id)"));
}

/* ---- "input_hdmi_ts", "input_hdmi_services", "input_hdmi_streams" ---- */

TEST_F(CmdJsonInputHdmi, TheTsKeysComeDirectlyInTheArguments) {
  fake_ts_identity(hdmi->tsout);
  add_service(hdmi->tsout, 1, "One");
  EXPECT_EQ(set("input_hdmi_ts",
                "{\"input_id\":\"0\",\"nid\":\"3\",\"tsid\":\"70000\",\"ts_tag\":\"9\",\"services\":[]}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"tsid 4464", "nid 3"}));
  EXPECT_EQ(get("input_hdmi_ts", "{\"input_id\":\"0\"}"),
            "{\"result\":{\"ts_tag\":\"0\",\"tsid\":\"4464\",\"onid\":\"0\",\"nid\":\"3\","
            "\"private_data_specifier\":\"0\",\"network_name\":\"\",\"network_version\":\"0\","
            "\"input_id\":\"0\"}}");
}

TEST_F(CmdJsonInputHdmi, TsArgumentsThatAreAnArrayAreInvalid) {
  json_ptr array = parse("[{\"tsid\":\"5\"}]");
  EXPECT_EQ(cmd_json_set_input_hdmi_ts(&hdmi->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_input_hdmi_ts(&hdmi->hal_object, NULL), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_input_hdmi_service(&hdmi->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_input_hdmi_stream(&hdmi->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(hdmi->tsout->settings.tsid, 0);
  /* The dispatcher refuses such arguments before the object sees them. */
  EXPECT_EQ(set("input_hdmi_ts", "[{\"input_id\":\"0\",\"tsid\":\"5\"}]"),
            error("JSON command requires valid arguments (JSON object)"));
}

TEST_F(CmdJsonInputHdmi, AnInputWithoutTsTakesTsArgumentsAndChangesNothing) {
  drop_tsout();
  hdmi->settings.video_gopsize = 7;
  EXPECT_EQ(set("input_hdmi_ts", "{\"input_id\":\"0\",\"tsid\":\"5\"}"), "{}");
  EXPECT_EQ(set("input_hdmi_services", "{\"input_id\":\"0\",\"service_tag\":\"0\",\"sid\":\"5\"}"), "{}");
  EXPECT_EQ(set("input_hdmi_streams", "{\"input_id\":\"0\",\"service_tag\":\"0\",\"stream_tag\":\"0\"}"),
            "{}");
  EXPECT_EQ(set("input_hdmi", "{\"input_id\":\"0\",\"ts\":{\"tsid\":\"5\"}}"), "{}");
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(hdmi->settings.video_gopsize, 7);
}

/* A getter that gives nothing: a reply needs an object or an array, and so does a key. */
TEST_F(CmdJsonInputHdmi, AnInputWithoutTsHasNoTsToReport) {
  drop_tsout();
  json_t* value = NULL;
  EXPECT_EQ(cmd_json_get_input_hdmi_ts(&hdmi->hal_object, &value), CMD_JSON_OK);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(cmd_json_get_input_hdmi_services(&hdmi->hal_object, &value), CMD_JSON_OK);
  EXPECT_EQ(cmd_json_get_input_hdmi_streams(&hdmi->hal_object, &value), CMD_JSON_OK);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(get("input_hdmi_ts", "{\"input_id\":\"0\"}"), warning("JSON command unsuccessful (error: 8)"));
  EXPECT_EQ(handle_quietly(request("get", "input_hdmi", "{\"input_id\":\"0\"}")), warning("JSON error"));
  EXPECT_EQ(errors, wrn("cmd_json_get_args", "JSON error"));
}

TEST_F(CmdJsonInputHdmi, AServiceIsChosenByItsTag) {
  hal_service_t* first = add_service(hdmi->tsout, 1, "One", streams_of({256}));
  hal_service_t* second = add_service(hdmi->tsout, 2, "Two");
  EXPECT_EQ(set("input_hdmi_services",
                "{\"input_id\":\"0\",\"service_tag\":\"1\",\"lcn\":\"7\",\"enabled\":"
                "\"1\",\"streams\":[{\"stream_tag\":\"0\",\"pid\":\"9\"}]}"),
            "{}");
  EXPECT_EQ(second->settings.lcn, 7);
  EXPECT_EQ(second->enabled, 1);
  EXPECT_EQ(first->settings.lcn, 0);
  EXPECT_EQ(stream_at(first, 0)->settings.pid, 256);
  EXPECT_EQ(
      get("input_hdmi_services", "{\"input_id\":\"0\"}"),
      "{\"arrayedResult\":[{\"service_tag\":\"1\",\"sid\":\"2\",\"type\":\"0\",\"service_name\":\"Two\","
      "\"lcn\":\"7\",\"pmt_pid\":\"0\",\"enabled\":\"1\",\"input_id\":\"0\"},"
      "{\"service_tag\":\"0\",\"sid\":\"1\",\"type\":\"0\",\"service_name\":\"One\",\"lcn\":\"0\","
      "\"pmt_pid\":\"0\",\"enabled\":\"0\",\"input_id\":\"0\"}]}");
}

TEST_F(CmdJsonInputHdmi, AServiceWithoutTagIsMissingAndAnUnknownTagOutOfBounds) {
  hal_service_t* service = add_service(hdmi->tsout, 1, "One");
  EXPECT_EQ(set("input_hdmi_services", "{\"input_id\":\"0\",\"sid\":\"5\"}"),
            error("JSON command is missing a mandatory argument ((null))"));
  EXPECT_EQ(set("input_hdmi_services", "{\"input_id\":\"0\",\"service_tag\":0,\"sid\":\"5\"}"),
            error("JSON command is missing a mandatory argument ((null))"));
  EXPECT_EQ(set("input_hdmi_services", "{\"input_id\":\"0\",\"service_tag\":\"4\",\"sid\":\"5\"}"),
            error("JSON command argument out of bounds ((null))"));
  EXPECT_EQ(service->settings.sid, 1);
}

TEST_F(CmdJsonInputHdmi, AStreamIsChosenByBothTags) {
  hal_service_t* first = add_service(hdmi->tsout, 1, "One", streams_of({256, 257}, HAL_H264, 100));
  hal_service_t* second = add_service(hdmi->tsout, 2, "Two", streams_of({512}, HAL_AAC, 192));
  EXPECT_EQ(set("input_hdmi_streams",
                "{\"input_id\":\"0\",\"service_tag\":\"0\",\"stream_tag\":\"1\",\"pid\":\"0x102\","
                "\"bitrate\":\"70000\"}"),
            "{}");
  EXPECT_EQ(stream_at(first, 0)->settings.pid, 258);
  EXPECT_EQ(stream_at(first, 0)->settings.bitrate_kbps, 4464);
  EXPECT_EQ(stream_at(first, 1)->settings.pid, 256);
  EXPECT_EQ(stream_at(second, 0)->settings.pid, 512);
  EXPECT_EQ(
      get("input_hdmi_streams", "{\"input_id\":\"0\"}"),
      "{\"arrayedResult\":["
      "{\"stream_tag\":\"2\",\"pid\":\"512\",\"type\":\"15\",\"bitrate\":\"192\",\"service_tag\":\"1\","
      "\"input_id\":\"0\"},"
      "{\"stream_tag\":\"1\",\"pid\":\"258\",\"type\":\"27\",\"bitrate\":\"4464\",\"service_tag\":\"0\","
      "\"input_id\":\"0\"},"
      "{\"stream_tag\":\"0\",\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"100\",\"service_tag\":\"0\","
      "\"input_id\":\"0\"}]}");
}

TEST_F(CmdJsonInputHdmi, AStreamNeedsBothTagsAndBothMustExist) {
  add_service(hdmi->tsout, 1, "One", streams_of({256}));
  EXPECT_EQ(set("input_hdmi_streams", "{\"input_id\":\"0\",\"service_tag\":\"0\",\"pid\":\"5\"}"),
            error("JSON command is missing a mandatory argument ((null))"));
  EXPECT_EQ(set("input_hdmi_streams", "{\"input_id\":\"0\",\"stream_tag\":\"0\",\"pid\":\"5\"}"),
            error("JSON command is missing a mandatory argument ((null))"));
  EXPECT_EQ(set("input_hdmi_streams", "{\"input_id\":\"0\",\"service_tag\":\"0\",\"stream_tag\":\"3\"}"),
            error("JSON command argument out of bounds ((null))"));
  EXPECT_EQ(set("input_hdmi_streams", "{\"input_id\":\"0\",\"service_tag\":\"3\",\"stream_tag\":\"0\"}"),
            error("JSON command argument out of bounds ((null))"));
  EXPECT_EQ(stream_at(service_at(hdmi->tsout, 0), 0)->settings.pid, 256);
}

/* ---- "input_hdmi_status" ---- */

TEST_F(CmdJsonInputHdmi, TheStatusHasTheLockAndTheVideoFormat) {
  EXPECT_EQ(get("input_hdmi_status", "{\"input_id\":\"0\"}"),
            "{\"result\":{\"lock\":\"1\",\"video_format\":\"1080p50\",\"input_id\":\"0\"}}");
  EXPECT_EQ(calls, (std::vector<std::string>{"get status"}));
  hw_status = {0, 576, 'i', 25};
  EXPECT_EQ(get("input_hdmi_status", "{\"input_id\":\"0\"}"),
            "{\"result\":{\"lock\":\"0\",\"video_format\":\"576i25\",\"input_id\":\"0\"}}");
  EXPECT_EQ(hdmi->status.video_height, 576);
}

TEST_F(CmdJsonInputHdmi, WithoutAStatusOperationTheLastStatusIsReported) {
  hdmi->get.status = NULL;
  hdmi->status = {1, 720, 'p', 60};
  EXPECT_EQ(get("input_hdmi_status", "{\"input_id\":\"0\"}"),
            "{\"result\":{\"lock\":\"1\",\"video_format\":\"720p60\",\"input_id\":\"0\"}}");
}

TEST_F(CmdJsonInputHdmi, AFailingStatusReadIsUnsuccessful) {
  failing = "status";
  EXPECT_EQ(get("input_hdmi_status", "{\"input_id\":\"0\"}"),
            warning("JSON command unsuccessful (error: 13)"));
}

TEST_F(CmdJsonInputHdmi, AScanLetterThatIsNoTextIsAJsonError) {
  hw_status = {1, 1080, '\xff', 50};
  EXPECT_EQ(handle_quietly(request("get", "input_hdmi_status", "{\"input_id\":\"0\"}")),
            warning("JSON error"));
  EXPECT_EQ(errors, wrn("cmd_json_get_input_hdmi_status", "JSON error"));
}

TEST_F(CmdJsonInputHdmi, TheStatusCannotBeSet) {
  EXPECT_EQ(set("input_hdmi_status", "{\"input_id\":\"0\",\"lock\":\"1\"}"),
            error("JSON command has an unknown action (set)"));
}

/* ---- "debug_code" ---- */

TEST_F(CmdJsonInputHdmi, ADebugCodeGoesToTheEncoderCutToEightBits) {
  uint32_t crc = hdmi->settings_crc;
  EXPECT_EQ(
      handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"0x132\",\"state\":\"257\"}")),
      "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set hw_debug_code 50 1"}));
  EXPECT_EQ(errors, wrn("cmd_json_set_input_hdmi_hw_debug_code", "A"));
  EXPECT_EQ(hdmi->settings_crc, crc + 1);
}

TEST_F(CmdJsonInputHdmi, ADebugCodeWithoutStateIsAJsonError) {
  uint32_t crc = hdmi->settings_crc;
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"7\"}")),
            warning("JSON error"));
  EXPECT_EQ(errors, wrn("cmd_json_set_input_hdmi_hw_debug_code", "JSON error"));
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"state\":\"1\"}")),
            warning("JSON error"));
  EXPECT_EQ(errors, wrn("cmd_json_set_input_hdmi_hw_debug_code", "JSON error"));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(hdmi->settings_crc, crc);
}

TEST_F(CmdJsonInputHdmi, ADebugStateOrCodeMustBeNumericText) {
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"7\",\"state\":1}")),
            error("JSON command argument not found ((null))"));
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"7\",\"state\":\"1x\"}")),
            error("JSON command has an invalid argument ((null))"));
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"x\",\"state\":\"1\"}")),
            error("JSON command has an invalid argument ((null))"));
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(calls.empty());
  json_ptr array = parse("[]");
  EXPECT_EQ(cmd_json_set_input_hdmi_hw_debug_code(&hdmi->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_input_hdmi_hw_debug_code(&hdmi->hal_object, NULL), CMD_JSON_ARG_FRMT_ERR);
}

TEST_F(CmdJsonInputHdmi, ADebugCodeTheEncoderRefusesIsUnsuccessfulAndSpoilsNothing) {
  uint32_t crc = hdmi->settings_crc;
  failing = "hw_debug_code";
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"7\",\"state\":\"1\"}")),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(errors, "");
  EXPECT_EQ(hdmi->settings_crc, crc);
}

TEST_F(CmdJsonInputHdmi, ADebugCodeSetIsAppliedAtTheNextPollThoughNoSettingChanged) {
  poll();
  calls.clear();
  poll();
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"50\",\"state\":\"1\"}")),
            "{}");
  poll();
  EXPECT_EQ(calls, (std::vector<std::string>{"set hw_debug_code 50 1", "apply"}));
  EXPECT_EQ(hdmi->apply_required, 0);
  calls.clear();
  poll();
  EXPECT_TRUE(calls.empty());
}

TEST_F(CmdJsonInputHdmi, ADebugCodeGetAlwaysReportsCode50) {
  EXPECT_EQ(handle_quietly(request("set", "debug_code", "{\"id\":\"0\",\"code\":\"7\",\"state\":\"0\"}")),
            "{}");
  EXPECT_EQ(get("debug_code", "{\"id\":\"0\",\"code\":\"7\"}"),
            "{\"result\":{\"state\":\"1\",\"id\":\"0\"}}");
  hw_debug_enable = 0;
  EXPECT_EQ(get("debug_code", "{\"id\":\"0\"}"), "{\"result\":{\"state\":\"0\",\"id\":\"0\"}}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set hw_debug_code 7 0", "get hw_debug_code 50",
                                             "get hw_debug_code 50"}));
}

TEST_F(CmdJsonInputHdmi, ADebugCodeGetWithoutOperationReportsZero) {
  hdmi->get.hw_debug_code = NULL;
  EXPECT_EQ(get("debug_code", "{\"id\":\"0\"}"), "{\"result\":{\"state\":\"0\",\"id\":\"0\"}}");
}

TEST_F(CmdJsonInputHdmi, AFailingDebugCodeGetIsUnsuccessful) {
  failing = "hw_debug_code";
  EXPECT_EQ(get("debug_code", "{\"id\":\"0\"}"), warning("JSON command unsuccessful (error: 13)"));
}

TEST_F(CmdJsonInputHdmi, TheDebugCodeIsChosenById) {
  EXPECT_EQ(get("debug_code", "{\"input_id\":\"0\"}"),
            "{\"arrayedResult\":[{\"state\":\"1\",\"id\":\"0\"}]}");
  EXPECT_EQ(
      handle_quietly(request("set", "debug_code", "{\"input_id\":\"0\",\"code\":\"7\",\"state\":\"1\"}")),
      error("JSON command is missing a mandatory argument (id)"));
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

class CmdJsonInputHdmiSettings : public CmdJsonInputHdmi {
 protected:
  std::string root;

  void SetUp() override {
    CmdJsonInputHdmi::SetUp();
    char dir[] = "/tmp/tvhXXXXXX";
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
    CmdJsonInputHdmi::TearDown();
    if (!root.empty()) {
      EXPECT_EQ(system(("rm -rf " + root).c_str()), 0);
    }
  }
  std::string settings() { return read_file(root + "/data/settings.conf"); }
};

TEST_F(CmdJsonInputHdmiSettings, AnAcceptedSetStoresEveryInputWhole) {
  hal_input_hdmi_t* newest = add_input();
  add_service(hdmi->tsout, 100, "One", streams_of({256}, HAL_H264, 8000));
  newest->settings.video_gopsize = 5;
  EXPECT_EQ(set("input_hdmi_enc", "{\"input_id\":\"1\",\"video_gopsize\":\"25\"}"), "{}");
  EXPECT_EQ(
      settings(),
      "{\"action\":\"set\",\"object\":\"input_hdmi\",\"args\":{\"video_gopsize\":\"5\",\"ts\":{"
      "\"ts_tag\":\"1\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
      "\"network_name\":\"\",\"network_version\":\"0\",\"services\":[]},\"input_id\":\"0\"}}\n\r"
      "{\"action\":\"set\",\"object\":\"input_hdmi\",\"args\":{\"video_gopsize\":\"25\",\"ts\":{" +
          plain_ts +
          ",\"services\":[{\"service_tag\":\"0\",\"sid\":\"100\",\"type\":\"0\",\"service_name\":\"One\","
          "\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"0\",\"streams\":[{\"stream_tag\":\"0\","
          "\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"8000\"}]}]},\"input_id\":\"1\"}}\n\r");
}

TEST_F(CmdJsonInputHdmiSettings, ARestoreReplaysTheStoredInput) {
  hal_service_t* service = add_service(hdmi->tsout, 100, "One", streams_of({256}, HAL_H264, 8000));
  EXPECT_EQ(set("input_hdmi",
                "{\"input_id\":\"0\",\"video_gopsize\":\"30\",\"ts\":{\"tsid\":\"7\",\"services\":[{"
                "\"service_tag\":\"0\",\"enabled\":\"1\"}]}}"),
            "{}");
  hdmi->settings.video_gopsize = 0;
  hdmi->tsout->settings.tsid = 0;
  service->enabled = 0;
  calls.clear();
  EXPECT_EQ(handle_quietly("{\"action\":\"execute\",\"object\":\"restore_settings\",\"args\":{}}"), "{}");
  EXPECT_EQ(errors, "");
  EXPECT_EQ(calls, (std::vector<std::string>{"set video_gopsize 30"}));
  EXPECT_EQ(hdmi->settings.video_gopsize, 30);
  EXPECT_EQ(hdmi->tsout->settings.tsid, 7);
  EXPECT_EQ(service->enabled, 1);
}

}  // namespace
