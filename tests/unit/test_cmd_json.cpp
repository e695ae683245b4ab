#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "boxroot.h"
#include "cmd_json.h"
#include "dbg.h"
#include "hal_test_support.h"

namespace {

using hal_test::without_lines;
using hal_test::wrn;

struct free_deleter {
  void operator()(char* p) const { free(p); }
};

std::string handle(const std::string& request) {
  std::vector<char> text(request.begin(), request.end());
  text.push_back('\0');
  std::unique_ptr<char, free_deleter> reply(cmd_json_handler(text.data()));
  return reply ? std::string(reply.get()) : std::string("<null>");
}

std::string error(const std::string& description) {
  return "{\"errorCode\":5002,\"description\":\"" + description + "\"}";
}

std::string warning(const std::string& description) {
  return "{\"warningCode\":1103,\"description\":\"" + description + "\"}";
}

json_ptr parse(const char* text) {
  json_error_t e;
  return json_ptr(json_loads(text, 0, &e));
}

/* ---- numbers ---- */

struct u32_case {
  const char* text;
  cmd_json_err_t err;
  uint32_t value;
};

class StrargToU32 : public ::testing::TestWithParam<u32_case> {};

TEST_P(StrargToU32, ConvertsWithAutomaticBase) {
  const u32_case& c = GetParam();
  json_ptr arg(json_string(c.text));
  uint32_t value = 12345;
  EXPECT_EQ(cmd_json_strargtou32(&value, NULL, arg.get()), c.err) << c.text;
  EXPECT_EQ(value, c.value) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    Texts, StrargToU32,
    ::testing::Values(u32_case{"0", CMD_JSON_OK, 0}, u32_case{"474000", CMD_JSON_OK, 474000},
                      u32_case{"0x1", CMD_JSON_OK, 1}, u32_case{"0X1f", CMD_JSON_OK, 31},
                      u32_case{"010", CMD_JSON_OK, 8}, u32_case{"08", CMD_JSON_ARG_FRMT_ERR, 0},
                      u32_case{"12x", CMD_JSON_ARG_FRMT_ERR, 12}, u32_case{"", CMD_JSON_OK, 0},
                      u32_case{" 7", CMD_JSON_OK, 7}, u32_case{"7 ", CMD_JSON_ARG_FRMT_ERR, 7},
                      u32_case{"-1", CMD_JSON_OK, 0xFFFFFFFFu},
                      u32_case{"4294967295", CMD_JSON_OK, 0xFFFFFFFFu},
                      u32_case{"4294967296", CMD_JSON_OK, 0xFFFFFFFFu},
                      u32_case{"-4294967295", CMD_JSON_OK, 1u},
                      u32_case{"99999999999999999999999", CMD_JSON_OK, 0xFFFFFFFFu},
                      u32_case{"abc", CMD_JSON_ARG_FRMT_ERR, 0}));

struct i32_case {
  const char* text;
  cmd_json_err_t err;
  int32_t value;
};

class StrargToI32 : public ::testing::TestWithParam<i32_case> {};

TEST_P(StrargToI32, ConvertsWithAutomaticBase) {
  const i32_case& c = GetParam();
  json_ptr arg(json_string(c.text));
  int32_t value = 12345;
  EXPECT_EQ(cmd_json_strargtoi32(&value, NULL, arg.get()), c.err) << c.text;
  EXPECT_EQ(value, c.value) << c.text;
}

INSTANTIATE_TEST_SUITE_P(Texts, StrargToI32,
                         ::testing::Values(i32_case{"-20", CMD_JSON_OK, -20},
                                           i32_case{"-0x10", CMD_JSON_OK, -16},
                                           i32_case{"2147483647", CMD_JSON_OK, INT32_MAX},
                                           i32_case{"2147483648", CMD_JSON_OK, INT32_MAX},
                                           i32_case{"-2147483649", CMD_JSON_OK, INT32_MIN},
                                           i32_case{"-09", CMD_JSON_ARG_FRMT_ERR, 0}));

TEST(CmdJsonStrarg, ReadsTheNamedMemberOfAnObject) {
  json_ptr args = parse("{\"frequency\":\"474000\",\"n\":474000}");
  uint32_t value = 0;
  EXPECT_EQ(cmd_json_strargtou32(&value, "frequency", args.get()), CMD_JSON_OK);
  EXPECT_EQ(value, 474000u);
  /* A JSON number is not an argument. */
  EXPECT_EQ(cmd_json_strargtou32(&value, "n", args.get()), CMD_JSON_ARG_NOT_FOUND);
  EXPECT_EQ(cmd_json_strargtou32(&value, "missing", args.get()), CMD_JSON_ARG_NOT_FOUND);
  EXPECT_EQ(cmd_json_strargtou32(&value, NULL, args.get()), CMD_JSON_ARG_NOT_FOUND);
  EXPECT_EQ(cmd_json_strargtou32(&value, "x", NULL), CMD_JSON_ARG_NOT_FOUND);
}

TEST(CmdJson, TranslatesHalErrors) {
  EXPECT_EQ(cmd_json_translate_hal_err(HAL_OK), CMD_JSON_OK);
  for (hal_err_t err :
       {HAL_ERR, HAL_SETTING_OOB, HAL_I2C_ERR, HAL_MOD_TARN_ERR, HAL_TSMUX_ERR, HAL_QEL2IP_ERR}) {
    EXPECT_EQ(cmd_json_translate_hal_err(err), CMD_JSON_UNSUCCESSFUL);
  }
}

/* ---- walkers ---- */

std::vector<std::string> calls;

cmd_json_err_t record_set(hal_object_t*, json_t* value) {
  calls.push_back(std::string("set ") + cmd_json_s_arg + "=" + json_string_value(value));
  return CMD_JSON_OK;
}

cmd_json_err_t failing_set(hal_object_t*, json_t*) { return CMD_JSON_ARG_OOB; }

cmd_json_err_t text_get(hal_object_t*, json_t** value) {
  *value = json_string(cmd_json_s_arg);
  return CMD_JSON_OK;
}

cmd_json_err_t failing_get(hal_object_t*, json_t** value) {
  *value = json_string("dropped");
  return CMD_JSON_UNSUCCESSFUL;
}

const cmd_json_arg_t walker_args[] = {
    {"b", record_set, text_get, 0},
    {"a", record_set, NULL, 0},
    {"c", NULL, text_get, 0},
    {NULL, NULL, NULL, 0},
};

TEST(CmdJsonWalkers, SetFollowsTheTableAndIgnoresOtherKeys) {
  calls.clear();
  json_ptr args = parse("{\"a\":\"1\",\"zz\":\"9\",\"c\":\"3\",\"b\":\"2\"}");
  EXPECT_EQ(cmd_json_set_args(NULL, walker_args, args.get()), CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"set b=2", "set a=1"}));
}

