// Where a thread lets the handled signals in.
//
// The daemon's handled signals do real work in the handler. That is safe only where the interrupted code holds no lock
// and is in the middle of nothing. So those signals stay blocked, and the main thread opens them only while it waits:
// each such wait is a window.
#pragma once

#include <poll.h>

#include <csignal>
#include <cstdint>

namespace Tessaro::Iot::Component::SignalWindow {

// From now on every wait of the calling thread runs with `mask_inside` as its signal mask.
// Context: main thread, once.
void open_on_this_thread(const sigset_t& mask_inside) noexcept;

// poll(2) with the calling thread's window open, or plain poll on a thread that has none. A negative timeout waits for
// ever. Returns what poll returns; -1 with EINTR after a handler ran.
// Context: any thread; signal handlers on the main thread.
int32_t poll(pollfd* fds, nfds_t count, int64_t timeout_ms) noexcept;

// True while the calling thread waits in its window.
// Context: any, including signal handlers.
[[nodiscard]] bool inside() noexcept;

}  // namespace Tessaro::Iot::Component::SignalWindow
