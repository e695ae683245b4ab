/* The HTTP server: libmicrohttpd with its internal polling thread, which never blocks on tavid.
 * A request whose answer must wait (for tavid's queue or a status round) has its connection
 * suspended until the answer is there, so that other clients go on being served meanwhile. */

#ifndef TAVIWEB_HTTP_H
#define TAVIWEB_HTTP_H

#include <condition_variable>
#include <mutex>
#include <string>

#include "taviweb_options.h"
#include "taviweb_routes.h"

struct MHD_Daemon;
struct MHD_Connection;

/* Limits of the server, so that a slow or hostile client never blocks another. */
#define TAVIWEB_HTTP_IDLE_TIMEOUT_S 10U   /* an idle connection is closed after this */
#define TAVIWEB_HTTP_CONNECTIONS 64U      /* connections at once */
#define TAVIWEB_HTTP_CONNECTIONS_PER_IP 32U
#define TAVIWEB_HTTP_CONNECTION_MEMORY (32U * 1024U) /* request line and headers */
#define TAVIWEB_HTTP_BACKLOG 32

/* A listening socket on the address; -1 with `error` saying why. */
int taviweb_http_listen(const taviweb_listen_t& listen, std::string* error);

class taviweb_http_t {
 public:
  taviweb_http_t(taviweb_app_t* app, const taviweb_routes_t& routes, bool verbose);
  taviweb_http_t(const taviweb_http_t&) = delete;
  taviweb_http_t& operator=(const taviweb_http_t&) = delete;
  ~taviweb_http_t();

  /* Serves on the listening socket, which the server then owns. */
  bool start(int listen_fd, std::string* error);
  /* Waits until every request that reached its route has been answered and its answer sent
   * (stop tavid's queue first, so that every one is answered), then ends the server. */
  void stop();

  /* Bookkeeping of the requests between their route's handler and their end. */
  void handling();
  void handled();

  taviweb_app_t* app() const { return app_; }
  const taviweb_routes_t& routes() const { return routes_; }
  bool verbose() const { return verbose_; }

 private:
  taviweb_app_t* app_;
  taviweb_routes_t routes_;
  bool verbose_;
  struct MHD_Daemon* daemon_ = NULL;
  std::mutex mutex_;
  std::condition_variable idle_;
  unsigned handling_ = 0;
};

#endif
