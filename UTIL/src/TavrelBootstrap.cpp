#include <Python.h>  // first: it settles feature macros of the system's headers

#include "UTIL/src/TavrelBootstrap.h"

#include <ZkConfiguration/Configuration.h>
#include <ZkLoggingHost/ZkLoggerGlue.h>
#include <ZkPlexumSDK/pystring.h>
#include <locale.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem/detail/utf8_codecvt_facet.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/once.hpp>
#include <boost/thread/thread.hpp>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <locale>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

#include "UTIL/src/PythonPathDuringStart.h"
#include "UTIL/src/PythonReference.h"
#include "process/ProcessTable.h"

namespace UTIL {

namespace {

namespace fs = boost::filesystem;
using Plexum3::Base::getProcessCreationTime;
using Plexum3::internal::pystring_v1::join;
using Plexum3::internal::pystring_v1::replace;
using Plexum3::ZkConfiguration::v1::Config;

constexpr char executableLink[] = "/proc/self/exe";
constexpr char listSeparator[] = ":";

std::string findInstallRoot() {
    boost::system::error_code error;
    const fs::path executable = fs::read_symlink(executableLink, error);
    return error ? std::string() : executable.parent_path().parent_path().string();
}

// Boost builds its first path locale from the environment and throws if that names a locale which
// this machine doesn't have, although the result is thrown away. Such a user is served all the
// same. Where setenv has no memory, Boost's exception stands.
class NeutralLocaleSetting {
  public:
    NeutralLocaleSetting() {
        const char* value = std::getenv(variable);
        m_wasSet = value != nullptr;
        m_value = m_wasSet ? value : "";
        static_cast<void>(setenv(variable, "C", /*overwrite=*/1));
    }
    ~NeutralLocaleSetting() {
        if (m_wasSet) {
            static_cast<void>(setenv(variable, m_value.c_str(), /*overwrite=*/1));
        } else {
            static_cast<void>(unsetenv(variable));
        }
    }
    NeutralLocaleSetting(const NeutralLocaleSetting&) = delete;
    NeutralLocaleSetting& operator=(const NeutralLocaleSetting&) = delete;

  private:
    static constexpr char variable[] = "LC_ALL";
    bool m_wasSet;
    std::string m_value;
};

void installUtf8PathLocale() {
    const std::locale current;
    const std::locale utf8(current, new fs::detail::utf8_codecvt_facet(/*no_locale_manage=*/0));
    try {
        fs::path::imbue(utf8);
    } catch (const std::runtime_error&) {
        const NeutralLocaleSetting neutral;
        fs::path::imbue(utf8);
    }
}

void appendToConfiguredList(const std::string& key, const std::string& entry) {
    std::vector<std::string> list;
    SplitPathList(Config().get(key), list);
    list.push_back(entry);
    Config().set(key, join(listSeparator, list));
}

constexpr char controllingProcessVariable[] = "__TAVREL_CONTROLLING_PROCESS";

struct ProcessIdentity {
    std::int32_t pid = 0;
    boost::chrono::microseconds::rep creationTime = 0;  // microseconds since boot
};

bool parseProcessIdentity(const char* value, ProcessIdentity& identity) {
    std::istringstream stream(value);
    char separator = 0;
    stream >> identity.pid >> separator >> identity.creationTime;
    return !stream.fail();
}

// A thread that is created inside this scope never receives a signal of the process.
class AllSignalsBlocked {
  public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_previous);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

