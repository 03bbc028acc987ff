#include <boost/chrono/system_clocks.hpp>
#include <boost/system/system_error.hpp>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <climits>
#include <functional>
#include <set>
#include <stdexcept>

#include "process/DescriptorIo.h"
#include "process/StandardStreams.h"
#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using boost::system::error_code;

class DescriptorIoTest : public ProcessFixture {};

const error_code success(0, boost::system::system_category());
const error_code timedOut(ETIMEDOUT, boost::system::generic_category());
constexpr int notOpen = 9999;

error_code systemError(int value) {
    return {value, boost::system::system_category()};
}

TEST_F(DescriptorIoTest, FlagsChangeAloneAndBack) {
    const Pipe pipe;
    const int fd = pipe.writeEnd.get();
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    fcntl(fd, F_SETFL, O_APPEND);
    for (const bool on : {true, false}) {
        setInheritable(fd, on);
        EXPECT_EQ(fcntl(fd, F_GETFD), on ? 0 : FD_CLOEXEC);
        setNonBlocking(fd, on);
        EXPECT_EQ(fcntl(fd, F_GETFL), O_WRONLY | O_APPEND | (on ? O_NONBLOCK : 0));
    }
    EXPECT_FALSE(isSocket(fd));
}

TEST_F(DescriptorIoTest, MovedFromOwnerHoldsNothing) {
    ScopedFd first(dup(STDIN_FILENO));
    ScopedFd second(std::move(first));
    EXPECT_EQ(first.get(), -1);  // NOLINT(bugprone-use-after-move): that is the case
    EXPECT_TRUE(second.isOpen());
    first = std::move(second);
    EXPECT_EQ(second.get(), -1);  // NOLINT(bugprone-use-after-move)
    errno = EIO;
    first.reset();
    EXPECT_EQ(errno, EIO) << "closing hides no reason";
}

TEST_F(DescriptorIoTest, SetUpFailuresThrowAndLeaveNothing) {
    ScopedFd first(dup(STDIN_FILENO));
    ScopedFd second;
    const int held = first.get();
    rlimit old{};
    getrlimit(RLIMIT_NOFILE, &old);
    struct Case {
        int error;
        int limit;
        std::function<void()> call;
    };
    for (const Case& each : {Case{EBADF, held, [] { setNonBlocking(notOpen, true); }},
                             Case{EBADF, held, [] { setInheritable(notOpen, true); }},
                             Case{EMFILE, held, [&] { createPipe(first, second); }},
                             Case{EMFILE, held, [&] { createSocketPair(first, second); }},
                             // Room for the first pipe of a launch, not for the second.
                             Case{EMFILE, held + 4, [] { Subprocess::spawn(shell("exit 0")); }}}) {
        // Made before the limit, and looked at after it: a sanitizer needs a pipe for that.
        const error_code expected = systemError(each.error);
        const rlimit tight{static_cast<rlim_t>(each.limit), old.rlim_max};
        setrlimit(RLIMIT_NOFILE, &tight);
        try {
            each.call();
            ADD_FAILURE() << "no exception";
        } catch (const boost::system::system_error& error) {
            setrlimit(RLIMIT_NOFILE, &old);
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
    const int fd = first.get();
    EXPECT_TRUE(isSocket(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    setNonBlocking(fd, true);
    char bytes[8];
    error_code error;
    EXPECT_EQ(readRetry(fd, bytes, sizeof bytes, &error), -1);
    EXPECT_EQ(error, systemError(EAGAIN));
    EXPECT_EQ(writeRetry(second.get(), "a", 1, &error), 1);
    EXPECT_EQ(error, success);
    EXPECT_EQ(sendRetry(second.get(), "bc", 2, MSG_NOSIGNAL, nullptr), 2);
    EXPECT_EQ(recvRetry(fd, bytes, 1, MSG_PEEK, nullptr), 1);
    EXPECT_EQ(readRetry(fd, bytes, sizeof bytes, nullptr), 3) << "short, not completed";
    second.reset();
    EXPECT_EQ(readRetry(fd, bytes, sizeof bytes, nullptr), 0);
    EXPECT_EQ(sendRetry(fd, "ab", 2, MSG_NOSIGNAL, &error), -1);
    EXPECT_EQ(error, systemError(EPIPE));
}

volatile sig_atomic_t signalTarget;
volatile sig_atomic_t signalCount;

TEST_F(DescriptorIoTest, SignalsNeitherEndAReadNorLengthenAPoll) {
    using Clock = boost::chrono::steady_clock;
    const Pipe pipe;
    signalTarget = pipe.writeEnd.get();
    struct sigaction action {};
    struct sigaction oldAction {};
    // Without SA_RESTART: the read is interrupted, and finds its byte only when repeated twice.
    action.sa_handler = [](int) {
        signalCount = signalCount + 1;
        if (signalCount > 4000) {
            std::abort();  // after 20 s: a wait started over
        }
        static_cast<void>(signalCount == 3 && write(signalTarget, "x", 1));
    };
    sigaction(SIGALRM, &action, &oldAction);
    const itimerval every5Ms{{0, 5'000}, {0, 5'000}};
    const itimerval never{};
    setitimer(ITIMER_REAL, &every5Ms, nullptr);
    char byte = 0;
    EXPECT_EQ(readRetry(pipe.readEnd.get(), &byte, 1, nullptr), 1);
    const auto start = Clock::now();
    // A wait that starts over after each signal would not come to an end.
    error_code error;
    EXPECT_EQ(pollAny(nullptr, 0, 60, &error), -1);
    EXPECT_EQ(error, timedOut);
    EXPECT_GE(Clock::now() - start, boost::chrono::milliseconds(59));
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &oldAction, nullptr);
}

TEST_F(DescriptorIoTest, PollAnyFavoursNoneAndSeesEveryCondition) {
    const Pipe quiet;
    Pipe ended;
    ended.writeEnd.reset();
    const int fds[]{quiet.readEnd.get(), ended.readEnd.get(), notOpen};
    error_code error;
    EXPECT_EQ(pollAny(fds, 1, 0, &error), -1);
    EXPECT_EQ(error, timedOut);
    EXPECT_THROW(pollAny(fds, -1, 0, &error), std::length_error);
    std::set<int> seen;
    for (int i = 0; i < 100; ++i) {
        seen.insert(pollAny(fds, 3, i % 2 == 0 ? deadlineMs : -1, &error));
        EXPECT_EQ(error, success);
    }
    EXPECT_EQ(seen, (std::set<int>{ended.readEnd.get(), notOpen}));
}

TEST_F(DescriptorIoTest, LineWaitsForNoReader) {
    const Pipe pipe;
    const int fd = pipe.writeEnd.get();
    const int size = fcntl(fd, F_SETPIPE_SZ, 2 * PIPE_BUF);
    const std::string half(static_cast<std::size_t>(size / 2), 'x');
    writeWholeLineOrDrop(fd, half);
    writeWholeLineOrDrop(fd, half + "more than there is room for\n");
    writeWholeLineOrDrop(fd, "dropped\n", 1);
    EXPECT_EQ(fcntl(fd, F_GETFL), O_WRONLY) << "others share the open file";
    std::string text(2 * half.size() + 1, ' ');
    EXPECT_EQ(readRetry(pipe.readEnd.get(), text.data(), text.size(), nullptr), size);
}

}  // namespace
}  // namespace Plexum3::Base
