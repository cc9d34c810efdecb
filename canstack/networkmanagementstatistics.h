#ifndef CANSTACK_NETWORKMANAGEMENTSTATISTICS_H
#define CANSTACK_NETWORKMANAGEMENTSTATISTICS_H

#include <cstdint>

// A counted fault report. Owner and text are static literals and are compared as pointers.
struct DescriptionMessageRecord {
    const char* text;
    const char* owner;
    DescriptionMessageRecord* next;
    uint32_t count;
};

struct DescriptionMessageSlot {
    const char* text;
    const char* owner;
    uint8_t severity;
};

typedef void (*DescriptionMessageFunction)(const char* owner, const char* text, uint8_t severity,
                                           uint32_t count);
typedef void (*DescriptionMessageParameterFunction)(const char* owner, const char* text,
                                                    uint8_t severity, uint32_t count,
                                                    void* parameter);

struct DescriptionMessageCallbackNode {
    DescriptionMessageCallbackNode* next;
    DescriptionMessageFunction function;
    DescriptionMessageParameterFunction parameterFunction;
    void* parameter;
};

// Traffic counters and the stack's error channel: faults are counted, never logged or thrown.
class NetworkManagementStatisticsClass {
public:
    static constexpr uint8_t NUMBER_CHANNELS = 3;
    static constexpr uint8_t NUMBER_DESCRIPTION_SLOTS = 5;
    static const char* const MESSAGE_OWNER;
    static NetworkManagementStatisticsClass NETWORK_MANAGEMENT_STATISTICS;

    constexpr NetworkManagementStatisticsClass() = default;

    // Description messages.
    static bool addDescriptionMessage(const char* owner, const char* text, uint8_t severity);
    static bool registerDescriptionMessage(DescriptionMessageRecord* record, uint8_t severity);
    static void updateDescriptionMessages();
    static bool getDescriptionMessage(uint32_t index, const char*& owner, const char*& text,
                                      uint8_t& severity, uint32_t& count);
    static uint32_t getNumberDescriptionMessages() { return numberDescriptionMessages; }
    // Count of a listed record, 0 when absent; looks at the lists only, not the slots.
    static uint32_t getDescriptionMessageCount(const char* owner, const char* text,
                                               uint8_t severity);
    static DescriptionMessageCallbackNode* addDescriptionMessageCallback(
        DescriptionMessageFunction function);
    static DescriptionMessageCallbackNode* addDescriptionMessageCallback(
        DescriptionMessageParameterFunction function, void* parameter);
    static bool removeDescriptionMessageCallback(DescriptionMessageCallbackNode* node);

    static DescriptionMessageRecord* descriptionMessageNoticeList;
    static DescriptionMessageRecord* descriptionMessageWarningList;
    static DescriptionMessageRecord* descriptionMessageCriticalList;
    static uint32_t numberDescriptionMessages;
    static DescriptionMessageSlot availableDescriptionMessages[NUMBER_DESCRIPTION_SLOTS];
    static DescriptionMessageCallbackNode* descriptionMessageCallbackList;

    // Bit counts of a frame with n data bytes.
    static uint32_t getMessageBitCount(uint32_t dataLength, bool extended);
    static uint32_t getMessageStuffedBitCount(uint32_t dataLength, bool extended);

    // Counting, called by the network management core.
    void countReceived(uint8_t channel, uint32_t identifier, const uint8_t* data,
                       uint32_t dataLength, bool extended, uint32_t timestamp);
    void countTransmitted(uint8_t channel, uint32_t dataLength, bool extended, uint32_t timestamp);
    void countTransmitFailure(uint8_t channel, uint32_t timestamp);
    void countNewNAME(uint8_t channel);
    void updateRates(uint32_t now);
    void recordUpdateServiceTime(uint32_t ms);
    void recordUpdateExecutionTime(uint32_t ms);
    void recordReceiveExecutionTime(uint32_t ms, uint32_t identifier);

