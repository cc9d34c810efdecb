#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
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
std::vector<uint8_t> range(uint8_t first, uint8_t last) {
    std::vector<uint8_t> values(last - first + 1);
    std::iota(values.begin(), values.end(), first);
    return values;
}
// A table cell without nested braces, which keeps the rows on few lines.
template <typename T, typename... V>
std::vector<T> list(V... values) {
    return {T(values)...};
}

uint32_t packetsFor(size_t size) {
    return static_cast<uint32_t>((size - 1) / 7 + 1);
}

std::vector<uint8_t> cm(uint8_t control, uint8_t b1, uint8_t b2, uint8_t b3, uint32_t pgn = PGN) {
    const auto byte = [pgn](int shift) { return static_cast<uint8_t>(pgn >> shift); };
    return {control, b1, b2, b3, 0xFF, byte(0), byte(8), byte(16)};
}
// RTS, BAM and EOM all carry the size and the packet count.
std::vector<uint8_t> sized(uint8_t control, size_t size, uint32_t pgn = PGN) {
    return cm(control, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8),
              static_cast<uint8_t>(packetsFor(size)), pgn);
}
std::vector<uint8_t> abortFrame(uint8_t reason, uint32_t pgn = PGN) {
    return cm(ABORT, reason, 0xFF, 0xFF, pgn);
}

uint32_t usedBlocks() {
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.getUsedBlockCount();
}

// Long messages delivered, and the results of transfers sent from here.
Frames delivered;
Results completions;
std::vector<uint8_t> fragmentSource;
uint32_t fragmentRequests = 0;
// When set, each completion tries a new transfer to the peer from inside the callback, and
// records its result and the pool blocks still held at that moment.
InternalControlFunctionClass* resendFrom = nullptr;
std::vector<uint32_t> resendSeen;

void recordLongMessage(CANMessageClass* message, ReceiveCANMessageCallbackClass*) {
    std::vector<uint8_t> data(message->getDataLength());
    EXPECT_EQ(message->getMessageType(), 0u);
    EXPECT_TRUE(message->getData(data.data(), 0, static_cast<uint32_t>(data.size())));
    delivered.push_back(data);
}

