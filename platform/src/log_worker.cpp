#include "log_worker.h"

#include <utility>
#include <vector>

#include "platform/dbus_message.h"
#include "platform/gateway_bus.h"
#include "platform/text.h"
#include "platform/time.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr size_t most_waiting_lines = 1024;
constexpr int64_t idle_ms = 60LL * 60 * 1000;
constexpr int64_t retry_ms = 5000;

const char* const service_name = "iot.gateway.logger";
const char* const service_path = "/iot/gateway/logger";

}  // namespace

LogWorker::LogWorker(TFunction0<void> flush_file)
    : CThread("log_thread", policy_normal, 0, 0), flush_file_(std::move(flush_file)) {}

LogWorker::~LogWorker() {
  cancelThread();
  news_.post();
  (void)stopThread();  // always true
}

bool LogWorker::bind(const std::string& module, bool to_service) {
  {
    const std::lock_guard lock(mutex_);
    module_ = Text::to_bus_text(module);
    to_service_ = to_service;
    rebind_ = true;
  }
  if (!running_) running_ = createThread();
  news_.post();
  return running_;
}

void LogWorker::take(int32_t level, const char* tag, const char* text) {
  {
    const std::lock_guard lock(mutex_);
    if (to_service_ && lines_.size() < most_waiting_lines) lines_.push_back(Line{level, tag, text});
  }
  news_.post();
}

int32_t LogWorker::threadProc() {
  while (looping()) {
    (void)news_.pend(idle_ms);  // woken without news it finds nothing to do
    news_.drain();
    try {
      serve();
    } catch (...) {
      // No memory: these lines are lost.
    }
  }
  channel_.reset();
  return 0;
}

void LogWorker::serve() {
  // Before anything that takes the bus's time.
  flush_file_();

  std::deque<Line> lines;
  std::string module;
  bool to_service = false;
  bool rebind = false;
  {
    const std::lock_guard lock(mutex_);
    lines.swap(lines_);
    module = module_;
    to_service = to_service_;
    rebind = std::exchange(rebind_, false);
  }
  if (rebind) {
    channel_.reset();
    up_ = false;
    next_attempt_ms_ = 0;
  }
  if (!to_service || (lines.empty() && !rebind) || !connected()) return;
  for (const Line& line : lines) send(module, line);
}

bool LogWorker::connected() {
  // Once it has been up the channel looks after itself.
  if (up_) return true;
  const int64_t now_ms = CTime::getSystemStartupMilliSecond();
  if (now_ms < next_attempt_ms_) return false;
  if (channel_ == nullptr) {
    channel_ =
        std::make_unique<CDBusChannel>(gateway_bus_address, std::string(), service_path, std::vector<std::string>());
  }
  up_ = channel_->start();
  next_attempt_ms_ = CTime::getSystemStartupMilliSecond() + retry_ms;
  return up_;
}

void LogWorker::send(const std::string& module, const Line& line) {
  CDBusRequest request(service_name, service_path, service_name, "log");
  if (request.message() == nullptr) return;
  dbus_message_set_auto_start(request.message(), FALSE);  // a service that is not there is not to be started for this
  const bool complete = request.set_string(module) && request.set_int32(line.level) &&
                        request.set_string(Text::to_bus_text(line.tag)) &&
                        request.set_string(Text::to_bus_text(line.text));
  if (complete) (void)channel_->send(request);  // not taken: dropped
}

}  // namespace Tessaro::Iot::Component
