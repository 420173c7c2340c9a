#include "bare_scan.h"

#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { link_size = 1024, entry_size = 270, path_size = 280 };

static int is_program(const char* entry, const char* root, const char* name, const char* mount_namespace) {
  char path[path_size];
  char link[link_size];
  snprintf(path, sizeof path, "%s/exe", entry);
  ssize_t length = readlink(path, link, sizeof link - 1);
  if (length <= 0) return 0;
  link[length] = '\0';
  if (strncmp(link, root, strlen(root)) != 0) return 0;
  char* blank = strrchr(link, ' ');
  if (blank != NULL) *blank = '\0';
  const char* slash = strrchr(link, '/');
  if (strcmp(slash == NULL ? link : slash + 1, name) != 0) return 0;
  snprintf(path, sizeof path, "%s/ns/mnt", entry);
  length = readlink(path, link, sizeof link - 1);
  if (length <= 0) return 1;
  link[length] = '\0';
  return strcmp(link, mount_namespace) == 0;
}

static int read_pid(const char* entry) {
  char path[path_size];
  char text[4096];
  snprintf(path, sizeof path, "%s/stat", entry);
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t length = read(file, text, sizeof text - 1);
  char end;
  if (length > 0) (void)!read(file, &end, 1);
  close(file);
  if (length <= 0) return 0;
  text[length] = '\0';
  return (int)strtol(text, NULL, 10);
}

size_t bare_scan(const char* root, const char* name, const char* mount_namespace, int* pids, size_t room) {
  DIR* processes = opendir("/proc/");
  if (processes == NULL) return 0;
  size_t found = 0;
  const struct dirent* entry;
  while ((entry = readdir(processes)) != NULL) {
    if (!isdigit((unsigned char)entry->d_name[0])) continue;
    char path[entry_size];
    snprintf(path, sizeof path, "/proc/%s", entry->d_name);
    if (!is_program(path, root, name, mount_namespace)) continue;
    const int pid = read_pid(path);
    if (pid > 0 && found < room) pids[found++] = pid;
  }
  closedir(processes);
  return found;
}
