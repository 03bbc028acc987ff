#include "process/DescriptorIo.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <functional>
#include <set>
#include <stdexcept>
#include <utility>

#include <boost/chrono/system_clocks.hpp>
#include <boost/system/system_error.hpp>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using boost::system::error_code;

class DescriptorIoTest : public ProcessFixture {};

const error_code SUCCESS(0, boost::system::system_category());
const error_code TIMED_OUT(ETIMEDOUT, boost::system::generic_category());
const error_code STALE(EPERM, boost::system::generic_category());
constexpr int NOT_OPEN = 9999;

error_code systemError(int value) {
    return {value, boost::system::system_category()};
}
bool closesOnExec(int fd) {
    return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}
// Of the signals that interrupt a test, the fourth writes a byte here.
std::atomic<int> fourthSignalTarget;
std::atomic<int> signalCount;

void countSignal(int) {
    const int savedErrno = errno;
    if (++signalCount == 4) {
        [[maybe_unused]] const ssize_t ignored = ::write(fourthSignalTarget, "x", 1);
    }
    errno = savedErrno;
}

TEST_F(DescriptorIoTest, FlagsChangeAloneAndBack) {
    const Pipe pipe;
    const int fd = pipe.writeEnd.get();
    EXPECT_TRUE(closesOnExec(pipe.readEnd.get()));
    EXPECT_TRUE(closesOnExec(fd));
    ::fcntl(fd, F_SETFL, O_APPEND);
    for (const bool on : {true, false}) {
        setInheritable(fd, on);
        EXPECT_EQ(closesOnExec(fd), !on);
        setNonBlocking(fd, on);
        EXPECT_EQ(::fcntl(fd, F_GETFL), O_WRONLY | O_APPEND | (on ? O_NONBLOCK : 0));
    }
    EXPECT_FALSE(isSocket(fd));
    EXPECT_FALSE(isSocket(NOT_OPEN));
}

TEST_F(DescriptorIoTest, SetUpFailuresThrowAndLeaveTheHolders) {
    ScopedFd first(::dup(STDIN_FILENO));
    ScopedFd second;
    const int held = first.get();
    rlimit old{};
    ::getrlimit(RLIMIT_NOFILE, &old);
    const rlimit none{0, old.rlim_max};
    const std::vector<std::pair<int, std::function<void()>>> cases{
        {EMFILE, [&] { createPipe(first, second); }},
        {EMFILE, [&] { createSocketPair(first, second); }},
        {EBADF, [] { setNonBlocking(NOT_OPEN, true); }},
        {EBADF, [] { setInheritable(NOT_OPEN, true); }}};
    for (const auto& [value, call] : cases) {
        // Made before the limit, and looked at after it: a sanitizer needs a pipe for that.
        const error_code expected = systemError(value);
        ::setrlimit(RLIMIT_NOFILE, &none);
        try {
            call();
            ADD_FAILURE() << "no exception";
        } catch (const boost::system::system_error& error) {
            ::setrlimit(RLIMIT_NOFILE, &old);
            EXPECT_EQ(error.code(), expected);
            EXPECT_EQ(error.what(), error.code().message());
        }
    }
    EXPECT_EQ(first.get(), held);
    EXPECT_EQ(second.get(), -1);
}

TEST_F(DescriptorIoTest, TransfersTellEndFromFailure) {
    ScopedFd first;
    ScopedFd second;
    createSocketPair(first, second);
    EXPECT_TRUE(isSocket(first.get()));
    EXPECT_FALSE(closesOnExec(first.get()) || closesOnExec(second.get()));
    const int fd = first.get();
    setNonBlocking(fd, true);
    char bytes[8];
    error_code error = STALE;
    EXPECT_EQ(readRetry(fd, bytes, sizeof bytes, &error), -1);
    EXPECT_EQ(error, systemError(EAGAIN));
    EXPECT_EQ(writeRetry(second.get(), "a", 1, &error), 1);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(sendRetry(second.get(), "bc", 2, MSG_NOSIGNAL, nullptr), 2);
    EXPECT_EQ(recvRetry(fd, bytes, 1, MSG_PEEK, nullptr), 1);
    EXPECT_EQ(readRetry(fd, bytes, sizeof bytes, nullptr), 3) << "short, not completed";
    second.reset();
    error = STALE;
    EXPECT_EQ(readRetry(fd, bytes, sizeof bytes, &error), 0);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(sendRetry(fd, "ab", 2, MSG_NOSIGNAL, &error), -1);
    EXPECT_EQ(error, systemError(EPIPE));
    EXPECT_EQ(recvRetry(NOT_OPEN, bytes, 1, 0, nullptr), -1);
}

TEST_F(DescriptorIoTest, SignalsNeitherEndAReadNorLengthenAPoll) {
    using Clock = boost::chrono::steady_clock;
    const Pipe pipe;
    fourthSignalTarget = pipe.writeEnd.get();
    struct sigaction action {};
    struct sigaction oldAction {};
    action.sa_handler = countSignal;  // without SA_RESTART
    ::sigaction(SIGALRM, &action, &oldAction);
    const itimerval every5Ms{{0, 5'000}, {0, 5'000}};
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &every5Ms, nullptr);
    char byte = 0;
    error_code error;
    EXPECT_EQ(readRetry(pipe.readEnd.get(), &byte, 1, &error), 1);
    EXPECT_EQ(error, SUCCESS);
    const auto start = Clock::now();
    // A wait that starts over after each signal would not come to an end.
    EXPECT_EQ(pollAny(nullptr, 0, 60, &error), -1);
    EXPECT_EQ(error, TIMED_OUT);
    EXPECT_GE(Clock::now() - start, boost::chrono::milliseconds(59));
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &oldAction, nullptr);
}

TEST_F(DescriptorIoTest, PollAnyFavoursNoneAndSeesEveryCondition) {
    const Pipe quiet;
    const int idle = quiet.readEnd.get();
    error_code error = STALE;
    EXPECT_EQ(pollAny(&idle, 1, 0, &error), -1);
    EXPECT_EQ(error, TIMED_OUT);
    EXPECT_THROW(pollAny(&idle, -1, 0, &error), std::length_error);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(pollAny(&idle, 1, 0, nullptr), -1);

    Pipe ended;
    ended.writeEnd.reset();
    const std::vector<int> fds{idle, ended.readEnd.get(), NOT_OPEN};
    std::set<int> seen;
    for (const int timeoutMs : {1'000, -1}) {
        for (int i = 0; i < 100; ++i) {
            seen.insert(pollAny(fds.data(), static_cast<int>(fds.size()), timeoutMs, &error));
            EXPECT_EQ(error, SUCCESS);
        }
    }
    EXPECT_EQ(seen, (std::set<int>{ended.readEnd.get(), NOT_OPEN}));
}

}  // namespace
}  // namespace Plexum3::Base
