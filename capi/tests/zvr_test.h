/* Helpers of the C tests: checks that report and count, and main-queue waits. */
#ifndef ZVR_TEST_H
#define ZVR_TEST_H

#include <ZorvaneRewardsKitC/zorvane_rewards.h>

#include <stdio.h>
#include <string.h>

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

/* Runs the main queue until `*flag` is non-zero, 20 s at most. */
int zvr_test_wait_for(const int* flag);
/* Runs the main queue until it is dry, so that a late or second callback shows. */
void zvr_test_drain(void);

#endif
