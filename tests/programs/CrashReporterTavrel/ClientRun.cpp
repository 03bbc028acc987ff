#include "tests/programs/CrashReporterTavrel/ClientRun.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace Zendrik::Reporter {

namespace {

constexpr int kDeadlineMs = 60000;

// Bytes up to `stop`, or to the end.
std::string readUntil(const ScopedFd& fd, int stop) {
    std::string text;
    char byte = 0;
    while (becomesReadable(fd) && Plexum3::Base::readRetry(fd.get(), &byte, 1, nullptr) == 1 &&
           byte != stop) {
        text += byte;
    }
    return text;
}

}  // namespace

ScratchFolder::ScratchFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "reporter_test.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no scratch folder " + name);
    }
    path = name;
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::vector<std::string> namesIn(const std::filesystem::path& folder) {
    return namesEndingIn(folder, "");
}

std::vector<std::string> namesEndingIn(const std::filesystem::path& folder,
                                       const std::string& end) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name.size() >= end.size() && name.substr(name.size() - end.size()) == end) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void writeFile(const std::filesystem::path& file, const std::string& content) {
    std::ofstream(file) << content;
}

ScopedFd watchProcess(pid_t pid) {
    return ScopedFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

bool becomesReadable(const ScopedFd& fd) {
    pollfd wait{fd.get(), POLLIN, 0};
    return poll(&wait, 1, kDeadlineMs) == 1;
}

ClientRun::ClientRun(const std::string& kind, const ScratchFolder& dumps,
                     const ClientOptions& options) {
    ScopedFd childInput;
    ScopedFd childOutput;
    ScopedFd childErrors;
    Plexum3::Base::createPipe(childInput, input_);
    Plexum3::Base::createPipe(output_, childOutput);
    Plexum3::Base::createPipe(errorOutput_, childErrors);
    pid = fork();
    if (pid == 0) {
        (void)dup2(childInput.get(), STDIN_FILENO);
        (void)dup2(childOutput.get(), STDOUT_FILENO);
        (void)dup2(childErrors.get(), STDERR_FILENO);
        setenv("TAVREL_CRASH_DIR", dumps.path.c_str(), 1);
        // Under the address sanitizer the signals are Breakpad's and the kernel's all the same.
        setenv("ASAN_OPTIONS",
               "detect_leaks=0:handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigfpe=0:"
               "handle_sigill=0",
               1);
        for (const std::string& entry : options.environment) {
            putenv(const_cast<char*>(entry.c_str()));
        }
        if (!options.workingDirectory.empty() && chdir(options.workingDirectory.c_str()) != 0) {
            _exit(3);
        }
        const char* reporter = options.inProcess ? "-" : REPORTER_UNDER_TEST;
        std::vector<const char*> argv{CRASHING_CLIENT, reporter, kind.c_str()};
        for (const std::string& argument : options.arguments) {
            argv.push_back(argument.c_str());
        }
        argv.push_back(nullptr);
        execv(CRASHING_CLIENT, const_cast<char**>(argv.data()));
        _exit(3);
    }
    if (!options.inProcess) {
        childOutput.reset();
        reporter = static_cast<pid_t>(readNumber("armed"));
    }
}

ClientRun::~ClientRun() {
    if (pid > 0) {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, 0);
    }
}

long ClientRun::readNumber(const std::string& word) {
    const std::string line = readUntil(output_, '\n');
    const bool expected = line.compare(0, word.size() + 1, word + " ") == 0;
    EXPECT_TRUE(expected) << "the client said \"" << line << '"';
    return expected ? std::strtol(line.c_str() + word.size(), nullptr, 10) : -1;
}

void ClientRun::go() {
    EXPECT_EQ(Plexum3::Base::writeRetry(input_.get(), "g", 1, nullptr), 1);
}

int ClientRun::finish() {
    constexpr int untilTheEnd = -1;
    errors += readUntil(errorOutput_, untilTheEnd);
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    pid = -1;
    return status;
}

}  // namespace Zendrik::Reporter
