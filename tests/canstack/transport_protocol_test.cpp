#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "canstack/networkmanagementmemorypool.h"
#include "canstack/transportprotocol.h"
#include "protocol_test_support.h"

namespace {

using Frames = std::vector<std::vector<uint8_t>>;
using Results = std::vector<std::pair<uint32_t, bool>>;

using NM = NetworkManagementClass;
const char* const OWNER = "Transport Protocol";
constexpr uint32_t PGN = 0xEF00;
constexpr uint32_t BROADCAST_PGN = 0xFEEC;
enum Control : uint8_t { RTS = 16, CTS = 17, EOM = 19, BAM = 32, ABORT = 255 };

std::vector<uint8_t> pattern(size_t size, uint8_t seed = 0) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + seed + i / 256);
    }
    return bytes;
}

uint8_t packetsFor(size_t size) {
    return static_cast<uint8_t>((size - 1) / 7 + 1);
}

std::vector<uint8_t> cm(uint8_t control, uint8_t b1, uint8_t b2, uint8_t b3, uint32_t pgn = PGN) {
    const auto byte = [pgn](int shift) { return static_cast<uint8_t>(pgn >> shift); };
    return {control, b1, b2, b3, 0xFF, byte(0), byte(8), byte(16)};
}
// RTS, BAM and EOM all carry the size and the packet count.
std::vector<uint8_t> sized(uint8_t control, size_t size, uint32_t pgn = PGN) {
    return cm(control, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8),
              packetsFor(size), pgn);
}
std::vector<uint8_t> abortFrame(uint8_t reason, uint32_t pgn = PGN) {
    return cm(ABORT, reason, 0xFF, 0xFF, pgn);
}

// Long messages delivered, and the results of transfers sent from here.
Frames delivered;
Results completions;
std::vector<uint8_t> fragmentSource;
uint32_t fragmentChunk = 9;
uint32_t fragmentRequests = 0;

void recordLongMessage(CANMessageClass* message, ReceiveCANMessageCallbackClass*) {
    std::vector<uint8_t> data(message->getDataLength());
    EXPECT_EQ(message->getMessageType(), 0u);
    EXPECT_TRUE(message->getData(data.data(), 0, static_cast<uint32_t>(data.size())));
    delivered.push_back(data);
}

void transferCallback(CANCallbackClass* callback) {
    if (callback->getCallbackType() != 2) {
        completions.emplace_back(callback->getHandle(), callback->isSuccess());
        return;
    }
    auto* fragment = static_cast<CANFragmentCallbackClass*>(callback);
    ++fragmentRequests;
    const uint32_t left = static_cast<uint32_t>(fragmentSource.size()) - fragment->getOffset();
    fragment->setFragmentData(fragmentSource.data() + fragment->getOffset(),
                              std::min(fragmentChunk, left));
}

uint32_t usedBlocks() {
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.getUsedBlockCount();
}

class TransportTest : public ProtocolTest {
protected:
    void SetUp() override {
        ProtocolTest::SetUp();
        NM::addGlobalReceiveCallback(PGN, &recordLongMessage);
        NM::addGlobalReceiveCallback(BROADCAST_PGN, &recordLongMessage);
    }

    // Frames from the peer, to this device or to all.
    void control(const std::vector<uint8_t>& data, uint8_t destination = SELF) {
        bus.receive(0, frameIdentifier(6, 0xEC00, destination, PEER), data);
    }
    void packets(uint32_t first, uint32_t last, const std::vector<uint8_t>& message,
                 uint8_t destination = SELF) {
        for (uint32_t sequence = first; sequence <= last; ++sequence) {
            std::vector<uint8_t> data(8, 0xFF);
            data[0] = static_cast<uint8_t>(sequence);
            for (size_t i = 0, at = (sequence - 1) * 7; i < 7 && at < message.size(); ++i, ++at) {
                data[i + 1] = message[at];
            }
            bus.receive(0, frameIdentifier(7, 0xEB00, destination, PEER), data);
        }
    }

    Frames sent(uint8_t control) const {
        Frames found;
        for (const SentFrame& frame : bus.framesWithPGN(0xEC00)) {
            if (frame.data[0] == control) {
                found.push_back(frame.data);
            }
        }
        return found;
    }
    std::vector<SentFrame> dataPackets() const { return bus.framesWithPGN(0xEB00); }
    uint32_t sessions() const {
        return TransportProtocolClass::TRANSPORT_PROTOCOL.getNumberActiveSessions();
    }

