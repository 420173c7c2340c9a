// What a person should know about the store: in the service's file "state", and on the gateway's logging service.
#pragma once

#include <deque>
#include <string>

namespace gateway {

// To be used from one thread.
class Reports {
 public:
  // Keeps the line, with the time, for `publish`.
  void add(const std::string& text);

  // Writes the state file when it has changed: the condition, and the last lines. Sends to the logging service what it
  // has not been sent yet; while there is no such service it is tried again in the next calls, for some minutes.
  void publish(const std::string& condition);

 private:
  bool send_all();

  std::deque<std::string> lines_;
  std::deque<std::string> unsent_;
  int attempts_ = 0;
  std::string written_;
};

}  // namespace gateway
