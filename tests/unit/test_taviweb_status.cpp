#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "taviweb_status.h"
#include "taviweb_test_support.h"

namespace {

using clock_type = std::chrono::steady_clock;

const char kDeviceRequest[] = "{\"action\":\"get\",\"object\":\"device_status\",\"args\":{}}";
const char kInputRequest[] = "{\"action\":\"get\",\"object\":\"input_hdmi_status\",\"args\":{}}";
const char kRfRequest[] = "{\"action\":\"get\",\"object\":\"output_rf_status\",\"args\":{}}";
const char kIpRequest[] = "{\"action\":\"get\",\"object\":\"output_ip_status\",\"args\":{}}";

const char kDeviceReply[] = "{\"arrayedResult\":[{\"temperature\":\"45\",\"device_id\":\"0\"}]}";
const char kInputReply[] =
    "{\"arrayedResult\":[{\"lock\":\"1\",\"video_format\":\"1080p50\",\"input_id\":\"0\"},"
    "{\"lock\":\"0\",\"video_format\":\"0p0\",\"input_id\":\"1\"}]}";
const char kRfReply[] =
    "{\"arrayedResult\":[{\"max_bitrate\":\"24128\",\"overflow\":\"no\",\"bitrate\":\"19000\",\"output_id\":\"0\"},"
    "{\"max_bitrate\":\"31668\",\"overflow\":\"yes\",\"bitrate\":\"40000\",\"output_id\":\"1\"}]}";
const char kIpReply[] = "{\"arrayedResult\":[{\"bitrate\":\"12345\",\"output_id\":\"0\"}]}";
const char kNoOutput[] =
    "{\"errorCode\":5002,\"description\":\"JSON command is missing a mandatory argument (output_id)\"}";

/* The clock the cache reads: moved by the tests only. */
std::atomic<int64_t> now_ms{1000000};
clock_type::time_point fake_now() { return clock_type::time_point(std::chrono::milliseconds(now_ms.load())); }

void answer_as_rf_box() {
  fake_tavid.replies[kDeviceRequest] = kDeviceReply;
  fake_tavid.replies[kInputRequest] = kInputReply;
  fake_tavid.replies[kRfRequest] = kRfReply;
  fake_tavid.replies[kIpRequest] = kNoOutput;
}

void answer_as_ip_box() {
  fake_tavid.replies[kDeviceRequest] = kDeviceReply;
  fake_tavid.replies[kInputRequest] = kInputReply;
  fake_tavid.replies[kRfRequest] = kNoOutput;
  fake_tavid.replies[kIpRequest] = kIpReply;
}

/* Catches the rounds handed to get()'s callers. */
struct rounds_t {
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<std::shared_ptr<const taviweb_round_t>> got;
  std::vector<std::thread::id> threads;

