// What the update tells the world: its state, and its log.
#pragma once

#include <string>

namespace gateway::update {

// The state is one line in /quorvane/run/fota/state; its first word is one of "idle", "verifying", "copying",
// "stopping", "installing", "restarting", "restoring", and at the end "done", or "refused", "rolled-back" or "failed"
// with the reason behind it. Each state is also a line of the log. What cannot be written is left out: an update does
// not fail by its report.
void report_state(const std::string& word, const std::string& reason = {});

// Adds a line to the log, /quorvane/run/logger/fota.log, of which at most two files of 128 KiB are kept.
void report_note(const std::string& text);

// The present state is one that an update ends with.
[[nodiscard]] bool is_state_final();

}  // namespace gateway::update
