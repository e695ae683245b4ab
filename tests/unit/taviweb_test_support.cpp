#include "taviweb_test_support.h"

#include <poll.h>

fake_tavid_t fake_tavid;

namespace {

/* Whether the queue has given the exchange up (its cancel descriptor is readable). */
bool fake_cancelled(const tavid_client_t* client) {
  struct pollfd watched = {client->cancel_fd, POLLIN, 0};
  return client->cancel_fd >= 0 && poll(&watched, 1, 0) > 0;
}

}  // namespace

tavid_client_failure_t fake_exchange(const tavid_client_t* client, const std::string& request, std::string* reply) {
  std::unique_lock<std::mutex> lock(fake_tavid.mutex);
  fake_tavid.requests.push_back(request);
  fake_tavid.inside++;
  if (fake_tavid.inside > fake_tavid.most_inside) fake_tavid.most_inside = fake_tavid.inside;
  fake_tavid.waiting++;
  fake_tavid.changed.notify_all();
  while (fake_tavid.held && !fake_cancelled(client)) {
    fake_tavid.changed.wait_for(lock, std::chrono::milliseconds(5));
  }
  fake_tavid.waiting--;
  fake_tavid.inside--;
  if (fake_cancelled(client)) return tavid_client_failure_t{TAVID_CLIENT_CANCELLED, 0};
  if (fake_tavid.failure.err != TAVID_CLIENT_OK) return fake_tavid.failure;
  auto found = fake_tavid.replies.find(request);
  reply->append(found != fake_tavid.replies.end() ? found->second : "{}");
  return tavid_client_failure_t{};
}
