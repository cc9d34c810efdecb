#include <gtest/gtest.h>

#include <numeric>
#include <utility>

#include "canstack/transportprotocol.h"
#include "simulated_bus.h"

namespace {

using Frames = std::vector<Bytes>;
using Results = std::vector<std::pair<uint32_t, bool>>;

const char* const OWNER = "Transport Protocol";
constexpr uint32_t PGN = 0xEF00;
constexpr uint32_t BROADCAST_PGN = 0xFEEC;
constexpr uint32_t NO_PGN = 0xFFFFFF;

Bytes pattern(size_t size, uint8_t seed = 0) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + seed + i / 256);
    }
    return bytes;
}
Bytes range(uint8_t first, uint8_t last) {
    Bytes values(last - first + 1);
    std::iota(values.begin(), values.end(), first);
    return values;
}
Bytes abortFrame(uint8_t reason, uint32_t pgn = PGN) {
    return cm(ABORT, reason, 0xFF, 0xFF, pgn);
}
// Data packets by sequence alone, in a list of peer frames.
template <typename... S>
Frames packetsIn(S... sequences) {
    return {Bytes(1, static_cast<uint8_t>(sequences))...};
}

// Long messages delivered, and the results of transfers sent from here.
Frames delivered;
Results completions;
Bytes fragmentSource;
uint32_t fragmentRequests = 0;
// When set, each completion tries a new transfer to the peer from inside the callback, and
// records its result and the pool blocks still held at that moment.
InternalControlFunctionClass* resendFrom = nullptr;
std::vector<uint32_t> resendSeen;

// Fragments come in 9-byte pieces, so they straddle packets.
void transferCallback(CANCallbackClass* callback) {
    if (callback->getCallbackType() != 2) {
        completions.emplace_back(callback->getHandle(), callback->isSuccess());
        if (resendFrom != nullptr) {
            static const uint8_t nine[9] = {};
            resendSeen.push_back(NM::sendParameterGroupNumber(PGN, nine, 9, resendFrom,
                                                              NM::getControlFunction(0, PEER), 7));
            resendSeen.push_back(usedBlocks());
        }
        return;
    }
    auto* fragment = static_cast<CANFragmentCallbackClass*>(callback);
    ++fragmentRequests;
    if (fragmentSource.empty()) {
        return;  // sets nothing
    }
    const uint32_t left = static_cast<uint32_t>(fragmentSource.size()) - fragment->getOffset();
    fragment->setFragmentData(fragmentSource.data() + fragment->getOffset(), std::min(9u, left));
}

class TransportTest : public ProtocolTest {
protected:
    void SetUp() override {
        ProtocolTest::SetUp();
        for (uint32_t pgn : {PGN, BROADCAST_PGN}) {
            NM::addGlobalReceiveCallback(pgn, [](CANMessageClass* message,
                                                 ReceiveCANMessageCallbackClass*) {
                Bytes data(message->getDataLength());
                EXPECT_EQ(message->getMessageType(), 0u);
                EXPECT_TRUE(message->getData(data.data(), 0, static_cast<uint32_t>(data.size())));
                delivered.push_back(data);
            });
        }
    }

