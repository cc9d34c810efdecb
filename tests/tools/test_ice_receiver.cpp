// The Ice receiver prints each call as one line, or indented with --pretty. Brackets and
// commas inside strings are text, not structure.

#include <gtest/gtest.h>

#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "ice/Ice.h"
#include "tools/replay_run.h"

namespace at = apache::thrift;

namespace {

TEST(IceReceiver, PrintsEachCallOnOneLineOrIndented) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{},
         R"(machineTelematics {"a":{"b":"1,2"},"c":[],"d":"x\"}"})"
         "\n"
         R"({"sType":"record","eType":[0],"sKey":["type"],"sValue":["say \"hi\"\n"]})"
         "\n"},
        {{"--pretty"}, R"(machineTelematics
{
  "a": {
    "b": "1,2"
  },
  "c": [],
  "d": "x\"}"
}
{
  "sType": "record",
  "eType": [
    0
  ],
  "sKey": [
    "type"
  ],
  "sValue": [
    "say \"hi\"\n"
  ]
}
)"},
    };
    for (const auto& row : rows) {
        int port = 0;
        const auto receiver = tooltest::startReceiver(row.first, port);
        auto socket = std::make_shared<at::transport::TSocket>("127.0.0.1", port);
        auto transport = std::make_shared<at::transport::TBufferedTransport>(socket);
        ice::IceClient client(std::make_shared<at::protocol::TBinaryProtocol>(transport));
        transport->open();
        EXPECT_EQ(client.TEL_SendGenericJSON("machineTelematics",
                                             R"({"a":{"b":"1,2"},"c":[],"d":"x\"}"})"),
                  0);
        EXPECT_EQ(client.TEL_SendGeneric("record", {ice::eDataType::json_STRING}, {"type"},
                                         {"say \"hi\"\n"}),
                  0);
        transport->close();
        receiver->signal(SIGTERM);
        EXPECT_EQ(receiver->wait(), 0);
        EXPECT_EQ(receiver->out(), row.second);
    }
}

}  // namespace
