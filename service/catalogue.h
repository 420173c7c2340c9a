// The service catalogue: a JSON array with one object per service.
#pragma once

#include <istream>
#include <vector>

#include "service_record.h"

namespace Tessaro::Iot::Component {

using ServiceTable = std::vector<ServiceRecord*>;

// Reads a catalogue and appends one new record per element to `table`, in file order. A member that is absent or of
// another type gives its default; an element that is no object gives a record of defaults.
// Returns false, appending nothing, for text that is not JSON or whose root is no array.
// Ownership: the records live as long as the process.
// Context: main thread.
[[nodiscard]] bool read_catalogue(std::istream& stream, ServiceTable& table);

}  // namespace Tessaro::Iot::Component
