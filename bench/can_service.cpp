// Frames from a socket to Property::set through the real CAN main thread: the service, the
// stack and the standard reader on socketpair channels. A full machine has three buses with
// together about 7,800 frames a second at most; the service must keep far ahead of that on
// a small ARM board.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/can.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"
#include "caninterface/caninterfaceimplementation.h"
#include "telemalog/manager.h"

namespace {

const std::vector<std::string> kChannels = {"can2", "can3", "can1"};
constexpr std::uint32_t kPausePgn = 0xFF77;
// Frames waiting in each socket when the CAN main thread is let go.
constexpr std::size_t kBacklog = 20000;

// Puts the standard reader on can3 at once, as identification would after a while.
class ReaderApplication : public CanApplication_i {
public:
    explicit ReaderApplication(std::shared_ptr<Properties> properties)
        : machine(std::make_shared<CanPropertySourceStateMachine>(properties, "/nonexistent",
                                                                  "/nonexistent/detected.json")) {}
    void onStart(std::shared_ptr<CanInterface> can) override {
        can->setDefaultBus(Bus::MACHINE_500K);
        reader.onStart(machine, can);
        // Holds the CAN main thread while the benchmark fills the sockets.
        can->addPgnFilter(
            kPausePgn,
            [this](const PgnMessage&) {
                std::unique_lock<std::mutex> lock(mutex);
                paused = true;
                changed.notify_all();
                changed.wait(lock, [this] { return !paused; });
            },
            Bus::MACHINE_500K);
    }
    void pause() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return paused; });
    }
    void resume() {
        std::lock_guard<std::mutex> lock(mutex);
        paused = false;
        changed.notify_all();
    }
    void onStop() override { reader.onStop(); }

private:
    std::shared_ptr<CanPropertySourceStateMachine> machine;
    GenericCanPropertyReader reader;
    std::mutex mutex;
    std::condition_variable changed;
    bool paused = false;
};

class Rig {
public:
    Rig() : properties(std::make_shared<Properties>()) {
        for (std::size_t i = 0; i < kChannels.size(); ++i) {
            int pair[2];
            ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair);
            // Room for the whole backlog (needs privilege; without it the batch is smaller).
            const int bytes = 256 << 20;
            ::setsockopt(pair[1], SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes));
            ::fcntl(pair[0], F_SETFL, ::fcntl(pair[0], F_GETFL, 0) | O_NONBLOCK);
            serviceEnds.push_back(pair[0]);
            peerEnds.push_back(pair[1]);
        }
        service = std::make_shared<CanInterfaceImplementation>([this](const std::string& name) {
            for (std::size_t i = 0; i < kChannels.size(); ++i) {
                if (kChannels[i] == name) {
                    return serviceEnds[i];
                }
            }
            return -1;
        });
        service->start(application, kChannels);
        // Frames count only once the stack has had its first update.
        while (delivered() == 0) {
            send(1, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    ~Rig() {
        service->stop();
        for (int fd : peerEnds) {
            ::close(fd);
        }
    }

    // Engine speed frames from the engine at address 0, round robin over the given channels.
    void send(std::size_t firstChannel, std::size_t channels) {
        can_frame frame;
        std::memset(&frame, 0, sizeof(frame));
        frame.can_id = 0x8CF00400u;
        frame.can_dlc = 8;
        const std::uint8_t data[8] = {0xF0, 0x7D, 0x8C, 0x40, 0x1F, 0xFF, 0xFF, 0xFF};
        std::memcpy(frame.data, data, 8);
        for (std::size_t i = 0; i < channels; ++i) {
            if (::write(peerEnds[firstChannel + i], &frame, sizeof(frame)) != sizeof(frame)) {
                std::abort();
            }
        }
    }
    // Engine speed samples set since the last call, handed over as the run loop does.
    std::size_t delivered() {
        properties->rpm.swapBuffers();
        return properties->rpm.flushedSamples().size();
    }

    // Fills the sockets while the CAN main thread is held, then times how fast it drains them.
    double drain(std::size_t firstChannel, std::size_t channels) {
        can_frame pause;
        std::memset(&pause, 0, sizeof(pause));
        pause.can_id = 0x80000000u | (6u << 26) | (kPausePgn << 8) | 0x80u;
        pause.can_dlc = 8;
        if (::write(peerEnds[1], &pause, sizeof(pause)) != sizeof(pause)) {
            std::abort();
        }
        application->pause();
        for (std::size_t i = 0; i < kBacklog; ++i) {
            send(firstChannel, channels);
        }
        const auto start = std::chrono::steady_clock::now();
        application->resume();
        std::size_t seen = 0;
        const std::size_t expected =
            firstChannel <= 1 && firstChannel + channels > 1 ? kBacklog : 0;
        while (seen < expected) {
            // Not a spin: the property's lock is the CAN main thread's too.
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            seen += delivered();
        }
        // The other channels are read in the same passes, so they are done as well.
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    std::shared_ptr<Properties> properties;
    std::shared_ptr<ReaderApplication> application =
        std::make_shared<ReaderApplication>(properties);
    std::vector<int> serviceEnds;
    std::vector<int> peerEnds;
    std::shared_ptr<CanInterfaceImplementation> service;
};

// One bus carries everything: one frame per pass of the CAN main thread.
void BM_OneBusToProperty(benchmark::State& state) {
    Rig rig;
    for (auto _ : state) {
        state.SetIterationTime(rig.drain(1, 1));
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBacklog));
}
BENCHMARK(BM_OneBusToProperty)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// All three buses busy, only can3's frames decoded: three frames per pass.
void BM_ThreeBusesThroughTheService(benchmark::State& state) {
    Rig rig;
    for (auto _ : state) {
        state.SetIterationTime(rig.drain(0, 3));
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBacklog * 3));
}
BENCHMARK(BM_ThreeBusesThroughTheService)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
