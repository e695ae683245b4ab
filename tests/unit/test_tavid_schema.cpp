#include <gtest/gtest.h>

#include <string>

#include "cmd_json.h"
#include "tavid_schema.h"

namespace {

/* The compact text of one object of the description, "" when it is not there. */
std::string described(const char* name) {
  json_ptr schema(tavid_schema_describe());
  json_t* objects = json_object_get(schema.get(), "objects");
  for (size_t n = 0; n < json_array_size(objects); n++) {
    json_t* object = json_array_get(objects, n);
    if (std::string(json_string_value(json_object_get(object, "name"))) != name) continue;
    text_ptr text(json_dumps(object, JSON_COMPACT | JSON_PRESERVE_ORDER));
    return text.get();
  }
  return "";
}

TEST(TavidSchema, EveryObjectOfTheDaemonInTheOrderOfItsTable) {
  json_ptr schema(tavid_schema_describe());
  ASSERT_TRUE(schema);
  ASSERT_EQ(json_object_size(schema.get()), 1u);
  json_t* objects = json_object_get(schema.get(), "objects");
  ASSERT_EQ(json_array_size(objects), static_cast<size_t>(CMD_JSON_OBJECT_COUNT));
  for (size_t n = 0; n < CMD_JSON_OBJECT_COUNT; n++) {
    EXPECT_STREQ(json_string_value(json_object_get(json_array_get(objects, n), "name")), cmd_json_objects[n].name);
  }
}

TEST(TavidSchema, TheModulationWithTheWordsEachFieldTakes) {
  EXPECT_EQ(described("output_rf_mod"),
            R"({"name":"output_rf_mod","id":"output_id","actions":["get","set"],"args":[)"
            R"({"name":"type","words":["dvb-t","dvb-c","atsc-t","atsc-c","dtmb","isdb-t"]},)"
            R"({"name":"frequency"},{"name":"level"},{"name":"bandwidth"},{"name":"symbolrate"},)"
            R"({"name":"constellation","words":["qpsk","8-vsb","16-qam","32-qam","64-qam","128-qam","256-qam",)"
            R"("4-qam","4nr-qam"]},)"
            R"({"name":"guardinterval","words":["1/32","1/16","1/8","1/4"]},)"
            R"({"name":"coderate","words":["1/2","2/3","3/4","5/6","7/8","0.4","0.6","0.8"]},)"
            R"({"name":"fftmode","words":["2k","8k"]},{"name":"carriertype","words":["multi","single"]},)"
            R"({"name":"interleave","words":["none","240","720"]},{"name":"syncframe","words":["420","945","595"]},)"
            R"({"name":"enabled"}]})");
}

TEST(TavidSchema, AnInputWithItsTransportStreamServicesAndStreams) {
  EXPECT_EQ(described("input_hdmi"),
            R"({"name":"input_hdmi","id":"input_id","actions":["get","set"],"args":[{"name":"video_gopsize"},)"
            R"({"name":"ts","args":[{"name":"ts_tag","set":false},{"name":"tsid"},{"name":"onid"},{"name":"nid"},)"
            R"({"name":"private_data_specifier"},{"name":"network_name"},{"name":"network_version"},)"
            R"({"name":"services","items":{"args":[{"name":"service_tag","set":false},{"name":"sid"},)"
            R"({"name":"type"},{"name":"service_name"},{"name":"lcn"},{"name":"pmt_pid"},{"name":"enabled"},)"
            R"({"name":"streams","items":{"args":[{"name":"stream_tag","set":false},{"name":"pid"},)"
            R"({"name":"type"},{"name":"bitrate"}]}}]}}]}]})");
}

TEST(TavidSchema, TheServicesOfAnOutputAreAListAddressedByTheirTag) {
  EXPECT_EQ(described("output_rf_services"),
            R"({"name":"output_rf_services","id":"output_id","actions":["get","set"],"list":true,)"
            R"("select":["service_tag"],"args":[{"name":"service_tag","set":false},{"name":"sid"},)"
            R"({"name":"type"},{"name":"service_name"},{"name":"lcn"},{"name":"pmt_pid"},{"name":"enabled"}]})");
  EXPECT_EQ(described("input_hdmi_streams"),
            R"({"name":"input_hdmi_streams","id":"input_id","actions":["get","set"],"list":true,)"
            R"("select":["service_tag","stream_tag"],"args":[{"name":"stream_tag","set":false},{"name":"pid"},)"
            R"({"name":"type"},{"name":"bitrate"}]})");
}

TEST(TavidSchema, ExecuteObjectsWithTheirArguments) {
  EXPECT_EQ(described("reset"),
            R"({"name":"reset","actions":["execute"],"args":[)"
            R"({"name":"level","words":["0","1","2","3"],"mandatory":true}]})");
  EXPECT_EQ(described("store_settings"), R"({"name":"store_settings","actions":["execute"],"args":[]})");
  EXPECT_EQ(described("device"),
            R"({"name":"device","id":"device_id","actions":["get","execute"],"args":[)"
            R"({"name":"output_mode","words":["rf","ip_spts","ip_mpts"]}]})");
}

TEST(TavidSchema, StatusObjectsAreGetOnly) {
  EXPECT_EQ(described("output_rf_status"),
            R"({"name":"output_rf_status","id":"output_id","actions":["get"],"args":[)"
            R"({"name":"max_bitrate"},{"name":"overflow"},{"name":"bitrate"}]})");
  EXPECT_EQ(described("input_hdmi_status"),
            R"({"name":"input_hdmi_status","id":"input_id","actions":["get"],"args":[)"
            R"({"name":"lock"},{"name":"video_format"}]})");
  EXPECT_EQ(described("device_status"),
            R"({"name":"device_status","id":"device_id","actions":["get"],"args":[{"name":"temperature"}]})");
}

TEST(TavidSchema, KeysASetNeedsButAGetDoesNotGive) {
  EXPECT_EQ(described("output_calibration"),
            R"({"name":"output_calibration","id":"output_id","actions":["get","set"],"args":[)"
            R"({"name":"enabled","mandatory":true,"get":false},{"name":"i","mandatory":true},)"
            R"({"name":"q","mandatory":true}]})");
  EXPECT_EQ(described("debug_code"),
            R"({"name":"debug_code","id":"id","actions":["get","set"],"args":[)"
            R"({"name":"code","mandatory":true,"get":false},{"name":"state","mandatory":true}]})");
  EXPECT_EQ(described("output_ip_ifconfig"), R"({"name":"output_ip_ifconfig","actions":["get","set"],"args":[]})");
}

}  // namespace
