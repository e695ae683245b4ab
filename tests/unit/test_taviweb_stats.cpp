#include <gtest/gtest.h>

#include <vector>

#include "taviweb_stats.h"

namespace {

TEST(TaviwebStats, BucketsCountEveryAnswerAtMostTheirBound) {
  EXPECT_EQ(std::vector<double>(taviweb_stats_tavid_bounds.begin(), taviweb_stats_tavid_bounds.end()),
            (std::vector<double>{0.06, 0.08, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30}));
  taviweb_stats_t stats;
  stats.count_tavid_answer(0.055);
  stats.count_tavid_answer(0.08);
  stats.count_tavid_answer(31.0);
  stats.count_tavid_failure();
  taviweb_stats_snapshot_t counts = stats.snapshot();
  EXPECT_EQ(counts.tavid_buckets, (std::vector<uint64_t>{1, 2, 2, 2, 2, 2, 2, 2, 2, 2}));
  EXPECT_EQ(counts.tavid_answers, 3u);
  EXPECT_DOUBLE_EQ(counts.tavid_seconds, 31.135);
  EXPECT_EQ(counts.tavid_failures, 1u);
}

TEST(TaviwebStats, HttpRequestsByPathAndStatus) {
  taviweb_stats_t stats;
  stats.count_http("/api", 200);
  stats.count_http("/api", 200);
  stats.count_http("/api", 502);
  stats.count_http("other", 404);
  taviweb_stats_snapshot_t counts = stats.snapshot();
  EXPECT_EQ(counts.http.size(), 3u);
  EXPECT_EQ((counts.http[{"/api", 200}]), 2u);
  EXPECT_EQ((counts.http[{"/api", 502}]), 1u);
  EXPECT_EQ((counts.http[{"other", 404}]), 1u);
}

}  // namespace
