/* The status cache. A status round is one "get" of every instance of each status object
 * (device_status, input_hdmi_status, and output_rf_status or output_ip_status, whichever the
 * box's mode has); however many clients ask, at most one round starts per refresh interval: the
 * first asker after the interval starts one on tavid's queue, the others wait for it, and until
 * the interval is over everyone gets its result. */

#ifndef TAVIWEB_STATUS_H
#define TAVIWEB_STATUS_H

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "taviweb_tavid.h"

typedef struct taviweb_input_status_t {
  std::string id;
  std::optional<double> lock; /* 1 locked, 0 not */
  std::string video_format;   /* empty when not given */
} taviweb_input_status_t;

typedef struct taviweb_rf_status_t {
  std::string id;
  std::optional<double> bitrate_kbps; /* configured: the enabled services' streams */
  std::optional<double> max_bitrate_kbps;
  std::optional<double> overflow; /* 1 or 0 */
} taviweb_rf_status_t;

typedef struct taviweb_ip_status_t {
  std::string id;
  std::optional<double> bitrate_kbps; /* measured */
} taviweb_ip_status_t;

/* One status round, as the daemon answered it. Never changed once complete, so that threads
 * share it freely. */
typedef struct taviweb_round_t {
  std::chrono::steady_clock::time_point started;
  bool up = false;   /* tavid answered every request of the round */
  std::string error; /* what went wrong when not up */
  std::string objects_json = "{}"; /* object name -> the daemon's reply, compact JSON */
  std::optional<double> temperature_c;
  std::vector<taviweb_input_status_t> inputs;
  std::vector<taviweb_rf_status_t> rf_outputs;
  std::vector<taviweb_ip_status_t> ip_outputs;
} taviweb_round_t;

typedef enum taviweb_read_t {
  TAVIWEB_READ_OK,          /* a result, or a warning: kept */
  TAVIWEB_READ_ERROR_REPLY, /* an error reply: the box has no such object (another mode) */
  TAVIWEB_READ_BAD,         /* not a JSON object */
} taviweb_read_t;

/* Takes the daemon's reply to a get of every instance of `object` into the round. */
taviweb_read_t taviweb_status_read(const char* object, const std::string& reply, taviweb_round_t* round);

/* The document of GET /api/status: {"up":..,"age":..,"interval":..,["error":..,]"objects":{..}}. */
std::string taviweb_status_document(const taviweb_round_t& round, double interval_s,
                                    std::chrono::steady_clock::time_point now);

class taviweb_status_t {
 public:
  using clock = std::chrono::steady_clock;
  using ready_fn = std::function<void(const std::shared_ptr<const taviweb_round_t>& round)>;
  using now_fn = clock::time_point (*)();

  taviweb_status_t(taviweb_tavid_t* tavid, double interval_s, now_fn now = clock::now);

  /* Calls `ready` with a round that started less than the interval ago: at once (in this thread)
   * when the cached one did, else from tavid's queue when the round it waits for is complete. */
  void get(const ready_fn& ready);
  double interval_s() const { return interval_s_; }
  clock::time_point now() const { return now_(); }

 private:
  void run_round(const taviweb_link_t& link);
  bool read_outputs(const taviweb_link_t& link, taviweb_round_t* round);

  taviweb_tavid_t* tavid_;
  double interval_s_;
  now_fn now_;
  std::mutex mutex_;
  std::shared_ptr<const taviweb_round_t> latest_;
  std::vector<ready_fn> waiters_;
  bool in_flight_ = false;
  /* The output status object that answered last (used by the queue's worker only). */
  size_t output_first_ = 0;
};

#endif
