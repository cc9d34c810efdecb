// When the replay asks the run loop to stop: after the last frame, once the records that
// close after it, the stop's own record included, number as many as asked for.

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "replay/recordcountdown.h"

namespace {

TEST(RecordCountdown, StopsOnceTheRecordBeforeTheLastHasBeenHandedOver) {
    // Records asked for; events in order: 'c' a record starts to close, 'h' it has reached the
    // last sink, 'p' the last frame has been through the stack; the index of the event on
    // which the stop is asked for, -1 for never.
    const std::tuple<std::uint64_t, std::string, int> rows[] = {
        {1, "chp", 2},      // nothing in flight: the stop's record is the one
        {1, "p", 0},        // no record at all yet
        {1, "cph", 2},      // closing when played: that record does not count
        {2, "chpch", 4},    // one record of the loop, then the stop's
        {2, "cphch", 4},    // the record in flight while playing ended is not the first
        {3, "pchchch", 4},  // asked once only, though more records follow
        {1, "chch", -1},    // never played
    };
    for (const auto& [records, events, stopAt] : rows) {
        SCOPED_TRACE(std::to_string(records) + " " + events);
        std::vector<int> stops;
        int index = 0;
        replay::RecordCountdown countdown(records, [&] { stops.push_back(index); });
        for (; index < static_cast<int>(events.size()); ++index) {
            const char event = events[index];
            event == 'c'   ? countdown.closing()
            : event == 'h' ? countdown.handedOver()
                           : countdown.played();
        }
        EXPECT_EQ(stops, stopAt < 0 ? std::vector<int>{} : std::vector<int>{stopAt});
        EXPECT_EQ(countdown.stopped(), stopAt >= 0);
    }
}

}  // namespace
