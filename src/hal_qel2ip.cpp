#include "hal_qel2ip.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "boxroot.h"
#include "dbg.h"
#include "utf8.h"

#define QEL2IP_WAIT_US 10000

static hal_qel2ip_t* hal_qel2ip_of(void* user) { return static_cast<hal_qel2ip_t*>(user); }

hal_output_ip_t* new_hal_qel2ip_output_ip(uint8_t qel_id, hal_ts_t* tsin) {
  hal_output_ip_t* out = new_hal_output_ip(tsin);
  if (out == NULL) {
    DBG_WRN("Could not create");
    return NULL;
  }
  hal_qel2ip_t* q = static_cast<hal_qel2ip_t*>(calloc(1, sizeof(hal_qel2ip_t)));
  if (q == NULL) {
    DBG_WRN("Could not create");
    delete_hal_output_ip(&out->hal_object); /* there is no child to stop yet */
    return NULL;
  }
  snprintf(q->s_qel_id, sizeof(q->s_qel_id), "%u", static_cast<unsigned>(qel_id));
  q->proc_id = -1;
  out->hal_object.user = q;
  out->hal_object.delete_ = delete_hal_qel2ip_output_ip;
  out->hal_object.strerror = NULL;
  out->set.s_dst_addr = hal_qel2ip_set_dst_addr;
  out->set.s_dst_port = hal_qel2ip_set_dst_port;
  out->get.s_dst_addr = hal_qel2ip_get_dst_addr;
  out->get.s_dst_port = hal_qel2ip_get_dst_port;
  out->get.bitrate_kbps = hal_qel2ip_get_bitrate;
  out->apply = hal_qel2ip_apply;
  return out;
}

void delete_hal_qel2ip_output_ip(hal_object_t* object) {
  hal_qel2ip_t* q = hal_qel2ip_of(object->user);
  if (q != NULL) hal_qel2ip_stop(q);
  free(q);
  object->user = NULL;
  delete_hal_output_ip(object);
}

/* Only the text and its NUL are written: the caller's buffer may be the output's own stored
 * setting, smaller than the size the caller passed. */
static void hal_qel2ip_copy_text(char* to, size_t size, const char* from) {
  if (size > 0) utf8_copy(to, size, from);
}

hal_err_t hal_qel2ip_set_dst_addr(void* user, const char* s_dst_addr) {
  hal_qel2ip_t* q = hal_qel2ip_of(user);
  hal_qel2ip_copy_text(q->s_dst_addr, sizeof(q->s_dst_addr), s_dst_addr);
  return HAL_OK;
}

hal_err_t hal_qel2ip_set_dst_port(void* user, const char* s_dst_port) {
  hal_qel2ip_t* q = hal_qel2ip_of(user);
  hal_qel2ip_copy_text(q->s_dst_port, sizeof(q->s_dst_port), s_dst_port);
  return HAL_OK;
}

hal_err_t hal_qel2ip_get_dst_addr(void* user, char* s_dst_addr, size_t size) {
  hal_qel2ip_copy_text(s_dst_addr, size, hal_qel2ip_of(user)->s_dst_addr);
  return HAL_OK;
}

hal_err_t hal_qel2ip_get_dst_port(void* user, char* s_dst_port, size_t size) {
  hal_qel2ip_copy_text(s_dst_port, size, hal_qel2ip_of(user)->s_dst_port);
  return HAL_OK;
}

/* A child that ended by itself is reaped here, so that it counts as not running from then on.
 * Once reaped (or when it is no child of ours) its process id is forgotten: another process may
 * take the number, and the daemon never signals it. */
uint8_t hal_qel2ip_running(hal_qel2ip_t* q) {
  if (q->proc_id < 1) return 0;
  if (waitpid(q->proc_id, NULL, WNOHANG) == 0) return 1;
  DBG_MSG("Qel2ip ended (PID %d)", static_cast<int>(q->proc_id));
  q->proc_id = -1;
  return 0;
}

/* Only the child that is still ours is signalled; fails with ESRCH once it has been reaped. */
static int hal_qel2ip_signal(hal_qel2ip_t* q, int signum) {
  if (q->proc_id < 1) {
    errno = ESRCH;
    return -1;
  }
  return kill(q->proc_id, signum);
}

/* Runs in the forked child only. _exit rather than exit: the parent's atexit handlers and stdio
 * buffers are not the child's to run. */
[[noreturn]] static void hal_qel2ip_exec(const char* path, char* const argv[]) {
  static char* const empty_environment[] = {NULL};
  close(0);
  close(1);
  close(2);
  execve(path, argv, empty_environment);
  _exit(1);
}

hal_err_t hal_qel2ip_start(hal_qel2ip_t* q) {
  DBG_MSG("Starting qel2ip...");
  if (hal_qel2ip_running(q)) {
    const pid_t old = q->proc_id; /* a failed stop may have reaped and forgotten it */
    DBG_MSG("Qel2ip already running (PID %d)", static_cast<int>(old));
    if (hal_qel2ip_stop(q) != HAL_OK) {
      DBG_WRN("Could not restart qel2ip (PID %d)", static_cast<int>(old));
      return HAL_QEL2IP_ERR;
    }
  }
  char path[BOXROOT_PATH_LEN + sizeof(QEL2IP_PATH)];
  boxroot_path(path, sizeof(path), QEL2IP_PATH);
  if (access(path, X_OK) != 0) {
    DBG_WRN("Qel2ip does not exist or is not executable");
    return HAL_QEL2IP_ERR;
  }
  char* const argv[] = {path,          const_cast<char*>("-d"), q->s_dst_addr, const_cast<char*>("-p"),
                        q->s_dst_port, const_cast<char*>("-i"), q->s_qel_id,   NULL};
  q->proc_id = fork();
  if (q->proc_id < 0) {
    DBG_WRN("Could not create a new process for qel2ip");
    return HAL_QEL2IP_ERR;
  }
  if (q->proc_id == 0) hal_qel2ip_exec(path, argv);
  DBG_MSG("qel2ip started for destination %s:%s (QEL: %s) (PID %d)", q->s_dst_addr, q->s_dst_port,
          q->s_qel_id, static_cast<int>(q->proc_id));
  return HAL_OK;
}

