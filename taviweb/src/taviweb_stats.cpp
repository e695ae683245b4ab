#include "taviweb_stats.h"

taviweb_stats_t::taviweb_stats_t() { counts_.tavid_buckets.assign(taviweb_stats_tavid_bounds.size(), 0); }

void taviweb_stats_t::count_http(const std::string& path, unsigned status) {
  std::lock_guard<std::mutex> lock(mutex_);
  counts_.http[{path, status}]++;
}

void taviweb_stats_t::count_tavid_answer(double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (size_t n = 0; n < taviweb_stats_tavid_bounds.size(); n++) {
    if (seconds <= taviweb_stats_tavid_bounds[n]) counts_.tavid_buckets[n]++;
  }
  counts_.tavid_answers++;
  counts_.tavid_seconds += seconds;
}

void taviweb_stats_t::count_tavid_failure() {
  std::lock_guard<std::mutex> lock(mutex_);
  counts_.tavid_failures++;
}

taviweb_stats_snapshot_t taviweb_stats_t::snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return counts_;
}
