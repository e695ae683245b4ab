#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "cmd_json.h"
#include "cmd_json_ts.h"
#include "dbg.h"
#include "hal_test_support.h"
#include "hal_ts.h"

namespace {

using namespace hal_test;

struct free_deleter {
  void operator()(char* p) const { free(p); }
};

json_ptr parse(const std::string& text) {
  json_error_t e;
  return json_ptr(json_loads(text.c_str(), 0, &e));
}

std::string dump(json_t* value) {
  std::unique_ptr<char, free_deleter> text(json_dumps(value, JSON_COMPACT | JSON_PRESERVE_ORDER));
  return text ? std::string(text.get()) : std::string("<null>");
}

cmd_json_err_t put(cmd_json_put_t handler, hal_object_t* object, const std::string& args) {
  json_ptr value = parse(args);
  EXPECT_TRUE(value) << args;
  return handler(object, value.get());
}

struct taken_t {
  cmd_json_err_t err;
  std::string text; /* "<none>" when the handler left no value */
};

taken_t take(cmd_json_take_t handler, hal_object_t* object) {
  json_t* raw = NULL;
  cmd_json_err_t err = handler(object, &raw);
  json_ptr value(raw);
  return {err, value ? dump(value.get()) : std::string("<none>")};
}

std::string reply(cmd_json_err_t err) {
  json_ptr value(cmd_json_jerror(err));
  return dump(value.get());
}

/* ---- fake driver operations: each records what it was handed ---- */

template <typename T>
hal_err_t record_value(const char* op, T value) {
  return record(std::string(op) + " " + std::to_string(value), op);
}

hal_err_t record_text(const char* op, const char* text) { return record(std::string(op) + " " + text, op); }

void drive(hal_ts_t* ts) { fake_ts_identity(ts); }

void drive(hal_service_t* service) {
  service->set.sid = [](void*, uint16_t v) { return record_value("sid", v); };
  service->set.type = [](void*, uint8_t v) { return record_value("service_type", static_cast<unsigned>(v)); };
  service->set.service_name = [](void*, const char* v) { return record_text("service_name", v); };
  service->set.lcn = [](void*, uint16_t v) { return record_value("lcn", v); };
  service->set.pmt_pid = [](void*, uint16_t v) { return record_value("pmt_pid", v); };
  service->set.enabled = [](void*, uint32_t tag, uint8_t v) {
    calls.push_back("enabled of tag " + std::to_string(tag));
    return record_value("enabled", static_cast<unsigned>(v));
  };
}

void drive(hal_stream_t* stream) {
  stream->set.pid = [](void*, uint16_t v) { return record_value("pid", v); };
  stream->set.type = [](void*, hal_stream_type_t v) {
    return record_value("stream_type", static_cast<uint32_t>(v));
  };
  stream->set.bitrate = [](void*, uint16_t v) { return record_value("bitrate", v); };
}

class CmdJsonTs : public HalTest {
 protected:
  hal_ts_t* ts = NULL;

