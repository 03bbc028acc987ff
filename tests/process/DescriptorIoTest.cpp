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
using boost::system::generic_category;
using boost::system::system_category;

class DescriptorIoTest : public ProcessFixture {};

const error_code SUCCESS(0, system_category());
const error_code STALE(EPERM, generic_category());
constexpr int NOT_OPEN = 9999;

bool closesOnExec(int fd) {
    return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}
bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

// SIGALRM every 5 ms, without SA_RESTART, until `times` have come. The last one writes a byte to
// `fd` if that isn't -1.
class Interruptions {
  public:
    Interruptions(int times, int fd) {
        left_ = times;
        fd_ = fd;
        struct sigaction action {};
        action.sa_handler = &Interruptions::arrive;
        ::sigaction(SIGALRM, &action, &oldAction_);
        const itimerval every{{0, 5'000}, {0, 5'000}};
        ::setitimer(ITIMER_REAL, &every, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;
    ~Interruptions() {
        stop();
        ::sigaction(SIGALRM, &oldAction_, nullptr);
    }
    static int left() { return left_; }

  private:
    static void stop() {
        const itimerval never{};
        ::setitimer(ITIMER_REAL, &never, nullptr);
    }
    static void arrive(int) {
        const int savedErrno = errno;
        if (--left_ == 0) {
            stop();
            if (fd_ != -1) {
                [[maybe_unused]] const ssize_t ignored = ::write(fd_, "x", 1);
            }
        }
        errno = savedErrno;
    }

    static std::atomic<int> left_;
    static std::atomic<int> fd_;
    struct sigaction oldAction_ {};
};
std::atomic<int> Interruptions::left_;
std::atomic<int> Interruptions::fd_;

TEST_F(DescriptorIoTest, ScopedFdOwnsOneDescriptor) {
    const int first = ::dup(STDIN_FILENO);
    const int second = ::dup(STDIN_FILENO);
    {
        ScopedFd owner(first);
        owner.reset(second);
        EXPECT_FALSE(isOpen(first));
        ScopedFd heir(std::move(owner));
        EXPECT_EQ(owner.get(), -1);  // NOLINT(bugprone-use-after-move): what a move leaves behind
        ScopedFd next(::dup(STDIN_FILENO));
        const int replaced = next.get();
        next = std::move(heir);
        EXPECT_FALSE(isOpen(replaced));
        EXPECT_EQ(next.release(), second);
    }
    EXPECT_TRUE(isOpen(second));
    ::close(second);
}

TEST_F(DescriptorIoTest, FlagsChangeAloneAndBack) {
    ScopedFd readEnd;
    ScopedFd writeEnd;
    createPipe(readEnd, writeEnd);
    EXPECT_TRUE(closesOnExec(readEnd.get()));
    EXPECT_TRUE(closesOnExec(writeEnd.get()));
    setInheritable(readEnd.get(), true);
    EXPECT_FALSE(closesOnExec(readEnd.get()));
    setInheritable(readEnd.get(), false);
    EXPECT_TRUE(closesOnExec(readEnd.get()));

    ::fcntl(writeEnd.get(), F_SETFL, O_APPEND);
    setNonBlocking(writeEnd.get(), true);
    EXPECT_EQ(::fcntl(writeEnd.get(), F_GETFL), O_WRONLY | O_APPEND | O_NONBLOCK);
    setNonBlocking(writeEnd.get(), false);
    EXPECT_EQ(::fcntl(writeEnd.get(), F_GETFL), O_WRONLY | O_APPEND);
    EXPECT_FALSE(isSocket(writeEnd.get()));
    EXPECT_FALSE(isSocket(NOT_OPEN));
}

TEST_F(DescriptorIoTest, SocketPairIsConnectedAndInheritable) {
    ScopedFd first;
    ScopedFd second;
    createSocketPair(first, second);
    EXPECT_TRUE(isSocket(first.get()));
    EXPECT_FALSE(closesOnExec(first.get()));
    EXPECT_FALSE(closesOnExec(second.get()));
    char byte = 0;
    error_code error = STALE;
    EXPECT_EQ(sendRetry(first.get(), "ab", 2, MSG_NOSIGNAL, &error), 2);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(recvRetry(second.get(), &byte, 1, MSG_PEEK, &error), 1);
    EXPECT_EQ(recvRetry(second.get(), &byte, 1, 0, nullptr), 1);
    EXPECT_EQ(byte, 'a');
    second.reset();
    EXPECT_EQ(sendRetry(first.get(), "ab", 2, MSG_NOSIGNAL, &error), -1);
    EXPECT_EQ(error, error_code(EPIPE, system_category()));
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
        error_code code;
        std::string what;
        ::setrlimit(RLIMIT_NOFILE, &none);
        try {
            call();
        } catch (const boost::system::system_error& error) {
            // First: a sanitizer needs a pipe to look at the exception.
            ::setrlimit(RLIMIT_NOFILE, &old);
            code = error.code();
            what = error.what();
        }
        EXPECT_EQ(code, error_code(value, system_category()));
        EXPECT_EQ(what, code.message());
    }
    EXPECT_EQ(first.get(), held);
    EXPECT_EQ(second.get(), -1);
}

TEST_F(DescriptorIoTest, TransfersTellEndFromFailure) {
    ScopedFd readEnd;
    ScopedFd writeEnd;
    createPipe(readEnd, writeEnd);
    setNonBlocking(readEnd.get(), true);
    char bytes[8];
    error_code error = STALE;
    EXPECT_EQ(readRetry(readEnd.get(), bytes, sizeof bytes, &error), -1);
    EXPECT_EQ(error, error_code(EAGAIN, system_category()));
    EXPECT_EQ(writeRetry(writeEnd.get(), "abc", 3, &error), 3);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(readRetry(readEnd.get(), bytes, sizeof bytes, nullptr), 3) << "short, not completed";
    writeEnd.reset();
    error = STALE;
    EXPECT_EQ(readRetry(readEnd.get(), bytes, sizeof bytes, &error), 0);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(writeRetry(NOT_OPEN, "abc", 3, &error), -1);
    EXPECT_EQ(error, error_code(EBADF, system_category()));
    EXPECT_EQ(readRetry(NOT_OPEN, bytes, sizeof bytes, nullptr), -1);
}

TEST_F(DescriptorIoTest, InterruptedReadGoesOn) {
    ScopedFd readEnd;
    ScopedFd writeEnd;
    createPipe(readEnd, writeEnd);
    const Interruptions interruptions(4, writeEnd.get());
    char byte = 0;
    error_code error;
    EXPECT_EQ(readRetry(readEnd.get(), &byte, 1, &error), 1);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(Interruptions::left(), 0);
}

TEST_F(DescriptorIoTest, InterruptionsDoNotLengthenPollAny) {
    using Clock = boost::chrono::steady_clock;
    const auto start = Clock::now();
    const Interruptions interruptions(2'000, -1);  // 10 seconds of them
    error_code error;
    EXPECT_EQ(pollAny(nullptr, 0, 60, &error), -1);
    EXPECT_EQ(error, error_code(ETIMEDOUT, generic_category()));
    EXPECT_GE(Clock::now() - start, boost::chrono::milliseconds(59));
    EXPECT_GT(Interruptions::left(), 0) << "waited until nothing interrupted any more";
}

TEST_F(DescriptorIoTest, PollAnyFavoursNoneAndSeesEveryCondition) {
    ScopedFd readEnd;
    ScopedFd writeEnd;
    createPipe(readEnd, writeEnd);
    error_code error = STALE;
    const int idle = readEnd.get();
    EXPECT_EQ(pollAny(&idle, 1, 0, &error), -1);
    EXPECT_EQ(error, error_code(ETIMEDOUT, generic_category()));
    EXPECT_THROW(pollAny(&idle, -1, 0, &error), std::length_error);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(pollAny(&idle, 1, 0, nullptr), -1);

    ScopedFd readyRead;
    ScopedFd readyWrite;
    createPipe(readyRead, readyWrite);
    readyWrite.reset();  // at its end
    const std::vector<int> fds{idle, readyRead.get(), NOT_OPEN};
    std::set<int> seen;
    for (int i = 0; i < 200; ++i) {
        seen.insert(
            pollAny(fds.data(), static_cast<int>(fds.size()), i % 2 == 0 ? 1'000 : -1, &error));
        EXPECT_EQ(error, SUCCESS);
    }
    EXPECT_EQ(seen, (std::set<int>{readyRead.get(), NOT_OPEN}));
}

}  // namespace
}  // namespace Plexum3::Base
