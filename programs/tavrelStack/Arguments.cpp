#include "programs/tavrelStack/Arguments.h"

#include <boost/program_options.hpp>

#include <charconv>
#include <vector>

namespace StackTool {

namespace {

namespace options = boost::program_options;

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

/// A word of digits that is no process id that could be is left at 0.
void takeTarget(const std::string& target, Arguments& arguments) {
    if (target.find_first_not_of("0123456789") != std::string::npos) {
        arguments.file = target;
    } else {
        std::from_chars(target.data(), target.data() + target.size(), arguments.pid);
    }
}

ArgumentsOrText read(int argc, const char* const* argv) {
    options::options_description all;
    all.add_options()("help,h", "")("version", "")("all-frames", "")(
        "target", options::value<std::vector<std::string>>());
    options::positional_options_description positional;
    positional.add("target", -1);
    options::variables_map values;
    options::store(
        options::command_line_parser(argc, argv).options(all).positional(positional).run(), values);
    ArgumentsOrText parsed;
    if (values.count("help") > 0) {
        parsed.text = helpText;
    } else if (values.count("version") > 0) {
        parsed.text = "tavrelStack " TAVREL_VERSION_TEXT "\n";
    } else if (values.count("target") == 0 ||
               values["target"].as<std::vector<std::string>>().size() != 1) {
        parsed.error = "wants one argument, a process id or the file of a dump";
    } else {
        parsed.arguments.allFrames = values.count("all-frames") > 0;
        const std::string target = values["target"].as<std::vector<std::string>>().front();
        takeTarget(target, parsed.arguments);
        if (parsed.arguments.file.empty() && parsed.arguments.pid <= 0) {
            parsed.error = "'" + target + "' is not the id of a process";
        }
    }
    return parsed;
}

}  // namespace

ArgumentsOrText parseArguments(int argc, const char* const* argv) {
    try {
        return read(argc, argv);
    } catch (const options::error& wrong) {
        return {wrong.what(), {}, {}};
    }
}

}  // namespace StackTool