  void SetUp() override {
    HalTest::SetUp();
    cmd_json_s_arg = NULL;
    ts = new_hal_ts();
  }
  void TearDown() override {
    ts->hal_object.delete_(&ts->hal_object);
    cmd_json_s_arg = NULL;
    HalTest::TearDown();
  }
  hal_object_t* object() { return &ts->hal_object; }
};

/* ---- the tables ---- */

std::vector<std::string> keys(const cmd_json_arg_t* args) {
  std::vector<std::string> names;
  for (; args->name != NULL; args++) {
    names.emplace_back(args->name);
    EXPECT_EQ(args->mandatory_for_set, 0) << args->name;
    EXPECT_NE(args->get, nullptr) << args->name;
    /* Tags are read only. */
    EXPECT_EQ(args->set == nullptr, std::string(args->name).find("_tag") != std::string::npos) << args->name;
  }
  EXPECT_EQ(args->set, nullptr);
  EXPECT_EQ(args->get, nullptr);
  return names;
}

TEST(CmdJsonTsTables, ListTheKeysInOrder) {
  using names = std::vector<std::string>;
  const names ts = {"ts_tag",       "tsid",           "onid", "nid", "private_data_specifier",
                    "network_name", "network_version"};
  const names service = {"service_tag", "sid", "type", "service_name", "lcn", "pmt_pid", "enabled"};
  names ts_ext = ts;
  ts_ext.push_back("services");
  names service_ext = service;
  service_ext.push_back("streams");
  EXPECT_EQ(keys(cmd_json_ts_args), ts);
  EXPECT_EQ(keys(cmd_json_ts_ext_args), ts_ext);
  EXPECT_EQ(keys(cmd_json_service_args), service);
  EXPECT_EQ(keys(cmd_json_service_ext_args), service_ext);
  EXPECT_EQ(keys(cmd_json_stream_args), (names{"stream_tag", "pid", "type", "bitrate"}));
}

/* ---- numbers: automatic base, cut to the field's width ---- */

enum target_t { TARGET_TS, TARGET_SERVICE, TARGET_STREAM };

struct number_case {
  target_t target;
  const char* key;
  const char* text;
  const char* stored; /* as a get returns it */
};

std::ostream& operator<<(std::ostream& os, const number_case& c) {
  return os << c.key << "=\"" << c.text << "\"";
}

class CmdJsonTsNumbers : public CmdJsonTs, public ::testing::WithParamInterface<number_case> {
 protected:
  /* The arguments addressing the target, with the key under test. */
  static std::string args(const number_case& c) {
    std::string prefix = c.target == TARGET_TS        ? "{"
                         : c.target == TARGET_SERVICE ? "{\"service_tag\":\"0\","
                                                      : "{\"service_tag\":\"0\",\"stream_tag\":\"0\",";
    return prefix + "\"" + c.key + "\":\"" + c.text + "\"}";
  }
  static cmd_json_put_t setter(target_t target) {
    return target == TARGET_TS        ? cmd_json_set_ts
           : target == TARGET_SERVICE ? cmd_json_ts_set_service
                                      : cmd_json_ts_set_stream;
  }
  /* The key's value as a get of the target returns it. */
  std::string stored(const number_case& c) {
    taken_t got = c.target == TARGET_TS        ? take(cmd_json_get_ts, object())
                  : c.target == TARGET_SERVICE ? take(cmd_json_ts_get_services, object())
                                               : take(cmd_json_ts_get_streams, object());
    EXPECT_EQ(got.err, CMD_JSON_OK);
    json_ptr value = parse(got.text);
    json_t* record = json_is_array(value.get()) ? json_array_get(value.get(), 0) : value.get();
    const char* text = json_string_value(json_object_get(record, c.key));
    return text != NULL ? text : "<missing>";
  }
};

TEST_P(CmdJsonTsNumbers, StoresTheLowBitsOfTheField) {
  const number_case& c = GetParam();
  hal_service_new_stream(hal_ts_new_service(ts));
  EXPECT_EQ(put(setter(c.target), object(), args(c)), CMD_JSON_OK);
  EXPECT_EQ(stored(c), c.stored);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, CmdJsonTsNumbers,
    ::testing::Values(
        number_case{TARGET_TS, "tsid", "0x1F", "31"}, number_case{TARGET_TS, "tsid", "017", "15"},
        number_case{TARGET_TS, "tsid", "", "0"}, number_case{TARGET_TS, "tsid", "70000", "4464"},
        number_case{TARGET_TS, "tsid", "65535", "65535"}, number_case{TARGET_TS, "onid", "0x12345", "9029"},
        number_case{TARGET_TS, "nid", "65537", "1"},
        number_case{TARGET_TS, "private_data_specifier", "0xFFFFFFFF", "4294967295"},
        number_case{TARGET_TS, "private_data_specifier", "0x12345678", "305419896"},
        number_case{TARGET_TS, "network_version", "257", "1"},
        number_case{TARGET_TS, "network_version", "255", "255"},
        number_case{TARGET_SERVICE, "sid", "0x10001", "1"},
        number_case{TARGET_SERVICE, "type", "0x1234", "52"}, number_case{TARGET_SERVICE, "type", "300", "44"},
        number_case{TARGET_SERVICE, "lcn", "65538", "2"},
        number_case{TARGET_SERVICE, "pmt_pid", "65536", "0"},
        number_case{TARGET_SERVICE, "pmt_pid", "0x1000", "4096"},
        number_case{TARGET_SERVICE, "enabled", "0x101", "1"},
        number_case{TARGET_SERVICE, "enabled", "256", "0"},
        number_case{TARGET_STREAM, "pid", "0x10100", "256"}, number_case{TARGET_STREAM, "type", "27", "27"},
        number_case{TARGET_STREAM, "type", "65563", "65563"},
        number_case{TARGET_STREAM, "type", "4294967295", "4294967295"},
        number_case{TARGET_STREAM, "bitrate", "73536", "8000"}));

TEST_F(CmdJsonTs, TheDriverIsHandedTheCutValue) {
  drive(ts);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"tsid\":\"70000\",\"network_version\":\"257\"}"), CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"tsid 4464", "network_version 1"}));
  EXPECT_EQ(ts->settings.tsid, 4464);
  EXPECT_EQ(ts->settings.network_version, 1);
}

TEST_F(CmdJsonTs, ServiceTypeIsCutToEightBitsAndStreamTypePassesThirtyTwo) {
  hal_service_t* service = hal_ts_new_service(ts);
  hal_stream_t* stream = hal_service_new_stream(service);
  drive(service);
  drive(stream);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"service_tag\":\"0\",\"type\":\"0x1234\"}"),
            CMD_JSON_OK);
  EXPECT_EQ(put(cmd_json_ts_set_stream, object(),
                "{\"service_tag\":\"0\",\"stream_tag\":\"0\",\"type\":\"0x1001B\"}"),
            CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"service_type 52", "stream_type 65563"}));
  EXPECT_EQ(service->settings.type, 0x34);
  EXPECT_EQ(static_cast<uint32_t>(stream->settings.type), 0x1001Bu);
}

TEST_F(CmdJsonTs, EnabledGoesToTheDriverWithTheServiceTag) {
  hal_ts_new_service(ts);
  hal_service_t* service = hal_ts_new_service(ts);
  drive(service);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"service_tag\":\"1\",\"enabled\":\"0x101\"}"),
            CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"enabled of tag 1", "enabled 1"}));
  EXPECT_EQ(service->enabled, 1);
}

