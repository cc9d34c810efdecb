#include "CanPropertySource/agcomodeldetector.h"

#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"

namespace {
constexpr std::uint32_t kIdentificationGroup = 0xFEEC;
constexpr std::int64_t kRequestIntervalUs = 1000000;

constexpr std::size_t kMinimumFields = 4;
constexpr std::size_t kModelField = 1;
constexpr std::size_t kLetterField = 3;

const char* const k900SeriesCodes[] = {"9320", "9340", "9370", "932H", "934H", "937H"};

// Selection letters as bits over the sixteen characters from 'C' to 'R'.
constexpr unsigned letterBit(char letter) {
    return 1u << (letter - 'C');
}
constexpr unsigned kCReaderLetters = letterBit('J') | letterBit('K') | letterBit('L') |
                                     letterBit('M') | letterBit('N') | letterBit('P') |
                                     letterBit('R');
constexpr unsigned kBReaderLetters = letterBit('C') | letterBit('D') | letterBit('E') |
                                     letterBit('F') | letterBit('G') | letterBit('H');

bool letterIn(char letter, unsigned letters) {
    // Unsigned difference: anything below 'C' wraps far out of range.
    const auto offset = static_cast<unsigned char>(static_cast<unsigned char>(letter) - 'C');
    return offset < 16 && (letters & (1u << offset)) != 0;
}
}  // namespace

std::vector<std::string> splitIdentificationText(const std::string& text) {
    std::vector<std::string> fields;
    std::string::size_type start = 0;
    for (std::string::size_type star = text.find('*'); star != std::string::npos;
         star = text.find('*', start)) {
        fields.push_back(text.substr(start, star - start));
        start = star + 1;
    }
    if (start < text.size()) {
        fields.push_back(text.substr(start));
    }
    return fields;
}

void AgcoModelDetector::onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                                std::shared_ptr<CanInterface> can) {
    m_can = std::move(can);
    m_properties = machine->properties();
    m_machine = machine;
    m_can->addPgnFilter(kIdentificationGroup,
                        [this](const PgnMessage& message) { detectModel(message); });
    m_can->setPeriodicCallback([this] { update(); }, kRequestIntervalUs);
}

void AgcoModelDetector::onStop() {
    m_can->removePgnFilter(kIdentificationGroup);
    m_can->clearPeriodicCallback();
}

void AgcoModelDetector::update() {
    LOG4CPLUS_INFO(stateMachineLogger, "Requesting VIN from Agco machine");
    m_can->sendPgnRequest(kIdentificationGroup);
}

void AgcoModelDetector::detectModel(const PgnMessage& message) {
    const std::string text(message.data.begin(), message.data.end());
    LOG4CPLUS_INFO(stateMachineLogger,
                   "Detecting Agco model from 0x" << std::hex << message.pgn << " message");
    LOG4CPLUS_INFO(stateMachineLogger,
                   "0x" << std::hex << message.pgn << " contains \"" << text << "\"");

    const auto machine = m_machine.lock();
    const std::vector<std::string> fields = splitIdentificationText(text);
    if (!machine || fields.size() < kMinimumFields || fields[kModelField].size() < 2 ||
        fields[kLetterField].empty()) {
        return;  // the next request asks again
    }
    const std::string modelCode = fields[kModelField].substr(1);
    const char letter = fields[kLetterField][0];

    m_properties->model.set(text);

    for (const char* code : k900SeriesCodes) {
        if (modelCode == code) {
            machine->switchState<Agco900SeriesCanPropertyReader>();
            return;
        }
    }
    if (letterIn(letter, kCReaderLetters)) {
        machine->switchState<AgcoCCanPropertyReader>();
    } else if (letterIn(letter, kBReaderLetters)) {
        machine->switchState<AgcoBCanPropertyReader>();
    } else {
        machine->switchState<GenericCanPropertyReader>();
    }
}
