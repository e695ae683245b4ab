#include <gtest/gtest.h>

#include <string>

#include "taviweb_metrics.h"

namespace {

taviweb_stats_snapshot_t quiet_stats() {
  taviweb_stats_t stats;
  return stats.snapshot();
}

const char kOwnQuiet[] =
    "# HELP tavi_web_tavid_request_duration_seconds How long tavid took to answer a request.\n"
    "# TYPE tavi_web_tavid_request_duration_seconds histogram\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.06\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.08\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.1\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.25\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.5\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"1\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"2.5\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"5\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"10\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"30\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_bucket{le=\"+Inf\"} 0\n"
    "tavi_web_tavid_request_duration_seconds_sum 0\n"
    "tavi_web_tavid_request_duration_seconds_count 0\n"
    "# HELP tavi_web_tavid_failures_total Requests to tavid that got no answer (not reachable, time-out, broken "
    "connection).\n"
    "# TYPE tavi_web_tavid_failures_total counter\n"
    "tavi_web_tavid_failures_total 0\n";

TEST(TaviwebMetrics, ABoxThatAnswered) {
  taviweb_round_t round;
  round.up = true;
  round.temperature_c = 45;
  round.inputs = {{"0", 1.0, "1080p50"}, {"1", 0.0, ""}, {"2", std::nullopt, "720p60"}};
  round.rf_outputs = {{"0", 19000.0, 24128.0, 0.0}, {"1", std::nullopt, 31668.0, 1.0}};
  round.ip_outputs = {{"0", 12345.5}};
  EXPECT_EQ(taviweb_metrics_render(round, quiet_stats()),
            std::string("# HELP tavi_up Whether tavid answered the last status round (1) or not (0).\n"
                        "# TYPE tavi_up gauge\n"
                        "tavi_up 1\n"
                        "# HELP tavi_temperature_celsius Temperature of the box.\n"
                        "# TYPE tavi_temperature_celsius gauge\n"
                        "tavi_temperature_celsius 45\n"
                        "# HELP tavi_input_hdmi_locked Whether the HDMI input is locked to a source (1) or not (0).\n"
                        "# TYPE tavi_input_hdmi_locked gauge\n"
                        "tavi_input_hdmi_locked{input=\"0\"} 1\n"
                        "tavi_input_hdmi_locked{input=\"1\"} 0\n"
                        "# HELP tavi_input_hdmi_video_format_info Video format of the HDMI input (height, scan, frame "
                        "rate) in the format label.\n"
                        "# TYPE tavi_input_hdmi_video_format_info gauge\n"
                        "tavi_input_hdmi_video_format_info{input=\"0\",format=\"1080p50\"} 1\n"
                        "tavi_input_hdmi_video_format_info{input=\"2\",format=\"720p60\"} 1\n"
                        "# HELP tavi_output_rf_bitrate_bytes_per_second Configured bitrate of the RF output: the "
                        "streams of its enabled services.\n"
                        "# TYPE tavi_output_rf_bitrate_bytes_per_second gauge\n"
                        "tavi_output_rf_bitrate_bytes_per_second{output=\"0\"} 2375000\n"
                        "# HELP tavi_output_rf_max_bitrate_bytes_per_second Highest bitrate the RF output's "
                        "modulation carries.\n"
                        "# TYPE tavi_output_rf_max_bitrate_bytes_per_second gauge\n"
                        "tavi_output_rf_max_bitrate_bytes_per_second{output=\"0\"} 3016000\n"
                        "tavi_output_rf_max_bitrate_bytes_per_second{output=\"1\"} 3958500\n"
                        "# HELP tavi_output_rf_overflow Whether the RF output's transport stream exceeds what its "
                        "modulation carries.\n"
                        "# TYPE tavi_output_rf_overflow gauge\n"
                        "tavi_output_rf_overflow{output=\"0\"} 0\n"
                        "tavi_output_rf_overflow{output=\"1\"} 1\n"
                        "# HELP tavi_output_ip_bitrate_bytes_per_second Measured bitrate of the IP output's stream.\n"
                        "# TYPE tavi_output_ip_bitrate_bytes_per_second gauge\n"
                        "tavi_output_ip_bitrate_bytes_per_second{output=\"0\"} 1543187.5\n") +
                kOwnQuiet);
}

TEST(TaviwebMetrics, ADaemonThatDidNotAnswerShowsNothingOfTheBox) {
  taviweb_round_t round;
  round.up = false;
  round.temperature_c = 45;
  round.inputs = {{"0", 1.0, "1080p50"}};
  EXPECT_EQ(taviweb_metrics_render(round, quiet_stats()),
            std::string("# HELP tavi_up Whether tavid answered the last status round (1) or not (0).\n"
                        "# TYPE tavi_up gauge\n"
                        "tavi_up 0\n") +
                kOwnQuiet);
}

TEST(TaviwebMetrics, OwnCountersByPathAndCodeAndTheAnswerTimes) {
  taviweb_stats_t stats;
  stats.count_http("/api", 200);
  stats.count_http("/api", 502);
  stats.count_http("/metrics", 200);
  stats.count_tavid_answer(0.07);
  stats.count_tavid_answer(0.2);
  stats.count_tavid_failure();
  taviweb_round_t round;
  std::string text = taviweb_metrics_render(round, stats.snapshot());
  EXPECT_NE(text.find("# HELP tavi_web_http_requests_total HTTP requests taviweb answered, by path and status code.\n"
                      "# TYPE tavi_web_http_requests_total counter\n"
                      "tavi_web_http_requests_total{path=\"/api\",code=\"200\"} 1\n"
                      "tavi_web_http_requests_total{path=\"/api\",code=\"502\"} 1\n"
                      "tavi_web_http_requests_total{path=\"/metrics\",code=\"200\"} 1\n"
                      "# HELP tavi_web_tavid_request_duration_seconds"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("tavi_web_tavid_request_duration_seconds_bucket{le=\"0.06\"} 0\n"
                      "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.08\"} 1\n"
                      "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.1\"} 1\n"
                      "tavi_web_tavid_request_duration_seconds_bucket{le=\"0.25\"} 2\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("tavi_web_tavid_request_duration_seconds_bucket{le=\"+Inf\"} 2\n"
                      "tavi_web_tavid_request_duration_seconds_sum 0.27\n"
                      "tavi_web_tavid_request_duration_seconds_count 2\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("tavi_web_tavid_failures_total 1\n"), std::string::npos) << text;
}

TEST(TaviwebMetrics, LabelValuesAreEscaped) {
  EXPECT_EQ(taviweb_metrics_label("1080p50"), "1080p50");
  EXPECT_EQ(taviweb_metrics_label("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
  taviweb_round_t round;
  round.up = true;
  round.inputs = {{"0\"", std::nullopt, "x\ny"}};
  std::string text = taviweb_metrics_render(round, quiet_stats());
  EXPECT_NE(text.find("tavi_input_hdmi_video_format_info{input=\"0\\\"\",format=\"x\\ny\"} 1\n"), std::string::npos)
      << text;
}

}  // namespace
