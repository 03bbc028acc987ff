#include "programs/tavrelCleanup/Arguments.h"

#include <unistd.h>

#include <charconv>

#include "programs/tavrelCleanup/Report.h"

namespace Cleanup {
namespace {

struct SplitPath {
    std::string parent;
    std::string name;
};

// Nothing for a path without a name of its own at the end.
std::optional<SplitPath> splitPath(std::string_view path) {
    const std::size_t last = path.find_last_not_of('/');
    if (last == std::string_view::npos) {
        return std::nullopt;
    }
    path = path.substr(0, last + 1);
    const std::size_t separator = path.rfind('/');
    const std::string name(path.substr(separator + 1));
    if (name == "." || name == "..") {
        return std::nullopt;
    }
    if (separator == std::string_view::npos) {
        return SplitPath{".", name};
    }
    return SplitPath{separator == 0 ? "/" : std::string(path.substr(0, separator)), name};
}

}  // namespace

pid_t parsePid(std::string_view text) {
    pid_t pid = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, pid);
    return error == std::errc() && stop == end && pid > 0 ? pid : 0;
}

std::optional<Arguments> parseArguments(int argc, const char* const* argv) {
    if (argc != 3) {
        report("wants two arguments, the id of the process to wait for and the folder to delete");
        return std::nullopt;
    }
    Arguments arguments;
    arguments.pid = parsePid(argv[1]);
    arguments.path = argv[2];
    if (arguments.pid == 0 || arguments.pid == getpid()) {
        report("'%s' is not the decimal id of another process", argv[1]);
        return std::nullopt;
    }
    const std::optional<SplitPath> split = splitPath(arguments.path);
    if (!split) {
        report("refuses '%s': the path must end in the name of the folder to delete", argv[2]);
        return std::nullopt;
    }
    arguments.parent = split->parent;
    arguments.name = split->name;
    return arguments;
}

}  // namespace Cleanup