TEST(CmdJsonWalkers, SetStopsAtTheFirstError) {
  const cmd_json_arg_t args_table[] = {
      {"x", failing_set, NULL, 0}, {"y", record_set, NULL, 0}, {NULL, NULL, NULL, 0}};
  calls.clear();
  json_ptr args = parse("{\"x\":\"1\",\"y\":\"2\"}");
  EXPECT_EQ(cmd_json_set_args(NULL, args_table, args.get()), CMD_JSON_ARG_OOB);
  EXPECT_STREQ(cmd_json_s_arg, "x");
  EXPECT_TRUE(calls.empty());
}

TEST(CmdJsonWalkers, SetRefusesAMissingMandatoryArgument) {
  const cmd_json_arg_t args_table[] = {{"m", record_set, NULL, 1}, {NULL, NULL, NULL, 0}};
  json_ptr args = parse("{}");
  EXPECT_EQ(cmd_json_set_args(NULL, args_table, args.get()), CMD_JSON_ARG_MANDATORY);
  EXPECT_STREQ(cmd_json_s_arg, "m");
}

TEST(CmdJsonWalkers, GetBuildsKeysInTableOrderSkippingRowsWithoutGet) {
  json_t* raw = NULL;
  EXPECT_EQ(cmd_json_get_args(NULL, walker_args, &raw), CMD_JSON_OK);
  json_ptr value(raw);
  std::unique_ptr<char, free_deleter> text(json_dumps(value.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
  EXPECT_STREQ(text.get(), "{\"b\":\"b\",\"c\":\"c\"}");
}

TEST(CmdJsonWalkers, GetReturnsAHandlerErrorAsItIs) {
  const cmd_json_arg_t args_table[] = {
      {"ok", NULL, text_get, 0}, {"bad", NULL, failing_get, 0}, {NULL, NULL, NULL, 0}};
  json_t* raw = NULL;
  EXPECT_EQ(cmd_json_get_args(NULL, args_table, &raw), CMD_JSON_UNSUCCESSFUL);
  json_decref(raw);
}

/* ---- error replies ---- */

struct jerror_case {
  cmd_json_err_t err;
  const char* reply;
};

/* Names a case by its code; GoogleTest would otherwise dump its bytes, padding included. */
void PrintTo(const jerror_case& c, std::ostream* os) { *os << "err " << static_cast<int>(c.err); }

class JError : public ::testing::TestWithParam<jerror_case> {};

TEST_P(JError, FormatsTheReply) {
  cmd_json_s_action = "act";
  cmd_json_s_object = "obj";
  cmd_json_s_arg = "arg";
  json_ptr value(cmd_json_jerror(GetParam().err));
  std::unique_ptr<char, free_deleter> text(json_dumps(value.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
  EXPECT_STREQ(text.get(), GetParam().reply);
  cmd_json_s_action = cmd_json_s_object = cmd_json_s_arg = NULL;
}

INSTANTIATE_TEST_SUITE_P(
    Codes, JError,
    ::testing::Values(
        jerror_case{CMD_JSON_ERR, "{\"warningCode\":1103,\"description\":\"JSON error\"}"},
        jerror_case{CMD_JSON_FRMT_ERR,
                    "{\"errorCode\":5002,\"description\":\"JSON command is invalid (JSON object)\"}"},
        jerror_case{
            CMD_JSON_ACT_FRMT_ERR,
            "{\"errorCode\":5002,\"description\":\"JSON command requires a valid action (JSON string)\"}"},
        jerror_case{CMD_JSON_ACT_UNKNOWN,
                    "{\"errorCode\":5002,\"description\":\"JSON command has an unknown action (act)\"}"},
        jerror_case{
            CMD_JSON_OBJ_FRMT_ERR,
            "{\"errorCode\":5002,\"description\":\"JSON command requires a valid object (JSON string)\"}"},
        jerror_case{CMD_JSON_OBJ_UNKNOWN,
                    "{\"errorCode\":5002,\"description\":\"JSON command has an unknown object (obj)\"}"},
        jerror_case{
            CMD_JSON_ARGS_FRMT_ERR,
            "{\"errorCode\":5002,\"description\":\"JSON command requires valid arguments (JSON object)\"}"},
        jerror_case{CMD_JSON_ARG_FRMT_ERR,
                    "{\"errorCode\":5002,\"description\":\"JSON command has an invalid argument (arg)\"}"},
        jerror_case{CMD_JSON_ARG_OOB,
                    "{\"errorCode\":5002,\"description\":\"JSON command argument out of bounds (arg)\"}"},
        jerror_case{CMD_JSON_ARG_NOT_FOUND,
                    "{\"errorCode\":5002,\"description\":\"JSON command argument not found (arg)\"}"},
        jerror_case{
            CMD_JSON_ARG_MANDATORY,
            "{\"errorCode\":5002,\"description\":\"JSON command is missing a mandatory argument (arg)\"}"},
        jerror_case{CMD_JSON_RPL_FRMT_ERR,
                    "{\"warningCode\":1103,\"description\":\"JSON command unsuccessful (error: 8)\"}"},
        jerror_case{CMD_JSON_UNSUCCESSFUL,
                    "{\"warningCode\":1103,\"description\":\"JSON command unsuccessful (error: 13)\"}"},
        jerror_case{CMD_JSON_FILE_ERR,
                    "{\"warningCode\":1103,\"description\":\"JSON command unsuccessful (error: 14)\"}"},
        jerror_case{static_cast<cmd_json_err_t>(99),
                    "{\"warningCode\":1103,\"description\":\"JSON command unsuccessful (error: 99)\"}"}));

TEST(CmdJsonJError, OkHasNoObjectAndANullNamePrintsAsNull) {
  EXPECT_EQ(cmd_json_jerror(CMD_JSON_OK), nullptr);
  cmd_json_s_arg = NULL;
  json_ptr value(cmd_json_jerror(CMD_JSON_ARG_OOB));
  EXPECT_STREQ(json_string_value(json_object_get(value.get(), "description")),
               "JSON command argument out of bounds ((null))");
}

/* ---- the object table ---- */

TEST(CmdJsonObjects, HasTheTwentyFourRowsInOrder) {
  const char* names[] = {"device_status",      "device",
                         "input_hdmi",         "input_hdmi_enc",
                         "input_hdmi_ts",      "input_hdmi_services",
                         "input_hdmi_streams", "input_hdmi_status",
                         "debug_code",         "output_calibration",
                         "output_rf",          "output_rf_mod",
                         "output_rf_ts",       "output_rf_services",
                         "output_rf_status",   "output_ip",
                         "output_ip_dst",      "output_ip_ts",
                         "output_ip_services", "output_ip_status",
                         "output_ip_ifconfig", "store_settings",
                         "restore_settings",   "reset"};
  for (int i = 0; i < CMD_JSON_OBJECT_COUNT; i++) {
    EXPECT_STREQ(cmd_json_objects[i].name, names[i]);
    EXPECT_EQ(cmd_json_object_by_name(names[i]), &cmd_json_objects[i]);
  }
  EXPECT_EQ(cmd_json_object_by_name("Device"), nullptr);
  EXPECT_EQ(cmd_json_objects[8].hal_type, HAL_INPUT_HDMI);
  EXPECT_STREQ(cmd_json_objects[8].id, "id");
  EXPECT_EQ(cmd_json_objects[20].hal_type, HAL_NONE);
  EXPECT_EQ(cmd_json_objects[20].id, nullptr);
}

/* ---- dispatch, against fake instances on the "output_rf" row ---- */

struct fake_output_t {
  hal_object_t hal_object;
  int number;
  int value;
};

void fake_delete(hal_object_t* object) { delete_hal_object(object); }

cmd_json_err_t fake_get(hal_object_t* object, json_t** value) {
  fake_output_t* out = reinterpret_cast<fake_output_t*>(object);
  *value = json_pack("{s:s}", "value", std::to_string(out->value).c_str());
  return CMD_JSON_OK;
}

cmd_json_err_t fake_get_array(hal_object_t* object, json_t** value) {
  fake_output_t* out = reinterpret_cast<fake_output_t*>(object);
  *value = json_pack("[{s:i},{s:i}]", "a", out->number, "b", out->number);
  return CMD_JSON_OK;
}

cmd_json_err_t fake_get_text(hal_object_t*, json_t** value) {
  *value = json_string("not an object");
  return CMD_JSON_OK;
}

cmd_json_err_t fake_set(hal_object_t* object, json_t* j_args) {
  fake_output_t* out = reinterpret_cast<fake_output_t*>(object);
  uint32_t value = 0;
  cmd_json_s_arg = "value";
  cmd_json_err_t err = cmd_json_strargtou32(&value, "value", j_args);
  if (err == CMD_JSON_OK) out->value = static_cast<int>(value);
  return err;
}

class CmdJsonDispatch : public ::testing::Test {
 protected:
  cmd_json_object_t saved;
  cmd_json_object_t* row = &cmd_json_objects[10];
  fake_output_t* outputs[2];
  std::string root;

  void SetUp() override {
    saved = *row;
    row->set = fake_set;
    row->get = fake_get;
    for (int n = 1; n >= 0; n--) {
      outputs[n] = reinterpret_cast<fake_output_t*>(hal_object_alloc(sizeof(fake_output_t)));
      outputs[n]->hal_object.type = HAL_OUTPUT_RF;
      outputs[n]->hal_object.delete_ = fake_delete;
      outputs[n]->number = n;
      outputs[n]->value = 10 + n;
      lnklist_push_node(&hal, &outputs[n]->hal_object.node);
    }
    flag_restoring = 1; /* no settings file here */
  }
  void TearDown() override {
    *row = saved;
    hal_cleanup();
    flag_restoring = 0;
  }
};

TEST_F(CmdJsonDispatch, ChecksComeInOrder) {
  EXPECT_EQ(handle(""), error("JSON command is invalid (JSON object)"));
  EXPECT_EQ(handle("[1]"), error("JSON command is invalid (JSON object)"));
  EXPECT_EQ(handle("{\"object\":\"x\"}"), error("JSON command requires a valid action (JSON string)"));
  EXPECT_EQ(handle("{\"action\":5,\"args\":{}}"),
            error("JSON command requires a valid action (JSON string)"));
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"device\"}"),
            error("JSON command requires valid arguments (JSON object)"));
  EXPECT_EQ(handle("{\"action\":\"get\",\"args\":{}}"),
            error("JSON command requires a valid object (JSON string)"));
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"nothing\",\"args\":{}}"),
            error("JSON command has an unknown object (nothing)"));
  EXPECT_EQ(handle("{\"action\":\"set\",\"object\":\"device_status\",\"args\":{}}"),
            error("JSON command has an unknown action (set)"));
  EXPECT_EQ(handle("{\"action\":\"GET\",\"object\":\"output_rf\",\"args\":{}}"),
            error("JSON command has an unknown action (GET)"));
}

