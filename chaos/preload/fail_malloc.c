// Preloaded into the daemon: lets chosen allocations fail. The file FAIL_MALLOC_PAGE is a page that the test shares: it
// counts the allocations, and says from which one on how many are to fail.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

struct page {
  _Atomic uint64_t count;   // allocations so far
  _Atomic uint64_t first;   // number of the first one to fail; 0: none
  _Atomic uint64_t many;    // how many fail from there on
  _Atomic uint64_t failed;  // how many have failed
};

static struct page* page;

// The services inherit the library; it is the daemon alone that is meant.
__attribute__((constructor)) static void begin(void) {
  const char* path = getenv("FAIL_MALLOC_PAGE");
  if (path == NULL || strcmp(program_invocation_short_name, "quorvaned") != 0) return;
  const int file = open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) return;
  void* at = mmap(NULL, sizeof *page, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (at != MAP_FAILED) page = at;
}

static int is_to_fail(void) {
  if (page == NULL) return 0;
  const uint64_t number = atomic_fetch_add(&page->count, 1) + 1;
  const uint64_t first = atomic_load(&page->first);
  if (first == 0 || number < first || number >= first + atomic_load(&page->many)) return 0;
  atomic_fetch_add(&page->failed, 1);
  errno = ENOMEM;
  return 1;
}

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void* __libc_memalign(size_t, size_t);

void* malloc(size_t size) { return is_to_fail() ? NULL : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return is_to_fail() ? NULL : __libc_calloc(count, size); }
void* realloc(void* old, size_t size) { return is_to_fail() ? NULL : __libc_realloc(old, size); }
void* aligned_alloc(size_t alignment, size_t size) { return is_to_fail() ? NULL : __libc_memalign(alignment, size); }
int posix_memalign(void** result, size_t alignment, size_t size) {
  if (is_to_fail()) return ENOMEM;
  *result = __libc_memalign(alignment, size);
  return *result == NULL ? ENOMEM : 0;
}
