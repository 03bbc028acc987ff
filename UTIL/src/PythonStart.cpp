#include <Python.h>  // first: it settles feature macros of the system's headers
#include <ZkConfiguration/Configuration.h>
#include <ZkLoggingHost/ZkLoggerGlue.h>
#include <ZkPlexumSDK/pystring.h>
#include <boost/filesystem/path.hpp>
#include <boost/thread/once.hpp>
#include <locale.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "UTIL/src/PythonReference.h"
#include "UTIL/src/TavrelBootstrap.h"
#include "base/TreeFolders.h"

namespace UTIL {

namespace {

using Plexum3::internal::pystring_v1::join;
using Plexum3::internal::pystring_v1::replace;
using Plexum3::ZkConfiguration::v1::Config;

// Where the tree keeps the interpreter and the Python modules; absolute. None is looked at: a
// folder that is missing is listed all the same.
struct TreeLayout {
    explicit TreeLayout(const std::string& root) : home(root + "/bin/python3.7") {
        for (const char* const folder : Zendrik::Base::pythonFolders) {
            folders.push_back(root + folder);
        }
    }

    std::string home;                                  // what Py_SetPythonHome is given
    std::string executable = home + "/bin/python3.7";  // for sys.executable
    std::string library = home + "/lib/python3.7";     // standard library
    // The standard library as an archive; needn't be there.
    std::string archive = home + "/lib/python" + replace("3.7", ".", "", /*count=*/-1) + ".zip";
    std::string sitePackages = library + "/site-packages";  // packages added to it
    std::vector<std::string> folders;  // the tree's part of sys.path, first searched first
};

// Has this thread decode text beyond ASCII as UTF-8 while it lives, if the system has C.UTF-8: in
// the "C" locale, which holds before the interpreter has started, its own search path would differ
// from the same folders as the tree lists them.
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

// Py_Initialize looks for a dozen modules in PYTHONPATH before it looks into its own home, along a
// path that is kept by the first call that asks for it: this one, while the variable begins with
// the tree's folders. Site code, its programs and the application see the user's own value.
void settleInterpreterSearchPath(const std::vector<std::string>& treeFolders) {
    constexpr char variable[] = "PYTHONPATH";
    const char* const value = std::getenv(variable);
    if (value == nullptr || *value == '\0') {
        return;
    }
    const std::string usersValue = value;
    const std::string inFront = join(":", treeFolders) + ":";
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

// The script's failure is filed under this place wherever it stands: logs are searched for it.
constexpr char scriptErrorSource[] = "UTIL/src/TavrelBootstrap";
constexpr int scriptErrorLine = 345;

struct PathLess {
    bool operator()(const boost::filesystem::path& left,
                    const boost::filesystem::path& right) const {
        return left.compare(right) < 0;
    }
};

// The bytes of the folder's name; none for an entry that is no text.
std::optional<std::string> folderName(PyObject* entry) {
    const PythonReference bytes(PyUnicode_AsEncodedString(entry, "utf-8", "surrogateescape"));
    if (!bytes) {
        PyErr_Clear();
        return std::nullopt;
    }
    return std::string(PyBytes_AS_STRING(bytes.get()),
                       static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
}

// Leaves the first of equal paths in the list and returns what the list then holds, but for entries
// that have no UTF-8 form.
std::vector<std::string> dropDuplicates(PyObject* searchPath) {
    std::set<boost::filesystem::path, PathLess> seen;
    std::vector<std::string> kept;
    Py_ssize_t index = 0;
    while (index < PyList_Size(searchPath)) {
        PyObject* const entry = PyList_GetItem(searchPath, index);
        const std::optional<std::string> name = folderName(entry);
        if (name && !seen.insert(*name).second) {
            static_cast<void>(PyList_SetSlice(searchPath, index, index + 1, nullptr));
            continue;
        }
        if (const char* text = name ? PyUnicode_AsUTF8(entry) : nullptr; text != nullptr) {
            kept.emplace_back(text);
        }
        PyErr_Clear();
        ++index;
    }
    return kept;
}

const ZkLoggingHost::ZkLoggerGlue& bootstrapLogger() {
    static const ZkLoggingHost::ZkLoggerGlue logger("BOOTSTRAP");
    return logger;
}

// A folder's name may hold bytes that aren't UTF-8. They stand in the text as in the interpreter's
// own paths, so that it finds the folder.
PythonReference pythonText(const std::string& path) {
    const auto sizeBytes = static_cast<Py_ssize_t>(path.size());
    return PythonReference(PyUnicode_DecodeUTF8(path.data(), sizeBytes, "surrogateescape"));
}

// An entry that can't be added is missing for want of memory, which the application's first line
// would meet as well.
std::vector<std::string> buildSearchPath(const std::vector<std::string>& headEntries,
                                         const std::vector<std::string>& postEntries) {
    const PythonReference sys(PyImport_ImportModule("sys"));
    const PythonReference searchPath(PyObject_GetAttrString(sys.get(), "path"));
    for (auto entry = headEntries.rbegin(); entry != headEntries.rend(); ++entry) {
        static_cast<void>(PyList_Insert(searchPath.get(), 0, pythonText(*entry).get()));
    }
    for (const std::string& entry : postEntries) {
        static_cast<void>(PyList_Append(searchPath.get(), pythonText(entry).get()));
    }
    return dropDuplicates(searchPath.get());
}

void publishSearchPath(const std::vector<std::string>& searchPath) {
    const std::string joined = join(":", searchPath);
    Config().set("TAVREL_INTERNAL_PYTHONPATH", joined);
    // The interpreter copied the environment when it started; only os.environ reaches its children.
    const std::string script =
        "import os\nos.environ['TAVREL_INTERNAL_PYTHONPATH'] = '" + joined + "'";
    if (PyRun_SimpleStringFlags(script.c_str(), nullptr) == -1 &&
        bootstrapLogger().errorEnabled()) {
        bootstrapLogger().error("Error setting TAVREL_INTERNAL_PYTHONPATH in `os.environ`.",
                                scriptErrorSource, scriptErrorLine);
    }
}

void startInTree(const std::string& root) {
    const TreeLayout layout(root);
    settlePaths(layout);
    std::vector<std::string> headEntries = configuredList("TAVREL_DEBUG_PRE_PYTHONPATH");
    headEntries.insert(headEntries.end(), layout.folders.begin(), layout.folders.end());
    Config().set("TAVREL_INTERNAL_PYTHON_SITEPACKAGES", layout.sitePackages);
    Py_Initialize();
    SetSysAttribute("executable", pythonText(layout.executable));
    // Until the launcher sets the real level.
    SetSysAttribute("tavrel_verbosityLevel", PythonReference(PyLong_FromLong(1)));
    publishSearchPath(buildSearchPath(headEntries, configuredList("TAVREL_POST_PYTHONPATH")));
}

}  // namespace

std::string FindMissingLibrary(const std::string& installRoot) {
    const TreeLayout layout(installRoot);
    const char* const pythonPath = std::getenv("PYTHONPATH");
    const auto exists = [](const std::string& path) { return access(path.c_str(), F_OK) == 0; };
    const bool isThere = exists(layout.library + "/os.pyc") || exists(layout.library + "/os.py") ||
                         exists(layout.archive) || (pythonPath != nullptr && *pythonPath != '\0');
    return isThere ? "" : layout.library;
}

void InitPython(std::string installRoot) {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [&installRoot] { startInTree(installRoot); });
}

}  // namespace UTIL