TEST_F(CmdJsonDispatch, TextAfterTheRequestIsIgnored) {
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"1\"}} trailing"),
            "{\"result\":{\"value\":\"11\",\"output_id\":\"1\"}}");
}

TEST_F(CmdJsonDispatch, GetOfOneInstanceAddsItsIdLast) {
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"0x1\"}}"),
            "{\"result\":{\"value\":\"11\",\"output_id\":\"1\"}}");
}

TEST_F(CmdJsonDispatch, GetWithoutIdEnumeratesEveryInstance) {
  std::string all =
      "{\"arrayedResult\":[{\"value\":\"10\",\"output_id\":\"0\"},{\"value\":\"11\",\"output_id\":\"1\"}]}";
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{}}"), all);
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"7\"}}"), all);
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"08\"}}"), all);
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{\"output_id\":1}}"), all);
}

TEST_F(CmdJsonDispatch, GetIgnoresArrayedArgsAndNeedsArgsObject) {
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"arrayedArgs\":[{\"output_id\":\"1\"}]}"),
            error("JSON command requires valid arguments (JSON object)"));
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":\"1\"}"),
            error("JSON command requires valid arguments (JSON object)"));
}

TEST_F(CmdJsonDispatch, GetWithNoInstanceOfTheKindKeepsTheLookupError) {
  cmd_json_object_t saved_ip = cmd_json_objects[15];
  cmd_json_objects[15].get = fake_get;
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_ip\",\"args\":{}}"),
            error("JSON command is missing a mandatory argument (output_id)"));
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_ip\",\"args\":{\"output_id\":\"0\"}}"),
            error("JSON command argument out of bounds (output_id)"));
  cmd_json_objects[15] = saved_ip;
}

