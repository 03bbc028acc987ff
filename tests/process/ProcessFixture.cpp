#include "tests/process/ProcessFixture.h"

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

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
    if (!scratch_.empty()) {
        boost::filesystem::remove_all(scratch_);
    }
}

const boost::filesystem::path& ProcessFixture::scratch() {
    if (scratch_.empty()) {
        std::string name = ::testing::TempDir() + "tavrel-process-XXXXXX";
        scratch_ = boost::filesystem::canonical(::mkdtemp(name.data()));
    }
    return scratch_;
}

std::map<int, std::string> openDescriptors() {
    std::map<int, std::string> found;
    DIR* const folder = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(folder)) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != ::dirfd(folder)) {
            const auto link = boost::filesystem::path("/proc/self/fd") / entry->d_name;
            found[fd] = boost::filesystem::read_symlink(link).string();
        }
    }
    ::closedir(folder);
    return found;
}

SubprocessOptions role(const std::vector<std::string>& words) {
    SubprocessOptions options;
    options.args = {"/proc/self/exe", "--role"};
    options.args.insert(options.args.end(), words.begin(), words.end());
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
    ScopedFd outputRead;
    ScopedFd outputWrite;
    ScopedFd errorRead;
    ScopedFd errorWrite;
    createPipe(outputRead, outputWrite);
    createPipe(errorRead, errorWrite);
    options.stdoutFd = outputWrite.get();
    options.stderrFd = errorWrite.get();
    Ended ended;
    ended.child = Subprocess::spawn(options);
    outputWrite.reset();
    errorWrite.reset();
    ended.output = readToEnd(outputRead.get());
    ended.errors = readToEnd(errorRead.get());
    ended.child.wait();
    return ended;
}

}  // namespace Plexum3::Base
