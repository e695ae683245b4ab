#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "taviweb_tavid.h"
#include "taviweb_test_support.h"

namespace {

class TaviwebTavid : public testing::Test {
 protected:
  void SetUp() override { fake_tavid.reset(); }
  /* Pushes a job that sends `request` and records what came of it. */
  void push_request(const std::string& request) {
    tavid_.push([this, request](const taviweb_link_t& link) {
      std::string reply;
      tavid_client_failure_t failure = link.exchange(request, &reply);
      std::lock_guard<std::mutex> lock(mutex_);
      outcomes_.push_back(request + " -> " + (failure.err == TAVID_CLIENT_OK ? reply : link.describe(failure)));
      done_.notify_all();
    });
  }
  std::vector<std::string> wait_outcomes(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this, count] { return outcomes_.size() >= count; });
    return outcomes_;
  }
  taviweb_stats_t stats_;
  taviweb_tavid_t tavid_{tavid_client_t(), &stats_, fake_exchange};
  std::mutex mutex_;
  std::condition_variable done_;
  std::vector<std::string> outcomes_;
};

TEST_F(TaviwebTavid, JobsRunOneAtATimeInTheOrderPushed) {
  fake_tavid.hold();
  std::vector<std::string> expected;
  for (int n = 0; n < 20; n++) {
    std::string request = "{\"n\":" + std::to_string(n) + "}";
    fake_tavid.replies[request] = "{\"reply\":" + std::to_string(n) + "}";
    expected.push_back(request + " -> {\"reply\":" + std::to_string(n) + "}");
  }
  for (int n = 0; n < 20; n++) push_request("{\"n\":" + std::to_string(n) + "}");
  fake_tavid.wait_held(1);
  fake_tavid.release();
  EXPECT_EQ(wait_outcomes(20), expected);
  EXPECT_EQ(fake_tavid.most_inside, 1);
}

TEST_F(TaviwebTavid, AnswersAndFailuresAreCounted) {
  push_request("{}");
  wait_outcomes(1);
  fake_tavid.failure = {TAVID_CLIENT_TIMEOUT, ETIMEDOUT};
  push_request("{\"late\":1}");
  EXPECT_EQ(wait_outcomes(2)[1], "{\"late\":1} -> no complete reply from 127.0.0.1 port 49999 within 35 s");
  taviweb_stats_snapshot_t counts = stats_.snapshot();
  EXPECT_EQ(counts.tavid_answers, 1u);
  EXPECT_EQ(counts.tavid_failures, 1u);
}

TEST_F(TaviwebTavid, StoppingGivesUpTheExchangeUnderWayAndCancelsTheRest) {
  fake_tavid.hold();
  push_request("{\"n\":1}");
  push_request("{\"n\":2}");
  fake_tavid.wait_held(1);
  tavid_.stop();
  EXPECT_EQ(wait_outcomes(2), (std::vector<std::string>{"{\"n\":1} -> exchange with 127.0.0.1 port 49999 given up",
                                                        "{\"n\":2} -> exchange with 127.0.0.1 port 49999 given up"}));
  EXPECT_EQ(fake_tavid.taken(), std::vector<std::string>{"{\"n\":1}"});
  taviweb_stats_snapshot_t counts = stats_.snapshot();
  EXPECT_EQ(counts.tavid_answers + counts.tavid_failures, 0u);
}

TEST_F(TaviwebTavid, AJobPushedAfterTheStopRunsAtOnceInTheCallersThread) {
  tavid_.stop();
  std::thread::id ran_in;
  tavid_.push([&ran_in](const taviweb_link_t& link) {
    std::string reply;
    EXPECT_EQ(link.exchange("{}", &reply).err, TAVID_CLIENT_CANCELLED);
    ran_in = std::this_thread::get_id();
  });
  EXPECT_EQ(ran_in, std::this_thread::get_id());
  EXPECT_TRUE(fake_tavid.taken().empty());
}

}  // namespace