TEST_F(CmdJsonDispatch, ArrayResultsCarryTheIdInEveryElement) {
  row->get = fake_get_array;
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"1\"}}"),
            "{\"arrayedResult\":[{\"a\":1,\"output_id\":\"1\"},{\"b\":1,\"output_id\":\"1\"}]}");
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{}}"),
            "{\"arrayedResult\":[{\"a\":0,\"output_id\":\"0\"},{\"b\":0,\"output_id\":\"0\"},"
            "{\"a\":1,\"output_id\":\"1\"},{\"b\":1,\"output_id\":\"1\"}]}");
}

TEST_F(CmdJsonDispatch, AGetThatIsNeitherObjectNorArrayIsAWarning) {
  row->get = fake_get_text;
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"0\"}}"),
            warning("JSON command unsuccessful (error: 8)"));
}

TEST_F(CmdJsonDispatch, SetChangesTheNamedInstance) {
  EXPECT_EQ(
      handle("{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"1\",\"value\":\"99\"}}"),
      "{}");
  EXPECT_EQ(outputs[1]->value, 99);
  EXPECT_EQ(outputs[0]->value, 10);
}

TEST_F(CmdJsonDispatch, SetNeedsAValidId) {
  EXPECT_EQ(handle("{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"99\"}}"),
            error("JSON command is missing a mandatory argument (output_id)"));
  EXPECT_EQ(
      handle("{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"2\",\"value\":\"9\"}}"),
      error("JSON command argument out of bounds (output_id)"));
}

