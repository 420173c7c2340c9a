// usage: stamp PROGRAM ARG...
// Becomes PROGRAM, with the moment of its own first instructions before the other arguments.
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (argc < 3) return 1;
  char text[32];
  snprintf(text, sizeof text, "%lld", (long long)((int64_t)now.tv_sec * 1000000000 + now.tv_nsec));
  // The program's name moves one place down and makes room for the moment.
  char* program = argv[1];
  argv[0] = program;
  argv[1] = text;
  execv(program, argv);
  return 1;
}
