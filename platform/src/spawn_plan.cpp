#include "platform/spawn_plan.h"

namespace Tessaro::Iot::Component {

void CSpawnPlan::add_argument(const std::string& argument) {
  const size_t end = argument.find('\0');  // what a C string would carry
  arguments.push_back(argument.substr(0, end).substr(0, max_argument_length));
}

}  // namespace Tessaro::Iot::Component
