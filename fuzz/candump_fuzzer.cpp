// The replay tool's candump log parser: every line of the input. A data or remote frame it
// takes must come back as the same frame through the line the tool writes for it.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "replay/candumplog.h"

namespace {
void fail(const char* what, const std::string& line) {
    std::fprintf(stderr, "candump fuzzer: %s: \"%s\"\n", what, line.c_str());
    std::abort();
}

bool sameFrame(const replay::LogFrame& a, const replay::LogFrame& b) {
    const unsigned length = a.frame.can_dlc <= CAN_MAX_DLEN ? a.frame.can_dlc : CAN_MAX_DLEN;
    return a.timeUs == b.timeUs && a.interface == b.interface && a.frame.can_id == b.frame.can_id &&
           a.frame.can_dlc == b.frame.can_dlc &&
           std::memcmp(a.frame.data, b.frame.data, length) == 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (std::size_t start = 0; start <= text.size();) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        replay::LogFrame frame;
        // Error frames are parsed to be skipped, and the tool never writes one.
        if (!replay::parseLine(line, frame).empty() || (frame.frame.can_id & CAN_ERR_FLAG) != 0) {
            continue;
        }
        const std::string written = replay::formatLine(frame.timeUs, frame.interface, frame.frame);
        replay::LogFrame again;
        const std::string why = replay::parseLine(written, again);
        if (!why.empty()) {
            fail(("its own line is refused: " + why).c_str(), line);
        }
        if (!sameFrame(frame, again)) {
            fail("its own line gives another frame", line);
        }
    }
    return 0;
}
