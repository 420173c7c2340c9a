#include "process_end.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "platform/log.h"

namespace Tessaro::Iot::Component {

namespace {
std::atomic_flag end_has_owner = ATOMIC_FLAG_INIT;
}  // namespace

void end_process(int32_t status) noexcept {
  if (end_has_owner.test_and_set()) wait_for_the_end();
  log_flush();
  (void)std::fflush(nullptr);
  ::_exit(status);
}

void wait_for_the_end() noexcept {
  for (;;) (void)::pause();
}

}  // namespace Tessaro::Iot::Component
