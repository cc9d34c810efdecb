#pragma once

#include <ostream>

#include "telemalog/value.h"

namespace nvsf {
namespace telemalog {

// Readable failure messages: alternative index and text form.
inline void PrintTo(const Value& value, std::ostream* out) {
    *out << "Value#" << value.which() << "(" << toText(value) << ")";
}

}  // namespace telemalog
}  // namespace nvsf
