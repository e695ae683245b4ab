/* taviweb's own counters: HTTP requests by path and status, and how long tavid took to answer.
 * Counted from the HTTP server's thread and the tavid queue's, read by the metrics. */

#ifndef TAVIWEB_STATS_H
#define TAVIWEB_STATS_H

#include <stdint.h>

#include <array>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/* Upper bounds of the buckets of tavid's answer times, in seconds (a request takes at least the
 * daemon's 50 ms of silence). */
inline constexpr std::array<double, 10> taviweb_stats_tavid_bounds = {0.06, 0.08, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30};

typedef struct taviweb_stats_snapshot_t {
  std::map<std::pair<std::string, unsigned>, uint64_t> http; /* (path, status) -> requests */
  std::vector<uint64_t> tavid_buckets;                       /* answers at most each bound long */
  uint64_t tavid_answers = 0;
  double tavid_seconds = 0;
  uint64_t tavid_failures = 0; /* exchanges without an answer */
} taviweb_stats_snapshot_t;

class taviweb_stats_t {
 public:
  taviweb_stats_t();
  void count_http(const std::string& path, unsigned status);
  void count_tavid_answer(double seconds);
  void count_tavid_failure();
  taviweb_stats_snapshot_t snapshot() const;

 private:
  mutable std::mutex mutex_;
  taviweb_stats_snapshot_t counts_;
};

#endif