// Fragments come in 9-byte pieces, so they straddle packets.
void transferCallback(CANCallbackClass* callback) {
    if (callback->getCallbackType() != 2) {
        completions.emplace_back(callback->getHandle(), callback->isSuccess());
        if (resendFrom != nullptr) {
            static const uint8_t nine[9] = {};
            resendSeen.push_back(NetworkManagementClass::sendParameterGroupNumber(
                PGN, nine, 9, resendFrom, NetworkManagementClass::getControlFunction(0, PEER), 7));
            resendSeen.push_back(usedBlocks());
        }
        return;
    }
    auto* fragment = static_cast<CANFragmentCallbackClass*>(callback);
    ++fragmentRequests;
    const uint32_t left = static_cast<uint32_t>(fragmentSource.size()) - fragment->getOffset();
    fragment->setFragmentData(fragmentSource.data() + fragment->getOffset(), std::min(9u, left));
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

struct ReceiveCase {
    const char* name;
    size_t size;
    uint8_t perCts;  // byte 4 of the RTS
};
using TransportReceiveTest = TransportCaseTest<ReceiveCase>;

TEST_P(TransportReceiveTest, PeerMessageIsReassembledPageByPage) {
    const ReceiveCase& c = GetParam();
    const std::vector<uint8_t> message = pattern(c.size, 2);
    const uint32_t total = packetsFor(c.size);
    std::vector<uint8_t> rts = sized(RTS, c.size);
    rts[4] = c.perCts;
    control(rts);
    step(
        [&](const SentFrame& frame) {
            EXPECT_EQ(frame.pduSpecific(), PEER);
            EXPECT_EQ(frame.priority(), 6);
            if (frame.data[0] == CTS) {
                packets(frame.data[2], std::min(total, frame.data[2] + frame.data[1] - 1u),
                        message);
            }
        },
        [] { return !delivered.empty(); });
    Frames cts;  // each asks for a full page, the last one too
    for (uint32_t next = 1; next <= total; next += c.perCts) {
        cts.push_back(cm(CTS, c.perCts, static_cast<uint8_t>(next), 0xFF));
    }
    EXPECT_EQ(sent(CTS), cts);
    EXPECT_EQ(sent(EOM), (Frames{sized(EOM, c.size)}));
    EXPECT_EQ(delivered, (Frames{message}));
    EXPECT_EQ(sessions(), 0u);
    EXPECT_EQ(usedBlocks(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TransportReceiveTest,
                         ::testing::Values(ReceiveCase{"FivePacketsThreePerCts", 33, 3},
                                           ReceiveCase{"Largest1785", 1785, 16}),
                         caseName);

TEST_F(TransportTest, BroadcastIsReassembledAndASecondOneFromTheSameSourceIgnored) {
    const std::vector<uint8_t> message = pattern(20, 3);
    control(sized(BAM, 20, BROADCAST_PGN), 0xFF);
    packets(1, 1, message, 0xFF);
    control(sized(BAM, 40, 0xFEED), 0xFF);
    bus.update();
    EXPECT_EQ(descriptionCount(OWNER, "BAM Already in Session", 0), 1u);
    packets(2, 3, message, 0xFF);
    bus.update();
    EXPECT_EQ(delivered, (Frames{message}));
    EXPECT_TRUE(bus.frames.empty());
}

// ---------------------------------------------------------------- ends of sessions

// How a session opens, besides an RTS or a BAM from the peer.
constexpr uint8_t NONE = 0, SEND = 1, SEND_KEPT = 2;
// What becomes of frames sent from here: confirmed, never confirmed, or aborts refused.
enum Outlet : uint8_t { CONFIRM, NO_CONFIRM, REFUSE_ABORT };

struct EndCase {
    const char* name;
    uint8_t opening;  // SEND: 300 bytes to the peer from a pool copy, SEND_KEPT: from caller's
    Frames peer;      // then from the peer: control frames, or data packets by sequence alone
    Outlet outlet;
    std::vector<uint8_t> sequences;  // of the data packets sent from here
    uint32_t limit;  // ms of silence that end the session; 0: the peer's last frame does
    uint8_t reason;  // of the abort sent; 0: none
    uint8_t severity;
    const char* report;
};
using TransportEndTest = TransportCaseTest<EndCase>;

TEST_P(TransportEndTest, SessionEndsWithItsAbortAndReport) {
    const EndCase& c = GetParam();
    const std::vector<uint8_t> message = pattern(300);
    const uint8_t destination = c.opening == BAM ? 0xFF : SELF;
    const bool sending = c.opening == SEND || c.opening == SEND_KEPT;
    if (sending) {
        ASSERT_EQ(send(&message, 300, PEER, c.opening == SEND_KEPT), 0u);
    } else if (c.opening != NONE) {
        control(sized(c.opening, 300), destination);
    }
    bus.update();
    const auto after = [&](uint32_t ms) {
        bus.advance(ms);
        c.outlet == NO_CONFIRM ? NM::update() : bus.update();
    };
    for (const std::vector<uint8_t>& frame : c.peer) {
        if (frame.size() == 1) {
            packets(frame[0], frame[0], message, destination);
        } else {
            control(frame);
        }
        for (int i = 0; i < 4; ++i) {
            after(0);  // packet confirmations count as activity
        }
    }
    if (c.outlet == REFUSE_ABORT) {
        refused = {0xEC00};
    }
    std::vector<uint8_t> sequences;
    for (const SentFrame& frame : dataPackets()) {
        sequences.push_back(frame.data[0]);
    }
    EXPECT_EQ(sequences, c.sequences);
    if (c.limit > 0) {
        after(c.limit - 1);
        EXPECT_EQ(sessions(), 1u);
        after(1);
    }
    EXPECT_EQ(sessions(), 0u);
    const uint32_t pgn = c.opening == NONE ? 0xFFFFFF : PGN;
    EXPECT_EQ(sent(ABORT), c.reason != 0 ? Frames{abortFrame(c.reason, pgn)} : Frames{});
    EXPECT_EQ(descriptionCount(OWNER, c.report, c.severity), 1u);
    EXPECT_EQ(completions, (sending ? Results{{handle, false}} : Results()));
    EXPECT_EQ(usedBlocks(), 0u);
}

const std::vector<uint8_t> FIRST = cm(CTS, 3, 1, 0xFF);
const std::vector<uint8_t> SECOND = cm(CTS, 3, 4, 0xFF);
const std::vector<uint8_t> ALL = cm(CTS, 43, 1, 0xFF);
template <typename... S>
Frames packetsIn(S... sequences) {
    return {std::vector<uint8_t>(1, static_cast<uint8_t>(sequences))...};
}

INSTANTIATE_TEST_SUITE_P(
    Ends, TransportEndTest,
    ::testing::Values(
        // clang-format off
        EndCase{"ReceiveDuplicate", RTS, packetsIn(1, 2, 2), CONFIRM, list<uint8_t>(), 0, 8, 0, "Receive Data Duplicate Sequence Number"},
        EndCase{"ReceiveSkipped", RTS, packetsIn(1, 3), CONFIRM, list<uint8_t>(), 0, 7, 0, "Receive Data Bad Sequence Number"},
        EndCase{"ReceiveOutsideSession", NONE, packetsIn(1), CONFIRM, list<uint8_t>(), 0, 6, 0, "Receive Data Not in Session"},
        EndCase{"ReceiveFirstPacketOfPage", RTS, Frames(), CONFIRM, list<uint8_t>(), 1250, 3, 2, "Receive Data Timeout"},
        EndCase{"ReceiveWithinPage", RTS, packetsIn(1, 2), CONFIRM, list<uint8_t>(), 750, 3, 2, "Receive Data Timeout"},
        EndCase{"ReceiveBroadcast", BAM, packetsIn(1), CONFIRM, list<uint8_t>(), 750, 0, 2, "Receive Data Timeout"},
        EndCase{"ReceiveAbortNotSent", RTS, Frames(), REFUSE_ABORT, list<uint8_t>(), 1500, 0, 2, "Generic Timeout"},
        EndCase{"SendNoCts", SEND, Frames(), CONFIRM, list<uint8_t>(), 1250, 3, 2, "Wait Clear to Send Timeout"},
        EndCase{"SendCtsOfZeroPackets", SEND, Frames(1, cm(CTS, 0, 1, 0xFF)), CONFIRM, list<uint8_t>(), 1050, 3, 2, "Wait Clear to Send Timeout"},
        EndCase{"SendNoEom", SEND, Frames(1, ALL), CONFIRM, range(1, 43), 1250, 3, 2, "Wait for Acknowledgement Timeout"},
        EndCase{"SendTwentyPacketsInFlight", SEND, Frames(1, ALL), NO_CONFIRM, range(1, 20), 1500, 0, 2, "Generic Timeout"},
        // A pool copy moves its page on and cannot go back before it.
        EndCase{"SendRetryThirdTimeInARow", SEND_KEPT, Frames(4, FIRST), CONFIRM, list<uint8_t>(1, 2, 3, 1, 2, 3, 1, 2, 3), 0, 5, 0, "CTS Retry Limit Exceeded"},
        EndCase{"SendRetryBeforeThePageStart", SEND, list<Frames::value_type>(FIRST, SECOND, FIRST), CONFIRM, range(1, 6), 0, 5, 0, "CTS Retry Limit Exceeded"}),
    // clang-format on
    caseName);

// ---------------------------------------------------------------- refusals

struct RefusalCase {
    const char* name;
    uint8_t opening;      // NONE, RTS: 300 bytes from the peer, SEND: 300 bytes to the peer
    Frames peer;          // in one update: control frames, or data packets by sequence alone
    uint8_t destination;  // of the peer's frames
    Frames aborts;        // sent from here
    const char* report;
    uint8_t severity;
    uint32_t sessions;  // left
};
using TransportRefusalTest = TransportCaseTest<RefusalCase>;

TEST_P(TransportRefusalTest, FrameIsAnsweredWithItsAbortAndReport) {
    const RefusalCase& c = GetParam();
    const std::vector<uint8_t> message = pattern(300);
    if (c.opening == SEND) {
        ASSERT_EQ(send(&message, 300), 0u);
    } else if (c.opening == RTS) {
        control(sized(RTS, 300));
    }
    bus.update();
    for (const std::vector<uint8_t>& frame : c.peer) {
        if (frame.size() == 1) {
            packets(frame[0], frame[0], message, c.destination);
        } else {
            control(frame, c.destination);
        }
    }
    bus.update();
    EXPECT_EQ(sent(ABORT), c.aborts);
    EXPECT_EQ(descriptionCount(OWNER, c.report, c.severity), 1u);
    EXPECT_EQ(sessions(), c.sessions);
    const bool ended = c.opening == SEND && c.sessions == 0;
    EXPECT_EQ(completions, (ended ? Results{{handle, false}} : Results()));
}

const std::vector<uint8_t> CTS_ALL = cm(CTS, 43, 1, 0xFF);
const std::vector<uint8_t> UNKNOWN = cm(5, 0, 0, 0);
constexpr uint8_t ALL_NODES = 0xFF;
constexpr uint32_t NO_PGN = 0xFFFFFF;

INSTANTIATE_TEST_SUITE_P(
    Refusals, TransportRefusalTest,
    ::testing::Values(
        // clang-format off
        RefusalCase{"RtsToGlobal", NONE, Frames{sized(RTS, 30)}, ALL_NODES, Frames(), "RTS to Global", 0, 0},
        RefusalCase{"CtsToGlobal", NONE, Frames{CTS_ALL}, ALL_NODES, Frames(), "CTS to Global", 0, 0},
        RefusalCase{"EomToGlobal", NONE, Frames{sized(EOM, 30)}, ALL_NODES, Frames(), "EOM Acknowledgement to Global", 0, 0},
        RefusalCase{"UnknownToGlobal", NONE, Frames{UNKNOWN}, ALL_NODES, Frames(), "Invalid Command Multiplexor", 1, 0},
        RefusalCase{"CtsNotInSession", NONE, Frames{CTS_ALL}, SELF, Frames{abortFrame(254, NO_PGN)}, "CTS Not in Session", 0, 0},
        RefusalCase{"EomNotInSession", NONE, Frames{sized(EOM, 30)}, SELF, Frames{abortFrame(254, NO_PGN)}, "EOM Acknowledgement Not in Session", 0, 0},
        RefusalCase{"BamPointToPoint", NONE, Frames{sized(BAM, 30)}, SELF, Frames{abortFrame(254)}, "BAM Point to Point", 0, 0},
        RefusalCase{"DataBeforeCts", NONE, Frames{sized(RTS, 30), {1}}, SELF, Frames{abortFrame(6)}, "Receive Data Not Ready for Data", 0, 0},
        RefusalCase{"RtsAlreadyInSession", RTS, Frames{sized(RTS, 30)}, SELF, Frames{abortFrame(1)}, "RTS Already in Session", 0, 1},
        RefusalCase{"UnknownEndsSessions", RTS, Frames{UNKNOWN}, SELF, Frames{abortFrame(254, NO_PGN)}, "Invalid Command Multiplexor", 1, 0},
        RefusalCase{"PeerAbortsAnotherPgn", RTS, Frames{abortFrame(3, 0xEE00)}, SELF, Frames(), "Connection Abort Message Received", 2, 1},
        RefusalCase{"PeerAbortsReceive", RTS, Frames{abortFrame(3)}, SELF, Frames(), "Receive Session Aborted", 2, 0},
        RefusalCase{"PeerAbortsTransmit", SEND, Frames{abortFrame(3)}, SELF, Frames(), "Transmit Session Aborted", 2, 0},
        RefusalCase{"CtsPgnMismatch", SEND, Frames{cm(CTS, 3, 1, 0xFF, 0xEE00)}, SELF, Frames{abortFrame(254)}, "CTS PGN Mismatch", 0, 0},
        RefusalCase{"CtsBeyondTheMessage", SEND, Frames{cm(CTS, 44, 1, 0xFF)}, SELF, Frames{abortFrame(254)}, "CTS Packets to be sent invalid", 0, 0},
        RefusalCase{"CtsWhileSending", SEND, Frames{CTS_ALL, CTS_ALL}, SELF, Frames{abortFrame(4)}, "CTS while in Data Transfer", 0, 0},
        RefusalCase{"EomBeforeTheData", SEND, Frames{sized(EOM, 300)}, SELF, Frames{abortFrame(254)}, "EOM Acknowledgement Invalid Contents", 0, 0}),
    // clang-format on
    caseName);

// Ten peers hold every session: the eleventh RTS is refused by an abort naming no PGN, the
// eleventh BAM only noted.
TEST_F(TransportTest, NoFreeSession) {
    for (uint8_t peer = 0x40; peer <= 0x4A; ++peer) {
        bus.receiveClaim(0, peer, testNAME(peer));
        bus.receive(0, frameIdentifier(6, 0xEC00, SELF, peer), sized(RTS, 30));
        bus.update();
    }
    bus.receive(0, frameIdentifier(6, 0xEC00, 0xFF, 0x4A), sized(BAM, 30));
    bus.update();
    EXPECT_EQ(sessions(), 10u);
    EXPECT_EQ(sent(ABORT), (Frames{abortFrame(2, 0xFFFFFF)}));
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
    const std::vector<uint8_t> message = pattern(c.size, 9);
    const uint32_t total = packetsFor(c.size);
    fragmentSource = message;
    resendFrom = &self;
    ASSERT_EQ(send(c.withData ? &message : nullptr, c.size, PEER, c.persistent), 0u);
    std::vector<uint8_t> bytes;
    uint32_t granted = 0;
    const auto grant = [&](uint32_t next) {
        granted = std::min(total, next + c.perCts - 1);
        control(cm(CTS, static_cast<uint8_t>(c.perCts), static_cast<uint8_t>(next), 0xFF));
    };
    step(
        [&](const SentFrame& frame) {
            EXPECT_EQ(frame.pduSpecific(), PEER);
            EXPECT_EQ(frame.priority(), frame.pgn() == 0xEC00 ? 6 : 7);
            if (frame.pgn() == 0xEC00) {
                EXPECT_EQ(frame.data, sized(RTS, c.size));
                grant(1);
                return;
            }
            const uint32_t sequence = static_cast<uint32_t>(bytes.size() / 7 + 1);
            ASSERT_EQ(frame.data[0], sequence);
            ASSERT_LE(sequence, granted);
            bytes.insert(bytes.end(), frame.data.begin() + 1, frame.data.end());
            if (sequence == total) {
                EXPECT_TRUE(completions.empty());
                control(sized(EOM, c.size));
            } else if (sequence == granted) {
                grant(sequence + 1);
            }
        },
        [] { return !completions.empty(); });
    std::vector<uint8_t> expected = message;
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
    const std::vector<uint8_t> message = pattern(9, 5);
    ASSERT_EQ(send(&message, 9, 0xFF), 0u);
    std::vector<uint32_t> times;  // of the BAM and each packet
    step([&](const SentFrame&) { times.push_back(SimulatedBus::now()); },
         [] { return !completions.empty(); });
    EXPECT_EQ(sent(BAM), (Frames{sized(BAM, 9, BROADCAST_PGN)}));
    ASSERT_EQ(dataPackets().size(), 2u);
    EXPECT_EQ(dataPackets()[1].data,
              (std::vector<uint8_t>{2, message[7], message[8], 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    ASSERT_EQ(times.size(), 3u);
    EXPECT_EQ(times[1] - times[0], 51u);
    EXPECT_EQ(times[2] - times[1], 51u);
    EXPECT_EQ(completions, (Results{{handle, true}}));
}

TEST_F(TransportTest, TransmitsBeyondTheLimitsAreRefused) {
    const std::vector<uint8_t> message = pattern(1786);
    EXPECT_EQ(send(&message, 1786), 14u);
    ASSERT_EQ(send(&message, 1785, PEER), 0u);
    EXPECT_EQ(send(&message, 1785, PEER), 15u);
    ASSERT_EQ(send(&message, 1785, OTHER), 0u);
    EXPECT_EQ(send(&message, 1785, 0xFF), 17u);
    EXPECT_EQ(descriptionCount(OWNER, "Transmit Memory Pool Failure", 2), 1u);
    EXPECT_EQ(send(nullptr, 1785, 0xFF), 17u);
    EXPECT_EQ(descriptionCount(OWNER, "Transmit Request Memory Pool Failure", 2), 1u);
    EXPECT_EQ(sessions(), 2u);
    EXPECT_EQ(usedBlocks(), 36u);
    EXPECT_TRUE(completions.empty());  // refused before it started: no completion
}
