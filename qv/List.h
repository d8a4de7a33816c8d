#pragma once

#include <iosfwd>

namespace qv {

/// The registers and methods with types, units and meaning; as a table or as JSON.
void writeList(std::ostream& out, bool json);

} // namespace qv
