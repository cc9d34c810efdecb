#pragma once

// A real Thrift server of service Ice on a loopback port. It records every call and can be
// told how to fail the next ones.

#include <chrono>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>

#include "ice/Ice.h"

namespace icetest {

namespace at = apache::thrift;

enum class Reply {
    Success,           // answer with the success value
    ApplicationError,  // the handler throws: the client sees a TApplicationException
    DropConnection,    // read the call, close without answering
    BadVersion,        // read the call, answer with a bad protocol version
};

struct Call {
    std::string method;
    std::string sType;
    std::string sPayload;
    std::vector<ice::eDataType::type> eType;
    std::vector<std::string> sKey;
    std::vector<std::string> sValue;
    std::chrono::steady_clock::time_point at = std::chrono::steady_clock::now();
};

class IceTestServer {
public:
    // Listens on an ephemeral loopback port; a call that succeeds returns `successValue`.
    explicit IceTestServer(int32_t successValue = 0) : state_(std::make_shared<State>()) {
        state_->successValue = successValue;
        auto socket = std::make_shared<at::transport::TServerSocket>("127.0.0.1", 0);
        server_ = std::make_shared<at::server::TThreadedServer>(
            std::make_shared<Processor>(state_), socket,
            std::make_shared<at::transport::TBufferedTransportFactory>(),
            std::make_shared<at::protocol::TBinaryProtocolFactory>());
        auto ready = std::make_shared<ReadySignal>();
        std::future<void> listening = ready->listening.get_future();
        server_->setServerEventHandler(ready);
        thread_ = std::thread([this] {
            try {
                server_->serve();
            } catch (...) {
                // A failed listen shows as a server that never gets ready.
            }
        });
        if (listening.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            stop();
            throw std::runtime_error("Ice test server did not start");
        }
        port_ = socket->getPort();
    }
    ~IceTestServer() { stop(); }
    IceTestServer(const IceTestServer&) = delete;
    IceTestServer& operator=(const IceTestServer&) = delete;

    int port() const { return port_; }

    // Replies for the next calls, in order; afterwards calls succeed.
    void queueReplies(const std::vector<Reply>& replies) {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->replies.insert(state_->replies.end(), replies.begin(), replies.end());
    }

    // Every call that arrived, failed ones included.
    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->calls;
    }

    void stop() {
        if (thread_.joinable()) {
            server_->stop();
            thread_.join();
        }
    }

private:
    struct State {
        mutable std::mutex mutex;
        std::deque<Reply> replies;
        std::vector<Call> calls;
        int32_t successValue = 0;

        Reply next() {
            std::lock_guard<std::mutex> lock(mutex);
            if (replies.empty()) {
                return Reply::Success;
            }
            Reply reply = replies.front();
            replies.pop_front();
            return reply;
        }
        int32_t record(Call call) {
            std::lock_guard<std::mutex> lock(mutex);
            calls.push_back(std::move(call));
            return successValue;
        }
    };

    class Handler : public ice::IceIf {
    public:
        Handler(std::shared_ptr<State> state, bool fail) : state_(std::move(state)), fail_(fail) {}
        void ping() override { answer({"ping", "", "", {}, {}, {}}); }
        int32_t status(const int32_t) override { return answer({"status", "", "", {}, {}, {}}); }
        int32_t TEL_SendGeneric(const std::string& sType,
                                const std::vector<ice::eDataType::type>& eType,
                                const std::vector<std::string>& sKey,
                                const std::vector<std::string>& sValue) override {
            return answer({"TEL_SendGeneric", sType, "", eType, sKey, sValue});
        }
        int32_t TEL_SendGenericJSON(const std::string& sType,
                                    const std::string& sPayload) override {
            return answer({"TEL_SendGenericJSON", sType, sPayload, {}, {}, {}});
        }

    private:
        int32_t answer(Call call) {
            const int32_t success = state_->record(std::move(call));
            if (fail_) {
                throw at::TApplicationException(at::TApplicationException::INTERNAL_ERROR);
            }
            return success;
        }
        std::shared_ptr<State> state_;
        bool fail_;
    };

    // Takes the reply for each call as it arrives and acts on it.
    class Processor : public at::TProcessor {
    public:
        explicit Processor(std::shared_ptr<State> state)
            : state_(state),
              succeed_(std::make_shared<Handler>(state, false)),
              fail_(std::make_shared<Handler>(state, true)) {}

        bool process(std::shared_ptr<at::protocol::TProtocol> in,
                     std::shared_ptr<at::protocol::TProtocol> out, void* context) override {
            // Called again as soon as a call is answered: wait for the next request first, so
            // that a connection closed in between takes no reply.
            if (!in->getTransport()->peek()) {
                return false;
            }
            switch (state_->next()) {
                case Reply::Success:
                    return succeed_.process(in, out, context);
                case Reply::ApplicationError:
                    return fail_.process(in, out, context);
                case Reply::DropConnection:
                    readCall(*in);
                    return false;
                case Reply::BadVersion: {
                    readCall(*in);
                    const uint8_t badVersion[] = {0x80, 0x02, 0x00, 0x01};
                    out->getTransport()->write(badVersion, sizeof badVersion);
                    out->getTransport()->flush();
                    return false;
                }
            }
            return false;
        }

    private:
        // The whole request is read, so that closing does not reset the connection under
        // the client's read.
        void readCall(at::protocol::TProtocol& in) {
            Call call;
            at::protocol::TMessageType type;
            int32_t sequenceId = 0;
            in.readMessageBegin(call.method, type, sequenceId);
            in.skip(at::protocol::T_STRUCT);
            in.readMessageEnd();
            state_->record(std::move(call));
        }

        std::shared_ptr<State> state_;
        ice::IceProcessor succeed_;
        ice::IceProcessor fail_;
    };

    struct ReadySignal : at::server::TServerEventHandler {
        void preServe() override { listening.set_value(); }
        std::promise<void> listening;
    };

    std::shared_ptr<State> state_;
    std::shared_ptr<at::server::TThreadedServer> server_;
    std::thread thread_;
    int port_ = 0;
};

// A loopback port nobody listens on: taken from a server that is then stopped.
inline int freePort() {
    return IceTestServer().port();
}

}  // namespace icetest
