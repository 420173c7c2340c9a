// The business services' run-time data.
#pragma once

namespace Tessaro::Iot::Component {

// Removes every entry of the run-time root but those that the gateway itself needs (its logs, the configuration store
// and the key chain). Links are removed, never followed. What cannot be removed stays.
// Context: dispatch thread.
void clean_runtime_data();

}  // namespace Tessaro::Iot::Component
