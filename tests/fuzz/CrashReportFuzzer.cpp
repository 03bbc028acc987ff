#include <cstdint>
#include <sstream>
#include <string>

#include "programs/CrashReporterTavrel/report/CrashReport.h"
#include "stacks/DumpCapture.h"
#include "stacks/native/FrameLines.h"

// A dump may be damaged, what tells the native frames may have gone mad: a report comes of it, or
// none, and nothing else happens. The input is a dump, then, behind a line of its own, frames.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Zendrik;
    const std::string input(reinterpret_cast<const char*>(data), size);
    constexpr char border[] = "\nframes\n";
    const std::size_t dumpSize = std::min(input.find(border), size);
    std::istringstream dump(input.substr(0, dumpSize));
    const Stacks::DumpContents contents = Stacks::readDump(dump).value_or(Stacks::DumpContents());

    Stacks::FrameLinesReader reader(contents.capture);
    std::istringstream lines(input.substr(dumpSize));
    for (std::string line; std::getline(lines, line);) {
        reader.take(line);
    }
    const Stacks::NativeStacks native{reader.takeThreads(), reader.notes()};
    const Reporter::ProcessSnapshot process;
    const Reporter::CrashFacts facts{process, "", "dump", 0, ""};
    const std::string text =
        size % 2 == 0 ? Reporter::draftText(facts, contents.capture, contents.python)
                      : Reporter::reportText(facts, contents.capture, contents.python, native);
    for (const char c : text) {
        if ((c >= 0 && c < ' ' && c != '\n') || c == '\x7f') {
            __builtin_trap();
        }
    }
    if (const auto capture = Stacks::parse(input); capture && serialise(*capture) != input) {
        __builtin_trap();
    }
    return 0;
}
