#include "stacks/native/NativeFrames.h"

#include <boost/system/system_error.hpp>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "base/ExecutablePath.h"
#include "process/DescriptorIo.h"
#include "process/Subprocess.h"
#include "stacks/native/FrameLines.h"
#include "stacks/native/StackGuess.h"

namespace Zendrik::Stacks {

namespace {

using Plexum3::Base::ScopedFd;
using Plexum3::Base::Subprocess;
using Clock = std::chrono::steady_clock;

constexpr int cannotStart = 127;

struct Attempt {
    std::vector<ThreadFrames> threads;
    std::vector<std::string> notes;
    std::optional<std::size_t> lastFile;
    bool whole = false;
    bool started = false;
    bool lacksLibrary = false;
    bool overdue = false;
};

// A file without a name that holds the capture: a pipe would have to be filled while the lines of
// the program are read.
ScopedFd captureFile(const std::string& bytes) {
    ScopedFd file(memfd_create("capture", MFD_CLOEXEC));
    const bool isWhole = file.isOpen() && Plexum3::Base::writeAll(file.get(), bytes) &&
                         lseek(file.get(), 0, SEEK_SET) == 0;
    return isWhole ? std::move(file) : ScopedFd();
}

int millisecondsUntil(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

// False when the deadline comes before the end of the stream, or more than any process has to
// print.
bool readLines(int fd, Clock::time_point deadline, FrameLinesReader& reader) {
    constexpr std::size_t mostBytes = std::size_t{64} * 1024 * 1024;
    std::string rest;
    for (std::size_t total = 0; total < mostBytes && Clock::now() < deadline;) {
        pollfd entry{fd, POLLIN, 0};
        const int ready = poll(&entry, 1, millisecondsUntil(deadline));
        if (ready <= 0) {
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        char piece[16384];
        const ssize_t got = Plexum3::Base::readRetry(fd, piece, sizeof piece, nullptr);
        if (got <= 0) {
            return true;
        }
        total += static_cast<std::size_t>(got);
        rest.append(piece, static_cast<std::size_t>(got));
        std::size_t begin = 0;
        for (std::size_t end; (end = rest.find('\n', begin)) != rest.npos; begin = end + 1) {
            reader.take(std::string_view(rest).substr(begin, end - begin));
        }
        rest.erase(0, begin);
    }
    return false;
}

// A file system that doesn't answer may hold even a killed process: it is left alone then.
void end(const Subprocess& child) {
    constexpr int patienceMs = 1000;
    if (child.pid() <= 0) {
        return;
    }
    child.sendSignal(SIGKILL);  // does nothing to one that has ended
    const int ended = child.terminationFd();
    if (Plexum3::Base::pollAny(&ended, 1, patienceMs, nullptr) == ended) {
        child.wait();
    }
}

Attempt attempt(const StackCapture& capture, const std::string& bytes, const std::string& program,
                const std::set<std::size_t>& leftOut, Clock::time_point deadline) {
    const ScopedFd input = captureFile(bytes);
    const ScopedFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    ScopedFd readEnd;
    ScopedFd writeEnd;
    Plexum3::Base::createPipe(readEnd, writeEnd);
    Plexum3::Base::SubprocessOptions options;
    options.args = {program};
    for (const std::size_t file : leftOut) {
        options.args.push_back(std::to_string(file));
    }
    // Nothing that a user has set for the application changes what the loader finds.
    options.environment = {{"LC_ALL", "C"}};
    options.closeOtherDescriptors = true;
    options.stdinFd = input.get();
    options.stdoutFd = writeEnd.get();
    options.stderrFd = null.get();
    const Subprocess child = Subprocess::spawn(options);
    writeEnd.reset();

    FrameLinesReader reader(capture);
    Attempt result;
    result.overdue = !readLines(readEnd.get(), deadline, reader);
    end(child);
    result.lacksLibrary = child.exitCode() == cannotStart;
    result.started =
        child.state() != Plexum3::Base::SubprocessState::FailedToStart && !result.lacksLibrary;
    result.whole = reader.isWhole();
    result.lastFile = reader.lastFile();
    result.notes = reader.notes();
    result.threads = reader.takeThreads();
    return result;
}

// What stands in the modules' files, where there is nothing else to ask.
class FileCode {
  public:
    explicit FileCode(const StackCapture& capture) : capture_(capture) {}

    // Takes code to stand in the file as it stands in memory, which holds for most libraries.
    bool isReturnAddress(std::uint64_t address) {
        const std::optional<std::size_t> file = fileAt(capture_, address);
        if (file && descriptorOf(*file) < 0) {
            return isBehindLostCall(capture_, address);
        }
        const std::uint64_t offset = file ? address - capture_.files[*file].start : 0;
        char code[longestCall];
        return offset >= sizeof code &&
               pread(descriptorOf(*file), code, sizeof code,
                     static_cast<off_t>(offset - sizeof code)) == sizeof code &&
               endsWithCall({code, sizeof code});
    }

  private:
    int descriptorOf(std::size_t file) {
        const auto [entry, isNew] = open_.try_emplace(file);
        if (isNew) {
            entry->second.reset(
                open(capture_.files[file].path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        }
        return entry->second.get();
    }

    const StackCapture& capture_;
    std::map<std::size_t, ScopedFd> open_;
};

ThreadFrames framesWithoutProgram(const StackCapture& capture, const CapturedThread& thread,
                                  FileCode& code) {
    constexpr std::size_t mostFrames = 64;
    ThreadFrames result;
    result.tid = thread.tid;
    std::optional<Registers> registers = thread.registers;
    while (registers && result.frames.size() < mostFrames) {
        NativeFrame& frame = result.frames.emplace_back();
        frame.pc = (*registers)[instructionPointerRegister];
        frame.guessed = result.frames.size() > 1;
        setModule(frame, capture);
        registers = guessCaller(capture, *registers, [&code](std::uint64_t address) {
            return code.isReturnAddress(address);
        });
    }
    return result;
}

std::size_t countFrames(const std::vector<ThreadFrames>& threads) {
    std::size_t count = 0;
    for (const ThreadFrames& thread : threads) {
        count += thread.frames.size();
    }
    return count;
}

std::string startProblem(const std::string& program, bool lacksLibrary) {
    const std::string what = access(program.c_str(), X_OK) != 0
                                 ? program + " is missing or can't be executed."
                             : lacksLibrary ? "the library libdw.so.1 is missing; install libdw1 "
                                              "(Debian, Ubuntu) or elfutils-libs (Fedora, RHEL)."
                                            : program + " could not be started.";
    return "Functions have no names here: " + what;
}

std::string blame(const StackCapture& capture, const Attempt& failed) {
    const std::string what =
        failed.overdue ? " takes too long to read" : " can't be read, it is damaged";
    return failed.lastFile
               ? capture.files[*failed.lastFile].path + what + "; its functions have no names here."
           : failed.overdue ? "The stacks took too long to find."
                            : "The stacks could not all be found.";
}

NativeStacks runProgram(const StackCapture& capture, const std::string& program,
                        std::chrono::milliseconds limit) {
    constexpr int mostAttempts = 4;
    const Clock::time_point deadline = Clock::now() + limit;
    const std::string bytes = serialise(capture);
    std::set<std::size_t> leftOut;
    std::vector<std::string> blamed;
    Attempt best;
    for (int i = 0; i < mostAttempts; ++i) {
        // One that never comes back leaves time for another without the module that holds it up.
        const auto part = (deadline - Clock::now()) / (i + 1 < mostAttempts ? 2 : 1);
        Attempt next = attempt(capture, bytes, program, leftOut, Clock::now() + part);
        const bool more = next.whole || countFrames(next.threads) > countFrames(best.threads);
        if (!next.started) {
            blamed.push_back(startProblem(program, next.lacksLibrary));
        } else if (!next.whole) {
            blamed.push_back(blame(capture, next));
        }
        const std::optional<std::size_t> file = next.lastFile;
        const bool again = next.started && !next.whole && file && leftOut.insert(*file).second;
        if (more || i == 0) {
            best = std::move(next);
        }
        if (!again) {
            break;
        }
    }
    NativeStacks stacks{std::move(best.threads), std::move(blamed)};
    stacks.notes.insert(stacks.notes.end(), best.notes.begin(), best.notes.end());
    return stacks;
}

}  // namespace

std::string framesProgram() {
    constexpr char name[] = "tavrelFrames";
    try {
        const std::string path = Base::executablePath();
        return path.substr(0, path.rfind('/') + 1) + name;
    } catch (const std::logic_error&) {
        return name;  // to be missed by name
    }
}

NativeStacks findNativeFrames(const StackCapture& capture, const std::string& program,
                              std::chrono::milliseconds limit) {
    NativeStacks stacks;
    try {
        stacks = runProgram(capture, program, limit);
    } catch (const boost::system::system_error& error) {
        stacks.notes = {std::string("The stacks could not be found: ") + error.what() + "."};
    }
    FileCode code(capture);
    stacks.threads.resize(capture.threads.size());
    for (std::size_t i = 0; i < capture.threads.size(); ++i) {
        stacks.threads[i].tid = capture.threads[i].tid;
        if (stacks.threads[i].frames.empty()) {
            stacks.threads[i] = framesWithoutProgram(capture, capture.threads[i], code);
        }
    }
    return stacks;
}

}  // namespace Zendrik::Stacks
