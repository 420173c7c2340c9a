// Which file a module's lines are in.
#pragma once

#include <string>
#include <string_view>

namespace gateway {

// The file of the modules that came when there were as many as there may be. No module has a file of this name.
inline constexpr const char* shared_file = "%others.log";

// The name of the module's file, without a directory: "NAME.log" for a name of letters, digits, '_', '-' and '.' that
// does not begin with '.'; other bytes become "%" and two digits, and of a long name a piece and a digest are left. Two
// modules never have the same.
[[nodiscard]] std::string module_file(std::string_view module);

}  // namespace gateway
