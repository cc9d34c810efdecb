#pragma once

// Runs a program as a child with its output in files, for tests of what it prints and returns.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace clitest {

inline std::string readFile(const std::filesystem::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path) << text;
}

// A fresh folder, removed with everything in it at the end of the test.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "tilthwatch-XXXXXX");
        path_ = ::mkdtemp(&pattern[0]);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Standard output and error go to files.
class Process {
public:
    explicit Process(const std::vector<std::string>& arguments) {
        std::vector<char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int fd : {1, 2}) {
            posix_spawn_file_actions_addopen(&actions, fd, (dir_ / std::to_string(fd)).c_str(),
                                             O_WRONLY | O_CREAT | O_TRUNC, 0600);
        }
        if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void signal(int number) { ::kill(pid_, number); }

    // The exit status, or -1 if the child did not start or exit normally within `timeout`.
    int wait(std::chrono::milliseconds timeout = std::chrono::milliseconds(20000)) {
        int status = 0;
        const bool exited =
            pid_ > 0 && poll([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
        pid_ = exited ? -1 : pid_;
        return exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // True once standard output holds `text`, within `timeout`.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
        return poll([&] { return out().find(text) != std::string::npos; }, timeout);
    }

    std::string out() const { return readFile(dir_ / "1"); }
    std::string err() const { return readFile(dir_ / "2"); }

private:
    template <typename Done>
    static bool poll(Done done, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    TempDir dir_;
    pid_t pid_ = -1;
};

// Runs to the end and gives the exit status.
inline int run(Process& process) {
    return process.wait();
}

}  // namespace clitest