TEST_F(CmdJsonTs, AJsonNumberIsNotFound) {
  ts->settings.tsid = 9;
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"tsid\":5}"), CMD_JSON_ARG_NOT_FOUND);
  EXPECT_EQ(ts->settings.tsid, 9);
  EXPECT_EQ(reply(CMD_JSON_ARG_NOT_FOUND),
            "{\"errorCode\":5002,\"description\":\"JSON command argument not found (tsid)\"}");
}

TEST_F(CmdJsonTs, TrailingCharactersAreAnInvalidArgument) {
  ts->settings.tsid = 9;
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"tsid\":\"12a\"}"), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(ts->settings.tsid, 9);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"onid\":\"08\"}"), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(reply(CMD_JSON_ARG_FRMT_ERR),
            "{\"errorCode\":5002,\"description\":\"JSON command has an invalid argument (onid)\"}");
}

/* ---- texts ---- */

TEST_F(CmdJsonTs, TextsAreStoredAndReturned) {
  hal_ts_new_service(ts);
  drive(ts);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"network_name\":\"Alpha Net\"}"), CMD_JSON_OK);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"service_tag\":\"0\",\"service_name\":\"One\"}"),
            CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"network_name Alpha Net"}));
  EXPECT_STREQ(ts->settings.network_name, "Alpha Net");
  hal_service_t* service = hal_ts_find_service_by_tag(ts, 0);
  EXPECT_STREQ(service->settings.service_name, "One");
}

TEST_F(CmdJsonTs, ATextThatIsNotAStringIsAnInvalidArgument) {
  hal_ts_new_service(ts);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"network_name\":5}"), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_STREQ(cmd_json_s_arg, "network_name");
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"service_tag\":\"0\",\"service_name\":null}"),
            CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"service_tag\":\"0\",\"service_name\":[\"x\"]}"),
            CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(reply(CMD_JSON_ARG_FRMT_ERR),
            "{\"errorCode\":5002,\"description\":\"JSON command has an invalid argument (service_name)\"}");
}

TEST_F(CmdJsonTs, ALongNameIsCutTo63Characters) {
  std::string name(100, 'n');
  for (size_t i = 0; i < name.size(); i++) name[i] = static_cast<char>('a' + i % 26);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"network_name\":\"" + name + "\"}"), CMD_JSON_OK);
  taken_t got = take(cmd_json_get_ts, object());
  EXPECT_EQ(got.err, CMD_JSON_OK);
  json_ptr value = parse(got.text);
  EXPECT_EQ(json_string_value(json_object_get(value.get(), "network_name")), name.substr(0, 63));
}

/* ---- failing HAL ---- */

TEST_F(CmdJsonTs, AFailingSetterIsUnsuccessfulAndKeepsWhatCameBefore) {
  drive(ts);
  ts->settings.onid = 20;
  failing = "onid";
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"nid\":\"3\",\"onid\":\"2\",\"tsid\":\"1\"}"),
            CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(calls, (std::vector<std::string>{"tsid 1", "onid 2"}));
  EXPECT_EQ(ts->settings.tsid, 1);
  EXPECT_EQ(ts->settings.onid, 20);
  EXPECT_EQ(ts->settings.nid, 0);
  EXPECT_STREQ(cmd_json_s_arg, "onid");
  EXPECT_EQ(reply(CMD_JSON_UNSUCCESSFUL),
            "{\"warningCode\":1103,\"description\":\"JSON command unsuccessful (error: 13)\"}");
}

TEST_F(CmdJsonTs, AnOutOfBoundsAnswerOfTheHalIsUnsuccessfulToo) {
  ts->set.tsid = [](void*, uint16_t) { return HAL_SETTING_OOB; };
  ts->set.network_name = [](void*, const char*) { return HAL_MOD_TARN_ERR; };
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"tsid\":\"1\"}"), CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"network_name\":\"x\"}"), CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(ts->settings.tsid, 0);
  EXPECT_STREQ(ts->settings.network_name, "");
}

