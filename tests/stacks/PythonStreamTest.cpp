#include <client/linux/handler/exception_handler.h>
#include <fcntl.h>
#include <google_breakpad/processor/minidump.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "process/DescriptorIo.h"
#include "stacks/python/PythonStream.h"
#include "tests/ForkedRole.h"

namespace Zendrik::Stacks {
namespace {

using Plexum3::Base::ScopedFd;

bool keepPath(const google_breakpad::MinidumpDescriptor& descriptor, void* path, bool succeeded) {
    *static_cast<std::string*>(path) = descriptor.path();
    return succeeded;
}

/// A dump of this process, unnamed.
ScopedFd makeDump() {
    std::string path;
    EXPECT_TRUE(google_breakpad::ExceptionHandler::WriteMinidump("/tmp", keepPath, &path));
    ScopedFd dump(open(path.c_str(), O_RDWR | O_CLOEXEC));
    unlink(path.c_str());
    return dump;
}

std::string streamOf(int dump, std::size_t* threadCount) {
    google_breakpad::Minidump minidump("/proc/self/fd/" + std::to_string(dump));
    EXPECT_TRUE(minidump.Read());
    *threadCount = minidump.GetThreadList()->thread_count();
    std::uint32_t size = 0;
    if (!minidump.SeekToStreamType(pythonStreamType, &size)) {
        return "none";
    }
    std::string bytes(size, '\0');
    EXPECT_TRUE(minidump.ReadBytes(bytes.data(), size));
    return bytes;
}

PythonStacks twoThreads() {
    PythonStacks stacks;
    stacks.threads = {{0x1000, true, {{"größe.py", "f", 12}, {"a.py", "<module>", 3}}, ""},
                      {0x2000, false, {}, "the calls form a ring"}};
    stacks.note = "the list of interpreters is damaged";
    return stacks;
}

TEST(PythonStream, IsReadBackFromADumpThatStaysWhole) {
    const ScopedFd dump = makeDump();
    const PythonStacks written = twoThreads();
    ASSERT_EQ(appendPythonStream(dump.get(), {{7, "main", {}, 0x1000}}, written), 0);
    std::size_t threadCount = 0;
    const std::string bytes = streamOf(dump.get(), &threadCount);
    EXPECT_EQ(threadCount, 1U);

    std::vector<CapturedThread> threads(2);
    threads[1].tid = 7;
    EXPECT_FALSE(parsePythonStream("\1" + bytes.substr(1), threads));  // of another version
    const auto read = parsePythonStream(bytes, threads);
    ASSERT_TRUE(read);
    EXPECT_EQ(threads[0].threadPointer, 0U);
    EXPECT_EQ(threads[1].threadPointer, 0x1000U);
    EXPECT_EQ(threads[1].name, "main");
    EXPECT_EQ(read->note, written.note);
    ASSERT_EQ(read->threads.size(), 2U);
    EXPECT_TRUE(read->threads[0].holdsLock);
    ASSERT_EQ(read->threads[0].frames.size(), 2U);
    EXPECT_EQ(read->threads[0].frames[0].file, "größe.py");
    EXPECT_EQ(read->threads[0].frames[1].line, 3);
    EXPECT_EQ(read->threads[1].cutShort, written.threads[1].cutShort);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_FALSE(parsePythonStream(bytes.substr(0, size), threads)) << size;
    }
}

TEST(PythonStream, LeavesTheDumpAsItWasOnFailure) {
    const RoleOutcome outcome = runRole([] {
        const ScopedFd dump = makeDump();
        struct stat before {};
        fstat(dump.get(), &before);
        std::signal(SIGXFSZ, SIG_IGN);
        const rlim_t limit = static_cast<rlim_t>(before.st_size) + 64;
        const rlimit shortOfStream = {limit, limit};
        setrlimit(RLIMIT_FSIZE, &shortOfStream);
        EXPECT_EQ(appendPythonStream(dump.get(), {}, twoThreads()), EFBIG);
        struct stat after {};
        fstat(dump.get(), &after);
        EXPECT_EQ(after.st_size, before.st_size);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.output;
}

}  // namespace
}  // namespace Zendrik::Stacks
