// The log library's thread.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "platform/dbus_channel.h"
#include "platform/function.h"
#include "platform/semaphore.h"
#include "platform/thread.h"

namespace Tessaro::Iot::Component {

// Does what nobody who logs should wait for: flushes the file, and sends lines to the logging service over a bus
// connection of its own. What the bus does not take is dropped.
class LogWorker final : private CThread {
 public:
  // `flush_file` is called on the thread after every batch of lines.
  explicit LogWorker(TFunction0<void> flush_file);
  ~LogWorker() override;

  // Starts the thread when it does not run. From now on lines are sent under the name `module` over a new connection,
  // or, with `to_service` false, not at all. Returns true when the thread runs.
  // Context: any thread, one at a time.
  bool bind(const std::string& module, bool to_service);

  // Takes a line that was written to the file.
  // Context: any thread.
  void take(int32_t level, const char* tag, const char* text);

 private:
  struct Line {
    int32_t level;
    std::string tag;
    std::string text;
  };

  int32_t threadProc() override;
  void serve();
  [[nodiscard]] bool connected();
  void send(const std::string& module, const Line& line);

  const TFunction0<void> flush_file_;
  CSemaphore news_;
  bool running_ = false;

  std::mutex mutex_;  // guards the four below
  std::string module_;
  bool to_service_ = false;
  bool rebind_ = false;
  std::deque<Line> lines_;

  // The thread's own.
  std::unique_ptr<CDBusChannel> channel_;
  bool up_ = false;
  int64_t next_attempt_ms_ = 0;
};

}  // namespace Tessaro::Iot::Component