  private:
    sigset_t m_previous;
};

void watchInBackground(const ProcessIdentity& identity, const char* variableValue) {
    // Never freed: the thread quotes it, and the environment's own text is about to be replaced.
    const char* keptValue = (new std::string(variableValue))->c_str();
    const AllSignalsBlocked blocked;
    boost::thread(WatchControllingProcess, identity.pid,
                  boost::chrono::microseconds(identity.creationTime), controllingProcessVariable,
                  keptValue)
        .detach();
}

void obeyControllingProcess() {
    const char* value = std::getenv(controllingProcessVariable);
    if (value == nullptr) {
        return;
    }
    ProcessIdentity identity;
    if (!parseProcessIdentity(value, identity)) {
        std::cerr << "[BOOTSTRAP] ERROR: Failed to parse value of internal "
                  << controllingProcessVariable << " environment variable: \"" << value << '"'
                  << std::endl;
        return;
    }
    watchInBackground(identity, value);
}

void publishThisProcess() {
    boost::system::error_code error;
    const boost::chrono::microseconds creationTime = getProcessCreationTime(getpid(), &error);
    std::ostringstream identity;
    identity << getpid() << ';' << creationTime.count();
    if (error) {
        std::cerr << "[BOOTSTRAP] WARNING: Failed to get process creation time: \""
                  << error.message() << '"' << std::endl;
        return;
    }
    // Without memory for it the children watch this process's own controller.
    static_cast<void>(setenv(controllingProcessVariable, identity.str().c_str(), /*overwrite=*/1));
}

void reportUnwatchableProcess(std::int32_t pid, const boost::system::error_code& error,
                              const char* variableName, const char* variableValue) {
    std::cerr << "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with the"
              << " given PID " << pid << ": \"" << error.message() << '"' << std::endl;
    std::cerr << "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value of the"
              << " internal " << variableName << " environment variable: \"" << variableValue << '"'
              << std::endl;
}

constexpr char pythonVersion[] = "3.7";
constexpr char pythonFolder[] = "python3.7";
constexpr char pythonLibraryFolder[] = "python3.7/lib/python3.7";
// The script's failure is filed under this line wherever it stands: logs are searched for it.
constexpr int scriptErrorLine = 345;

// Before the interpreter has started, the process is still in the "C" locale, in which a folder
// name beyond ASCII would be decoded byte by byte. The interpreter's own search path would then
// differ from the same folders as the tree lists them. The text is never freed: by the end of the
// start PYTHONMALLOC may have replaced the allocator that it came from.
const wchar_t* decodeAsUtf8(const std::string& path) {
    const bool isAscii =
        std::all_of(path.begin(), path.end(), [](unsigned char byte) { return byte < 0x80; });
    const locale_t utf8 = isAscii ? locale_t() : newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t());
    const locale_t previous = utf8 == locale_t() ? locale_t() : uselocale(utf8);
    const wchar_t* wide = Py_DecodeLocale(path.c_str(), nullptr);
    if (utf8 != locale_t()) {
        uselocale(previous);
        freelocale(utf8);
    }
    return wide;
}

void splitConfiguredList(const std::string& key, std::vector<std::string>& list) {
    if (Config().has(key)) {
        SplitPathList(Config().get(key), list);
    }
}

std::vector<std::string> treeFolders(const std::string& root, const std::string& home,
                                     const std::string& sitePackages) {
    const std::string binFolder = root + "/bin/";
    const std::string library = binFolder + pythonLibraryFolder;
    const std::string versionTag = replace(pythonVersion, ".", "", /*count=*/-1);
    return {home,
            binFolder + "python3.7/lib" + "/python" + versionTag + ".zip",
            library,
            library + "/lib-dynload",
            sitePackages,
            root + "/bin",
            root + "/bin/python",
            root + "/bin/python/python_tavrel",
            root + "/bin/python/Main",
            root + "/plugins/Resources/Core/Plugins",
            root};
}

// A folder's name may hold bytes that aren't UTF-8. They stand in the text as in the interpreter's
// own paths, so that it finds the folder.
PythonReference pythonText(const std::string& path) {
    const auto sizeBytes = static_cast<Py_ssize_t>(path.size());
    return PythonReference(PyUnicode_DecodeUTF8(path.data(), sizeBytes, "surrogateescape"));
}

// Here and below: what fills sys fails only for want of memory, which the application's first line
// would meet as well.
void setSysAttribute(const char* name, const PythonReference& value) {
    static_cast<void>(PySys_SetObject(name, value.get()));
}

struct PathLess {
    bool operator()(const fs::path& left, const fs::path& right) const {
        return left.compare(right) < 0;
    }
};

// Leaves the first of equal paths in the list. Returns what the list then holds, as far as it can
// be told in UTF-8: an entry that can't stays in the list but can't be published.
std::vector<std::string> dropDuplicates(PyObject* searchPath) {
    std::set<fs::path, PathLess> seen;
    std::vector<std::string> kept;
    Py_ssize_t index = 0;
    while (index < PyList_Size(searchPath)) {
        const char* entry = PyUnicode_AsUTF8(PyList_GetItem(searchPath, index));
        if (entry == nullptr) {
            PyErr_Clear();
            ++index;
        } else if (!seen.insert(entry).second) {
            static_cast<void>(PyList_SetSlice(searchPath, index, index + 1, nullptr));
        } else {
            kept.emplace_back(entry);
            ++index;
        }
    }
    return kept;
}

std::vector<std::string> buildSearchPath(const std::vector<std::string>& headEntries) {
    const PythonReference sys(PyImport_ImportModule("sys"));
    const PythonReference searchPath(PyObject_GetAttrString(sys.get(), "path"));
    for (auto entry = headEntries.rbegin(); entry != headEntries.rend(); ++entry) {
        static_cast<void>(PyList_Insert(searchPath.get(), 0, pythonText(*entry).get()));
    }
    std::vector<std::string> postEntries;
    splitConfiguredList("TAVREL_POST_PYTHONPATH", postEntries);
    for (const std::string& entry : postEntries) {
        static_cast<void>(PyList_Append(searchPath.get(), pythonText(entry).get()));
    }
    return dropDuplicates(searchPath.get());
}

