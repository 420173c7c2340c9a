// Two threads that each wake up once a second and do nothing: what that costs on this machine. Ends when it is killed.
#include <pthread.h>
#include <time.h>

static void* sleep_for_ever(void* unused) {
  (void)unused;
  for (;;) {
    const struct timespec second = {1, 0};
    nanosleep(&second, NULL);
  }
  return NULL;
}

int main(void) {
  pthread_t other;
  const struct timespec apart = {0, 500000000};
  if (pthread_create(&other, NULL, sleep_for_ever, NULL) != 0) return 1;
  nanosleep(&apart, NULL);
  sleep_for_ever(NULL);
}