TEST_F(CmdJsonTs, AFailingGetterIsUnsuccessful) {
  ts->get.nid = [](void*, uint16_t*) { return HAL_I2C_ERR; };
  EXPECT_EQ(take(cmd_json_get_ts, object()).err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_STREQ(cmd_json_s_arg, "nid");
  ts->get.nid = NULL;
  ts->get.network_name = [](void*, char*, size_t) { return HAL_ERR; };
  EXPECT_EQ(take(cmd_json_get_ts, object()).err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_STREQ(cmd_json_s_arg, "network_name");
}

TEST_F(CmdJsonTs, AFailingGetterDeepInTheTreeFailsTheWholeGet) {
  hal_stream_t* stream = hal_service_new_stream(hal_ts_new_service(ts));
  stream->get.bitrate = [](void*, uint16_t*) { return HAL_ERR; };
  taken_t ext = take(cmd_json_get_ts_ext, object());
  EXPECT_EQ(ext.err, CMD_JSON_UNSUCCESSFUL);
  taken_t streams = take(cmd_json_ts_get_streams, object());
  EXPECT_EQ(streams.err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(streams.text, "<none>");
  EXPECT_EQ(take(cmd_json_ts_get_services, object()).err, CMD_JSON_OK);
}

TEST_F(CmdJsonTs, TheDriverRefreshesWhatAGetReturns) {
  ts->get.tsid = [](void*, uint16_t* tsid) {
    *tsid = 77;
    return HAL_OK;
  };
  ts->get.network_name = [](void*, char* text, size_t size) {
    snprintf(text, size, "%s", "From driver");
    return HAL_OK;
  };
  taken_t got = take(cmd_json_get_ts, object());
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text,
            "{\"ts_tag\":\"0\",\"tsid\":\"77\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
            "\"network_name\":\"From driver\",\"network_version\":\"0\"}");
}

/* A text that is not UTF-8 (a corrupted module's) is answered with U+FFFD for each invalid byte. */
TEST_F(CmdJsonTs, ANameThatIsNotUtf8IsAnsweredWithReplacementCharacters) {
  ts->get.network_name = [](void*, char* text, size_t size) {
    snprintf(text, size, "%s",
             "N\xff"
             "e\xc3");
    return HAL_OK;
  };
  testing::internal::CaptureStderr();
  taken_t got = take(cmd_json_get_ts, object());
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text,
            "{\"ts_tag\":\"0\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
            "\"network_name\":\"N\xEF\xBF\xBD"
            "e\xEF\xBF\xBD\",\"network_version\":\"0\"}");
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()), "");
}

/* 62 ASCII characters and a two-byte character: the 63-byte bound would split the character, so
 * the whole character is left out. */
TEST_F(CmdJsonTs, AServiceNameIsCutToItsBufferBetweenCharacters) {
  ts->settings.network_name[0] = 'N';
  hal_service_t* service = hal_ts_new_service(ts);
  std::string name = std::string(62, 's') + "\xc3\xa9";
  EXPECT_EQ(
      put(cmd_json_ts_set_service, object(), "{\"service_tag\":\"0\",\"service_name\":\"" + name + "\"}"),
      CMD_JSON_OK);
  EXPECT_EQ(std::string(service->settings.service_name), std::string(62, 's'));
  taken_t got = take(cmd_json_get_ts_ext, object());
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_NE(got.text.find("\"service_name\":\"" + std::string(62, 's') + "\""), std::string::npos)
      << got.text;
}

/* ---- tags ---- */

TEST_F(CmdJsonTs, ATagInASetIsIgnored) {
  hal_ts_t* second = new_hal_ts();
  drive(second);
  EXPECT_EQ(put(cmd_json_set_ts_ext, &second->hal_object, "{\"ts_tag\":\"0\",\"tsid\":\"5\"}"), CMD_JSON_OK);
  EXPECT_EQ(second->tag, 1u);
  EXPECT_EQ(calls, (std::vector<std::string>{"tsid 5"}));
  EXPECT_EQ(take(cmd_json_get_ts, &second->hal_object).text,
            "{\"ts_tag\":\"1\",\"tsid\":\"5\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
            "\"network_name\":\"\",\"network_version\":\"0\"}");
  second->hal_object.delete_(&second->hal_object);
}

TEST_F(CmdJsonTs, KeysApplyInTableOrderNotRequestOrder) {
  drive(ts);
  EXPECT_EQ(put(cmd_json_set_ts, object(),
                "{\"network_version\":\"6\",\"network_name\":\"N\",\"private_data_specifier\":\"4\","
                "\"nid\":\"3\",\"onid\":\"2\",\"tsid\":\"1\",\"other\":\"9\"}"),
            CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"tsid 1", "onid 2", "nid 3", "private_data_specifier 4",
                                             "network_name N", "network_version 6"}));
}

/* ---- whole transport streams ---- */

/* Service tag 0 with stream tags 0 and 1, all values set through the extended table. */
const char* const full_set =
    "{\"tsid\":\"1\",\"onid\":\"2\",\"nid\":\"3\",\"private_data_specifier\":\"4\",\"network_name\":\"Net\","
    "\"network_version\":\"5\",\"services\":[{\"service_tag\":\"0\",\"sid\":\"100\",\"type\":\"1\","
    "\"service_name\":\"One\",\"lcn\":\"7\",\"pmt_pid\":\"0x1000\",\"enabled\":\"1\",\"streams\":["
    "{\"stream_tag\":\"0\",\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"8000\"},"
    "{\"stream_tag\":\"1\",\"pid\":\"257\",\"type\":\"15\",\"bitrate\":\"192\"}]}]}";

