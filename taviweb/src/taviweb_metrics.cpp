#include "taviweb_metrics.h"

#include <stdio.h>
#include <stdlib.h>

#include <optional>
#include <vector>

namespace {

/* The daemon gives bitrates in kbit/s; the base unit of data is the byte. */
#define TAVIWEB_METRICS_KBPS_TO_BYTES 125.0

typedef struct taviweb_sample_t {
  std::string labels; /* "{input=\"0\"}" or empty */
  double value;
} taviweb_sample_t;

/* The shortest text that reads back as the same number ("0.06", not "0.059999999999999998"). */
std::string taviweb_metrics_value(double value) {
  char text[64];
  snprintf(text, sizeof(text), "%.15g", value);
  if (strtod(text, NULL) != value) snprintf(text, sizeof(text), "%.17g", value);
  return text;
}

/* One metric family: its header and samples; nothing at all without samples. */
void taviweb_metrics_family(std::string* out, const char* name, const char* type, const char* help,
                            const std::vector<taviweb_sample_t>& samples) {
  if (samples.empty()) return;
  *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  for (const taviweb_sample_t& sample : samples) {
    *out += name + sample.labels + " " + taviweb_metrics_value(sample.value) + "\n";
  }
}

std::string taviweb_metrics_labels(const char* key, const std::string& value) {
  return std::string("{") + key + "=\"" + taviweb_metrics_label(value) + "\"}";
}

void taviweb_metrics_add(std::vector<taviweb_sample_t>* samples, const std::string& labels,
                         std::optional<double> value, double scale = 1.0) {
  if (value) samples->push_back({labels, *value * scale});
}

void taviweb_metrics_box(std::string* out, const taviweb_round_t& round) {
  std::vector<taviweb_sample_t> temperature;
  taviweb_metrics_add(&temperature, "", round.temperature_c);
  taviweb_metrics_family(out, "tavi_temperature_celsius", "gauge", "Temperature of the box.", temperature);

  std::vector<taviweb_sample_t> lock;
  std::vector<taviweb_sample_t> format;
  for (const taviweb_input_status_t& input : round.inputs) {
    std::string labels = taviweb_metrics_labels("input", input.id);
    taviweb_metrics_add(&lock, labels, input.lock);
    if (!input.video_format.empty()) {
      format.push_back({"{input=\"" + taviweb_metrics_label(input.id) + "\",format=\"" +
                            taviweb_metrics_label(input.video_format) + "\"}",
                        1.0});
    }
  }
  taviweb_metrics_family(out, "tavi_input_hdmi_locked", "gauge",
                         "Whether the HDMI input is locked to a source (1) or not (0).", lock);
  taviweb_metrics_family(out, "tavi_input_hdmi_video_format_info", "gauge",
                         "Video format of the HDMI input (height, scan, frame rate) in the format label.",
                         format);

  std::vector<taviweb_sample_t> configured;
  std::vector<taviweb_sample_t> maximum;
  std::vector<taviweb_sample_t> overflow;
  for (const taviweb_rf_status_t& output : round.rf_outputs) {
    std::string labels = taviweb_metrics_labels("output", output.id);
    taviweb_metrics_add(&configured, labels, output.bitrate_kbps, TAVIWEB_METRICS_KBPS_TO_BYTES);
    taviweb_metrics_add(&maximum, labels, output.max_bitrate_kbps, TAVIWEB_METRICS_KBPS_TO_BYTES);
    taviweb_metrics_add(&overflow, labels, output.overflow);
  }
  taviweb_metrics_family(out, "tavi_output_rf_bitrate_bytes_per_second", "gauge",
                         "Configured bitrate of the RF output: the streams of its enabled services.", configured);
  taviweb_metrics_family(out, "tavi_output_rf_max_bitrate_bytes_per_second", "gauge",
                         "Highest bitrate the RF output's modulation carries.", maximum);
  taviweb_metrics_family(out, "tavi_output_rf_overflow", "gauge",
                         "Whether the RF output's transport stream exceeds what its modulation carries.", overflow);

  std::vector<taviweb_sample_t> measured;
  for (const taviweb_ip_status_t& output : round.ip_outputs) {
    taviweb_metrics_add(&measured, taviweb_metrics_labels("output", output.id), output.bitrate_kbps,
                        TAVIWEB_METRICS_KBPS_TO_BYTES);
  }
  taviweb_metrics_family(out, "tavi_output_ip_bitrate_bytes_per_second", "gauge",
                         "Measured bitrate of the IP output's stream.", measured);
}

void taviweb_metrics_own(std::string* out, const taviweb_stats_snapshot_t& stats) {
  std::vector<taviweb_sample_t> requests;
  for (const auto& [key, count] : stats.http) {
    requests.push_back({"{path=\"" + taviweb_metrics_label(key.first) + "\",code=\"" + std::to_string(key.second) +
                            "\"}",
                        static_cast<double>(count)});
  }
  taviweb_metrics_family(out, "tavi_web_http_requests_total", "counter",
                         "HTTP requests taviweb answered, by path and status code.", requests);

  const char* name = "tavi_web_tavid_request_duration_seconds";
  *out += std::string("# HELP ") + name + " How long tavid took to answer a request.\n# TYPE " + name +
          " histogram\n";
  for (size_t n = 0; n < taviweb_stats_tavid_bounds.size(); n++) {
    *out += std::string(name) + "_bucket{le=\"" + taviweb_metrics_value(taviweb_stats_tavid_bounds[n]) + "\"} " +
            std::to_string(stats.tavid_buckets[n]) + "\n";
  }
  *out += std::string(name) + "_bucket{le=\"+Inf\"} " + std::to_string(stats.tavid_answers) + "\n";
  *out += std::string(name) + "_sum " + taviweb_metrics_value(stats.tavid_seconds) + "\n";
  *out += std::string(name) + "_count " + std::to_string(stats.tavid_answers) + "\n";

  taviweb_metrics_family(out, "tavi_web_tavid_failures_total", "counter",
                         "Requests to tavid that got no answer (not reachable, time-out, broken connection).",
                         {{"", static_cast<double>(stats.tavid_failures)}});
}

}  // namespace

std::string taviweb_metrics_label(const std::string& value) {
  std::string escaped;
  for (char c : value) {
    if (c == '\\') {
      escaped += "\\\\";
    } else if (c == '"') {
      escaped += "\\\"";
    } else if (c == '\n') {
      escaped += "\\n";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string taviweb_metrics_render(const taviweb_round_t& round, const taviweb_stats_snapshot_t& stats) {
  std::string out;
  taviweb_metrics_family(&out, "tavi_up", "gauge", "Whether tavid answered the last status round (1) or not (0).",
                         {{"", round.up ? 1.0 : 0.0}});
  if (round.up) taviweb_metrics_box(&out, round);
  taviweb_metrics_own(&out, stats);
  return out;
}