  taviweb_status_t::ready_fn catcher() {
    return [this](const std::shared_ptr<const taviweb_round_t>& round) {
      std::lock_guard<std::mutex> lock(mutex);
      got.push_back(round);
      threads.push_back(std::this_thread::get_id());
      arrived.notify_all();
    };
  }
  std::shared_ptr<const taviweb_round_t> wait(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait(lock, [this, count] { return got.size() >= count; });
    return got[count - 1];
  }
};

class TaviwebStatus : public testing::Test {
 protected:
  void SetUp() override {
    fake_tavid.reset();
    now_ms = 1000000;
  }
  std::shared_ptr<const taviweb_round_t> get_round() {
    size_t before = rounds_.got.size();
    status_.get(rounds_.catcher());
    return rounds_.wait(before + 1);
  }
  taviweb_stats_t stats_;
  taviweb_tavid_t tavid_{tavid_client_t(), &stats_, fake_exchange};
  taviweb_status_t status_{&tavid_, 5.0, fake_now};
  rounds_t rounds_;
};

TEST(TaviwebStatusRead, EachObjectsInstancesAreTaken) {
  taviweb_round_t round;
  EXPECT_EQ(taviweb_status_read("device_status", kDeviceReply, &round), TAVIWEB_READ_OK);
  EXPECT_EQ(taviweb_status_read("input_hdmi_status", kInputReply, &round), TAVIWEB_READ_OK);
  EXPECT_EQ(taviweb_status_read("output_rf_status", kRfReply, &round), TAVIWEB_READ_OK);
  EXPECT_EQ(taviweb_status_read("output_ip_status", kIpReply, &round), TAVIWEB_READ_OK);
  EXPECT_EQ(round.temperature_c, 45.0);
  ASSERT_EQ(round.inputs.size(), 2u);
  EXPECT_EQ(round.inputs[0].id, "0");
  EXPECT_EQ(round.inputs[0].lock, 1.0);
  EXPECT_EQ(round.inputs[0].video_format, "1080p50");
  EXPECT_EQ(round.inputs[1].lock, 0.0);
  ASSERT_EQ(round.rf_outputs.size(), 2u);
  EXPECT_EQ(round.rf_outputs[1].id, "1");
  EXPECT_EQ(round.rf_outputs[1].bitrate_kbps, 40000.0);
  EXPECT_EQ(round.rf_outputs[1].max_bitrate_kbps, 31668.0);
  EXPECT_EQ(round.rf_outputs[1].overflow, 1.0);
  EXPECT_EQ(round.rf_outputs[0].overflow, 0.0);
  ASSERT_EQ(round.ip_outputs.size(), 1u);
  EXPECT_EQ(round.ip_outputs[0].bitrate_kbps, 12345.0);
  EXPECT_EQ(round.objects_json, std::string("{\"device_status\":") + kDeviceReply + ",\"input_hdmi_status\":" +
                                    kInputReply + ",\"output_rf_status\":" + kRfReply +
                                    ",\"output_ip_status\":" + kIpReply + "}");
}

TEST(TaviwebStatusRead, OneResultWarningsAndBadValues) {
  taviweb_round_t round;
  EXPECT_EQ(taviweb_status_read("device_status", "{\"result\":{\"temperature\":\"-3\",\"device_id\":\"0\"}}", &round),
            TAVIWEB_READ_OK);
  EXPECT_EQ(round.temperature_c, -3.0);
  const char warning[] = "{\"warningCode\":1103,\"description\":\"JSON command unsuccessful (error: 13)\"}";
  EXPECT_EQ(taviweb_status_read("input_hdmi_status", warning, &round), TAVIWEB_READ_OK);
  EXPECT_TRUE(round.inputs.empty());
  EXPECT_EQ(taviweb_status_read("output_rf_status",
                                "{\"arrayedResult\":[{\"max_bitrate\":\"24128x\",\"overflow\":\"maybe\",\"bitrate\":\"\","
                                "\"output_id\":\"0\"},7,{\"bitrate\":5}]}",
                                &round),
            TAVIWEB_READ_OK);
  ASSERT_EQ(round.rf_outputs.size(), 2u);
  EXPECT_FALSE(round.rf_outputs[0].max_bitrate_kbps.has_value());
  EXPECT_FALSE(round.rf_outputs[0].overflow.has_value());
  EXPECT_FALSE(round.rf_outputs[0].bitrate_kbps.has_value());
  EXPECT_EQ(round.rf_outputs[1].id, "");
  EXPECT_FALSE(round.rf_outputs[1].bitrate_kbps.has_value());
  EXPECT_EQ(round.objects_json, std::string("{\"device_status\":{\"result\":{\"temperature\":\"-3\",\"device_id\":\"0\"}},"
                                            "\"input_hdmi_status\":") +
                                    warning +
                                    ",\"output_rf_status\":{\"arrayedResult\":[{\"max_bitrate\":\"24128x\",\"overflow\":"
                                    "\"maybe\",\"bitrate\":\"\",\"output_id\":\"0\"},7,{\"bitrate\":5}]}}");
}

TEST(TaviwebStatusRead, ErrorRepliesAndTextThatIsNoObject) {
  taviweb_round_t round;
  EXPECT_EQ(taviweb_status_read("output_ip_status", kNoOutput, &round), TAVIWEB_READ_ERROR_REPLY);
  for (const char* reply : {"", "hello", "[1]", "{\"a\":1} {", "\"text\""}) {
    EXPECT_EQ(taviweb_status_read("device_status", reply, &round), TAVIWEB_READ_BAD) << reply;
  }
  EXPECT_EQ(round.objects_json, "{}");
  EXPECT_FALSE(round.temperature_c.has_value());
}

TEST(TaviwebStatusDocument, UpWithItsAgeOrDownWithWhy) {
  taviweb_round_t round;
  round.started = fake_now();
  round.up = true;
  taviweb_status_read("device_status", kDeviceReply, &round);
  EXPECT_EQ(taviweb_status_document(round, 5.0, fake_now() + std::chrono::milliseconds(1250)),
            std::string("{\"up\":true,\"age\":1.25,\"interval\":5.0,\"objects\":{\"device_status\":") + kDeviceReply +
                "}}");
  taviweb_round_t down;
  down.started = fake_now();
  down.error = "cannot reach tavid at 127.0.0.1 port 49999 (Connection refused)";
  EXPECT_EQ(taviweb_status_document(down, 0.5, fake_now()),
            "{\"up\":false,\"age\":0.0,\"interval\":0.5,\"error\":\"cannot reach tavid at 127.0.0.1 port 49999 "
            "(Connection refused)\",\"objects\":{}}");
}

TEST_F(TaviwebStatus, ARoundGetsEveryStatusObjectOfAnRfBox) {
  answer_as_rf_box();
  std::shared_ptr<const taviweb_round_t> round = get_round();
  EXPECT_TRUE(round->up);
  EXPECT_EQ(round->error, "");
  EXPECT_EQ(round->started, fake_now());
  EXPECT_EQ(fake_tavid.taken(), (std::vector<std::string>{kDeviceRequest, kInputRequest, kRfRequest}));
  EXPECT_EQ(round->objects_json, std::string("{\"device_status\":") + kDeviceReply + ",\"input_hdmi_status\":" +
                                     kInputReply + ",\"output_rf_status\":" + kRfReply + "}");
}

TEST_F(TaviwebStatus, WithinTheIntervalTheCachedRoundIsGivenAtOnce) {
  answer_as_rf_box();
  std::shared_ptr<const taviweb_round_t> first = get_round();
  now_ms += 4999;
  status_.get(rounds_.catcher());
  ASSERT_EQ(rounds_.got.size(), 2u);
  EXPECT_EQ(rounds_.got[1], first);
  EXPECT_EQ(rounds_.threads[1], std::this_thread::get_id());
  EXPECT_EQ(fake_tavid.taken().size(), 3u);
  now_ms += 1;
  std::shared_ptr<const taviweb_round_t> second = get_round();
  EXPECT_NE(second, first);
  EXPECT_EQ(fake_tavid.taken().size(), 6u);
}

TEST_F(TaviwebStatus, TenAskersWhileARoundIsUnderWayShareIt) {
  answer_as_rf_box();
  fake_tavid.hold();
  status_.get(rounds_.catcher());
  fake_tavid.wait_held(1);
  for (int n = 0; n < 9; n++) status_.get(rounds_.catcher());
  EXPECT_TRUE(rounds_.got.empty());
  fake_tavid.release();
  std::shared_ptr<const taviweb_round_t> round = rounds_.wait(10);
  for (const auto& got : rounds_.got) EXPECT_EQ(got, round);
  EXPECT_EQ(fake_tavid.taken(), (std::vector<std::string>{kDeviceRequest, kInputRequest, kRfRequest}));
}

TEST_F(TaviwebStatus, TheOutputObjectFollowsTheBoxsMode) {
  answer_as_ip_box();
  std::shared_ptr<const taviweb_round_t> round = get_round();
  EXPECT_TRUE(round->up);
  EXPECT_EQ(fake_tavid.taken(), (std::vector<std::string>{kDeviceRequest, kInputRequest, kRfRequest, kIpRequest}));
  EXPECT_EQ(round->ip_outputs.size(), 1u);
  EXPECT_TRUE(round->rf_outputs.empty());
  EXPECT_EQ(round->objects_json.find("output_rf_status"), std::string::npos);
  now_ms += 5000;
  get_round();
  EXPECT_EQ(fake_tavid.taken().size(), 7u);
  EXPECT_EQ(fake_tavid.taken()[6], kIpRequest);
  answer_as_rf_box();
  now_ms += 5000;
  get_round();
  std::vector<std::string> taken = fake_tavid.taken();
  EXPECT_EQ(std::vector<std::string>(taken.begin() + 7, taken.end()),
            (std::vector<std::string>{kDeviceRequest, kInputRequest, kIpRequest, kRfRequest}));
}

TEST_F(TaviwebStatus, ADaemonThatDoesNotAnswerEndsTheRoundAtItsFirstRequest) {
  fake_tavid.failure = {TAVID_CLIENT_CONNECT_ERR, ECONNREFUSED};
  std::shared_ptr<const taviweb_round_t> round = get_round();
  EXPECT_FALSE(round->up);
  EXPECT_EQ(round->error, "cannot reach tavid at 127.0.0.1 port 49999 (Connection refused)");
  EXPECT_EQ(fake_tavid.taken(), std::vector<std::string>{kDeviceRequest});
  now_ms += 4999;
  EXPECT_EQ(get_round(), round);
  EXPECT_EQ(fake_tavid.taken().size(), 1u);
}

TEST_F(TaviwebStatus, AReplyThatIsNoJsonObjectEndsTheRound) {
  answer_as_rf_box();
  fake_tavid.replies[kInputRequest] = "garbage";
  std::shared_ptr<const taviweb_round_t> round = get_round();
  EXPECT_FALSE(round->up);
  EXPECT_EQ(round->error, "the reply to a get of input_hdmi_status is not a JSON object");
  EXPECT_EQ(fake_tavid.taken(), (std::vector<std::string>{kDeviceRequest, kInputRequest}));
}

}  // namespace