TEST_F(CmdJsonDispatch, ArrayedArgsApplyInOrderAndStopAtTheFirstError) {
  EXPECT_EQ(handle("{\"action\":\"set\",\"object\":\"output_rf\",\"arrayedArgs\":["
                   "{\"output_id\":\"0\",\"value\":\"1\"},{\"output_id\":\"1\",\"value\":\"bad\"},"
                   "{\"output_id\":\"0\",\"value\":\"3\"}]}"),
            error("JSON command has an invalid argument (value)"));
  EXPECT_EQ(outputs[0]->value, 1);
  EXPECT_EQ(outputs[1]->value, 11);
}

TEST_F(CmdJsonDispatch, ArgsAndArrayedArgsTogetherAreRefusedOnSet) {
  EXPECT_EQ(
      handle("{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"0\",\"value\":\"5\"},"
             "\"arrayedArgs\":[]}"),
      error("JSON command requires valid arguments (JSON object)"));
  EXPECT_EQ(outputs[0]->value, 10);
  EXPECT_EQ(handle("{\"action\":\"set\",\"object\":\"output_rf\",\"arrayedArgs\":{}}"),
            error("JSON command requires valid arguments (JSON object)"));
}

/* ---- settings file and reset, under a box root of the test's own ---- */

std::string read_file(const std::string& path) {
  std::string text;
  FILE* file = fopen(path.c_str(), "rb");
  if (file == NULL) return "<none>";
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), file)) > 0) text.append(buf, n);
  EXPECT_EQ(fclose(file), 0);
  return text;
}

