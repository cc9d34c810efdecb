// Each sample through the replay tool and the Ice receiver. With a period longer than any
// sample, the one record is the one the stop closes, and it covers the whole drive. In each
// sample every signal has one frame at its highest and one at its lowest value after
// identification, and a steady last value, so the record's min, max and cur are those frames'
// raw values scaled. Each log ends with a frame whose engine hours have just ticked: it is in
// the record only if the replay delivered its last frame.

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "replay/candumplog.h"
#include "tools/replay_run.h"

using tooltest::ReplayRun;
using tooltest::Tree;

namespace {

// Each signal of the record, where the standard groups carry it and how its readers scale it.
// The Case Patriot's reader takes hours and fuel level from 18FF1227 instead: bytes 2-3 in
// whole hours, and byte 4 as a raw sensor value where 146 is a full tank, in single precision.
struct Scale {
    const char* key;
    double (*value)(int raw, bool patriot);
};
const Scale kScales[] = {
    {"rpm", [](int raw, bool) { return raw / 8.0; }},                          // 0CF00400 bytes 3-4
    {"percentLoadAtCurrentSpeed", [](int raw, bool) { return raw * 1.0; }},    // 0CF00300 byte 2
    {"percentLoadOfTotalTorque", [](int raw, bool) { return raw - 125.0; }},   // 0CF00400 byte 2
    {"fuelConsumptionRate", [](int raw, bool) { return raw * 0.05; }},         // 18FEF200 bytes 0-1
    {"coolantTemperature", [](int raw, bool) { return raw - 40.0; }},          // 18FEEE00 byte 0
    {"engineOilPressure", [](int raw, bool) { return raw * 4.0; }},            // 18FEEF00 byte 3
    {"engineOilTemperature", [](int raw, bool) { return raw / 32.0 - 273; }},  // 18FEEE00 2-3
    {"transmissionOilTemperature", [](int raw, bool) { return raw / 32.0 - 273; }},  // 18FEF803
    {"defLevel", [](int raw, bool) { return raw * 0.4; }},                        // 18FE5600 byte 0
    {"hours", [](int raw, bool patriot) { return patriot ? raw : raw * 0.05; }},  // 18FEE500 0-2
    {"fuelLevel",                                                                 // 18FEFC00 byte 1
     [](int raw, bool patriot) {
         return patriot ? static_cast<float>(raw * 0.6849315) : raw * 0.4;
     }},
};

struct Sample {
    const char* name;
    const char* log;
    const char* machineFile;  // from samples/, or nullptr
    bool fromStandardInput;
    bool patriot;
    std::string identification;  // the body up to the engine values
    std::vector<std::string> logLines;
    std::string raw;  // for each signal above, in hex: its lowest, its highest and its last
};

const Sample kSamples[] = {
    // Engine NAME 0x0C4D2 | 213 << 21 ...: manufacturer 213, Case. 18FF1227 byte 5: 0x14.
    {"casepatriotcan3log",
     "case-patriot-can3.log",
     nullptr,
     false,
     true,
     R"({"detected":{"manufacturer":"CaseIH","model":"Patriot 2250 T4B"},"manufacturerCode":"213",)",
     {"Setting default CAN bus to: MACHINE_500K",
      "from ECU with manufacturer code 213",  // 0xF004 or 0xFEF2, whichever comes first
      "Detecting Case model number 0x14 from 0xff12 message",
      "State machine transitioning to CasePatriotClass3PropertyReader"},
     // rpm at 13.2 s and 8.0 s, load 13.2 s and 9.0 s, coolant 13 s and 10 s, and so on.
     // Hours 0x04D4, and 0x04D5 in the last frame; not 18FEE500's 1235.45 h. Fuel level at
     // 10.5 s and 7 s; not 18FEFC27's 60 %.
     "1DB0 4650 1F40  02 55 0A  7D CB 85  28 33E 78  78 81 7D  41 73 4E  2DD0 2F28 2EA0 "
     "2AA0 2BF0 2B80  AF B7 B2  4D4 4D5 4D5  6C 73 6F"},
    // Engine NAME with manufacturer 102; the identification text of 18ECFF00 and 18EBFF00.
    {"agcobamcan2log",
     "agco-bam-can2.log",
     nullptr,
     false,
     false,
     R"({"detected":{"manufacturer":"AGCO","model":"AGCO*W8730*AGCM8730VHS100123*K*"},)"
     R"("manufacturerCode":"102",)",
     {"Setting default CAN bus to: MACHINE_250K", "Requesting VIN from Agco machine",
      "0xfeec contains \"AGCO*W8730*AGCM8730VHS100123*K*\"",
      "State machine transitioning to AgcoCCanPropertyReader"},
     // Fuel level from can1's 18FEFC80 byte 1 at 11 s and 9 s; not can2's 18FEFC00 at 80 %.
     "1900 4010 1B58  05 5E 0E  7E D7 89  3C 44C 90  79 83 7F  3C 6E 48  2E20 2F60 2EE0 "
     "2B00 2C20 2BC0  91 99 94  153F8 153F9 153F9  B6 BF B9"},
    // No address claim on the bus; the user chose New Holland. 18FF1200 byte 5: 0x1D, and
    // the standard groups for hours and fuel level, not 18FF1200.
    {"enginewithoutnamecan2log",
     "engine-without-name-can2.log",
     "engine-without-name.machine.json",
     false,
     false,
     R"({"detected":{"manufacturer":"New Holland","model":"SP 2500 NH T3, NH"},)"
     R"("userSelected":{"manufacturer":"New Holland","model":"SP.275F"},)",
     {"Message is from noncompliant ECU", "The user-selected manufacturer is \"New Holland\"",
      "Detecting Case model number 0x1d from 0xff12 message",
      "State machine transitioning to BaseCanPropertyReader"},
     "1A90 3CF0 1C20  04 58 0C  80 CD 87  32 2BC 6E  76 7F 7B  3E 6C 4A  2DA0 2EC0 2E60 "
     "2A80 2BA0 2B40  73 7B 76  F17A F17B F17B  6E 6E 6E"},
    // Engine NAME with manufacturer 10: the generic reader, no model.
    {"cumminscan3log",
     "cummins-can3.log",
     nullptr,
     true,
     false,
     R"({"detected":{"manufacturer":"Cummins"},"manufacturerCode":"10",)",
     {"Setting default CAN bus to: MACHINE_500K",
      "State machine transitioning to GenericCanPropertyReader"},
     "1450 4330 16A8  01 5A 08  7D D4 83  14 2F8 60  7C 85 81  46 78 52  2E60 2FA0 2F20 "
     "2B20 2C40 2BE0  CD D5 D0  61FE 61FF 61FF  AF AF AF"},
};

void PrintTo(const Sample& sample, std::ostream* out) {
    *out << sample.log;
}

class ReplaySample : public ::testing::TestWithParam<Sample> {};

// Also what the system sent: on both machine buses a request for claims from the null address,
// then its claim; nothing on can1. NAME: identity 10042 = 0x273A, manufacturer 151, function
// 28, industry group 2, self-configurable: 0xA0001C0012E0273A, sent little-endian.
TEST_P(ReplaySample, RecordHoldsWhatTheFramesSay) {
    const Sample& sample = GetParam();
    ReplayRun run;
    std::vector<std::string> options = {"--serial", "10042", "--transmitted", run.path("sent.log")};
    if (sample.machineFile != nullptr) {
        options.insert(options.end(),
                       {"--machine-file", tooltest::kSamples + "/" + sample.machineFile});
    }
    const std::string log = tooltest::kSamples + "/" + sample.log;
    options.push_back(sample.fromStandardInput ? "-" : log);
    ASSERT_EQ(run.run(options, sample.fromStandardInput ? log : ""), 0) << run.err;

    for (const std::string& line : sample.logLines) {
        EXPECT_NE(run.out.find(line), std::string::npos) << line;
    }
    const std::vector<std::string> bodies = run.bodies();
    ASSERT_EQ(bodies.size(), 1u) << run.out;
    EXPECT_EQ(bodies[0].substr(0, sample.identification.size()), sample.identification);
    EXPECT_EQ(run.statusLines(), std::vector<std::string>{"ETS 2"});
    const Tree body = tooltest::parseJson(bodies[0]);
    EXPECT_EQ(tooltest::parseJson(clitest::readFile(run.path("detected.json")))
                  .get<std::string>("detectedManufacturer"),
              body.get<std::string>("detected.manufacturer"));
    const Tree& engine = body.get_child("engine");
    ASSERT_EQ(engine.size(), std::size(kScales)) << bodies[0];
    std::istringstream raw(sample.raw);
    for (const Scale& scale : kScales) {
        SCOPED_TRACE(scale.key);
        int low = 0, high = 0, last = 0;
        ASSERT_TRUE(raw >> std::hex >> low >> high >> last);
        const double min = scale.value(low, sample.patriot);
        const double max = scale.value(high, sample.patriot);
        const Tree& values = engine.get_child(scale.key);
        EXPECT_DOUBLE_EQ(values.get<double>("min"), min);
        EXPECT_DOUBLE_EQ(values.get<double>("max"), max);
        EXPECT_DOUBLE_EQ(values.get<double>("cur"), scale.value(last, sample.patriot));
        // A mean weighted by time: between the extremes, up to rounding.
        EXPECT_GE(values.get<double>("avg"), min - 1e-9 * std::fabs(max));
        EXPECT_LE(values.get<double>("avg"), max + 1e-9 * std::fabs(max));
    }

    std::map<std::string, std::vector<std::string>> sent;  // the first two frames on each bus
    for (const std::string& line : tooltest::lines(clitest::readFile(run.path("sent.log")))) {
        replay::LogFrame frame;
        ASSERT_EQ(replay::parseLine(line, frame), "") << line;
        if (sent[frame.interface].size() < 2) {
            sent[frame.interface].push_back(line.substr(line.rfind(' ') + 1));
        }
    }
    const std::vector<std::string> first = {"18EAFFFE#00EE00", "18EEFF25#3A27E012001C00A0"};
    EXPECT_EQ(sent, (decltype(sent){{"can2", first}, {"can3", first}}));
}

INSTANTIATE_TEST_SUITE_P(Samples, ReplaySample, ::testing::ValuesIn(kSamples),
                         [](const auto& info) { return std::string(info.param.name); });

// With a short period, records go out while the drive plays; after its last frame two more
// periods pass and the stop closes the third record: all three carry only what the
// identification left, and no engine value.
TEST(ReplayRecords, ShortPeriodAndThreeRecordsAfterTheLastFrame) {
    ReplayRun run;
    ASSERT_EQ(run.run({"--period-ms", "1000", "--records", "3",
                       tooltest::kSamples + "/cummins-can3.log"}),
              0)
        << run.err;
    const std::vector<std::string> bodies = run.bodies();
    const std::vector<std::string> status = run.statusLines();
    // One record a second over a 12 s drive, and the three after it.
    ASSERT_GE(bodies.size(), 13u);
    ASSERT_EQ(status.size(), bodies.size());
    for (std::size_t i = bodies.size() - 2; i < bodies.size(); ++i) {
        EXPECT_EQ(bodies[i], R"({"detected":{"manufacturer":"Cummins"},"manufacturerCode":"10"})");
        EXPECT_EQ(status[i], "ETS 0");
    }
    // While the engine ran, every record stays inside the drive's range: rpm 0x1450 to 0x4330.
    std::size_t withEngine = 0;
    for (const std::string& body : bodies) {
        const Tree tree = tooltest::parseJson(body);
        if (const auto rpm = tree.get_child_optional("engine.rpm")) {
            ++withEngine;
            EXPECT_GE(rpm->get<double>("min"), 650.0);
            EXPECT_LE(rpm->get<double>("max"), 2150.0);
        }
    }
    EXPECT_GE(withEngine, 10u);
}

}  // namespace
