#pragma once

#include <string>

// Fixed when the program is built.
namespace buildversion {
extern const char* const branch;
// 40 hexadecimal digits, or a text saying the tree had no git revision.
extern const char* const revision;
// UTC, as "2023-01-25T08:38:58UTC".
extern const char* const buildTime;
// The Boost this program was compiled against, as "1.74.0".
std::string boostVersion();
}  // namespace buildversion