    uint32_t send(const std::vector<uint8_t>* data, size_t length, uint8_t to = PEER,
                  bool persistent = false) {
        return NM::sendParameterGroupNumber(to == 0xFF ? BROADCAST_PGN : PGN,
                                            data != nullptr ? data->data() : nullptr,
                                            static_cast<uint32_t>(length), &self,
                                            to == 0xFF ? nullptr : NM::getControlFunction(0, to), 7,
                                            persistent, &handle, &transferCallback);
    }

    uint32_t handle = 0;
};

template <typename T>
class TransportCaseTest : public TransportTest, public ::testing::WithParamInterface<T> {};
const auto caseName = [](const auto& info) { return info.param.name; };

}  // namespace

// ---------------------------------------------------------------- receive side

TEST_F(TransportTest, RtsOfFivePacketsThreePerCtsIsReassembled) {
    const std::vector<uint8_t> message = pattern(33);
    control({RTS, 33, 0, 5, 3, 0x00, 0xEF, 0x00});
    bus.update();
    EXPECT_EQ(sent(CTS), (Frames{cm(CTS, 3, 1, 0xFF)}));
    packets(1, 3, message);
    bus.update();
    EXPECT_EQ(sent(CTS).back(), cm(CTS, 3, 4, 0xFF));
    EXPECT_TRUE(sent(EOM).empty());
    packets(4, 5, message);
    bus.update();
    EXPECT_EQ(sent(EOM), (Frames{sized(EOM, 33)}));
    EXPECT_EQ(bus.framesWithPGN(0xEC00).back().pduSpecific(), PEER);
    EXPECT_EQ(delivered, (Frames{message}));
    EXPECT_EQ(sessions(), 0u);
    EXPECT_EQ(usedBlocks(), 0u);
}

TEST_F(TransportTest, BroadcastIsReassembledAndASecondOneFromTheSameSourceIgnored) {
    const std::vector<uint8_t> message = pattern(20, 3);
    control(sized(BAM, 20, BROADCAST_PGN), 0xFF);
    packets(1, 1, message, 0xFF);
    control(sized(BAM, 40, 0xFEED), 0xFF);
    bus.update();
    EXPECT_EQ(reportCount(OWNER, "BAM Already in Session", 0), 1u);
    packets(2, 3, message, 0xFF);
    bus.update();
    EXPECT_EQ(delivered, (Frames{message}));
    EXPECT_TRUE(bus.frames.empty());
}

struct SequenceCase {
    const char* name;
    std::vector<uint32_t> sequences;  // data packets sent
    bool openSession;
    std::vector<uint8_t> abort;
    const char* report;
};
using TransportSequenceTest = TransportCaseTest<SequenceCase>;

