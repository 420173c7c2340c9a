// A scan of /proc for a program, in C: a link for each process, and of those that it leads to no more than what tells
// whether they are meant and which pid they have.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Looks for the processes of the program `name` below `root` (which ends in "/") in the mount namespace of that link
// text. Fills up to `room` pids and returns how many it has found.
size_t bare_scan(const char* root, const char* name, const char* mount_namespace, int* pids, size_t room);

#ifdef __cplusplus
}
#endif
