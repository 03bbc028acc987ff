#include <Python.h>  // first: it settles feature macros of the system's headers
#include <ZkConfiguration/Configuration.h>
#include <ZkPlexumSDK/pystring.h>
#include <boost/thread/once.hpp>
#include <locale.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "UTIL/src/PythonReference.h"
#include "UTIL/src/PythonSearchPath.h"
#include "UTIL/src/TavrelBootstrap.h"
#include "base/TreeFolders.h"

namespace UTIL {

namespace {

using Plexum3::ZkConfiguration::v1::Config;

constexpr char version[] = "3.7";

// Where the tree keeps the interpreter and the Python modules; absolute. None is looked at: a
// folder that is missing is listed all the same.
struct TreeLayout {
    explicit TreeLayout(const std::string& root);

    std::string home;                  // what Py_SetPythonHome is given
    std::string executable;            // the interpreter's program, for sys.executable
    std::string library;               // standard library
    std::string archive;               // the same as an archive; needn't be there
    std::string sitePackages;          // folder of the packages added to the interpreter
    std::vector<std::string> folders;  // the tree's part of sys.path, first searched first
};

TreeLayout::TreeLayout(const std::string& root) {
    const std::string binFolder = root + "/bin/";
    library = binFolder + "python3.7/lib/python3.7";
    const std::string versionTag =
        Plexum3::internal::pystring_v1::replace(version, ".", "", /*count=*/-1);
    archive = binFolder + "python3.7/lib/python" + versionTag + ".zip";
    home = binFolder + "python3.7";
    executable = home + "/bin/python" + version;
    sitePackages = library + "/site-packages";
    for (const char* const folder : Zendrik::Base::pythonFolders) {
        folders.push_back(root + folder);
    }
}

// Has this thread decode text beyond ASCII as UTF-8 while it lives. Before the interpreter has
// started, the process is still in the "C" locale, in which a folder name beyond ASCII would be
// decoded byte by byte: the interpreter's own search path would then differ from the same folders
// as the tree lists them. Where the system has no C.UTF-8, or the text is ASCII, nothing changes.
class TextLocale {
  public:
    explicit TextLocale(const std::string& allThatIsDecoded) {
        const auto isAscii = [](unsigned char byte) { return byte < 0x80; };
        if (!std::all_of(allThatIsDecoded.begin(), allThatIsDecoded.end(), isAscii)) {
            utf8_ = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t());
        }
        if (utf8_ != locale_t()) {
            previous_ = uselocale(utf8_);
        }
    }
    ~TextLocale() {
        if (utf8_ != locale_t()) {
            uselocale(previous_);
            freelocale(utf8_);
        }
    }
    TextLocale(const TextLocale&) = delete;
    TextLocale& operator=(const TextLocale&) = delete;

  private:
    locale_t utf8_ = locale_t();
    locale_t previous_ = locale_t();
};

// Py_Initialize imports a dozen modules of the standard library (encodings, io, os, site...) and
// looks for them in PYTHONPATH before it looks into its own home. The path that it searches is
// worked out and kept by the first call that asks for it, which is made here while the variable
// begins with the tree's folders. The user's value is back when this returns, so that site code,
// the programs that it starts and the application see nothing else.
void settleInterpreterSearchPath(const std::vector<std::string>& treeFolders) {
    constexpr char variable[] = "PYTHONPATH";
    const char* const value = std::getenv(variable);
    if (value == nullptr || *value == '\0') {
        return;
    }
    const std::string usersValue = value;
    const std::string inFront = Plexum3::internal::pystring_v1::join(":", treeFolders) + ":";
    // Without memory for it the interpreter starts with the user's entries in front.
    if (setenv(variable, (inFront + usersValue).c_str(), /*overwrite=*/1) == 0) {
        static_cast<void>(Py_GetPath());
        static_cast<void>(setenv(variable, usersValue.c_str(), /*overwrite=*/1));
    }
}

std::vector<std::string> configuredList(const std::string& key) {
    std::vector<std::string> list;
    if (Config().has(key)) {
        SplitPathList(Config().get(key), list);
    }
    return list;
}

// Home and search path of the interpreter, before it starts.
void settlePaths(const TreeLayout& layout) {
    const char* const pythonPath = std::getenv("PYTHONPATH");
    const TextLocale locale(layout.home + (pythonPath != nullptr ? pythonPath : ""));
    // Never freed: by the end of the start PYTHONMALLOC may have replaced the allocator that the
    // text came from.
    const wchar_t* const wideHome = Py_DecodeLocale(layout.home.c_str(), nullptr);
    Config().set("TAVREL_INTERNAL_PYTHONHOME", layout.home);
    Py_SetPythonHome(wideHome);
    settleInterpreterSearchPath(layout.folders);
}

void startInTree(const std::string& root) {
    const TreeLayout layout(root);
    settlePaths(layout);
    std::vector<std::string> headEntries = configuredList("TAVREL_DEBUG_PRE_PYTHONPATH");
    headEntries.insert(headEntries.end(), layout.folders.begin(), layout.folders.end());
    Config().set("TAVREL_INTERNAL_PYTHON_SITEPACKAGES", layout.sitePackages);
    Py_Initialize();
    SetSysAttribute("executable", PythonText(layout.executable));
    // Until the launcher sets the real level.
    SetSysAttribute("tavrel_verbosityLevel", PythonReference(PyLong_FromLong(1)));
    PublishSearchPath(BuildSearchPath(headEntries, configuredList("TAVREL_POST_PYTHONPATH")));
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

}  // namespace

std::string FindMissingLibrary(const std::string& installRoot) {
    const TreeLayout layout(installRoot);
    const char* const pythonPath = std::getenv("PYTHONPATH");
    const bool isThere = exists(layout.library + "/os.pyc") || exists(layout.library + "/os.py") ||
                         exists(layout.archive) || (pythonPath != nullptr && *pythonPath != '\0');
    return isThere ? "" : layout.library;
}

void InitPython(std::string installRoot) {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [&installRoot] { startInTree(installRoot); });
}

}  // namespace UTIL
