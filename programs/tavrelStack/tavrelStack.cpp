// tavrelStack PID|FILE.dmp: prints what all threads of a running process are doing, or were doing
// when a dump was made of it, native and in Python.

#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "base/PrintableText.h"
#include "programs/tavrelStack/Arguments.h"
#include "stacks/DumpCapture.h"
#include "stacks/LiveCapture.h"
#include "stacks/StackText.h"
#include "stacks/native/NativeFrames.h"

namespace {

using namespace Zendrik::Stacks;
using StackTool::Arguments;
using Zendrik::Base::printableText;

enum ExitStatus { Done = 0, CannotDo = 1, BadArguments = 2 };

// With debug information of many large libraries to read; whatever isn't known by then is missing.
constexpr auto framesLimit = std::chrono::seconds(30);

ExitStatus complain(const std::string& what) {
    std::cerr << "tavrelStack: " << printableText(what) << '\n';
    return CannotDo;
}

/// The heading, all stacks, and a sentence for everything that is missing.
ExitStatus print(const std::string& heading, const StackCapture& capture,
                 const PythonStacks& python, std::vector<std::string> notes, bool allFrames) {
    const NativeStacks native = findNativeFrames(capture, framesProgram(), framesLimit);
    std::cout << heading << '\n' << StackText{capture, python, native, allFrames}.write();
    if (!python.note.empty()) {
        notes.push_back("What Python does is not complete: " + python.note + ".");
    }
    for (const std::string& note : notes) {
        std::cout << '\n' << printableText(note) << '\n';
    }
    std::cout.flush();
    return std::cout ? Done : complain("the output could not be written");
}

ExitStatus printProcess(const Arguments& arguments) {
    const LiveCapture live = captureProcess(arguments.pid);
    const std::string process = "process " + std::to_string(arguments.pid);
    if (!live.failure.empty()) {
        return complain(process + " " + live.failure);
    }
    char held[64];
    std::snprintf(held, sizeof held, ", held for %.1f ms",
                  std::chrono::duration<double, std::milli>(live.held).count());
    return print("Process " + std::to_string(live.capture.pid) + held, live.capture, live.python,
                 live.notes, arguments.allFrames);
}

std::string headingOf(const StackCapture& capture) {
    std::string heading = "Process " + std::to_string(capture.pid);
    if (capture.signal.number > 0) {
        heading += ", ended by signal " + std::to_string(capture.signal.number) + ", " +
                   strsignal(capture.signal.number);
    }
    return heading;
}

ExitStatus printDump(const Arguments& arguments) {
    std::ifstream file(arguments.file, std::ios::binary);
    if (!file) {
        return complain("'" + arguments.file + "' can't be opened: " + std::strerror(errno));
    }
    const auto contents = readDump(file);
    if (!contents) {
        return complain("'" + arguments.file + "' is no minidump");
    }
    if (contents->capture.threads.empty()) {
        return complain("'" + arguments.file + "' holds no thread: it is not whole");
    }
    return print(headingOf(contents->capture), contents->capture, contents->python, {},
                 arguments.allFrames);
}

}  // namespace

int main(int argc, char** argv) {
    const StackTool::ArgumentsOrText parsed = StackTool::parseArguments(argc, argv);
    if (!parsed.error.empty()) {
        complain(parsed.error + "; tavrelStack --help lists the options");
        return BadArguments;
    }
    if (!parsed.text.empty()) {
        std::cout << parsed.text << std::flush;
        return std::cout ? Done : CannotDo;
    }
    return parsed.arguments.file.empty() ? printProcess(parsed.arguments)
                                         : printDump(parsed.arguments);
}
