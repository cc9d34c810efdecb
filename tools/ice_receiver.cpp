// tilthwatch-ice-receiver: a stand-in for the device's Ice service, for development and the
// demo. Prints each TEL_SendGenericJSON as "TYPE JSON" and each TEL_SendGeneric as one JSON
// line; with --status, also each frame of a ZeroMQ status publisher as "STATUS TEXT".

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <boost/program_options.hpp>
#include <zmq.hpp>

#include "ice/Ice.h"

namespace at = apache::thrift;
namespace po = boost::program_options;

namespace {

const char* const kName = "tilthwatch-ice-receiver";

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

template <typename T, typename Format>
std::string array(const std::vector<T>& items, Format format) {
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        out += (i > 0 ? "," : "") + format(items[i]);
    }
    return out + "]";
}

// Indents JSON text by its brackets and commas, outside strings; the text is not checked.
std::string indent(const std::string& json) {
    std::string out;
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    const auto newline = [&] {
        out += "\n" + std::string(static_cast<std::size_t>(depth) * 2, ' ');
    };
    for (std::size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (inString) {
            out += c;
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                inString = true;
                out += c;
                break;
            case '{':
            case '[':
                out += c;
                // An empty object or array stays on one line.
                if (i + 1 < json.size() && (json[i + 1] == '}' || json[i + 1] == ']')) {
                    break;
                }
                ++depth;
                newline();
                break;
            case '}':
            case ']':
                if (i > 0 && json[i - 1] != '{' && json[i - 1] != '[') {
                    --depth;
                    newline();
                }
                out += c;
                break;
            case ',':
                out += c;
                newline();
                break;
            case ':':
                out += ": ";
                break;
            case ' ':
            case '\n':
            case '\r':
            case '\t':
                break;
            default:
                out += c;
        }
    }
    return out;
}

// One line per delivery, whole lines only, whichever thread prints.
class Printer {
public:
    explicit Printer(bool pretty) : pretty_(pretty) {}
    void print(const std::string& prefix, const std::string& json) {
        std::string text = json;
        for (char& c : text) {
            if (c == '\n' || c == '\r') {
                c = ' ';
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (pretty_) {
            std::cout << prefix << (prefix.empty() ? "" : "\n") << indent(text) << std::endl;
        } else {
            std::cout << prefix << (prefix.empty() ? "" : " ") << text << std::endl;
        }
    }
    void line(const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::cout << text << std::endl;
    }

private:
    const bool pretty_;
    std::mutex mutex_;
};

class Handler : public ice::IceIf {
public:
    explicit Handler(Printer& printer) : printer_(printer) {}
    void ping() override {}
    int32_t status(const int32_t) override { return 0; }
    int32_t TEL_SendGeneric(const std::string& sType,
                            const std::vector<ice::eDataType::type>& eType,
                            const std::vector<std::string>& sKey,
                            const std::vector<std::string>& sValue) override {
        const auto number = [](ice::eDataType::type t) { return std::to_string(t); };
        printer_.print("", "{\"sType\":" + quoted(sType) + ",\"eType\":" + array(eType, number) +
                               ",\"sKey\":" + array(sKey, quoted) +
                               ",\"sValue\":" + array(sValue, quoted) + "}");
        return 0;
    }
    int32_t TEL_SendGenericJSON(const std::string& sType, const std::string& sPayload) override {
        printer_.print(sType, sPayload);
        return 0;
    }

private:
    Printer& printer_;
};

struct Listening : at::server::TServerEventHandler {
    void preServe() override { ready.set_value(); }
    std::promise<void> ready;
};

// Prints each status frame until stopped; a frame ends in a zero byte, which is not printed.
void printStatus(const std::string& endpoint, Printer& printer, const std::atomic<bool>& stop) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::sub);
    socket.set(zmq::sockopt::subscribe, "");
    socket.set(zmq::sockopt::rcvtimeo, 50);
    socket.set(zmq::sockopt::linger, 0);
    socket.connect(endpoint);
    while (!stop) {
        zmq::message_t message;
        if (socket.recv(message)) {
            std::string text = message.to_string();
            if (!text.empty() && text.back() == '\0') {
                text.pop_back();
            }
            printer.line("STATUS " + text);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::string host = "localhost";
    int port = 9090;
    std::string status;
    po::options_description options(
        "Usage: tilthwatch-ice-receiver [options]\n\n"
        "A Thrift server of service Ice that prints what it receives, until SIGINT or "
        "SIGTERM.\nOn start it writes \"listening on HOST:PORT\" to standard error.\n\nOptions");
    options.add_options()("help,h", "show this help")(
        "host", po::value<std::string>(&host)->value_name("HOST")->default_value(host),
        "address to listen on")("port",
                                po::value<int>(&port)->value_name("PORT")->default_value(port),
                                "port to listen on; 0 picks a free one")(
        "pretty", "print each JSON document indented, after its type on a line of its own")(
        "status", po::value<std::string>(&status)->value_name("ENDPOINT"),
        "also subscribe to a ZeroMQ status publisher and print its frames");
    po::variables_map map;
    try {
        po::store(po::parse_command_line(argc, argv, options), map);
        po::notify(map);
    } catch (const std::exception& e) {
        std::cerr << kName << ": " << e.what() << " (see --help)" << std::endl;
        return 2;
    }
    if (map.count("help") != 0) {
        std::cout << options << std::endl;
        return 0;
    }
    if (port < 0 || port > 65535) {
        std::cerr << kName << ": --port must be from 0 to 65535" << std::endl;
        return 2;
    }

    Printer printer(map.count("pretty") != 0);
    auto socket = std::make_shared<at::transport::TServerSocket>(host, port);
    auto server = std::make_shared<at::server::TThreadedServer>(
        std::make_shared<ice::IceProcessor>(std::make_shared<Handler>(printer)), socket,
        std::make_shared<at::transport::TBufferedTransportFactory>(),
        std::make_shared<at::protocol::TBinaryProtocolFactory>());
    auto listening = std::make_shared<Listening>();
    std::future<void> ready = listening->ready.get_future();
    server->setServerEventHandler(listening);
    std::string failure;
    std::thread serving([&] {
        try {
            server->serve();
        } catch (const std::exception& e) {
            failure = e.what();
            try {
                listening->ready.set_value();  // a failed listen ends the wait for it
            } catch (const std::future_error&) {
                ::kill(::getpid(), SIGTERM);  // failed while serving: ends the wait below
            }
        }
    });
    std::atomic<bool> stop{false};
    std::thread subscriber;
    ready.wait();
    if (failure.empty()) {
        // One write: a reader of standard error must never see the text without its port.
        const std::string line = std::string(kName) + ": listening on " + host + ":" +
                                 std::to_string(socket->getPort()) + "\n";
        std::cerr << line << std::flush;
        if (!status.empty()) {
            subscriber = std::thread([&] { printStatus(status, printer, stop); });
        }
        int signal = 0;
        sigwait(&stopSignals, &signal);
    }
    server->stop();
    serving.join();
    stop = true;
    if (subscriber.joinable()) {
        subscriber.join();
    }
    if (!failure.empty()) {
        std::cerr << kName << ": " << failure << std::endl;
        return 1;
    }
    return 0;
}
