#include "tests/process/ProcessFixture.h"

#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

#include <boost/filesystem/operations.hpp>

namespace Plexum3::Base {

void ProcessFixture::SetUp() {
    descriptors_ = openDescriptors();
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
}

void ProcessFixture::TearDown() {
    EXPECT_EQ(openDescriptors(), descriptors_);
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (int number = 1; number < NSIG; ++number) {
        EXPECT_EQ(::sigismember(&mask, number), ::sigismember(&mask_, number)) << number;
    }
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(errno, ECHILD);
}

std::map<int, std::string> openDescriptors() {
    const std::string folder = "/proc/" + std::to_string(::getpid()) + "/fd";
    std::map<int, std::string> found;
    for (const auto& entry : boost::filesystem::directory_iterator(folder)) {
        const std::string target = boost::filesystem::read_symlink(entry.path()).string();
        if (target != folder) {
            found[std::stoi(entry.path().filename().string())] = target;
        }
    }
    return found;
}

SubprocessOptions role(const std::vector<std::string>& words) {
    SubprocessOptions options;
    options.args = {"/proc/self/exe", "--role"};
    options.args.insert(options.args.end(), words.begin(), words.end());
    return options;
}

SubprocessOptions shell(const std::string& script) {
    SubprocessOptions options;
    options.args = {"/bin/sh", "-c", script};
    return options;
}

std::string readToEnd(int fd) {
    std::string text;
    char chunk[4096];
    boost::system::error_code error;
    while (pollAny(&fd, 1, DEADLINE_MS, &error) == fd) {
        const ssize_t got = readRetry(fd, chunk, sizeof chunk, &error);
        if (got <= 0) {
            break;
        }
        text.append(chunk, static_cast<std::size_t>(got));
    }
    EXPECT_FALSE(error) << error.message();
    return text;
}

Ended run(SubprocessOptions options) {
    Pipe output;
    Pipe errors;
    options.stdoutFd = output.writeEnd.get();
    options.stderrFd = errors.writeEnd.get();
    Ended ended;
    ended.child = Subprocess::spawn(options);
    output.writeEnd.reset();
    errors.writeEnd.reset();
    ended.output = readToEnd(output.readEnd.get());
    ended.errors = readToEnd(errors.readEnd.get());
    ended.child.wait();
    return ended;
}

}  // namespace Plexum3::Base
