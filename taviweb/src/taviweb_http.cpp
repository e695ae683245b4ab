#include "taviweb_http.h"

#include <errno.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>

namespace {

/* How long stop() waits for the requests being handled to end. */
#define TAVIWEB_HTTP_STOP_WAIT std::chrono::seconds(5)

struct taviweb_mhd_response_deleter {
  void operator()(struct MHD_Response* response) const { MHD_destroy_response(response); }
};
using taviweb_mhd_response_ptr = std::unique_ptr<struct MHD_Response, taviweb_mhd_response_deleter>;

/* The answer of one request. The server's thread settles it after the route's handler has run and
 * after each resumption; any thread sends it. A request whose answer is not there when its
 * handler returns has its connection suspended, and the answer resumes it. */
class taviweb_pending_t : public taviweb_responder_t {
 public:
  explicit taviweb_pending_t(struct MHD_Connection* connection) : connection_(connection) {}

  void send(taviweb_response_t response) override {
    bool resume = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      response_ = std::move(response);
      resume = suspended_;
    }
    if (resume) MHD_resume_connection(connection_);
  }

  /* The answer when it is there; else the connection waits for it, suspended. */
  std::optional<taviweb_response_t> settle() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (response_) {
      suspended_ = false;
      return std::move(response_);
    }
    if (!suspended_) {
      MHD_suspend_connection(connection_);
      suspended_ = true;
    }
    return std::nullopt;
  }

 private:
  struct MHD_Connection* connection_;
  std::mutex mutex_;
  std::optional<taviweb_response_t> response_;
  bool suspended_ = false;
};

/* One request on a connection, from its headers to its end. */
typedef struct taviweb_call_t {
  taviweb_request_t request;
  const taviweb_route_t* route = NULL;
  bool too_large = false; /* the body grew past the route's body_max */
  bool answered = false;
  unsigned status = 0;
  std::shared_ptr<taviweb_pending_t> pending;
} taviweb_call_t;

std::optional<std::string> taviweb_http_header(struct MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  if (value == NULL) return std::nullopt;
  return std::string(value);
}

std::optional<uint64_t> taviweb_http_length(struct MHD_Connection* connection) {
  std::optional<std::string> text = taviweb_http_header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (!text) return std::nullopt;
  return strtoull(text->c_str(), NULL, 10);
}

enum MHD_Result taviweb_http_respond(taviweb_call_t* call, struct MHD_Connection* connection,
                                     const taviweb_response_t& response) {
  taviweb_mhd_response_ptr mhd(MHD_create_response_from_buffer(
      response.body.size(), const_cast<char*>(response.body.data()), MHD_RESPMEM_MUST_COPY));
  if (!mhd) return MHD_NO;
  MHD_add_response_header(mhd.get(), MHD_HTTP_HEADER_CONTENT_TYPE, response.content_type.c_str());
  MHD_add_response_header(mhd.get(), MHD_HTTP_HEADER_CACHE_CONTROL, response.cache_control.c_str());
  MHD_add_response_header(mhd.get(), "X-Content-Type-Options", "nosniff");
  for (const auto& [name, value] : response.headers) MHD_add_response_header(mhd.get(), name.c_str(), value.c_str());
  call->answered = true;
  call->status = response.status;
  return MHD_queue_response(connection, response.status, mhd.get());
}

/* The headers are in: the request is admitted to its route, or refused at once. */
enum MHD_Result taviweb_http_begin(taviweb_http_t* server, taviweb_call_t* call, struct MHD_Connection* connection,
                                   const char* url, const char* method) {
  taviweb_request_t* request = &call->request;
  request->method = method;
  request->path = url;
  request->host = taviweb_http_header(connection, MHD_HTTP_HEADER_HOST);
  request->origin = taviweb_http_header(connection, MHD_HTTP_HEADER_ORIGIN);
  request->content_type = taviweb_http_header(connection, MHD_HTTP_HEADER_CONTENT_TYPE);
  request->authorization = taviweb_http_header(connection, MHD_HTTP_HEADER_AUTHORIZATION);
  request->if_none_match = taviweb_http_header(connection, MHD_HTTP_HEADER_IF_NONE_MATCH);
  request->content_length = taviweb_http_length(connection);
  taviweb_admission_t admission = taviweb_route_admit(server->app(), server->routes(), *request);
  call->route = admission.route;
  if (admission.refusal) return taviweb_http_respond(call, connection, *admission.refusal);
  return MHD_YES;
}

/* A piece of the body; past the route's body_max, the rest is dropped. */
void taviweb_http_take(taviweb_call_t* call, const char* data, size_t size) {
  if (call->answered || call->too_large) return;
  if (call->request.body.size() + size > call->route->body_max) {
    call->too_large = true;
    call->request.body.clear();
    return;
  }
  call->request.body.append(data, size);
}

