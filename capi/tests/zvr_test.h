/* Helpers of the C tests: checks that report and count, and the sandbox
 * rewards service as a child process on a free loopback port. */
#ifndef ZVR_TEST_H
#define ZVR_TEST_H

#include <ZorvaneRewardsKitC/zorvane_rewards.h>

#include <stdio.h>
#include <string.h>
#include <sys/types.h>

extern _Atomic int zvr_test_failures;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: CHECK failed: %s\n", __FILE__, __LINE__, #condition); \
      ++zvr_test_failures;                                                          \
    }                                                                               \
  } while (0)

/* A call's result, printed by name when it is not the expected one. */
#define CHECK_RESULT(expected, call)                                                 \
  do {                                                                               \
    zvr_result zvr_got_ = (call);                                                    \
    if (zvr_got_ != (expected)) {                                                    \
      fprintf(stderr, "%s:%d: %s gave %s, expected %s\n", __FILE__, __LINE__, #call, \
              zvr_result_name(zvr_got_), zvr_result_name(expected));                 \
      ++zvr_test_failures;                                                           \
    }                                                                                \
  } while (0)

#define CHECK_TEXT(expected, actual)                                                         \
  do {                                                                                       \
    const char* zvr_a_ = (actual);                                                           \
    if (zvr_a_ == NULL || strcmp(zvr_a_, (expected)) != 0) {                                 \
      fprintf(stderr, "%s:%d: %s is \"%s\", expected \"%s\"\n", __FILE__, __LINE__, #actual, \
              zvr_a_ ? zvr_a_ : "(null)", (expected));                                       \
      ++zvr_test_failures;                                                                   \
    }                                                                                        \
  } while (0)

/* Starts argv[0] (looked up in PATH) as a child that dies with this process,
 * its stdout on `out` (-1: ours). Returns its pid, or -1. */
pid_t zvr_test_spawn(char* const argv[], int out);
/* Starts `server` (zv_sandbox_server) on a free port with its state in
 * memory and writes its service host ("http://127.0.0.1:PORT") into `host`.
 * The child dies with this process. Returns 0 on success. */
int zvr_test_start_sandbox(const char* server, char* host, size_t size);
/* Stops the child started above (also done at exit). */
void zvr_test_stop_sandbox(void);

/* Runs the main queue until `*flag` is non-zero, 20 s at most. */
int zvr_test_wait_for(const int* flag);
/* Runs the main queue until it is dry, so that a late or second callback shows. */
void zvr_test_drain(void);

#endif
