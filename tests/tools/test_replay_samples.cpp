// Each sample through the replay tool and the Ice receiver, checked against what its frames
// say. With a period longer than any sample, the one record is the one the stop closes, and it
// covers the whole drive: every decoded frame is in it.
//
// The samples are built so that each signal has one frame at its highest and one at its
// lowest value, both after identification has ended, and a steady last value: so the record's
// min, max and cur are those frames' values, read here from the raw bytes in the log (values
// of two bytes are little-endian: B01D is 0x1DB0). Each log ends with a frame whose engine
// hours have just ticked: it is in the record only if the replay delivered its last frame.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>
#include <vector>

#include "replay/candumplog.h"
#include "tools/replay_run.h"

using tooltest::ReplayRun;
using tooltest::Tree;

namespace {

struct Signal {
    const char* key;
    double min, max, cur;
};

// Scalings of the standard groups, as the readers apply them.
double rpm(int raw) {
    return raw / 8.0;
}
double temperature(int raw) {  // 1/32 degree, offset -273
    return raw / 32.0 - 273;
}
// Case Patriot Class 3: a raw sensor value of 146 is a full tank, in single precision.
double patriotFuel(int raw) {
    return static_cast<float>(raw * 0.6849315);
}

struct Sample {
    const char* name;
    const char* log;
    const char* machineFile;  // from samples/, or nullptr
    bool fromStandardInput;
    // The body up to the engine values: what identification found.
    std::string identification;
    const char* detectedManufacturer;  // in the detected-machine file
    std::vector<std::string> logLines;
    std::vector<Signal> engine;
};

const Sample kSamples[] = {
    {"CasePatriotClass3OnCan3",
     "case-patriot-can3.log",
     nullptr,
     false,
     // Engine NAME 0x0C4D2 | 213 << 21 ...: manufacturer 213, Case. 18FF1227 byte 5: 0x14.
     R"({"detected":{"manufacturer":"CaseIH","model":"Patriot 2250 T4B"},"manufacturerCode":"213",)",
     "CaseIH",
     {"Setting default CAN bus to: MACHINE_500K",
      "from ECU with manufacturer code 213",  // 0xF004 or 0xFEF2, whichever comes first
      "Detecting Case model number 0x14 from 0xff12 message",
      "State machine transitioning to CasePatriotClass3PropertyReader"},
     {
         {"rpm", rpm(0x1DB0), rpm(0x4650), rpm(0x1F40)},   // 0CF00400 bytes 3-4: 13.2 s, 8.0 s
         {"percentLoadAtCurrentSpeed", 0x02, 0x55, 0x0A},  // 0CF00300 byte 2: 13.2 s, 9.0 s
         {"percentLoadOfTotalTorque", 0x7D - 125, 0xCB - 125, 0x85 - 125},  // 0CF00400 byte 2
         {"fuelConsumptionRate", 0x28 * 0.05, 0x33E * 0.05, 0x78 * 0.05},   // 18FEF200 bytes 0-1
         {"coolantTemperature", 0x78 - 40, 0x81 - 40, 0x7D - 40},  // 18FEEE00 byte 0: 13 s, 10 s
         {"engineOilPressure", 0x41 * 4, 0x73 * 4, 0x4E * 4},      // 18FEEF00 byte 3: 13 s, 9.5 s
         // 18FEEE00 bytes 2-3: 14 s, 11 s; 18FEF803 bytes 4-5: 13 s, 11 s.
         {"engineOilTemperature", temperature(0x2DD0), temperature(0x2F28), temperature(0x2EA0)},
         {"transmissionOilTemperature", temperature(0x2AA0), temperature(0x2BF0),
          temperature(0x2B80)},
         {"defLevel", 0xAF * 0.4, 0xB7 * 0.4, 0xB2 * 0.4},  // 18FE5600 byte 0: 12 s, 7 s
         // 18FF1227 bytes 2-3, whole hours: 0x04D4, and 0x04D5 in the last frame of the log.
         // Not 18FEE500's 1235.45 h.
         {"hours", 0x4D4, 0x4D5, 0x4D5},
         // 18FF1227 byte 4: 10.5 s, 7 s. Not 18FEFC27's 60 %.
         {"fuelLevel", patriotFuel(0x6C), patriotFuel(0x73), patriotFuel(0x6F)},
     }},
    {"AgcoAnsweringByBamOnCan2",
     "agco-bam-can2.log",
     nullptr,
     false,
     // Engine NAME with manufacturer 102; the identification text of 18ECFF00 and 18EBFF00.
     R"({"detected":{"manufacturer":"AGCO","model":"AGCO*W8730*AGCM8730VHS100123*K*"},)"
     R"("manufacturerCode":"102",)",
     "AGCO",
     {"Setting default CAN bus to: MACHINE_250K", "Requesting VIN from Agco machine",
      "0xfeec contains \"AGCO*W8730*AGCM8730VHS100123*K*\"",
      "State machine transitioning to AgcoCCanPropertyReader"},
     {
         {"rpm", rpm(0x1900), rpm(0x4010), rpm(0x1B58)},  // 13.5 s, 7.5 s
         {"percentLoadAtCurrentSpeed", 0x05, 0x5E, 0x0E},
         {"percentLoadOfTotalTorque", 0x7E - 125, 0xD7 - 125, 0x89 - 125},
         {"fuelConsumptionRate", 0x3C * 0.05, 0x44C * 0.05, 0x90 * 0.05},
         {"coolantTemperature", 0x79 - 40, 0x83 - 40, 0x7F - 40},
         {"engineOilPressure", 0x3C * 4, 0x6E * 4, 0x48 * 4},
         {"engineOilTemperature", temperature(0x2E20), temperature(0x2F60), temperature(0x2EE0)},
         {"transmissionOilTemperature", temperature(0x2B00), temperature(0x2C20),
          temperature(0x2BC0)},
         {"defLevel", 0x91 * 0.4, 0x99 * 0.4, 0x94 * 0.4},
         // 18FEE500 bytes 0-2; one more in the last frame of the log.
         {"hours", 0x0153F8 * 0.05, 0x0153F9 * 0.05, 0x0153F9 * 0.05},
         // can1 18FEFC80 byte 1: 11 s, 9 s. Not can2's 18FEFC00 at 80 %.
         {"fuelLevel", 0xB6 * 0.4, 0xBF * 0.4, 0xB9 * 0.4},
     }},
    {"EngineWithoutNameAndUserSelection",
     "engine-without-name-can2.log",
     "engine-without-name.machine.json",
     false,
     // No address claim on the bus; the user chose New Holland. 18FF1200 byte 5: 0x1D.
     R"({"detected":{"manufacturer":"New Holland","model":"SP 2500 NH T3, NH"},)"
     R"("userSelected":{"manufacturer":"New Holland","model":"SP.275F"},)",
     "New Holland",
     {"Message is from noncompliant ECU", "The user-selected manufacturer is \"New Holland\"",
      "Detecting Case model number 0x1d from 0xff12 message",
      "State machine transitioning to BaseCanPropertyReader"},
     {
         {"rpm", rpm(0x1A90), rpm(0x3CF0), rpm(0x1C20)},  // 10.5 s, 6 s
         {"percentLoadAtCurrentSpeed", 0x04, 0x58, 0x0C},
         {"percentLoadOfTotalTorque", 0x80 - 125, 0xCD - 125, 0x87 - 125},
         {"fuelConsumptionRate", 0x32 * 0.05, 0x2BC * 0.05, 0x6E * 0.05},
         {"coolantTemperature", 0x76 - 40, 0x7F - 40, 0x7B - 40},
         {"engineOilPressure", 0x3E * 4, 0x6C * 4, 0x4A * 4},
         {"engineOilTemperature", temperature(0x2DA0), temperature(0x2EC0), temperature(0x2E60)},
         {"transmissionOilTemperature", temperature(0x2A80), temperature(0x2BA0),
          temperature(0x2B40)},
         {"defLevel", 0x73 * 0.4, 0x7B * 0.4, 0x76 * 0.4},
         // The standard groups: 18FEE500 bytes 0-2 and 18FEFC00 byte 1, not 18FF1200.
         {"hours", 0x00F17A * 0.05, 0x00F17B * 0.05, 0x00F17B * 0.05},
         {"fuelLevel", 0x6E * 0.4, 0x6E * 0.4, 0x6E * 0.4},
     }},
    {"CumminsOnCan3FromStandardInput",
     "cummins-can3.log",
     nullptr,
     true,
     // Engine NAME with manufacturer 10: the generic reader, no model.
     R"({"detected":{"manufacturer":"Cummins"},"manufacturerCode":"10",)",
     "Cummins",
     {"Setting default CAN bus to: MACHINE_500K",
      "State machine transitioning to GenericCanPropertyReader"},
     {
         {"rpm", rpm(0x1450), rpm(0x4330), rpm(0x16A8)},  // 10.3 s, 6.5 s
         {"percentLoadAtCurrentSpeed", 0x01, 0x5A, 0x08},
         {"percentLoadOfTotalTorque", 0x7D - 125, 0xD4 - 125, 0x83 - 125},
         {"fuelConsumptionRate", 0x14 * 0.05, 0x2F8 * 0.05, 0x60 * 0.05},
         {"coolantTemperature", 0x7C - 40, 0x85 - 40, 0x81 - 40},
         {"engineOilPressure", 0x46 * 4, 0x78 * 4, 0x52 * 4},
         {"engineOilTemperature", temperature(0x2E60), temperature(0x2FA0), temperature(0x2F20)},
         {"transmissionOilTemperature", temperature(0x2B20), temperature(0x2C40),
          temperature(0x2BE0)},
         {"defLevel", 0xCD * 0.4, 0xD5 * 0.4, 0xD0 * 0.4},
         {"hours", 0x0061FE * 0.05, 0x0061FF * 0.05, 0x0061FF * 0.05},
         {"fuelLevel", 0xAF * 0.4, 0xAF * 0.4, 0xAF * 0.4},
     }},
};

void PrintTo(const Sample& sample, std::ostream* out) {
    *out << sample.name;
}

class ReplaySample : public ::testing::TestWithParam<Sample> {};

TEST_P(ReplaySample, RecordHoldsWhatTheFramesSay) {
    const Sample& sample = GetParam();
    ReplayRun run;
    std::vector<std::string> options = {"--serial", "10042"};
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
    const std::string& body = bodies[0];
    EXPECT_EQ(body.substr(0, sample.identification.size()), sample.identification);
    EXPECT_EQ(run.statusLines(), std::vector<std::string>{"ETS 2"});
    EXPECT_EQ(tooltest::parseJson(clitest::readFile(run.path("detected.json")))
                  .get<std::string>("detectedManufacturer"),
              sample.detectedManufacturer);

    const Tree engine = tooltest::parseJson(body).get_child("engine");
    ASSERT_EQ(engine.size(), sample.engine.size()) << body;
    for (const Signal& expected : sample.engine) {
        const auto values = engine.get_child_optional(expected.key);
        ASSERT_TRUE(values) << expected.key;
        EXPECT_DOUBLE_EQ(values->get<double>("min"), expected.min) << expected.key;
        EXPECT_DOUBLE_EQ(values->get<double>("max"), expected.max) << expected.key;
        EXPECT_DOUBLE_EQ(values->get<double>("cur"), expected.cur) << expected.key;
        // A mean weighted by time: between the extremes, up to rounding.
        const double avg = values->get<double>("avg");
        const double rounding = 1e-9 * std::fabs(expected.max);
        EXPECT_GE(avg, expected.min - rounding) << expected.key;
        EXPECT_LE(avg, expected.max + rounding) << expected.key;
    }
}

INSTANTIATE_TEST_SUITE_P(Samples, ReplaySample, ::testing::ValuesIn(kSamples),
                         [](const ::testing::TestParamInfo<Sample>& info) {
                             return std::string(info.param.name);
                         });

// The frames the system sent while the Agco sample played: claims on both machine buses,
// requests for the identification on can2 until the broadcast answered, nothing on can1.
TEST(ReplayTransmitted, ClaimsAndIdentificationRequestsInCandumpFormat) {
    ReplayRun run;
    ASSERT_EQ(run.run({"--serial", "10042", "--transmitted", run.path("sent.log"),
                       tooltest::kSamples + "/agco-bam-can2.log"}),
              0)
        << run.err;
    // NAME: identity 10042 = 0x273A, manufacturer 151, function 28, industry group 2,
    // self-configurable: 0xA0001C0012E0273A, sent little-endian.
    const std::string claim = "18EEFF25#3A27E012001C00A0";
    const std::string claimRequest = "18EAFFFE#00EE00";  // from the null address
    const std::string identificationRequest = "18EAFF25#ECFE00";
    std::vector<std::string> can2;
    std::vector<std::string> can3;
    for (const std::string& line : tooltest::lines(clitest::readFile(run.path("sent.log")))) {
        replay::LogFrame frame;
        ASSERT_EQ(replay::parseLine(line, frame), "") << line;
        const std::string text = line.substr(line.find(' ', line.find(' ') + 1) + 1);
        ASSERT_TRUE(frame.interface == "can2" || frame.interface == "can3") << line;
        (frame.interface == "can2" ? can2 : can3).push_back(text);
    }
    for (const auto* channel : {&can2, &can3}) {
        ASSERT_GE(channel->size(), 2u);
        EXPECT_EQ((*channel)[0], claimRequest);
        EXPECT_EQ((*channel)[1], claim);
    }
    const auto count = [](const std::vector<std::string>& frames, const std::string& text) {
        return std::count(frames.begin(), frames.end(), text);
    };
    // The detector asks once a second from its start until the answer, 1.5 s into the log.
    EXPECT_GE(count(can2, identificationRequest), 1);
    EXPECT_LE(count(can2, identificationRequest), 3);
    // A claim may also answer the terminal's request for claims in the log.
    EXPECT_EQ(count(can2, claimRequest) + count(can2, claim) + count(can2, identificationRequest),
              static_cast<long>(can2.size()));
    EXPECT_EQ(count(can3, claimRequest) + count(can3, claim), static_cast<long>(can3.size()));
}

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
    const std::string identified =
        R"({"detected":{"manufacturer":"Cummins"},"manufacturerCode":"10"})";
    EXPECT_EQ(bodies[bodies.size() - 1], identified);
    EXPECT_EQ(bodies[bodies.size() - 2], identified);
    EXPECT_EQ(status[status.size() - 1], "ETS 0");
    EXPECT_EQ(status[status.size() - 2], "ETS 0");
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