    // Getters; per channel above 2 gives all ones (0.0 for floats).
    uint32_t getReceivedPerSecond(uint8_t channel) const;
    uint32_t getTransmittedPerSecond(uint8_t channel) const;
    uint32_t getStatisticsTimestamp() const { return statisticsTimestamp; }
    float getAverageReceivedPerSecond(uint8_t channel) const;
    float getAverageTransmittedPerSecond(uint8_t channel) const;
    uint32_t getNewNAMECount(uint8_t channel) const;
    uint32_t getTransmitFailures(uint8_t channel) const;
    uint32_t getReceivedBits(uint8_t channel) const;
    uint32_t getReceivedStuffedBits(uint8_t channel) const;
    uint32_t getReceivedCount(uint8_t channel) const;
    uint32_t getTransmittedCount(uint8_t channel) const;
    uint32_t getTransmittedBits(uint8_t channel) const;
    uint32_t getTransmittedStuffedBits(uint8_t channel) const;
    uint32_t getLastReceiveTimestamp(uint8_t channel) const;
    uint32_t getLastTransmitFailureTimestamp(uint8_t channel) const;
    uint32_t getLastTransmitTimestamp(uint8_t channel) const;
    float getAverageUpdateExecutionTime() const { return averageUpdateExecutionTime; }
    float getAverageUpdateServiceTime() const { return averageUpdateServiceTime; }
    uint32_t getMaximumReceiveExecutionTime() const { return maximumReceiveExecutionTime; }
    uint32_t getMaximumReceiveExecutionIdentifier() const {
        return maximumReceiveExecutionIdentifier;
    }
    uint32_t getMaximumUpdateExecutionTime() const { return maximumUpdateExecutionTime; }
    uint32_t getMaximumUpdateServiceTime() const { return maximumUpdateServiceTime; }
    uint16_t getChannelValue(uint8_t channel) const;
    bool setChannelValue(uint8_t channel, uint16_t value);
    uint16_t getProtocolUpdateLimit() const { return protocolUpdateLimit; }
    uint16_t getReceiveLimit() const { return receiveLimit; }
    uint16_t getUpdateExecutionLimit() const { return updateExecutionLimit; }
    uint16_t getUpdateServiceLimit() const { return updateServiceLimit; }
    void setProtocolUpdateLimit(uint16_t ms) { protocolUpdateLimit = ms; }
    void setReceiveLimit(uint16_t ms) { receiveLimit = ms; }
    void setUpdateExecutionLimit(uint16_t ms) { updateExecutionLimit = ms; }
    void setUpdateServiceLimit(uint16_t ms) { updateServiceLimit = ms; }
    uint32_t getLastReceived(const uint8_t*& data) const;
    void clearMaxima();
    // Devices seen on a channel: internal and unregistered always, registered once heard.
    uint8_t countDevices(uint8_t channel) const;

private:
    static void callCallbacks(const char* owner, const char* text, uint8_t severity,
                              uint32_t count);
    static DescriptionMessageRecord** listFor(uint8_t severity);

    uint32_t receivedPerSecond[NUMBER_CHANNELS] = {};
    uint32_t transmittedPerSecond[NUMBER_CHANNELS] = {};
    uint32_t previousReceivedCount[NUMBER_CHANNELS] = {};
    uint32_t previousTransmittedCount[NUMBER_CHANNELS] = {};
    uint32_t statisticsTimestamp = 0;
    float averageReceivedPerSecond[NUMBER_CHANNELS] = {};
    float averageTransmittedPerSecond[NUMBER_CHANNELS] = {};
    uint32_t newNAMECount[NUMBER_CHANNELS] = {};
    uint32_t transmitFailures[NUMBER_CHANNELS] = {};
    uint32_t receivedBits[NUMBER_CHANNELS] = {};
    uint32_t receivedStuffedBits[NUMBER_CHANNELS] = {};
    uint32_t receivedCount[NUMBER_CHANNELS] = {};
    uint32_t transmittedCount[NUMBER_CHANNELS] = {};
    uint32_t transmittedBits[NUMBER_CHANNELS] = {};
    uint32_t transmittedStuffedBits[NUMBER_CHANNELS] = {};
    uint32_t lastReceiveTimestamp[NUMBER_CHANNELS] = {};
    uint32_t lastTransmitFailureTimestamp[NUMBER_CHANNELS] = {};
    uint32_t lastTransmitTimestamp[NUMBER_CHANNELS] = {};
    float averageUpdateExecutionTime = 0.0f;
    float averageUpdateServiceTime = 0.0f;
    uint32_t lastReceivedIdentifier = 0;
    uint32_t maximumReceiveExecutionTime = 0;
    uint32_t maximumReceiveExecutionIdentifier = 0xFFFFFFFFu;
    uint32_t maximumUpdateExecutionTime = 0;
    uint32_t maximumUpdateServiceTime = 0;
    uint16_t channelValue[NUMBER_CHANNELS] = {0xFFFF, 0xFFFF, 0xFFFF};
    uint16_t protocolUpdateLimit = 0xFFFF;
    uint16_t receiveLimit = 0xFFFF;
    uint16_t updateExecutionLimit = 0xFFFF;
    uint16_t updateServiceLimit = 0xFFFF;
    uint8_t lastReceivedData[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
};

#endif