/* The whole body is in (or the connection was resumed): the route answers, now or later. */
enum MHD_Result taviweb_http_finish(taviweb_http_t* server, taviweb_call_t* call, struct MHD_Connection* connection) {
  if (call->answered) return MHD_YES;
  if (!call->pending) {
    call->pending = std::make_shared<taviweb_pending_t>(connection);
    server->handling();
    taviweb_route_handle(server->app(), call->route, call->request, call->too_large, call->pending);
  }
  std::optional<taviweb_response_t> response = call->pending->settle();
  if (response) return taviweb_http_respond(call, connection, *response);
  return MHD_YES;
}

enum MHD_Result taviweb_http_access(void* cls, struct MHD_Connection* connection, const char* url,
                                    const char* method, const char*, const char* upload_data,
                                    size_t* upload_data_size, void** con_cls) {
  auto* server = static_cast<taviweb_http_t*>(cls);
  auto* call = static_cast<taviweb_call_t*>(*con_cls);
  if (call == NULL) {
    auto owned = std::make_unique<taviweb_call_t>();
    call = owned.get();
    *con_cls = owned.release();
    return taviweb_http_begin(server, call, connection, url, method);
  }
  if (*upload_data_size > 0) {
    taviweb_http_take(call, upload_data, *upload_data_size);
    *upload_data_size = 0;
    return MHD_YES;
  }
  return taviweb_http_finish(server, call, connection);
}

/* The request is over: counted by path and status, and logged when verbose. */
void taviweb_http_completed(void* cls, struct MHD_Connection*, void** con_cls, enum MHD_RequestTerminationCode) {
  std::unique_ptr<taviweb_call_t> call(static_cast<taviweb_call_t*>(*con_cls));
  *con_cls = NULL;
  auto* server = static_cast<taviweb_http_t*>(cls);
  if (call && call->pending) server->handled();
  if (!call || !call->answered) return;
  server->app()->stats->count_http(taviweb_route_label(server->routes(), call->request.path), call->status);
  if (server->verbose()) {
    printf(TAVIWEB_PROG ": %s %s %u\n", call->request.method.c_str(), call->request.path.c_str(), call->status);
  }
}

}  // namespace

int taviweb_http_listen(const taviweb_listen_t& listen, std::string* error) {
  int family = listen.addr.ss_family;
  int fd = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int on = 1;
  if (fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
      (family != AF_INET6 || setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on)) == 0) &&
      bind(fd, reinterpret_cast<const struct sockaddr*>(&listen.addr), listen.length) == 0 &&
      ::listen(fd, TAVIWEB_HTTP_BACKLOG) == 0) {
    return fd;
  }
  *error = "cannot listen on " + listen.text + " (" + tavid_client_strerror(errno) + ")";
  if (fd >= 0) close(fd);
  return -1;
}

taviweb_http_t::taviweb_http_t(taviweb_app_t* app, const taviweb_routes_t& routes, bool verbose)
    : app_(app), routes_(routes), verbose_(verbose) {}

taviweb_http_t::~taviweb_http_t() { stop(); }

bool taviweb_http_t::start(int listen_fd, std::string* error) {
  unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_AUTO;
  if (verbose_) flags |= MHD_USE_ERROR_LOG;
  daemon_ = MHD_start_daemon(
      flags, 0, NULL, NULL, taviweb_http_access, this, MHD_OPTION_LISTEN_SOCKET, listen_fd,
      MHD_OPTION_NOTIFY_COMPLETED, taviweb_http_completed, this, MHD_OPTION_CONNECTION_TIMEOUT,
      TAVIWEB_HTTP_IDLE_TIMEOUT_S, MHD_OPTION_CONNECTION_LIMIT, TAVIWEB_HTTP_CONNECTIONS,
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, TAVIWEB_HTTP_CONNECTIONS_PER_IP, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      static_cast<size_t>(TAVIWEB_HTTP_CONNECTION_MEMORY), MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_END);
  if (daemon_ != NULL) return true;
  close(listen_fd);
  *error = "the HTTP server did not start";
  return false;
}

void taviweb_http_t::stop() {
  if (daemon_ == NULL) return;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait_for(lock, TAVIWEB_HTTP_STOP_WAIT, [this] { return handling_ == 0; });
  }
  MHD_stop_daemon(daemon_);
  daemon_ = NULL;
}

void taviweb_http_t::handling() {
  std::lock_guard<std::mutex> lock(mutex_);
  handling_++;
}

void taviweb_http_t::handled() {
  std::lock_guard<std::mutex> lock(mutex_);
  handling_--;
  idle_.notify_all();
}
