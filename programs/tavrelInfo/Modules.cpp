#include "programs/tavrelInfo/Modules.h"

#include <boost/algorithm/string.hpp>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "base/TreeFolders.h"

namespace Info {

namespace {

constexpr char extensionSuffix[] = ".so";

constexpr const char* endings[] = {
    "/__init__.py", "/__init__.pyc", ".cpython-37m-x86_64-linux-gnu.so",
    ".abi3.so",     extensionSuffix, ".py",
    ".pyc"};

// sys.path as a run in this environment has it.
std::vector<std::string> searchPath(const std::string& root) {
    std::vector<std::string> folders;
    const auto append = [&folders](const char* variable) {
        const char* const value = std::getenv(variable);
        std::istringstream list(value == nullptr ? "" : value);
        for (std::string folder; std::getline(list, folder, ':');) {
            folders.push_back(folder);
        }
    };
    append("TAVREL_DEBUG_PRE_PYTHONPATH");
    for (const char* const folder : Zendrik::Base::pythonFolders) {
        folders.push_back(root + folder);
    }
    append("PYTHONPATH");
    append("TAVREL_POST_PYTHONPATH");
    return folders;
}

}  // namespace

std::string findModule(const std::string& root, const std::string& dottedName) {
    const std::string path = boost::replace_all_copy(dottedName, ".", "/");
    for (const std::string& folder : searchPath(root)) {
        for (const char* const ending : endings) {
            std::string file = std::string(folder).append("/").append(path).append(ending);
            std::error_code error;
            if (std::filesystem::is_regular_file(file, error)) {
                return file;
            }
        }
    }
    return "";
}

bool isExtension(const std::string& file) {
    return boost::ends_with(file, extensionSuffix);
}

}  // namespace Info