/* Once the child is reaped, whatever ended it, its process id is forgotten. */
uint8_t hal_qel2ip_wait(hal_qel2ip_t* q, uint32_t* waited) {
  int status = 0;
  pid_t reaped;
  while ((reaped = waitpid(q->proc_id, &status, WNOHANG)) == 0) {
    if (*waited >= QEL2IP_STOP_TIMEOUT) return 0;
    usleep(QEL2IP_WAIT_US);
    (*waited)++;
  }
  q->proc_id = -1;
  /* A child that caught the signal and exited has not been stopped by it. */
  return reaped > 0 && WIFSIGNALED(status);
}

static hal_err_t hal_qel2ip_stopped(pid_t pid, const char* signal_name) {
  DBG_MSG("Qel2ip stopped with %s (PID %d)", signal_name, static_cast<int>(pid));
  return HAL_OK;
}

/* Both signals share one wait budget: after a SIGTERM wait that used it up, the SIGKILL wait
 * makes a single poll. A child that the SIGTERM wait reaped after a normal exit is not sent
 * SIGKILL: it is gone, and its number may be another process's by then. */
hal_err_t hal_qel2ip_stop(hal_qel2ip_t* q) {
  DBG_MSG("Stopping qel2ip... (PID %d)", static_cast<int>(q->proc_id));
  if (!hal_qel2ip_running(q)) return HAL_OK;
  const pid_t pid = q->proc_id;
  uint32_t waited = 0;
  if (hal_qel2ip_signal(q, SIGTERM) != 0) {
    DBG_WRN("Could not send SIGTERM to qel2ip (PID %d)", static_cast<int>(pid));
  } else if (hal_qel2ip_wait(q, &waited)) {
    return hal_qel2ip_stopped(pid, "SIGTERM");
  }
  DBG_WRN("Could not stop qel2ip with SIGTERM (PID %d)", static_cast<int>(pid));
  if (hal_qel2ip_signal(q, SIGKILL) != 0) {
    DBG_WRN("Could not send SIGKILL to qel2ip (PID %d)", static_cast<int>(pid));
  } else if (hal_qel2ip_wait(q, &waited)) {
    return hal_qel2ip_stopped(pid, "SIGKILL");
  }
  DBG_WRN("Could not stop qel2ip with SIGKILL (PID %d)", static_cast<int>(pid));
  return HAL_QEL2IP_ERR;
}

hal_err_t hal_qel2ip_apply(hal_output_ip_t* out) {
  hal_qel2ip_t* q = hal_qel2ip_of(out->hal_object.user);
  lnklist_node_t* node;
  FOREACH_NODE(&out->tsout->service_list, node) {
    if (reinterpret_cast<hal_service_t*>(node)->enabled) return hal_qel2ip_start(q);
  }
  return hal_qel2ip_stop(q);
}

/* Out-of-range rates saturate, as the board's float conversion does, instead of being undefined. */
static uint32_t hal_qel2ip_kbps(double mbps) {
  double kbps = mbps * 1000;
  if (!(kbps > 0)) return 0;
  if (kbps >= static_cast<double>(UINT32_MAX)) return UINT32_MAX;
  return static_cast<uint32_t>(kbps);
}

/* The file holds the rate in Mbit/s, a decimal number and nothing else (a newline included). */
static hal_err_t hal_qel2ip_read_bitrate(FILE* file, const char* name, uint32_t* bitrate_kbps) {
  char text[64] = {0};
  size_t length = fread(text, 1, sizeof(text) - 1, file);
  if (length == 0 || ferror(file)) {
    DBG_WRN_AT("hal_qel2ip_get_bitrate", "Couldn't read '%s'", name);
    return HAL_QEL2IP_ERR;
  }
  char* end = NULL;
  *bitrate_kbps = hal_qel2ip_kbps(strtod(text, &end));
  if (*end != '\0') {
    DBG_WRN_AT("hal_qel2ip_get_bitrate", "Couldn't convert bitrate from '%s'", name);
    return HAL_QEL2IP_ERR;
  }
  return HAL_OK;
}

hal_err_t hal_qel2ip_get_bitrate(void* user, uint32_t* bitrate_kbps) {
  hal_qel2ip_t* q = hal_qel2ip_of(user);
  char box_path[QEL2IP_STAT_NAME_LEN];
  snprintf(box_path, sizeof(box_path), QEL2IP_STAT_FORMAT, q->s_qel_id);
  *bitrate_kbps = 0;
  if (!hal_qel2ip_running(q)) return HAL_OK;
  char path[BOXROOT_PATH_LEN + QEL2IP_STAT_NAME_LEN];
  FILE* file = fopen(boxroot_path(path, sizeof(path), box_path), "re");
  if (file == NULL) {
    DBG_WRN("Couldn't open '%s'", box_path);
    return HAL_QEL2IP_ERR;
  }
  hal_err_t err = hal_qel2ip_read_bitrate(file, box_path, bitrate_kbps);
  (void)fclose(file); /* read only */
  return err;
}