    // Frames from the peer, to this device or to all: control frames, or data packets of
    // `message` given by their sequence alone.
    void fromPeer(const Bytes& frame, uint8_t destination = SELF, const Bytes& message = {}) {
        const bool data = frame.size() == 1;
        bus.receive(0, frameIdentifier(data ? 7 : 6, data ? 0xEB00 : 0xEC00, destination, PEER),
                    data ? packet(frame[0], message) : frame);
    }
    // Steps 1 ms at a time until `done`, handing every new frame to `react`.
    template <typename React, typename Done>
    void step(React react, Done done) {
        size_t seen = 0;
        for (int ms = 0; ms < 2000 && !done(); ++ms) {
            bus.advance(1);
            bus.update();
            for (; seen < bus.frames.size(); ++seen) {
                react(SentFrame(bus.frames[seen]));  // a copy: reactions may add frames
            }
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
    uint32_t send(const Bytes* data, size_t length, uint8_t to = PEER, bool persistent = false) {
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

struct ReceiveCase {
    const char* name;
    size_t size;
    uint8_t perCts;  // byte 4 of the RTS
};
using TransportReceiveTest = TransportCaseTest<ReceiveCase>;

TEST_P(TransportReceiveTest, PeerMessageIsReassembledPageByPage) {
    const ReceiveCase& c = GetParam();
    const Bytes message = pattern(c.size, 2);
    const uint32_t total = static_cast<uint32_t>((c.size - 1) / 7 + 1);
    Bytes rts = sized(RTS, c.size, PGN);
    rts[4] = c.perCts;
    fromPeer(rts);
    step(
        [&](const SentFrame& frame) {
            EXPECT_EQ(frame.pduSpecific(), PEER);
            EXPECT_EQ(frame.priority(), 6);
            const uint32_t last = std::min(total, frame.data[2] + frame.data[1] - 1u);
            for (uint32_t s = frame.data[2]; frame.data[0] == CTS && s <= last; ++s) {
                fromPeer({static_cast<uint8_t>(s)}, SELF, message);
            }
        },
        [] { return !delivered.empty(); });
    Frames cts;  // each asks for a full page, the last one too, and no more than the message
    const uint8_t page = static_cast<uint8_t>(std::min<uint32_t>(c.perCts, total));
    for (uint32_t next = 1; next <= total; next += page) {
        cts.push_back(cm(CTS, page, static_cast<uint8_t>(next), 0xFF, PGN));
    }
    EXPECT_EQ(sent(CTS), cts);
    EXPECT_EQ(sent(EOM), (Frames{sized(EOM, c.size, PGN)}));
    EXPECT_EQ(delivered, (Frames{message}));
    EXPECT_EQ(sessions(), 0u);
    EXPECT_EQ(usedBlocks(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TransportReceiveTest,
                         ::testing::Values(ReceiveCase{"FivePacketsThreePerCts", 33, 3},
                                           ReceiveCase{"Largest1785", 1785, 16},
                                           ReceiveCase{"PageLargerThanTheMessage", 20, 9}),
                         caseName);

// ---------------------------------------------------------------- ends of sessions

// A session opens by an RTS or a BAM of 300 bytes from the peer, or by 300 bytes sent to it
// from a pool copy (SEND) or from the caller's (SEND_KEPT). The peer's frames come each followed
// by four updates, or all in one update; frames sent from here are confirmed, never confirmed,
// or aborts refused.
constexpr uint8_t NONE = 0, SEND = 1, SEND_KEPT = 2;
enum Outlet : uint8_t { CONFIRM, TOGETHER, NO_CONFIRM, REFUSE_ABORT };

struct EndCase {
    const char* name;
    uint8_t opening;
    Frames peer;  // control frames, or data packets by sequence alone
    uint8_t destination;
    Outlet outlet;
    Bytes sequences;  // of the data packets sent from here
    uint32_t limit;   // ms of silence that end the session; 0: the peer's frames do
    Frames aborts;    // sent from here
    const char* report;
    uint8_t severity;
    uint32_t sessions;  // left
};
using TransportEndTest = TransportCaseTest<EndCase>;

TEST_P(TransportEndTest, SessionEndsWithItsAbortAndReport) {
    const EndCase& c = GetParam();
    const Bytes message = pattern(300);
    const bool sending = c.opening == SEND || c.opening == SEND_KEPT;
    if (sending) {
        ASSERT_EQ(send(&message, 300, PEER, c.opening == SEND_KEPT), 0u);
    } else if (c.opening != NONE) {
        fromPeer(sized(c.opening, 300, PGN), c.opening == BAM ? 0xFF : SELF);
    }
    bus.update();
    const auto after = [&](uint32_t ms) {
        bus.advance(ms);
        c.outlet == NO_CONFIRM ? NM::update() : bus.update();
    };
    for (const Bytes& frame : c.peer) {
        fromPeer(frame, c.destination, message);
        for (int i = 0; c.outlet != TOGETHER && i < 4; ++i) {
            after(0);  // packet confirmations count as activity
        }
    }
    if (c.outlet == TOGETHER) {
        bus.update();
    }
    if (c.outlet == REFUSE_ABORT) {
        bus.refused = {0xEC00};
    }
    Bytes sequences;
    for (const SentFrame& frame : bus.framesWithPGN(0xEB00)) {
        sequences.push_back(frame.data[0]);
    }
    EXPECT_EQ(sequences, c.sequences);
    if (c.limit > 0) {
        after(c.limit - 1);
        EXPECT_EQ(sessions(), 1u);
        after(1);
    }
    EXPECT_EQ(sessions(), c.sessions);
    EXPECT_EQ(sent(ABORT), c.aborts);
    EXPECT_EQ(descriptionCount(OWNER, c.report, c.severity), 1u);
    const bool ended = sending && c.sessions == 0;
    EXPECT_EQ(completions, (ended ? Results{{handle, false}} : Results()));
    EXPECT_EQ(usedBlocks(), c.sessions == 0 ? 0u : 3u);
}

const Bytes FIRST = cm(CTS, 3, 1, 0xFF, PGN);
const Bytes SECOND = cm(CTS, 3, 4, 0xFF, PGN);
const Bytes ALL = cm(CTS, 43, 1, 0xFF, PGN);
const Bytes UNKNOWN = cm(5, 0, 0, 0, PGN);
const Bytes RTS30 = sized(RTS, 30, PGN);
const Bytes EOM30 = sized(EOM, 30, PGN);

INSTANTIATE_TEST_SUITE_P(
    Ends, TransportEndTest,
    ::testing::Values(
        // clang-format off
        EndCase{"ReceiveDuplicate", RTS, packetsIn(1, 2, 2), SELF, CONFIRM, {}, 0, {abortFrame(8)}, "Receive Data Duplicate Sequence Number", 0, 0},
        EndCase{"ReceiveSkipped", RTS, packetsIn(1, 3), SELF, CONFIRM, {}, 0, {abortFrame(7)}, "Receive Data Bad Sequence Number", 0, 0},
        EndCase{"ReceiveOutsideSession", NONE, packetsIn(1), SELF, CONFIRM, {}, 0, {abortFrame(6, NO_PGN)}, "Receive Data Not in Session", 0, 0},
        EndCase{"ReceiveFirstPacketOfPage", RTS, {}, SELF, CONFIRM, {}, 1250, {abortFrame(3)}, "Receive Data Timeout", 2, 0},
        EndCase{"ReceiveWithinPage", RTS, packetsIn(1, 2), SELF, CONFIRM, {}, 750, {abortFrame(3)}, "Receive Data Timeout", 2, 0},
        EndCase{"ReceiveBroadcast", BAM, packetsIn(1), 0xFF, CONFIRM, {}, 750, {}, "Receive Data Timeout", 2, 0},
        EndCase{"ReceiveAbortNotSent", RTS, {}, SELF, REFUSE_ABORT, {}, 1500, {}, "Generic Timeout", 2, 0},
        EndCase{"SendNoCts", SEND, {}, SELF, CONFIRM, {}, 1250, {abortFrame(3)}, "Wait Clear to Send Timeout", 2, 0},
        EndCase{"SendCtsOfZeroPackets", SEND, {cm(CTS, 0, 1, 0xFF, PGN)}, SELF, CONFIRM, {}, 1050, {abortFrame(3)}, "Wait Clear to Send Timeout", 2, 0},
        EndCase{"SendNoEom", SEND, {ALL}, SELF, CONFIRM, range(1, 43), 1250, {abortFrame(3)}, "Wait for Acknowledgement Timeout", 2, 0},
        EndCase{"SendTwentyPacketsInFlight", SEND, {ALL}, SELF, NO_CONFIRM, range(1, 20), 1500, {}, "Generic Timeout", 2, 0},
        // A pool copy moves its page on and cannot go back before it.
        EndCase{"SendRetryThirdTimeInARow", SEND_KEPT, {FIRST, FIRST, FIRST, FIRST}, SELF, CONFIRM, {1, 2, 3, 1, 2, 3, 1, 2, 3}, 0, {abortFrame(5)}, "CTS Retry Limit Exceeded", 0, 0},
        EndCase{"SendRetryBeyondTheMessage", SEND, {FIRST, cm(CTS, 44, 1, 0xFF, PGN)}, SELF, CONFIRM, {1, 2, 3}, 0, {abortFrame(254)}, "CTS Packets to be sent invalid", 0, 0},
        EndCase{"SendRetryBeforeThePageStart", SEND, {FIRST, SECOND, FIRST}, SELF, CONFIRM, range(1, 6), 0, {abortFrame(5)}, "CTS Retry Limit Exceeded", 0, 0},
        // Frames refused at once.
        EndCase{"RtsToGlobal", NONE, {RTS30}, 0xFF, TOGETHER, {}, 0, {}, "RTS to Global", 0, 0},
        EndCase{"CtsToGlobal", NONE, {ALL}, 0xFF, TOGETHER, {}, 0, {}, "CTS to Global", 0, 0},
        EndCase{"EomToGlobal", NONE, {EOM30}, 0xFF, TOGETHER, {}, 0, {}, "EOM Acknowledgement to Global", 0, 0},
        EndCase{"UnknownToGlobal", NONE, {UNKNOWN}, 0xFF, TOGETHER, {}, 0, {}, "Invalid Command Multiplexor", 1, 0},
        EndCase{"CtsNotInSession", NONE, {ALL}, SELF, TOGETHER, {}, 0, {abortFrame(254, NO_PGN)}, "CTS Not in Session", 0, 0},
        EndCase{"EomNotInSession", NONE, {EOM30}, SELF, TOGETHER, {}, 0, {abortFrame(254, NO_PGN)}, "EOM Acknowledgement Not in Session", 0, 0},
        EndCase{"BamPointToPoint", NONE, {sized(BAM, 30, PGN)}, SELF, TOGETHER, {}, 0, {abortFrame(254)}, "BAM Point to Point", 0, 0},
        EndCase{"DataBeforeCts", NONE, {RTS30, {1}}, SELF, TOGETHER, {}, 0, {abortFrame(6)}, "Receive Data Not Ready for Data", 0, 0},
        EndCase{"BamAlreadyInSession", BAM, {sized(BAM, 40, 0xFEED)}, 0xFF, TOGETHER, {}, 0, {}, "BAM Already in Session", 0, 1},
        EndCase{"RtsAlreadyInSession", RTS, {sized(RTS, 30, 0xEE00)}, SELF, TOGETHER, {}, 0, {abortFrame(1)}, "RTS Already in Session", 0, 1},
        EndCase{"UnknownEndsSessions", RTS, {UNKNOWN}, SELF, TOGETHER, {}, 0, {abortFrame(254, NO_PGN)}, "Invalid Command Multiplexor", 1, 0},
        EndCase{"UnknownEndsSendSession", SEND, {UNKNOWN}, SELF, TOGETHER, {}, 0, {abortFrame(254, NO_PGN)}, "Invalid Command Multiplexor", 1, 0},
        EndCase{"PeerAbortsAnotherPgn", RTS, {abortFrame(3, 0xEE00)}, SELF, TOGETHER, {}, 0, {}, "Connection Abort Message Received", 2, 1},
        EndCase{"PeerAbortsReceive", RTS, {abortFrame(3)}, SELF, TOGETHER, {}, 0, {}, "Receive Session Aborted", 2, 0},
        EndCase{"PeerAbortsTransmit", SEND, {abortFrame(3)}, SELF, TOGETHER, {}, 0, {}, "Transmit Session Aborted", 2, 0},
        EndCase{"CtsPgnMismatch", SEND, {cm(CTS, 3, 1, 0xFF, 0xEE00)}, SELF, TOGETHER, {}, 0, {abortFrame(254)}, "CTS PGN Mismatch", 0, 0},
        EndCase{"CtsBeyondTheMessage", SEND, {cm(CTS, 44, 1, 0xFF, PGN)}, SELF, TOGETHER, {}, 0, {abortFrame(254)}, "CTS Packets to be sent invalid", 0, 0},
        EndCase{"CtsWhileSending", SEND, {ALL, ALL}, SELF, TOGETHER, {}, 0, {abortFrame(4)}, "CTS while in Data Transfer", 0, 0},
        EndCase{"EomBeforeTheData", SEND, {sized(EOM, 300, PGN)}, SELF, TOGETHER, {}, 0, {abortFrame(254)}, "EOM Acknowledgement Invalid Contents", 0, 0},
        EndCase{"EomWrongPacketCount", SEND, {ALL, cm(EOM, 44, 1, 42, PGN)}, SELF, CONFIRM, range(1, 43), 0, {abortFrame(254)}, "EOM Acknowledgement Invalid Contents", 0, 0},
        EndCase{"EomWrongPgn", SEND, {ALL, sized(EOM, 300, 0xEE00)}, SELF, CONFIRM, range(1, 43), 0, {abortFrame(254)}, "EOM Acknowledgement Invalid Contents", 0, 0},
        EndCase{"EomWrongSize", SEND, {ALL, sized(EOM, 299, PGN)}, SELF, CONFIRM, range(1, 43), 0, {abortFrame(254)}, "EOM Acknowledgement Invalid Contents", 0, 0}),
    // clang-format on
    caseName);

// Ten peers hold every session: the eleventh RTS is refused by an abort naming no PGN, the
// eleventh BAM only noted.
TEST_F(TransportTest, NoFreeSession) {
    for (uint8_t peer = 0x40; peer <= 0x4A; ++peer) {
        bus.claimFrom(0, peer, testNAME(peer));
        bus.receive(0, frameIdentifier(6, 0xEC00, SELF, peer), RTS30);
        bus.update();
    }
    bus.receive(0, frameIdentifier(6, 0xEC00, 0xFF, 0x4A), sized(BAM, 30, PGN));
    bus.update();
    EXPECT_EQ(sessions(), 10u);
    const Bytes nine(9);
    EXPECT_EQ(send(&nine, 9), 16u);
    EXPECT_EQ(descriptionCount(OWNER, "Transmit No Available Sessions", 2), 1u);
    EXPECT_EQ(sent(ABORT), (Frames{abortFrame(2, NO_PGN)}));
    EXPECT_EQ(bus.framesWithPGN(0xEC00).back().pduSpecific(), 0x4A);
    EXPECT_EQ(descriptionCount(OWNER, "RTS No Sessions Available", 2), 1u);
    EXPECT_EQ(descriptionCount(OWNER, "BAM No Sessions Available", 2), 1u);
}

// ---------------------------------------------------------------- send side

struct SendCase {
    const char* name;
    size_t size;
    bool persistent;
    bool withData;  // false: the fragment callback supplies it
    uint8_t perCts;
    uint32_t fragmentRequests;
};
using TransportSendTest = TransportCaseTest<SendCase>;

// The peer asks for pages of `perCts` packets and acknowledges the end.
TEST_P(TransportSendTest, PeerGetsEveryByteInOrderAndTheEomCompletes) {
    const SendCase& c = GetParam();
    const Bytes message = pattern(c.size, 9);
    const uint32_t total = static_cast<uint32_t>((c.size - 1) / 7 + 1);
    fragmentSource = message;
    resendFrom = &self;
    ASSERT_EQ(send(c.withData ? &message : nullptr, c.size, PEER, c.persistent), 0u);
    Bytes bytes;
    uint32_t granted = 0;
    const auto grant = [&](uint32_t next) {
        granted = std::min(total, next + c.perCts - 1);
        fromPeer(cm(CTS, c.perCts, static_cast<uint8_t>(next), 0xFF, PGN));
    };
    step(
        [&](const SentFrame& frame) {
            EXPECT_EQ(frame.pduSpecific(), PEER);
            EXPECT_EQ(frame.priority(), frame.pgn() == 0xEC00 ? 6 : 7);
            if (frame.pgn() == 0xEC00) {
                EXPECT_EQ(frame.data, sized(RTS, c.size, PGN));
                grant(1);
                return;
            }
            const uint32_t sequence = static_cast<uint32_t>(bytes.size() / 7 + 1);
            ASSERT_EQ(frame.data[0], sequence);
            ASSERT_LE(sequence, granted);
            bytes.insert(bytes.end(), frame.data.begin() + 1, frame.data.end());
            if (sequence == total) {
                EXPECT_TRUE(completions.empty());
                fromPeer(sized(EOM, c.size, PGN));
            } else if (sequence == granted) {
                grant(sequence + 1);
            }
        },
        [] { return !completions.empty(); });
    Bytes expected = message;
    expected.resize(total * 7, 0xFF);
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(completions, (Results{{handle, true}}));
    EXPECT_EQ(usedBlocks(), 0u);
    EXPECT_EQ(fragmentRequests, c.fragmentRequests);
    // Told before the release: the session still stands, with its page in the pool.
    const uint32_t blocks = c.persistent ? 0 : (std::min<uint32_t>(c.size, 1785) - 1) / 100 + 1;
    EXPECT_EQ(resendSeen, (std::vector<uint32_t>{15, blocks}));
}

INSTANTIATE_TEST_SUITE_P(
    Sources, TransportSendTest,
    ::testing::Values(SendCase{"CallersData", 40, true, true, 4, 0},
                      SendCase{"PoolCopy", 40, false, true, 4, 0},
                      SendCase{"FragmentCallback", 40, false, false, 4, 5},
                      SendCase{"Largest1785FromPool", 1785, false, true, 16, 0},
                      SendCase{"Padded1780FromFragments", 1780, false, false, 16, 198}),
    caseName);

TEST_F(TransportTest, BroadcastPacketsAre51MsApartAndNeedNoAnswer) {
    bus.deferQueued = false;  // confirmed at once, so the gap counts from each send
    const Bytes message = pattern(9, 5);
    ASSERT_EQ(send(&message, 9, 0xFF), 0u);
    std::vector<uint32_t> times;  // of the BAM and each packet
    step([&](const SentFrame&) { times.push_back(SimulatedBus::now); },
         [] { return !completions.empty(); });
    EXPECT_EQ(sent(BAM), (Frames{sized(BAM, 9, BROADCAST_PGN)}));
    ASSERT_EQ(bus.framesWithPGN(0xEB00).size(), 2u);
    EXPECT_EQ(bus.framesWithPGN(0xEB00)[1].data, packet(2, message));
    EXPECT_EQ(times, (std::vector<uint32_t>{times[0], times[0] + 51, times[0] + 102}));
    EXPECT_EQ(completions, (Results{{handle, true}}));
}

TEST_F(TransportTest, TransmitsBeyondTheLimitsAreRefused) {
    EXPECT_EQ(send(nullptr, 100), 20u);  // the fragment callback sets nothing: told at once
    const Results failed = {{handle, false}};
    EXPECT_EQ(send(nullptr, 100, PEER, true), 9u);
    EXPECT_EQ(
        NM::sendParameterGroupNumber(PGN, nullptr, 100, &self, NM::getControlFunction(0, PEER), 7,
                                     false, nullptr, nullptr),
        18u);
    EXPECT_EQ(descriptions(OWNER),
              (Texts{"2 Transmit Complete Callback NULL", "2 Transmit Data Pointer NULL",
                     "2 Transmit Failed Next Data Page",
                     "2 Invalid Transmit Complete Callback getNextDataPage"}));
    const Bytes message = pattern(1786);
    EXPECT_EQ(send(&message, 1786), 14u);
    ASSERT_EQ(send(&message, 1785, PEER), 0u);
    EXPECT_EQ(send(&message, 1785, PEER), 15u);
    ASSERT_EQ(send(&message, 1785, OTHER), 0u);
    EXPECT_EQ(send(&message, 1785, 0xFF), 17u);
    EXPECT_EQ(send(nullptr, 1785, 0xFF), 17u);
    const Texts reported = descriptions(OWNER);  // newest first
    EXPECT_EQ(Texts(reported.begin(), reported.end() - 4),
              (Texts{"2 Transmit Request Memory Pool Failure", "2 Transmit Memory Pool Failure"}));
    EXPECT_EQ(sessions(), 2u);
    EXPECT_EQ(usedBlocks(), 36u);
    EXPECT_EQ(completions, failed);  // those refused before they started are not told
}