const ZkLoggingHost::ZkLoggerGlue& bootstrapLogger() {
    static const ZkLoggingHost::ZkLoggerGlue logger("BOOTSTRAP");
    return logger;
}

void publishSearchPath(const std::string& searchPath) {
    Config().set("TAVREL_INTERNAL_PYTHONPATH", searchPath);
    // The interpreter copied the environment when it started; only os.environ reaches its children.
    const std::string script =
        "import os\nos.environ['TAVREL_INTERNAL_PYTHONPATH'] = '" + searchPath + "'";
    if (PyRun_SimpleStringFlags(script.c_str(), nullptr) == -1 &&
        bootstrapLogger().errorEnabled()) {
        bootstrapLogger().error("Error setting TAVREL_INTERNAL_PYTHONPATH in `os.environ`.",
                                "UTIL/src/TavrelBootstrap", scriptErrorLine);
    }
}

void startInterpreter(const std::string& root) {
    const std::string home = root + "/bin/" + pythonFolder;
    const std::string sitePackages = root + "/bin/" + pythonLibraryFolder + "/site-packages";
    const wchar_t* wideHome = decodeAsUtf8(home);
    Config().set("TAVREL_INTERNAL_PYTHONHOME", home);
    Py_SetPythonHome(wideHome);
    std::vector<std::string> headEntries;
    splitConfiguredList("TAVREL_DEBUG_PRE_PYTHONPATH", headEntries);
    const std::vector<std::string> ownFolders = treeFolders(root, home, sitePackages);
    headEntries.insert(headEntries.end(), ownFolders.begin(), ownFolders.end());
    Config().set("TAVREL_INTERNAL_PYTHON_SITEPACKAGES", sitePackages);
    const PythonPathDuringStart pythonPath(ownFolders);
    Py_Initialize();
    pythonPath.restore();
    setSysAttribute("executable", pythonText(home + "/bin/python" + pythonVersion));
    // Until the launcher sets the real level.
    setSysAttribute("tavrel_verbosityLevel", PythonReference(PyLong_FromLong(1)));
    publishSearchPath(join(listSeparator, buildSearchPath(headEntries)));
}

}  // namespace

std::string GetInstallRoot() {
    static const std::string installRoot = findInstallRoot();
    return installRoot;
}

std::string GetExecutablePath() {
    try {
        return fs::canonical(executableLink, fs::current_path()).string();
    } catch (const fs::filesystem_error&) {
        throw std::runtime_error("Unable to retrieve executable path");
    }
}

std::string GetExecutableName() {
    return fs::path(GetExecutablePath()).filename().string();
}

void InitPathEncoding() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, installUtf8PathLocale);
}

void InitPlatform(const std::string& /*installRoot*/) {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [] {});
}

void StartControllingProcessWatchdog() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [] {
        obeyControllingProcess();
        publishThisProcess();
    });
}

void WatchControllingProcess(std::int32_t pid, boost::chrono::microseconds expectedCreationTime,
                             const char* variableName, const char* variableValue) {
    constexpr boost::chrono::milliseconds period(500);
    boost::system::error_code error;
    auto creationTime = getProcessCreationTime(pid, &error);
    while (!error && creationTime == expectedCreationTime) {
        boost::this_thread::sleep_for(period);
        creationTime = getProcessCreationTime(pid, &error);
    }
    if (!error) {
        _exit(1);
    }
    reportUnwatchableProcess(pid, error, variableName, variableValue);
    if (error == boost::system::errc::no_such_process) {
        std::cerr << "[BOOTSTRAP] WARNING: Parent process not found: PID " << pid
                  << ". Terminating this `" << GetExecutableName() << "` process (PID " << getpid()
                  << ")..." << std::endl;
        _exit(1);
    }
}

void InitUsdPaths() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [] {
        const std::string usdFolder = GetInstallRoot() + "/plugins/Resources/Usd";
        appendToConfiguredList("TAVREL_POST_PYTHONPATH", usdFolder + "/lib/python");
        appendToConfiguredList("ZKPXR_PLUGINPATH", usdFolder + "/lib/resources");
    });
}

void SplitPathList(const std::string& value, std::vector<std::string>& list) {
    std::istringstream stream(value);
    for (std::string piece; std::getline(stream, piece, listSeparator[0]);) {
        list.push_back(piece);
    }
}

void InitPython(std::string installRoot) {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [&installRoot] { startInterpreter(installRoot); });
}

}  // namespace UTIL
