// usage: slot_service [FILE SLOT [PID_FILE]]
// Writes the moment of its own first instructions, in nanoseconds of the monotonic clock, and its pid into its slot of
// FILE, and waits for its end. Supervisors that give a program no arguments set SLOTS to the file, and start it in a
// directory whose name is the slot's number. With PID_FILE it goes to the background, as those want it that look for
// services by such files.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "slots.h"

static const char* directory_name(char* buffer, size_t size) {
  if (getcwd(buffer, size) == NULL) return "0";
  const char* slash = strrchr(buffer, '/');
  return slash != NULL ? slash + 1 : buffer;
}

static void write_pid_file(const char* path) {
  FILE* file = fopen(path, "w");
  if (file == NULL) return;
  fprintf(file, "%d\n", (int)getpid());
  fclose(file);
}

int main(int argc, char** argv) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  char directory[4096];
  const char* path = argc > 2 ? argv[1] : getenv("SLOTS");
  const long number = strtol(argc > 2 ? argv[2] : directory_name(directory, sizeof directory), NULL, 10);
  if (argc > 3 && fork() != 0) _exit(0);
  const struct Slot slot = {(int64_t)now.tv_sec * 1000000000 + now.tv_nsec, getpid(), 0};
  const int file = path != NULL ? open(path, O_WRONLY | O_CLOEXEC) : -1;
  if (file < 0 || pwrite(file, &slot, sizeof slot, number * (long)sizeof slot) != sizeof slot) return 1;
  close(file);
  if (argc > 3) write_pid_file(argv[3]);
  for (;;) pause();
}
