/* Shared scaffolding of taviweb's unit tests: a responder that catches the answer, and a fake
 * tavid behind the queue's exchange function. */

#ifndef TAVIWEB_TEST_SUPPORT_H
#define TAVIWEB_TEST_SUPPORT_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "taviweb_request.h"
#include "taviweb_tavid.h"

/* Catches the answer of a route, from whichever thread sends it. */
class caught_t : public taviweb_responder_t {
 public:
  void send(taviweb_response_t response) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_++;
    response_ = std::move(response);
    arrived_.notify_all();
  }
  taviweb_response_t wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait(lock, [this] { return response_.has_value(); });
    return *response_;
  }
  bool answered() {
    std::lock_guard<std::mutex> lock(mutex_);
    return response_.has_value();
  }
  int sent() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::optional<taviweb_response_t> response_;
  int sent_ = 0;
};

/* The fake tavid: replies by request text, the requests it took in order, and a gate that holds
 * every exchange until it is opened (or the exchange is given up through the cancel descriptor). */
struct fake_tavid_t {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, std::string> replies; /* request -> reply; others: "{}" */
  tavid_client_failure_t failure = {};        /* returned instead of a reply when not OK */
  std::vector<std::string> requests;
  bool held = false;
  int waiting = 0; /* exchanges held at the gate */
  int inside = 0;  /* exchanges under way */
  int most_inside = 0;

  void reset() {
    std::lock_guard<std::mutex> lock(mutex);
    replies.clear();
    failure = {};
    requests.clear();
    held = false;
    waiting = inside = most_inside = 0;
  }
  void hold() {
    std::lock_guard<std::mutex> lock(mutex);
    held = true;
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex);
    held = false;
    changed.notify_all();
  }
  /* Waits until `count` exchanges are held at the gate. */
  void wait_held(int count) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this, count] { return waiting >= count; });
  }
  std::vector<std::string> taken() {
    std::lock_guard<std::mutex> lock(mutex);
    return requests;
  }
};

extern fake_tavid_t fake_tavid;

tavid_client_failure_t fake_exchange(const tavid_client_t* client, const std::string& request, std::string* reply);

#endif
