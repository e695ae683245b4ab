#ifndef BOXROOT_H
#define BOXROOT_H

#include <stddef.h>

/* Where the box's absolute paths live. On the board they are used as they stand; the host
 * build puts the directory named by TAVID_ROOT in front of each of them, so that a run on a
 * laptop only ever touches a simulated box. */

#define BOXROOT_PATH_LEN 256

/* Reads TAVID_ROOT once (host build) and puts the root's sbin and bin first in PATH.
 * Returns 0, or -1 after an error line when the root is unusable. */
int boxroot_init(void);

/* The path as the daemon must open it. Always NUL-terminated; returns buf. */
const char* boxroot_path(char* buf, size_t size, const char* box_path);

/* A shell command with the root put in front of every box path it names. Returns buf. */
const char* boxroot_command(char* buf, size_t size, const char* box_command);

/* Runs a box shell command through system(): 0 when it exited with status 0, -1 otherwise. */
int boxroot_system(const char* box_command);

#endif