TEST_F(CmdJsonTs, AnExtendedGetReturnsTheWholeTree) {
  hal_service_t* service = hal_ts_new_service(ts);
  hal_service_new_stream(service);
  hal_service_new_stream(service);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), full_set), CMD_JSON_OK);
  taken_t got = take(cmd_json_get_ts_ext, object());
  EXPECT_EQ(got.err, CMD_JSON_OK);
  /* Streams come head to tail: the newest first. */
  EXPECT_EQ(
      got.text,
      "{\"ts_tag\":\"0\",\"tsid\":\"1\",\"onid\":\"2\",\"nid\":\"3\",\"private_data_specifier\":\"4\","
      "\"network_name\":\"Net\",\"network_version\":\"5\",\"services\":[{\"service_tag\":\"0\","
      "\"sid\":\"100\",\"type\":\"1\",\"service_name\":\"One\",\"lcn\":\"7\",\"pmt_pid\":\"4096\","
      "\"enabled\":\"1\",\"streams\":[{\"stream_tag\":\"1\",\"pid\":\"257\",\"type\":\"15\","
      "\"bitrate\":\"192\"},{\"stream_tag\":\"0\",\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"8000\"}]}]}");
}

TEST_F(CmdJsonTs, APlainGetHasNoServices) {
  hal_ts_new_service(ts);
  ts->settings.tsid = 1;
  EXPECT_EQ(take(cmd_json_get_ts, object()).text,
            "{\"ts_tag\":\"0\",\"tsid\":\"1\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
            "\"network_name\":\"\",\"network_version\":\"0\"}");
}

TEST_F(CmdJsonTs, APlainSetIgnoresServices) {
  hal_service_t* service = hal_ts_new_service(ts);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"services\":[{\"service_tag\":\"0\",\"sid\":\"9\"}]}"),
            CMD_JSON_OK);
  EXPECT_EQ(put(cmd_json_set_ts, object(), "{\"services\":{}}"), CMD_JSON_OK);
  EXPECT_EQ(service->settings.sid, 0);
}

TEST_F(CmdJsonTs, ServicesWithoutStreamsHaveAnEmptyStreamsArray) {
  hal_ts_new_service(ts);
  hal_ts_new_service(ts)->settings.sid = 2;
  EXPECT_EQ(take(cmd_json_get_ts_ext, object()).text,
            "{\"ts_tag\":\"0\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
            "\"network_name\":\"\",\"network_version\":\"0\",\"services\":["
            "{\"service_tag\":\"1\",\"sid\":\"2\",\"type\":\"0\",\"service_name\":\"\",\"lcn\":\"0\","
            "\"pmt_pid\":\"0\",\"enabled\":\"0\",\"streams\":[]},"
            "{\"service_tag\":\"0\",\"sid\":\"0\",\"type\":\"0\",\"service_name\":\"\",\"lcn\":\"0\","
            "\"pmt_pid\":\"0\",\"enabled\":\"0\",\"streams\":[]}]}");
}

TEST_F(CmdJsonTs, ATsWithoutServicesHasAnEmptyServicesArray) {
  EXPECT_EQ(take(cmd_json_get_ts_ext, object()).text,
            "{\"ts_tag\":\"0\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\","
            "\"network_name\":\"\",\"network_version\":\"0\",\"services\":[]}");
  taken_t services = take(cmd_json_ts_get_services, object());
  EXPECT_EQ(services.err, CMD_JSON_OK);
  EXPECT_EQ(services.text, "[]");
  taken_t streams = take(cmd_json_ts_get_streams, object());
  EXPECT_EQ(streams.err, CMD_JSON_OK);
  EXPECT_EQ(streams.text, "[]");
}

/* ---- arrays of services and streams ---- */

TEST_F(CmdJsonTs, AnEmptyServicesArrayChangesNothing) {
  hal_service_t* service = hal_ts_new_service(ts);
  drive(service);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":[]}"), CMD_JSON_OK);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(ts->service_list.node_count, 1u);
  EXPECT_EQ(take(cmd_json_ts_get_services, object()).text,
            "[{\"service_tag\":\"0\",\"sid\":\"0\",\"type\":\"0\",\"service_name\":\"\",\"lcn\":\"0\","
            "\"pmt_pid\":\"0\",\"enabled\":\"0\"}]");
}

TEST_F(CmdJsonTs, ServicesOrStreamsThatAreNotAnArrayAreInvalid) {
  hal_ts_new_service(ts);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":{}}"), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_STREQ(cmd_json_s_arg, "services");
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":\"0\"}"), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":[{\"service_tag\":\"0\",\"streams\":{}}]}"),
            CMD_JSON_ARG_FRMT_ERR);
  EXPECT_STREQ(cmd_json_s_arg, "streams");
  EXPECT_EQ(reply(CMD_JSON_ARG_FRMT_ERR),
            "{\"errorCode\":5002,\"description\":\"JSON command has an invalid argument (streams)\"}");
}

TEST_F(CmdJsonTs, AnElementWithoutAUsableTagIsMissingAMandatoryArgument) {
  hal_service_t* service = hal_ts_new_service(ts);
  drive(service);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":[{\"sid\":\"5\"}]}"), CMD_JSON_ARG_MANDATORY);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":[{\"service_tag\":0,\"sid\":\"5\"}]}"),
            CMD_JSON_ARG_MANDATORY);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":[{\"service_tag\":\"0z\",\"sid\":\"5\"}]}"),
            CMD_JSON_ARG_MANDATORY);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(service->settings.sid, 0);
  /* The handler records no name of its own: the reply quotes the array's key. */
  EXPECT_STREQ(cmd_json_s_arg, "services");
}

