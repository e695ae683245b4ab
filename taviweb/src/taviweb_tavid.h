/* The queue of requests to tavid: one worker thread sends them one at a time, in the order they
 * were pushed. Every request stops the box's hardware loop for at least 50 ms, and the daemon
 * serves one connection at a time anyway. */

#ifndef TAVIWEB_TAVID_H
#define TAVIWEB_TAVID_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "tavid_client.h"
#include "taviweb_stats.h"

typedef tavid_client_failure_t (*taviweb_exchange_fn)(const tavid_client_t* client, const std::string& request,
                                                      std::string* reply);

/* What a job of the queue talks to tavid with. */
class taviweb_link_t {
 public:
  taviweb_link_t(const tavid_client_t* client, taviweb_exchange_fn exchange, taviweb_stats_t* stats,
                 bool cancelled)
      : client_(client), exchange_(exchange), stats_(stats), cancelled_(cancelled) {}
  /* One request and the daemon's whole reply; once the queue stops, CANCELLED at once. */
  tavid_client_failure_t exchange(const std::string& request, std::string* reply) const;
  std::string describe(tavid_client_failure_t failure) const;

 private:
  const tavid_client_t* client_;
  taviweb_exchange_fn exchange_;
  taviweb_stats_t* stats_;
  bool cancelled_;
};

class taviweb_tavid_t {
 public:
  using job_t = std::function<void(const taviweb_link_t& link)>;

  taviweb_tavid_t(tavid_client_t client, taviweb_stats_t* stats,
                  taviweb_exchange_fn exchange = tavid_client_exchange);
  taviweb_tavid_t(const taviweb_tavid_t&) = delete;
  taviweb_tavid_t& operator=(const taviweb_tavid_t&) = delete;
  ~taviweb_tavid_t();

  /* Runs the job after every job pushed before it. Once the queue has stopped, the job runs at
   * once in the caller's thread, with a link whose exchanges are cancelled. */
  void push(job_t job);
  /* Gives up the exchange under way and runs every job still waiting with a cancelled link, so
   * that each still answers whoever waits on it; then ends the worker. */
  void stop();

 private:
  void work();

  tavid_client_t client_;
  taviweb_stats_t* stats_;
  taviweb_exchange_fn exchange_;
  int cancel_fd_ = -1;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<job_t> jobs_;
  bool stopping_ = false;
  std::thread worker_;
};

#endif