void write_file(const std::string& path, const std::string& text, int mode = 0644) {
  FILE* file = fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr) << path;
  EXPECT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
  EXPECT_EQ(fclose(file), 0);
  chmod(path.c_str(), mode);
}

class CmdJsonSettings : public CmdJsonDispatch {
 protected:
  void SetUp() override {
    CmdJsonDispatch::SetUp();
    char dir[] = "/tmp/tvuXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    setenv("TAVID_ROOT", root.c_str(), 1);
    char probe[BOXROOT_PATH_LEN];
    if (boxroot_init() != 0 || std::string(boxroot_path(probe, sizeof(probe), "/x")) == "/x") {
      GTEST_SKIP() << "needs the host build's box root";
    }
    mkdir((root + "/data").c_str(), 0755);
    mkdir((root + "/sbin").c_str(), 0755);
    row->store = fake_get;
    flag_restoring = 0;
  }
  void TearDown() override {
    CmdJsonDispatch::TearDown();
    std::string command = "rm -rf " + root;
    if (!root.empty()) {
      EXPECT_EQ(system(command.c_str()), 0);
    }
  }
  std::string settings() { return read_file(root + "/data/settings.conf"); }
};

const char* const kStored =
    "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"10\",\"output_id\":\"0\"}}\n\r"
    "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"11\",\"output_id\":\"1\"}}\n\r";

