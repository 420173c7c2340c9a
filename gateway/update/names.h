// By which names the update agent knows the supervisor, and where it keeps its own files.
#pragma once

namespace gateway::update {

// On the bus; the interface has the same name.
inline constexpr const char* supervisor_name = "iot.gateway.quorvaned";
inline constexpr const char* supervisor_object = "/iot/gateway/quorvaned";
// Below the install root.
inline constexpr const char* supervisor_program = "/bin/quorvaned";
// Locked by the supervisor as long as it runs.
inline constexpr const char* supervisor_pid_file = "/quorvane/run/startup/quorvaned.pid";

// An update is handed over as the first; it is the second while it is worked on, and the third when it was not taken.
inline constexpr const char* waiting_update = "/quorvane/run/fota/update";
inline constexpr const char* current_update = "/quorvane/run/fota/update.current";
inline constexpr const char* refused_update = "/quorvane/run/fota/update.refused";

// Locked by the agent as long as it runs.
inline constexpr const char* lock_file = "/quorvane/run/startup/fota.lock";
inline constexpr const char* journal_file = "/quorvane/run/startup/fota.journal";
inline constexpr const char* state_file = "/quorvane/run/fota/state";
inline constexpr const char* log_file = "/quorvane/run/logger/fota.log";

}  // namespace gateway::update
