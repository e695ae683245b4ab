#include "boxroot.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "dbg.h"

#ifdef TAVID_HOST_ROOT

static char boxroot[BOXROOT_PATH_LEN];

/* The root goes into shell commands and into PATH as it stands: a space, a quote or a ':' would
 * split it there and reach outside it, so only these characters are taken. */
static bool boxroot_plain(const char* root) {
  for (const char* c = root; *c != '\0'; c++) {
    if (!isalnum(static_cast<unsigned char>(*c)) && strchr("/._-+,", *c) == NULL) return false;
  }
  return true;
}

/* An existing absolute directory of plain characters, and not the machine's own "/", whatever
 * name leads there. */
static bool boxroot_usable(const char* root) {
  struct stat st;
  struct stat machine_root;
  if (root == NULL || root[0] != '/' || strlen(root) >= sizeof(boxroot) || !boxroot_plain(root) ||
      stat(root, &st) != 0 || !S_ISDIR(st.st_mode) || stat("/", &machine_root) != 0)
    return false;
  return st.st_dev != machine_root.st_dev || st.st_ino != machine_root.st_ino;
}

int boxroot_init(void) {
  const char* root = getenv("TAVID_ROOT");
  if (!boxroot_usable(root)) {
    DBG_ERR("TAVID_ROOT must name an existing absolute directory (the simulated box)");
    return -1;
  }
  snprintf(boxroot, sizeof(boxroot), "%s", root);
  size_t len = strlen(boxroot);
  while (len > 1 && boxroot[len - 1] == '/') boxroot[--len] = '\0';

  const char* path = getenv("PATH");
  size_t size = 2 * len + strlen("/sbin:/bin:") + (path ? strlen(path) : 0) + 1;
  char* new_path = static_cast<char*>(malloc(size));
  if (new_path == NULL) {
    DBG_ERR("Could not set PATH for the box root");
    return -1;
  }
  snprintf(new_path, size, "%s/sbin:%s/bin%s%s", boxroot, boxroot, path ? ":" : "", path ? path : "");
  int rc = setenv("PATH", new_path, 1);
  free(new_path);
  return rc == 0 ? 0 : -1;
}

const char* boxroot_path(char* buf, size_t size, const char* box_path) {
  snprintf(buf, size, "%s%s", box_path[0] == '/' ? boxroot : "", box_path);
  return buf;
}

const char* boxroot_command(char* buf, size_t size, const char* box_command) {
  size_t out = 0;
  for (const char* p = box_command; *p != '\0' && out + 1 < size; p++) {
    if (*p == '/' && (p == box_command || p[-1] == ' ')) {
      size_t n = strlen(boxroot);
      if (out + n + 1 >= size) break;
      memcpy(buf + out, boxroot, n);
      out += n;
    }
    buf[out++] = *p;
  }
  buf[out < size ? out : size - 1] = '\0';
  return buf;
}

#else

int boxroot_init(void) { return 0; }

const char* boxroot_path(char* buf, size_t size, const char* box_path) {
  snprintf(buf, size, "%s", box_path);
  return buf;
}

const char* boxroot_command(char* buf, size_t size, const char* box_command) {
  return boxroot_path(buf, size, box_command);
}

#endif

int boxroot_system(const char* box_command) {
  char command[2 * BOXROOT_PATH_LEN];
  // NOLINTNEXTLINE(cert-env33-c): box commands are shell command lines; this is where they run
  int status = system(boxroot_command(command, sizeof(command), box_command));
  return ((status >> 8) & 0xFF) == 0 ? 0 : -1;
}