TEST_F(CmdJsonSettings, StoreWithNothingToStoreWritesAnEmptyFile) {
  row->store = NULL;
  EXPECT_EQ(cmd_store_settings(NULL, NULL), CMD_JSON_OK);
  EXPECT_EQ(settings(), "");
}

TEST_F(CmdJsonSettings, StoreWritesOneSetRequestPerInstance) {
  EXPECT_EQ(handle("{\"action\":\"execute\",\"object\":\"store_settings\",\"args\":{}}"), "{}");
  EXPECT_EQ(settings(), kStored);
}

TEST_F(CmdJsonSettings, AnAcceptedSetRewritesTheFile) {
  EXPECT_EQ(
      handle("{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"0\",\"value\":\"7\"}}"),
      "{}");
  EXPECT_EQ(
      settings(),
      "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"7\",\"output_id\":\"0\"}}\n\r"
      "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"11\",\"output_id\":\"1\"}}\n\r");
}

TEST_F(CmdJsonSettings, AFailedStoreTurnsTheReplyIntoAWarningButKeepsTheChange) {
  ASSERT_EQ(rmdir((root + "/data").c_str()), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(
      handle("{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"output_id\":\"0\",\"value\":\"7\"}}"),
      warning("JSON command unsuccessful (error: 14)"));
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()),
            wrn("cmd_store_settings", "Could not open settings file for storing..."));
  EXPECT_EQ(outputs[0]->value, 7);
}

TEST_F(CmdJsonSettings, AFailingStoreHandlerLeavesNoFile) {
  write_file(root + "/data/settings.conf", "old");
  row->store = failing_get;
  EXPECT_EQ(cmd_store_settings(NULL, NULL), CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(settings(), "<none>");
}

TEST_F(CmdJsonSettings, RestoreReplaysRecordsUntilOneDoesNotParse) {
  const std::string text =
      "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"5\",\"output_id\":\"0\"}}\n\r"
      "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"6\",\"output_id\":\"1\"}}\n\r"
      "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"7\",\"outp\n\r";
  write_file(root + "/data/settings.conf", text);
  EXPECT_EQ(cmd_restore_settings(NULL, NULL), CMD_JSON_OK);
  EXPECT_EQ(outputs[0]->value, 5);
  EXPECT_EQ(outputs[1]->value, 6);
  EXPECT_EQ(flag_restoring, 0);
  /* Restoring does not rewrite the file it reads. */
  EXPECT_EQ(settings(), text);
}

TEST_F(CmdJsonSettings, StoreThenRestoreReproducesTheSettings) {
  ASSERT_EQ(cmd_store_settings(NULL, NULL), CMD_JSON_OK);
  outputs[0]->value = outputs[1]->value = 0;
  EXPECT_EQ(cmd_restore_settings(NULL, NULL), CMD_JSON_OK);
  EXPECT_EQ(outputs[0]->value, 10);
  EXPECT_EQ(outputs[1]->value, 11);
}

TEST_F(CmdJsonSettings, ARecordThatIsRefusedIsReportedAndTheRestoreGoesOn) {
  write_file(
      root + "/data/settings.conf",
      "{\"action\":\"set\",\"object\":\"device\",\"args\":{\"output_mode\":\"rf\",\"device_id\":\"0\"}}\n\r"
      "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"6\",\"output_id\":\"1\"}}\n\r");
  testing::internal::CaptureStderr();
  EXPECT_EQ(cmd_restore_settings(NULL, NULL), CMD_JSON_OK);
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()),
            wrn("cmd_restore_settings",
                "Could not restore: {\"action\":\"set\",\"object\":\"device\",\"args\":{\"output_mode\":\"rf\","
                "\"device_id\":\"0\"}}"));
  EXPECT_EQ(outputs[1]->value, 6);
}