TEST_P(TransportSequenceTest, WrongDataPacketAbortsWithItsReason) {
    const SequenceCase& c = GetParam();
    if (c.openSession) {
        control(sized(RTS, 30));
        bus.update();
    }
    for (uint32_t sequence : c.sequences) {
        packets(sequence, sequence, pattern(30));
    }
    bus.update();
    EXPECT_EQ(sent(ABORT), (Frames{c.abort}));
    EXPECT_EQ(reportCount(OWNER, c.report, 0), 1u);
    EXPECT_EQ(sessions(), 0u);
    EXPECT_EQ(usedBlocks(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Packets, TransportSequenceTest,
    ::testing::Values(
        SequenceCase{
            "Duplicate", {1, 2, 2}, true, abortFrame(8), "Receive Data Duplicate Sequence Number"},
        SequenceCase{"Skipped", {1, 3}, true, abortFrame(7), "Receive Data Bad Sequence Number"},
        SequenceCase{
            "OutsideSession", {1}, false, abortFrame(6, 0xFFFFFF), "Receive Data Not in Session"}),
    caseName);

TEST_F(TransportTest, AbortForAnotherPgnEndsNothing) {
    control(sized(RTS, 30));
    bus.update();
    control(abortFrame(3, 0xEE00));
    bus.update();
    EXPECT_EQ(reportCount(OWNER, "Connection Abort Message Received", 2), 1u);
    EXPECT_EQ(sessions(), 1u);
    control(abortFrame(3));
    bus.update();
    EXPECT_EQ(reportCount(OWNER, "Receive Session Aborted", 2), 1u);
    EXPECT_EQ(sessions(), 0u);
    EXPECT_TRUE(sent(ABORT).empty());
}

struct ReceiveTimeoutCase {
    const char* name;
    bool broadcast;
    uint32_t packetsBefore;
    bool refuseAbort;
    uint32_t limit;
    const char* report;
};
using TransportReceiveTimeoutTest = TransportCaseTest<ReceiveTimeoutCase>;

TEST_P(TransportReceiveTimeoutTest, SilentSenderEndsTheSessionAtTheLimit) {
    const ReceiveTimeoutCase& c = GetParam();
    const uint8_t destination = c.broadcast ? 0xFF : SELF;
    control(sized(c.broadcast ? BAM : RTS, 30), destination);
    bus.update();
    packets(1, c.packetsBefore, pattern(30), destination);
    bus.update();
    if (c.refuseAbort) {
        transmit.refused = {0xEC00};
    }
    bus.advance(c.limit - 1);
    bus.update();
    EXPECT_EQ(sessions(), 1u);
    bus.advance(1);
    bus.update();
    EXPECT_EQ(sessions(), 0u);
    EXPECT_EQ(reportCount(OWNER, c.report, 2), 1u);
    const bool aborted = !c.broadcast && !c.refuseAbort;
    EXPECT_EQ(sent(ABORT), aborted ? Frames{abortFrame(3)} : Frames{});
}

INSTANTIATE_TEST_SUITE_P(
    Limits, TransportReceiveTimeoutTest,
    ::testing::Values(
        ReceiveTimeoutCase{"FirstPacketOfPage", false, 0, false, 1250, "Receive Data Timeout"},
        ReceiveTimeoutCase{"WithinPage", false, 2, false, 750, "Receive Data Timeout"},
        ReceiveTimeoutCase{"Broadcast", true, 1, false, 750, "Receive Data Timeout"},
        ReceiveTimeoutCase{"AbortNotSent", false, 0, true, 1500, "Generic Timeout"}),
    caseName);

// ---------------------------------------------------------------- send side

struct SourceCase {
    const char* name;
    bool persistent;
    bool withData;  // false: the fragment callback supplies it
};
using TransportSourceTest = TransportCaseTest<SourceCase>;

TEST_P(TransportSourceTest, ConnectionModeSendsEveryByteAndEndsWithTheEom) {
    const std::vector<uint8_t> message = pattern(40, 9);
    fragmentSource = message;
    ASSERT_EQ(send(GetParam().withData ? &message : nullptr, 40, PEER, GetParam().persistent), 0u);
    bus.update();
    EXPECT_EQ(sent(RTS), (Frames{sized(RTS, 40)}));
    control(cm(CTS, 4, 1, 0xFF));
    bus.update();
    EXPECT_EQ(dataPackets().size(), 4u);
    control(cm(CTS, 2, 5, 0xFF));
    bus.update();
    std::vector<uint8_t> bytes;
    for (const SentFrame& frame : dataPackets()) {
        EXPECT_EQ(frame.data[0], bytes.size() / 7 + 1);
        EXPECT_EQ(frame.pduSpecific(), PEER);
        bytes.insert(bytes.end(), frame.data.begin() + 1, frame.data.end());
    }
    std::vector<uint8_t> expected = message;
    expected.insert(expected.end(), 2, 0xFF);
    EXPECT_EQ(bytes, expected);
    EXPECT_TRUE(completions.empty());
    control(sized(EOM, 40));
    bus.update();
    EXPECT_EQ(completions, (Results{{handle, true}}));
    EXPECT_EQ(usedBlocks(), 0u);
    EXPECT_EQ(fragmentRequests, GetParam().withData ? 0u : 5u);
}

INSTANTIATE_TEST_SUITE_P(Sources, TransportSourceTest,
                         ::testing::Values(SourceCase{"CallersData", true, true},
                                           SourceCase{"PoolCopy", false, true},
                                           SourceCase{"FragmentCallback", false, false}),
                         caseName);

TEST_F(TransportTest, BroadcastPacketsAre51MsApartAndNeedNoAnswer) {
    bus.deferQueued = false;  // confirmed at once, so the gap counts from each send
    const std::vector<uint8_t> message = pattern(9, 5);
    ASSERT_EQ(send(&message, 9, 0xFF), 0u);
    std::vector<uint32_t> times;  // of the BAM and each packet
    for (int step = 0; step < 200 && completions.empty(); ++step) {
        const size_t before = bus.frames.size();
        bus.advance(1);
        bus.update();
        if (bus.frames.size() > before) {
            times.push_back(SimulatedBus::now());
        }
    }
    EXPECT_EQ(sent(BAM), (Frames{sized(BAM, 9, BROADCAST_PGN)}));
    ASSERT_EQ(dataPackets().size(), 2u);
    EXPECT_EQ(dataPackets()[1].data,
              (std::vector<uint8_t>{2, message[7], message[8], 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    ASSERT_EQ(times.size(), 3u);
    EXPECT_EQ(times[1] - times[0], 51u);
    EXPECT_EQ(times[2] - times[1], 51u);
    EXPECT_EQ(completions, (Results{{handle, true}}));
}

struct WaitCase {
    const char* name;
    std::vector<uint8_t> cts;  // empty: the peer stays silent
    uint32_t limit;
    const char* report;
};
using TransportWaitTest = TransportCaseTest<WaitCase>;

TEST_P(TransportWaitTest, SenderGivesUpWaitingForThePeer) {
    const std::vector<uint8_t> message = pattern(20);
    ASSERT_EQ(send(&message, 20), 0u);
    bus.update();
    if (!GetParam().cts.empty()) {
        control(GetParam().cts);
        bus.update();
        bus.update();  // packet confirmations count as activity
    }
    bus.advance(GetParam().limit - 1);
    bus.update();
    EXPECT_TRUE(sent(ABORT).empty());
    bus.advance(1);
    bus.update();
    EXPECT_EQ(sent(ABORT), (Frames{abortFrame(3)}));
    EXPECT_EQ(reportCount(OWNER, GetParam().report, 2), 1u);
    EXPECT_EQ(completions, (Results{{handle, false}}));
}

INSTANTIATE_TEST_SUITE_P(
    Limits, TransportWaitTest,
    ::testing::Values(
        WaitCase{"NoCts", {}, 1250, "Wait Clear to Send Timeout"},
        WaitCase{"CtsOfZeroPackets", cm(CTS, 0, 1, 0xFF), 1050, "Wait Clear to Send Timeout"},
        WaitCase{"NoEom", cm(CTS, 3, 1, 0xFF), 1250, "Wait for Acknowledgement Timeout"}),
    caseName);

struct RetryCase {
    const char* name;
    bool persistent;  // a pool copy moves its page on and cannot go back before it
    Frames accepted;
};
using TransportRetryTest = TransportCaseTest<RetryCase>;

TEST_P(TransportRetryTest, RetransmissionIsRefusedWithReasonFive) {
    const std::vector<uint8_t> message = pattern(70);
    ASSERT_EQ(send(&message, 70, PEER, GetParam().persistent), 0u);
    bus.update();
    for (const std::vector<uint8_t>& cts : GetParam().accepted) {
        control(cts);
        bus.update();
    }
    EXPECT_TRUE(sent(ABORT).empty());
    EXPECT_EQ(dataPackets().size(), 3 * GetParam().accepted.size());
    EXPECT_EQ(dataPackets()[3].data[0], GetParam().persistent ? 1 : 4);
    control(cm(CTS, 3, 1, 0xFF));
    bus.update();
    EXPECT_EQ(sent(ABORT), (Frames{abortFrame(5)}));
    EXPECT_EQ(reportCount(OWNER, "CTS Retry Limit Exceeded", 0), 1u);
    EXPECT_EQ(completions, (Results{{handle, false}}));
}

INSTANTIATE_TEST_SUITE_P(
    Requests, TransportRetryTest,
    ::testing::Values(RetryCase{"ThirdTimeInARow",
                                true,
                                {cm(CTS, 3, 1, 0xFF), cm(CTS, 3, 1, 0xFF), cm(CTS, 3, 1, 0xFF)}},
                      RetryCase{
                          "BeforeThePageStart", false, {cm(CTS, 3, 1, 0xFF), cm(CTS, 3, 4, 0xFF)}}),
    caseName);

TEST_F(TransportTest, TwentyPacketsInFlightStopTheSenderAndTheGenericTimerRuns) {
    const std::vector<uint8_t> message = pattern(300);
    ASSERT_EQ(send(&message, 300), 0u);
    bus.update();
    control(cm(CTS, 43, 1, 0xFF));
    bus.update();
    NM::update();  // no confirmations
    EXPECT_EQ(dataPackets().size(), 20u);
    bus.advance(1499);
    NM::update();
    EXPECT_EQ(sessions(), 1u);
    bus.advance(1);
    NM::update();
    EXPECT_EQ(reportCount(OWNER, "Generic Timeout", 2), 1u);
    EXPECT_EQ(completions, (Results{{handle, false}}));
}

TEST_F(TransportTest, TransmitsBeyondTheLimitsAreRefused) {
    const std::vector<uint8_t> message = pattern(1786);
    EXPECT_EQ(send(&message, 1786), 14u);
    ASSERT_EQ(send(&message, 1785, PEER), 0u);
    EXPECT_EQ(send(&message, 1785, PEER), 15u);
    ASSERT_EQ(send(&message, 1785, OTHER), 0u);
    EXPECT_EQ(usedBlocks(), 36u);
    EXPECT_EQ(send(&message, 1785, 0xFF), 17u);
    EXPECT_EQ(reportCount(OWNER, "Transmit Memory Pool Failure", 2), 1u);
    EXPECT_EQ(send(nullptr, 1785, 0xFF), 17u);
    EXPECT_EQ(reportCount(OWNER, "Transmit Request Memory Pool Failure", 2), 1u);
    EXPECT_EQ(sessions(), 2u);
    EXPECT_EQ(usedBlocks(), 36u);
}

// ---------------------------------------------------------------- whole transfers

struct WholeCase {
    const char* name;
    size_t size;
    bool fragments;
};
using TransportWholeSendTest = TransportCaseTest<WholeCase>;

TEST_P(TransportWholeSendTest, LargestMessageLeavesAs255PacketsInOrder) {
    const std::vector<uint8_t> message = pattern(GetParam().size, 1);
    fragmentSource = message;
    fragmentChunk = 100;
    ASSERT_EQ(send(GetParam().fragments ? nullptr : &message, message.size()), 0u);
    // The peer asks for pages of 16 packets and acknowledges the end.
    size_t seen = 0;
    std::vector<uint8_t> bytes;
    for (int step = 0; step < 2000 && completions.empty(); ++step) {
        bus.advance(1);
        bus.update();
        for (; seen < bus.frames.size(); ++seen) {
            const SentFrame frame = bus.frames[seen];  // replies below may add frames
            const uint32_t received = static_cast<uint32_t>(bytes.size() / 7);
            if (frame.pgn() == 0xEC00 && frame.data[0] == RTS) {
                control(cm(CTS, 16, 1, 0xFF));
            } else if (frame.pgn() == 0xEB00) {
                ASSERT_EQ(frame.data[0], received + 1);
                bytes.insert(bytes.end(), frame.data.begin() + 1, frame.data.end());
                if (received + 1 == 255) {
                    control(sized(EOM, message.size()));
                } else if ((received + 1) % 16 == 0) {
                    control(cm(CTS, 16, static_cast<uint8_t>(received + 2), 0xFF));
                }
            }
        }
    }
    std::vector<uint8_t> expected = message;
    expected.resize(1785, 0xFF);
    EXPECT_EQ(bytes, expected);
    EXPECT_TRUE(sent(ABORT).empty());
    EXPECT_EQ(completions, (Results{{handle, true}}));
    EXPECT_EQ(usedBlocks(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TransportWholeSendTest,
                         ::testing::Values(WholeCase{"Full1785FromPool", 1785, false},
                                           WholeCase{"Padded1780FromFragments", 1780, true}),
                         caseName);

TEST_F(TransportTest, LargestMessageFromAPeerIsReassembledExactly) {
    const std::vector<uint8_t> message = pattern(1785, 2);
    control({RTS, 0xF9, 0x06, 255, 16, 0x00, 0xEF, 0x00});
    size_t seen = 0;
    for (int step = 0; step < 200 && delivered.empty(); ++step) {
        bus.advance(1);
        bus.update();
        for (; seen < bus.frames.size(); ++seen) {
            const SentFrame frame = bus.frames[seen];  // replies below may add frames
            if (frame.pgn() == 0xEC00 && frame.data[0] == CTS) {
                packets(frame.data[2], std::min(255u, frame.data[2] + frame.data[1] - 1u), message);
            }
        }
    }
    EXPECT_EQ(sent(CTS).size(), 16u);
    EXPECT_EQ(sent(EOM), (Frames{sized(EOM, 1785)}));
    EXPECT_EQ(delivered, (Frames{message}));
    EXPECT_EQ(usedBlocks(), 0u);
}
