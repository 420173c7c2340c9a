// The script form of the scene service: startSC.sh starts the program, stopSC.sh has it stopped.
#pragma once

#include <cstdint>

namespace gateway {

// Lets this process be asked to stop when its script ends. False: it has ended already.
[[nodiscard]] bool end_with_script(std::int32_t script);

// Stops the scripts of this installation, and the programs that they have started, as far as they were started before
// this process; one that is started in the same moment as the stop is not meant by it. Waits until they have ended, and
// kills after most of a second those that have not.
// False: not even that has ended one of them.
[[nodiscard]] bool stop_script_form();

}  // namespace gateway