TEST_F(CmdJsonTs, ElementsApplyInOrderUntilATagNamesNoService) {
  hal_service_t* service = hal_ts_new_service(ts);
  drive(service);
  EXPECT_EQ(
      put(cmd_json_set_ts_ext, object(),
          "{\"services\":[{\"service_tag\":\"0\",\"sid\":\"5\"},{\"service_tag\":\"99\",\"sid\":\"6\"}]}"),
      CMD_JSON_ARG_OOB);
  EXPECT_EQ(calls, (std::vector<std::string>{"sid 5"}));
  EXPECT_EQ(service->settings.sid, 5);
  /* The name last recorded is the final key walked for the element before. */
  EXPECT_EQ(reply(CMD_JSON_ARG_OOB),
            "{\"errorCode\":5002,\"description\":\"JSON command argument out of bounds (streams)\"}");
}

TEST_F(CmdJsonTs, NothingIsRolledBackWhenALaterElementFails) {
  hal_service_t* first = hal_ts_new_service(ts);
  hal_service_t* second = hal_ts_new_service(ts);
  drive(first);
  drive(second);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(),
                "{\"tsid\":\"9\",\"services\":[{\"service_tag\":\"0\",\"lcn\":\"1\"},"
                "{\"service_tag\":\"1\",\"sid\":\"2\",\"lcn\":\"3x\",\"pmt_pid\":\"4\"}]}"),
            CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(calls, (std::vector<std::string>{"lcn 1", "sid 2"}));
  EXPECT_EQ(ts->settings.tsid, 9);
  EXPECT_EQ(first->settings.lcn, 1);
  EXPECT_EQ(second->settings.sid, 2);
  EXPECT_EQ(second->settings.lcn, 0);
  EXPECT_EQ(second->settings.pmt_pid, 0);
  EXPECT_STREQ(cmd_json_s_arg, "lcn");
}

TEST_F(CmdJsonTs, TheSameTagTwiceIsAppliedTwiceInOrder) {
  hal_service_t* service = hal_ts_new_service(ts);
  drive(service);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(),
                "{\"services\":[{\"service_tag\":\"0\",\"sid\":\"1\",\"lcn\":\"10\"},"
                "{\"service_tag\":\"0\",\"sid\":\"2\"}]}"),
            CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"sid 1", "lcn 10", "sid 2"}));
  EXPECT_EQ(service->settings.sid, 2);
  EXPECT_EQ(service->settings.lcn, 10);
  EXPECT_EQ(ts->service_list.node_count, 1u);
}

TEST_F(CmdJsonTs, StreamsArraysFollowTheSameRulesOneLevelDown) {
  hal_service_t* service = hal_ts_new_service(ts);
  hal_stream_t* first = hal_service_new_stream(service);
  hal_stream_t* second = hal_service_new_stream(service);
  drive(first);
  drive(second);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(),
                "{\"services\":[{\"service_tag\":\"0\",\"streams\":[{\"stream_tag\":\"1\",\"pid\":\"0x100\"},"
                "{\"stream_tag\":\"0\",\"bitrate\":\"128\"},{\"pid\":\"7\"}]}]}"),
            CMD_JSON_ARG_MANDATORY);
  EXPECT_EQ(calls, (std::vector<std::string>{"pid 256", "bitrate 128"}));
  EXPECT_EQ(second->settings.pid, 256);
  EXPECT_EQ(first->settings.bitrate_kbps, 128);
  EXPECT_EQ(
      put(cmd_json_set_ts_ext, object(),
          "{\"services\":[{\"service_tag\":\"0\",\"streams\":[{\"stream_tag\":\"2\",\"pid\":\"9\"}]}]}"),
      CMD_JSON_ARG_OOB);
  EXPECT_EQ(put(cmd_json_set_ts_ext, object(), "{\"services\":[{\"service_tag\":\"0\",\"streams\":[]}]}"),
            CMD_JSON_OK);
  EXPECT_EQ(service->stream_list.node_count, 2u);
}

/* ---- one service, one stream ---- */

TEST_F(CmdJsonTs, SetServiceAddressesTheServiceByItsTag) {
  hal_service_t* first = hal_ts_new_service(ts);
  hal_service_t* second = hal_ts_new_service(ts);
  hal_stream_t* stream = hal_service_new_stream(second);
  drive(first);
  drive(second);
  drive(stream);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(),
                "{\"service_tag\":\"1\",\"sid\":\"0x10\",\"service_name\":\"Two\",\"pmt_pid\":\"32\","
                "\"streams\":[{\"stream_tag\":\"0\",\"pid\":\"5\"}]}"),
            CMD_JSON_OK);
  /* The plain table has no "streams": the stream stays as it was. */
  EXPECT_EQ(calls, (std::vector<std::string>{"sid 16", "service_name Two", "pmt_pid 32"}));
  EXPECT_EQ(second->settings.sid, 16);
  EXPECT_EQ(first->settings.sid, 0);
  EXPECT_EQ(stream->settings.pid, 0);
}

