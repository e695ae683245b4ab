#include "taviweb_tavid.h"

#include <stdio.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

#define TAVIWEB_TAVID_PROG "taviweb"

tavid_client_failure_t taviweb_link_t::exchange(const std::string& request, std::string* reply) const {
  if (cancelled_) return tavid_client_failure_t{TAVID_CLIENT_CANCELLED, 0};
  auto started = std::chrono::steady_clock::now();
  tavid_client_failure_t failure = exchange_(client_, request, reply);
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
  if (failure.err == TAVID_CLIENT_OK) {
    stats_->count_tavid_answer(took.count());
  } else if (failure.err != TAVID_CLIENT_CANCELLED) {
    stats_->count_tavid_failure();
  }
  return failure;
}

std::string taviweb_link_t::describe(tavid_client_failure_t failure) const {
  return tavid_client_describe(client_, failure);
}

taviweb_tavid_t::taviweb_tavid_t(tavid_client_t client, taviweb_stats_t* stats, taviweb_exchange_fn exchange)
    : client_(std::move(client)), stats_(stats), exchange_(exchange) {
  /* Once written, the descriptor stays readable: every later wait of the client gives up. */
  cancel_fd_ = eventfd(0, EFD_CLOEXEC);
  if (cancel_fd_ < 0) perror(TAVIWEB_TAVID_PROG ": no descriptor to give up exchanges with");
  client_.cancel_fd = cancel_fd_;
  worker_ = std::thread([this] { work(); });
}

taviweb_tavid_t::~taviweb_tavid_t() {
  stop();
  if (cancel_fd_ >= 0) close(cancel_fd_);
}

void taviweb_tavid_t::push(job_t job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stopping_) {
      jobs_.push_back(std::move(job));
      wake_.notify_one();
      return;
    }
  }
  job(taviweb_link_t(&client_, exchange_, stats_, true));
}

void taviweb_tavid_t::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    wake_.notify_one();
  }
  /* Without the descriptor, the exchange under way ends at its time-out instead. */
  uint64_t one = 1;
  if (cancel_fd_ >= 0 && write(cancel_fd_, &one, sizeof(one)) < 0) {
    perror(TAVIWEB_TAVID_PROG ": cannot give up the exchange with tavid");
  }
  worker_.join();
}

void taviweb_tavid_t::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) return;
    job_t job = std::move(jobs_.front());
    jobs_.pop_front();
    bool cancelled = stopping_;
    lock.unlock();
    job(taviweb_link_t(&client_, exchange_, stats_, cancelled));
    lock.lock();
  }
}
