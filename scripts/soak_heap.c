/* The soak's heap probe: preloaded into tavid by scripts/soak.py, it tells the soak how many
 * bytes the daemon's malloc holds, so that the soak can measure the live heap exactly instead of
 * the resident set, which the allocator's own layout moves by whole pages. The daemon itself is
 * not changed for it.
 *
 * SOAK_HEAP_EXE names the daemon's executable and SOAK_HEAP_DIR a directory. In the process
 * running that executable, and in no other (the daemon's shell commands inherit the preload with
 * its environment), the probe listens on the Unix socket SOAK_HEAP_DIR/<pid> and answers every
 * connection with one line, then closes it:
 *
 *   <allocator> <in use> <mmapped> <listening descriptor>
 *
 * <allocator> is "glibc" when the process's malloc is the C library's and "other" when something
 * else replaced it (its figures then mean nothing); <in use> is mallinfo2's uordblks, the bytes
 * of chunks handed out from the arenas (chunks held in the per-thread cache count as handed out:
 * the soak turns that cache off), and <mmapped> its hblkhd, the bytes of chunks mapped on their
 * own. The listening descriptor is the probe's own, for the soak to leave out of the daemon's
 * descriptors.
 *
 * The answering thread never allocates (no stdio, no malloc; glibc gives a thread an arena only
 * at its first allocation), so the probe adds nothing to the figures after start-up. It runs with
 * every signal blocked, so that the daemon's signals keep reaching its main thread. The socket
 * and the connections are close-on-exec: the daemon's children never see them. */

/* Built with _GNU_SOURCE (accept4, mallinfo2, RTLD_DEFAULT). */
#include <dlfcn.h>
#include <limits.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { PROBE_STACK = 64 * 1024, PROBE_BACKLOG = 4, PROBE_LINE = 128, PROBE_RETRY_NS = 10000000 };

static int probe_fd = -1;
static const char* probe_allocator = "glibc";

/* The soak's executable, the target of /proc/self/exe: this process is the daemon. */
static int probe_is_target(const char* exe) {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length < 0) return 0;
  self[length] = '\0';
  return strcmp(self, exe) == 0;
}

/* Whether the malloc that the process calls is the C library's own. */
static int probe_glibc_malloc(void) {
  void* libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
  int same = libc != NULL && dlsym(libc, "malloc") == dlsym(RTLD_DEFAULT, "malloc");
  if (libc != NULL) (void)dlclose(libc);
  return same;
}

static char* probe_put_text(char* at, const char* text) {
  while (*text != '\0') *at++ = *text++;
  return at;
}

static char* probe_put_number(char* at, size_t number, char after) {
  char digits[24];
  int count = 0;
  do {
    digits[count++] = (char)('0' + number % 10);
    number /= 10;
  } while (number != 0);
  while (count > 0) *at++ = digits[--count];
  *at++ = after;
  return at;
}

static void probe_answer(int connection) {
  struct mallinfo2 figures = mallinfo2();
  char line[PROBE_LINE];
  char* at = probe_put_text(line, probe_allocator);
  *at++ = ' ';
  at = probe_put_number(at, figures.uordblks, ' ');
  at = probe_put_number(at, figures.hblkhd, ' ');
  at = probe_put_number(at, (size_t)probe_fd, '\n');
  const char* from = line;
  while (from < at) {
    ssize_t written = write(connection, from, (size_t)(at - from));
    if (written <= 0) return;
    from += written;
  }
}

static void* probe_serve(void* unused) {
  (void)unused;
  for (;;) {
    struct sockaddr_un peer;
    socklen_t length = sizeof peer;
    int connection = accept4(probe_fd, (struct sockaddr*)&peer, &length, SOCK_CLOEXEC);
    if (connection < 0) {
      /* Out of descriptors, say: no spinning while the daemon recovers. */
      const struct timespec pause = {.tv_sec = 0, .tv_nsec = PROBE_RETRY_NS};
      (void)nanosleep(&pause, NULL);
      continue;
    }
    probe_answer(connection);
    (void)close(connection);
  }
  return NULL;
}

static int probe_listen(const char* dir) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  char pid[24];
  *probe_put_number(pid, (size_t)getpid(), '\0') = '\0';
  if (strlen(dir) + 1 + strlen(pid) >= sizeof address.sun_path) return -1;
  char* at = probe_put_text(address.sun_path, dir);
  *at++ = '/';
  (void)probe_put_text(at, pid);
  (void)unlink(address.sun_path); /* left by an earlier process that had this number */
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (bind(fd, (const struct sockaddr*)&address, sizeof address) != 0 || listen(fd, PROBE_BACKLOG) != 0) {
    (void)close(fd);
    return -1;
  }
  return fd;
}

static int probe_start(void) {
  pthread_attr_t attributes;
  pthread_t thread;
  sigset_t all;
  sigset_t old;
  if (pthread_attr_init(&attributes) != 0) return -1;
  (void)pthread_attr_setstacksize(&attributes, (size_t)PTHREAD_STACK_MIN + PROBE_STACK);
  (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  (void)sigfillset(&all);
  (void)pthread_sigmask(SIG_SETMASK, &all, &old);
  int started = pthread_create(&thread, &attributes, probe_serve, NULL);
  (void)pthread_sigmask(SIG_SETMASK, &old, NULL);
  (void)pthread_attr_destroy(&attributes);
  return started == 0 ? 0 : -1;
}

__attribute__((constructor)) static void probe_init(void) {
  const char* exe = getenv("SOAK_HEAP_EXE");
  const char* dir = getenv("SOAK_HEAP_DIR");
  if (exe == NULL || dir == NULL || !probe_is_target(exe)) return;
  if (!probe_glibc_malloc()) probe_allocator = "other";
  probe_fd = probe_listen(dir);
  /* Without the thread nobody would answer: no socket then, and the soak knows why. */
  if (probe_fd >= 0 && probe_start() != 0) {
    (void)close(probe_fd);
    probe_fd = -1;
  }
}
