/* taviweb: the box's command port over HTTP for front ends and scripts, and its status as
 * Prometheus metrics. A client of tavid's command port, like tavictl. */

#include <signal.h>
#include <stdio.h>

#include <string>

#include "taviweb_auth.h"
#include "taviweb_http.h"
#include "taviweb_options.h"
#include "taviweb_routes.h"
#include "taviweb_stats.h"
#include "taviweb_status.h"
#include "taviweb_tavid.h"

namespace {

enum : int {
  TAVIWEB_EXIT_OK = 0,
  TAVIWEB_EXIT_START = 1,
  TAVIWEB_EXIT_USAGE = 2,
};

int taviweb_usage_error(const std::string& message) {
  fprintf(stderr, TAVIWEB_PROG ": %s\nTry '" TAVIWEB_PROG " --help' for more information.\n", message.c_str());
  return TAVIWEB_EXIT_USAGE;
}

int taviweb_start_error(const std::string& message) {
  fprintf(stderr, TAVIWEB_PROG ": %s\n", message.c_str());
  return TAVIWEB_EXIT_START;
}

/* SIGTERM and SIGINT are taken by sigwait in the main thread only: blocked before any thread
 * starts, so that every thread inherits the mask. */
void taviweb_block_signals(sigset_t* stop) {
  sigemptyset(stop);
  sigaddset(stop, SIGTERM);
  sigaddset(stop, SIGINT);
  if (pthread_sigmask(SIG_BLOCK, stop, NULL) != 0 || signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
    perror(TAVIWEB_PROG ": cannot set up the signals");
  }
}

int taviweb_serve(const taviweb_options_t& options, taviweb_auth_t* auth, const sigset_t& stop) {
  std::string error;
  int listen_fd = taviweb_http_listen(options.listen, &error);
  if (listen_fd < 0) return taviweb_start_error(error);
  taviweb_stats_t stats;
  taviweb_tavid_t tavid(options.tavid, &stats);
  taviweb_status_t status(&tavid, options.interval_s);
  taviweb_app_t app = {auth, &tavid, &status, &stats};
  taviweb_http_t http(&app, taviweb_routes, options.verbose);
  if (!http.start(listen_fd, &error)) return taviweb_start_error(error);
  if (options.verbose) {
    printf(TAVIWEB_PROG ": serving http://%s, tavid at %s port %s\n", options.listen.text.c_str(),
           options.tavid.host.c_str(), options.tavid.port.c_str());
  }
  int signal_number = 0;
  sigwait(&stop, &signal_number);
  if (options.verbose) printf(TAVIWEB_PROG ": stopping (signal %d)\n", signal_number);
  /* Every request still waiting for tavid is answered, then the server ends. */
  tavid.stop();
  http.stop();
  return TAVIWEB_EXIT_OK;
}

}  // namespace

int main(int argc, char** argv) {
  /* One line at a time, so that a log file shows each request as it ends. */
  if (setvbuf(stdout, NULL, _IOLBF, 0) != 0) perror(TAVIWEB_PROG ": standard output stays fully buffered");
  taviweb_options_t options;
  std::string error;
  if (!taviweb_parse_options(argc, argv, &options, &error)) return taviweb_usage_error(error);
  if (options.help) {
    fputs(taviweb_help, stdout);
    return TAVIWEB_EXIT_OK;
  }
  taviweb_auth_t auth;
  if (!options.auth_file.empty() && !auth.load(options.auth_file.c_str(), &error)) {
    return taviweb_start_error(error);
  }
  sigset_t stop;
  taviweb_block_signals(&stop);
  return taviweb_serve(options, options.auth_file.empty() ? NULL : &auth, stop);
}
