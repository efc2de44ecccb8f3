#include "zvr_test.h"

_Atomic int zvr_test_failures = 0;

static int32_t ZVR_CALL flag_is_set(void* user) {
  return *(const int*)user;
}

int zvr_test_wait_for(const int* flag) {
  int32_t done = 0;
  zvr_main_queue_run_until(flag_is_set, (void*)flag, 20000, &done);
  return done;
}

void zvr_test_drain(void) {
  uint32_t ran = 0;
  do CHECK_RESULT(ZVR_OK, zvr_main_queue_drain(&ran));
  while (ran > 0);
}
