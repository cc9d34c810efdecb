// When the replay asks the run loop to stop: after the last frame, once the records that
// close after it, the stop's own record included, number as many as asked for.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "replay/recordcountdown.h"

namespace {

struct Row {
    std::uint64_t records;
    // In order: 'c' a record starts to close, 'h' it has reached the last sink, 'p' the last
    // frame has been through the stack.
    std::string events;
    int stopAt;  // index of the event on which the stop is asked for, -1 for never
};

TEST(RecordCountdown, StopsOnceTheRecordBeforeTheLastHasBeenHandedOver) {
    const Row rows[] = {
        {1, "chp", 2},      // nothing in flight: the stop's record is the one
        {1, "p", 0},        // no record at all yet
        {1, "cph", 2},      // closing when played: that record does not count
        {2, "chpch", 4},    // one record of the loop, then the stop's
        {2, "cphch", 4},    // the record in flight while playing ended is not the first
        {3, "pchchch", 4},  // asked once only, though more records follow
        {1, "chch", -1},    // never played
    };
    for (const Row& row : rows) {
        std::vector<int> stops;
        int index = 0;
        replay::RecordCountdown countdown(row.records, [&] { stops.push_back(index); });
        const std::map<char, void (replay::RecordCountdown::*)()> event = {
            {'c', &replay::RecordCountdown::closing},
            {'h', &replay::RecordCountdown::handedOver},
            {'p', &replay::RecordCountdown::played}};
        for (; index < static_cast<int>(row.events.size()); ++index) {
            (countdown.*event.at(row.events[index]))();
        }
        const std::vector<int> expected =
            row.stopAt < 0 ? std::vector<int>{} : std::vector<int>{row.stopAt};
        EXPECT_EQ(stops, expected) << row.records << " " << row.events;
        EXPECT_EQ(countdown.stopped(), row.stopAt >= 0) << row.records << " " << row.events;
    }
}

}  // namespace
