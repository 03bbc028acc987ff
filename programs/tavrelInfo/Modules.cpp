#include "programs/tavrelInfo/Modules.h"

#include <boost/algorithm/string.hpp>
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

#include "base/TreeFolders.h"

namespace Info {

namespace {

constexpr char extensionSuffix[] = ".so";

bool isFile(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

void appendList(const char* variable, std::vector<std::string>& folders) {
    const char* const value = std::getenv(variable);
    if (value != nullptr && *value != '\0') {
        std::vector<std::string> list;
        boost::split(list, value, boost::is_any_of(":"));
        folders.insert(folders.end(), list.begin(), list.end());
    }
}

// sys.path as a run in this environment has it.
std::vector<std::string> searchPath(const std::string& root) {
    std::vector<std::string> folders;
    appendList("TAVREL_DEBUG_PRE_PYTHONPATH", folders);
    for (const char* const folder : Zendrik::Base::pythonFolders) {
        folders.push_back(root + folder);
    }
    appendList("PYTHONPATH", folders);
    appendList("TAVREL_POST_PYTHONPATH", folders);
    return folders;
}

std::string moduleIn(const std::string& folder, const std::string& name) {
    static const char* const endings[] = {
        "/__init__.py", "/__init__.pyc", ".cpython-37m-x86_64-linux-gnu.so",
        ".abi3.so",     extensionSuffix, ".py",
        ".pyc"};
    for (const char* const ending : endings) {
        std::string path = folder;
        if (isFile(path.append("/").append(name).append(ending))) {
            return path;
        }
    }
    return "";
}

}  // namespace

std::vector<NeededModule> neededModules() {
    std::vector<NeededModule> modules;
    std::istringstream lines(entryScriptNeeds);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        boost::split(fields, line, boost::is_any_of("\t"));
        NeededModule module{fields[0], fields[1], fields[2] == "library", {}};
        if (!fields[3].empty()) {
            boost::split(module.uses, fields[3], boost::is_any_of(" "));
        }
        modules.push_back(module);
    }
    return modules;
}

std::string findModule(const std::string& root, const std::string& dottedName) {
    const std::string path = boost::replace_all_copy(dottedName, ".", "/");
    for (const std::string& folder : searchPath(root)) {
        if (std::string file = moduleIn(folder, path); !file.empty()) {
            return file;
        }
    }
    return "";
}

bool isExtension(const std::string& file) {
    return boost::ends_with(file, extensionSuffix);
}

}  // namespace Info
