#ifndef DBG_H
#define DBG_H

#include <stdint.h>
#include <stdio.h>

/* Set by -v: gates every message-level line. */
extern uint8_t verbose;

#define DBG_PROG "tavid"
#define DBG_RESET "\x1B[0m"
#define DBG_YELLOW "\x1B[33m"
#define DBG_RED "\x1B[31m"

/* Every line ends with "\n\r"; stdout is flushed at once so that a pipe sees whole lines. */
#define DBG_MSG(fmt, ...)                                                                          \
  do {                                                                                             \
    if (verbose) {                                                                                 \
      fprintf(stdout, "%s%s [MSG]: " fmt "%s\n\r", DBG_RESET, DBG_PROG, ##__VA_ARGS__, DBG_RESET); \
      fflush(stdout);                                                                              \
    }                                                                                              \
  } while (0)

#define DBG_NL()             \
  do {                       \
    if (verbose) {           \
      fputs("\n\r", stdout); \
      fflush(stdout);        \
    }                        \
  } while (0)

/* The _AT forms name the operation a helper works for, so that a line names the function a
 * reader knows (cmd_poll, main) rather than a helper of it. */
#define DBG_WRN_AT(func, fmt, ...)                                                                  \
  fprintf(stderr, "%s%s [WRN]: Warning in function '%s' [line %d]:\n\r\t" fmt "%s\n\r", DBG_YELLOW, \
          DBG_PROG, func, __LINE__, ##__VA_ARGS__, DBG_RESET)

#define DBG_ERR_AT(func, fmt, ...)                                                                       \
  fprintf(stderr, "%s%s [ERR]: Error in function '%s' [line %d]:\n\r\t" fmt "%s\n\r", DBG_RED, DBG_PROG, \
          func, __LINE__, ##__VA_ARGS__, DBG_RESET)

#define DBG_WRN(fmt, ...) DBG_WRN_AT(__func__, fmt, ##__VA_ARGS__)
#define DBG_ERR(fmt, ...) DBG_ERR_AT(__func__, fmt, ##__VA_ARGS__)

#endif
