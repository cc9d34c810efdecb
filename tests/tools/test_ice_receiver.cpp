// The Ice receiver prints each call as one line, or indented with --pretty.

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

// Starts the receiver with `options`, makes both calls, stops it; gives what it printed.
std::string receive(const std::vector<std::string>& options) {
    std::vector<std::string> arguments = {tooltest::kReceiver, "--host", "127.0.0.1", "--port",
                                          "0"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    clitest::Process receiver(arguments);
    const std::string marker = "listening on 127.0.0.1:";
    EXPECT_TRUE(
        tooltest::eventually([&] { return receiver.err().find(marker) != std::string::npos; },
                             std::chrono::seconds(10)));
    const std::string err = receiver.err();
    const int port = std::atoi(err.c_str() + err.find(marker) + marker.size());

    auto socket = std::make_shared<at::transport::TSocket>("127.0.0.1", port);
    auto transport = std::make_shared<at::transport::TBufferedTransport>(socket);
    ice::IceClient client(std::make_shared<at::protocol::TBinaryProtocol>(transport));
    transport->open();
    EXPECT_EQ(client.TEL_SendGenericJSON("machineTelematics",
                                         "{\"a\":{\"b\":\"1,2\"},\"c\":[],\"d\":\"x\\\"}\"}"),
              0);
    EXPECT_EQ(
        client.TEL_SendGeneric("record", {ice::eDataType::json_STRING}, {"type"}, {"say \"hi\"\n"}),
        0);
    transport->close();
    receiver.signal(SIGTERM);
    EXPECT_EQ(receiver.wait(), 0);
    return receiver.out();
}

TEST(IceReceiver, PrintsEachCallOnOneLine) {
    EXPECT_EQ(receive({}),
              "machineTelematics {\"a\":{\"b\":\"1,2\"},\"c\":[],\"d\":\"x\\\"}\"}\n"
              "{\"sType\":\"record\",\"eType\":[0],\"sKey\":[\"type\"],"
              "\"sValue\":[\"say \\\"hi\\\"\\n\"]}\n");
}

// Brackets and commas inside strings are text, not structure.
TEST(IceReceiver, PrettyIndentsTheDocumentUnderItsType) {
    EXPECT_EQ(receive({"--pretty"}),
              "machineTelematics\n"
              "{\n"
              "  \"a\": {\n"
              "    \"b\": \"1,2\"\n"
              "  },\n"
              "  \"c\": [],\n"
              "  \"d\": \"x\\\"}\"\n"
              "}\n"
              "{\n"
              "  \"sType\": \"record\",\n"
              "  \"eType\": [\n"
              "    0\n"
              "  ],\n"
              "  \"sKey\": [\n"
              "    \"type\"\n"
              "  ],\n"
              "  \"sValue\": [\n"
              "    \"say \\\"hi\\\"\\n\"\n"
              "  ]\n"
              "}\n");
}

}  // namespace