TEST_F(CmdJsonTs, SetServiceNeedsATagThatNamesAService) {
  hal_ts_new_service(ts);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"sid\":\"1\"}"), CMD_JSON_ARG_MANDATORY);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"service_tag\":0}"), CMD_JSON_ARG_MANDATORY);
  EXPECT_EQ(put(cmd_json_ts_set_service, object(), "{\"service_tag\":\"1\",\"sid\":\"1\"}"),
            CMD_JSON_ARG_OOB);
  EXPECT_EQ(hal_ts_find_service_by_tag(ts, 0)->settings.sid, 0);
}

TEST_F(CmdJsonTs, SetStreamNeedsBothTagsBeforeLookingEitherUp) {
  hal_service_t* service = hal_ts_new_service(ts);
  hal_service_new_stream(service);
  EXPECT_EQ(put(cmd_json_ts_set_stream, object(), "{\"stream_tag\":\"0\",\"pid\":\"1\"}"),
            CMD_JSON_ARG_MANDATORY);
  EXPECT_EQ(put(cmd_json_ts_set_stream, object(), "{\"service_tag\":\"5\",\"pid\":\"1\"}"),
            CMD_JSON_ARG_MANDATORY);
  EXPECT_EQ(put(cmd_json_ts_set_stream, object(), "{\"service_tag\":\"5\",\"stream_tag\":\"0\"}"),
            CMD_JSON_ARG_OOB);
  EXPECT_EQ(put(cmd_json_ts_set_stream, object(), "{\"service_tag\":\"0\",\"stream_tag\":\"5\"}"),
            CMD_JSON_ARG_OOB);
  EXPECT_EQ(reply(CMD_JSON_ARG_MANDATORY),
            "{\"errorCode\":5002,\"description\":\"JSON command is missing a mandatory argument ((null))\"}");
}

/* Mirrors share their source's tag, so a stream tag is unique only within its service. */
TEST_F(CmdJsonTs, SetStreamFindsTheStreamWithinItsService) {
  hal_service_t* first = hal_ts_new_service(ts);
  hal_service_t* second = hal_ts_new_service(ts);
  hal_stream_t* in_first = hal_service_new_stream(first);
  hal_stream_t* in_second = hal_service_new_stream(second);
  in_second->tag = in_first->tag;
  drive(in_first);
  drive(in_second);
  EXPECT_EQ(put(cmd_json_ts_set_stream, object(),
                "{\"service_tag\":\"1\",\"stream_tag\":\"0\",\"pid\":\"0x1FF\",\"type\":\"4\",\"bitrate\":"
                "\"1500\"}"),
            CMD_JSON_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"pid 511", "stream_type 4", "bitrate 1500"}));
  EXPECT_EQ(in_second->settings.pid, 511);
  EXPECT_EQ(in_second->settings.type, HAL_MPEG2);
  EXPECT_EQ(in_first->settings.pid, 0);
}

/* ---- lists ---- */

TEST_F(CmdJsonTs, ServicesAreListedHeadToTailWithoutStreams) {
  hal_service_t* first = hal_ts_new_service(ts);
  hal_service_t* second = hal_ts_new_service(ts);
  hal_service_new_stream(first);
  first->settings.sid = 1;
  second->settings.sid = 2;
  second->enabled = 1;
  snprintf(second->settings.service_name, sizeof(second->settings.service_name), "%s", "Two");
  taken_t got = take(cmd_json_ts_get_services, object());
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text,
            "[{\"service_tag\":\"1\",\"sid\":\"2\",\"type\":\"0\",\"service_name\":\"Two\",\"lcn\":\"0\","
            "\"pmt_pid\":\"0\",\"enabled\":\"1\"},"
            "{\"service_tag\":\"0\",\"sid\":\"1\",\"type\":\"0\",\"service_name\":\"\",\"lcn\":\"0\","
            "\"pmt_pid\":\"0\",\"enabled\":\"0\"}]");
}

TEST_F(CmdJsonTs, StreamsAreListedFlatWithTheirServiceTagLast) {
  hal_service_t* first = hal_ts_new_service(ts);
  hal_service_t* second = hal_ts_new_service(ts);
  hal_stream_t* a = hal_service_new_stream(first);
  hal_stream_t* b = hal_service_new_stream(first);
  hal_stream_t* c = hal_service_new_stream(second);
  a->settings = {256, HAL_H264, 8000};
  b->settings = {257, HAL_AAC, 192};
  c->settings = {512, HAL_MPEG2, 6000};
  taken_t got = take(cmd_json_ts_get_streams, object());
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(
      got.text,
      "[{\"stream_tag\":\"2\",\"pid\":\"512\",\"type\":\"4\",\"bitrate\":\"6000\",\"service_tag\":\"1\"},"
      "{\"stream_tag\":\"1\",\"pid\":\"257\",\"type\":\"15\",\"bitrate\":\"192\",\"service_tag\":\"0\"},"
      "{\"stream_tag\":\"0\",\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"8000\",\"service_tag\":\"0\"}]");
}

/* ---- through the dispatcher, with a TS behind an RF output ---- */

struct fake_output_t {
  hal_object_t hal_object;
  hal_ts_t* ts;
};

void delete_fake_output(hal_object_t* object) {
  hal_ts_t* ts = reinterpret_cast<fake_output_t*>(object)->ts;
  ts->hal_object.delete_(&ts->hal_object);
  delete_hal_object(object);
}

