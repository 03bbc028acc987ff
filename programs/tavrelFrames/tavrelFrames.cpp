// Finds the native frames of the threads of a capture:
//
//     tavrelFrames [FILE...] <CAPTURE >LINES
//
// CAPTURE is what Stacks::serialise makes, LINES what Stacks::FrameLinesReader takes. FILE is the
// index of a file of the capture that must not be opened: it has felled this program before.
//
// A program of its own for what may come over it: modules and debug information are read by a
// library that may assert or crash on damaged ones. The crash reporter and tavrelStack start it.

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <string>

#include "process/ProcFiles.h"
#include "programs/tavrelFrames/CallFrames.h"
#include "programs/tavrelFrames/FrameNames.h"
#include "stacks/native/FrameLines.h"

namespace {

using namespace Zendrik;

constexpr int wrongUsage = 2;

void limitTo(int resource, rlim_t most) {
    rlimit limit{};
    if (getrlimit(resource, &limit) == 0 &&
        (limit.rlim_max == RLIM_INFINITY || limit.rlim_max > most)) {
        limit = {most, most};
        static_cast<void>(setrlimit(resource, &limit));  // goes on without
    }
}

// A damaged module may cost this process its life, and no other memory, time or a core file.
void bound() {
    constexpr rlim_t mostSeconds = 60;
#ifndef TAVREL_SANITIZED  // their shadow of the address space takes terabytes
    constexpr rlim_t mostMemory = rlim_t{2} * 1024 * 1024 * 1024;
    limitTo(RLIMIT_DATA, mostMemory);
#endif
    limitTo(RLIMIT_CPU, mostSeconds);
    limitTo(RLIMIT_CORE, 0);
    static_cast<void>(prctl(PR_SET_PDEATHSIG, SIGKILL));  // fails for no signal that there is
    static_cast<void>(unsetenv("DEBUGINFOD_URLS"));       // nothing is fetched for a report
}

std::set<std::size_t> filesLeftOut(int argc, char** argv) {
    std::set<std::size_t> files;
    for (int i = 1; i < argc; ++i) {
        std::size_t file = 0;
        const char* const end = argv[i] + std::strlen(argv[i]);
        if (std::from_chars(argv[i], end, file).ptr == end) {
            files.insert(file);
        }
    }
    return files;
}

void tellThread(const Stacks::CapturedThread& thread, Frames::CallFrames& frames,
                Frames::FrameNames& names) {
    const bool whole = frames.walk(thread, [&names](const Frames::CallFrame& call) {
        for (Stacks::NativeFrame frame : names.at(call.pc, call.isCall)) {
            frame.pc = call.pc;
            frame.guessed = call.guessed;
            Frames::say(Stacks::frameLine(frame));
        }
    });
    Frames::say(Stacks::threadEndLine(whole));
}

}  // namespace

int main(int argc, char** argv) {
    bound();
    const std::optional<Stacks::StackCapture> capture =
        Stacks::parse(Plexum3::Base::readToEnd(STDIN_FILENO));
    if (!capture) {
        static_cast<void>(
            std::fputs("tavrelFrames: no capture on standard input; the crash reporter "
                       "and tavrelStack start this program\n",
                       stderr));
        return wrongUsage;
    }
    Frames::ModuleFiles files(*capture, filesLeftOut(argc, argv));
    Frames::CallFrames frames(*capture, files);
    Frames::FrameNames names(files);
    for (const Stacks::CapturedThread& thread : capture->threads) {
        tellThread(thread, frames, names);
    }
    Frames::say(Stacks::endLine());
    // What the library holds goes with the process, faster.
    _exit(EXIT_SUCCESS);
}
