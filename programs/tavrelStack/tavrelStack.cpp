// tavrelStack PID|FILE.dmp: prints what all threads of a running process are doing, or were doing
// when a dump was made of it, native and in Python.

#include <sys/types.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "base/PrintableText.h"
#include "stacks/DumpCapture.h"
#include "stacks/LiveCapture.h"
#include "stacks/StackText.h"
#include "stacks/native/NativeFrames.h"

namespace {

using namespace Zendrik::Stacks;
using Zendrik::Base::printableText;

enum ExitStatus { Done = 0, CannotDo = 1, BadArguments = 2 };

// With debug information of many large libraries to read; whatever isn't known by then is missing.
constexpr auto framesLimit = std::chrono::seconds(30);

ExitStatus complain(const std::string& what) {
    std::cerr << "tavrelStack: " << printableText(what) << '\n';
    return CannotDo;
}

constexpr char helpText[] =
    "Usage: tavrelStack [OPTION] PID|FILE.dmp\n"
    "\n"
    "Prints the stacks of all threads, native and in Python, of a process that goes on running,\n"
    "or of the dump of one that has crashed.\n"
    "\n"
    "  --all-frames  also the frames of the interpreter itself\n"
    "  -h, --help    this text\n"
    "  --version     the version\n"
    "\n"
    "Exit status: 0 printed, 1 the process or file can't be read, 2 bad command line.\n";

struct Arguments {
    pid_t pid = 0;
    std::string file;  ///< of a dump; empty for a process
    bool allFrames = false;
};

ExitStatus refuse(const std::string& what) {
    complain(what + "; tavrelStack --help lists the options");
    return BadArguments;
}

ExitStatus answer(const char* text) {
    std::cout << text << std::flush;
    return std::cout ? Done : CannotDo;
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

/// A word of digits is a process, everything else a file: "./4711" is one, too.
ExitStatus printTarget(const std::string& target, bool allFrames) {
    Arguments arguments{0, {}, allFrames};
    if (target.find_first_not_of("0123456789") != std::string::npos) {
        arguments.file = target;
        return printDump(arguments);
    }
    std::from_chars(target.data(), target.data() + target.size(), arguments.pid);
    return arguments.pid > 0 ? printProcess(arguments)
                             : refuse("'" + target + "' is not the id of a process");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> targets;
    bool allFrames = false;
    bool takesOptions = true;
    for (const std::string& word : std::vector<std::string>(argv + 1, argv + argc)) {
        if (takesOptions && (word == "--help" || word == "-h")) {
            return answer(helpText);
        }
        if (takesOptions && word == "--version") {
            return answer("tavrelStack " TAVREL_VERSION_TEXT "\n");
        }
        if (takesOptions && word == "--all-frames") {
            allFrames = true;
        } else if (takesOptions && word == "--") {
            takesOptions = false;
        } else if (takesOptions && word.size() > 1 && word[0] == '-') {
            return refuse("unrecognised option '" + word + "'");
        } else {
            targets.push_back(word);
        }
    }
    return targets.size() == 1 ? printTarget(targets[0], allFrames)
                               : refuse("wants one argument, a process id or the file of a dump");
}