hal_object_t* output_ts(hal_object_t* object) {
  return &reinterpret_cast<fake_output_t*>(object)->ts->hal_object;
}

std::string handle(const std::string& request) {
  std::vector<char> text(request.begin(), request.end());
  text.push_back('\0');
  std::unique_ptr<char, free_deleter> answer(cmd_json_handler(text.data()));
  return answer ? std::string(answer.get()) : std::string("<null>");
}

class CmdJsonTsDispatch : public ::testing::Test {
 protected:
  cmd_json_object_t saved[2];
  cmd_json_object_t* rows = &cmd_json_objects[12]; /* "output_rf_ts", "output_rf_services" */
  fake_output_t* output = NULL;

  void SetUp() override {
    hal_ts_tag = hal_service_tag = hal_stream_tag = 0;
    cmd_json_s_arg = NULL;
    saved[0] = rows[0];
    saved[1] = rows[1];
    rows[0].set = [](hal_object_t* o, json_t* v) { return cmd_json_set_ts(output_ts(o), v); };
    rows[0].get = [](hal_object_t* o, json_t** v) { return cmd_json_get_ts(output_ts(o), v); };
    rows[1].set = [](hal_object_t* o, json_t* v) { return cmd_json_ts_set_service(output_ts(o), v); };
    rows[1].get = [](hal_object_t* o, json_t** v) { return cmd_json_ts_get_services(output_ts(o), v); };
    output = reinterpret_cast<fake_output_t*>(hal_object_alloc(sizeof(fake_output_t)));
    output->hal_object.type = HAL_OUTPUT_RF;
    output->hal_object.delete_ = delete_fake_output;
    output->ts = new_hal_ts();
    lnklist_push_node(&hal, &output->hal_object.node);
    flag_restoring = 1; /* no settings file here */
  }
  void TearDown() override {
    rows[0] = saved[0];
    rows[1] = saved[1];
    hal_cleanup();
    flag_restoring = 0;
    cmd_json_s_arg = NULL;
  }
};

TEST_F(CmdJsonTsDispatch, AGetOfTheTsCarriesTheOutputIdLast) {
  EXPECT_EQ(
      handle(
          "{\"action\":\"set\",\"object\":\"output_rf_ts\",\"args\":{\"output_id\":\"0\",\"tsid\":\"0x10\","
          "\"network_name\":\"Net\"}}"),
      "{}");
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf_ts\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"result\":{\"ts_tag\":\"0\",\"tsid\":\"16\",\"onid\":\"0\",\"nid\":\"0\","
            "\"private_data_specifier\":\"0\",\"network_name\":\"Net\",\"network_version\":\"0\","
            "\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonTsDispatch, ARefusedValueIsReportedUnderItsKey) {
  EXPECT_EQ(
      handle("{\"action\":\"set\",\"object\":\"output_rf_ts\",\"args\":{\"output_id\":\"0\",\"tsid\":\"1\","
             "\"nid\":\"12a\"}}"),
      "{\"errorCode\":5002,\"description\":\"JSON command has an invalid argument (nid)\"}");
  EXPECT_EQ(output->ts->settings.tsid, 1);
  EXPECT_EQ(handle("{\"action\":\"set\",\"object\":\"output_rf_ts\",\"args\":{\"output_id\":\"0\","
                   "\"network_version\":5}}"),
            "{\"errorCode\":5002,\"description\":\"JSON command argument not found (network_version)\"}");
}

TEST_F(CmdJsonTsDispatch, ServicesComeAsAnArrayEachWithTheOutputId) {
  hal_ts_new_service(output->ts);
  hal_ts_new_service(output->ts);
  EXPECT_EQ(handle("{\"action\":\"set\",\"object\":\"output_rf_services\",\"arrayedArgs\":["
                   "{\"output_id\":\"0\",\"service_tag\":\"0\",\"sid\":\"1\"},"
                   "{\"output_id\":\"0\",\"service_tag\":\"1\",\"sid\":\"2\"}]}"),
            "{}");
  EXPECT_EQ(handle("{\"action\":\"get\",\"object\":\"output_rf_services\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"arrayedResult\":[{\"service_tag\":\"1\",\"sid\":\"2\",\"type\":\"0\",\"service_name\":\"\","
            "\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"0\",\"output_id\":\"0\"},"
            "{\"service_tag\":\"0\",\"sid\":\"1\",\"type\":\"0\",\"service_name\":\"\",\"lcn\":\"0\","
            "\"pmt_pid\":\"0\",\"enabled\":\"0\",\"output_id\":\"0\"}]}");
}

TEST_F(CmdJsonTsDispatch, AServiceTagThatNamesNoServiceIsOutOfBounds) {
  hal_ts_new_service(output->ts);
  EXPECT_EQ(handle("{\"action\":\"set\",\"object\":\"output_rf_services\",\"args\":{\"output_id\":\"0\","
                   "\"service_tag\":\"3\",\"sid\":\"1\"}}"),
            "{\"errorCode\":5002,\"description\":\"JSON command argument out of bounds ((null))\"}");
}

}  // namespace