TEST_F(CmdJsonSettings, RestoreWithoutAFileFails) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(cmd_restore_settings(NULL, NULL), CMD_JSON_FILE_ERR);
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()),
            wrn("cmd_restore_settings", "Could not open settings file for restoring..."));
  EXPECT_EQ(flag_restoring, 0);
}

TEST_F(CmdJsonSettings, ARestoreInsideTheSettingsFileIsRefused) {
  write_file(
      root + "/data/settings.conf",
      "{\"action\":\"execute\",\"object\":\"restore_settings\",\"args\":{}}\n\r"
      "{\"action\":\"set\",\"object\":\"output_rf\",\"args\":{\"value\":\"6\",\"output_id\":\"1\"}}\n\r");
  testing::internal::CaptureStderr();
  EXPECT_EQ(cmd_restore_settings(NULL, NULL), CMD_JSON_OK);
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()),
            wrn("cmd_restore_settings",
                "Could not restore: {\"action\":\"execute\",\"object\":\"restore_settings\",\"args\":{}}"));
  EXPECT_EQ(outputs[1]->value, 6);
}

TEST_F(CmdJsonSettings, ResetLevelsRunTheirCommandsUnderTheRoot) {
  write_file(root + "/sbin/reboot", "#!/bin/sh\necho reboot >> \"$(dirname \"$0\")/../reboot.log\"\n", 0755);
  write_file(root + "/data/settings.conf", "x");
  write_file(root + "/data/keep", "x");
  EXPECT_EQ(handle("{\"action\":\"execute\",\"object\":\"reset\",\"args\":{\"level\":\"2\"}}"), "{}");
  EXPECT_EQ(settings(), "<none>");
  EXPECT_EQ(read_file(root + "/data/keep"), "x");
  EXPECT_EQ(read_file(root + "/reboot.log"), "reboot\n");
  EXPECT_EQ(handle("{\"action\":\"execute\",\"object\":\"reset\",\"args\":{\"level\":\"3\"}}"), "{}");
  EXPECT_EQ(read_file(root + "/data/keep"), "<none>");
  EXPECT_EQ(read_file(root + "/reboot.log"), "reboot\nreboot\n");
}

TEST_F(CmdJsonSettings, ResetRefusesUnknownLevelsAndNumbers) {
  cmd_json_s_arg = "last";
  EXPECT_EQ(handle("{\"action\":\"execute\",\"object\":\"reset\",\"args\":{\"level\":\"4\"}}"),
            error("JSON command argument out of bounds (last)"));
  EXPECT_EQ(handle("{\"action\":\"execute\",\"object\":\"reset\",\"args\":{\"level\":2}}"),
            error("JSON command is missing a mandatory argument (last)"));
}

TEST_F(CmdJsonSettings, AFailingResetCommandStopsTheLevel) {
  write_file(root + "/sbin/reboot", "#!/bin/sh\nexit 3\n", 0755);
  EXPECT_EQ(handle("{\"action\":\"execute\",\"object\":\"reset\",\"args\":{\"level\":\"0\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
}

}  // namespace
