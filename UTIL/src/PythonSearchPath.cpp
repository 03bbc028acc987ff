#include "UTIL/src/PythonSearchPath.h"

#include <Python.h>  // first: it settles feature macros of the system's headers
#include <ZkConfiguration/Configuration.h>
#include <ZkLoggingHost/ZkLoggerGlue.h>
#include <ZkPlexumSDK/pystring.h>
#include <boost/filesystem/path.hpp>

#include <optional>
#include <set>

namespace UTIL {

namespace {

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

}  // namespace

PythonReference PythonText(const std::string& path) {
    const auto sizeBytes = static_cast<Py_ssize_t>(path.size());
    return PythonReference(PyUnicode_DecodeUTF8(path.data(), sizeBytes, "surrogateescape"));
}

// An entry that can't be added is missing for want of memory, which the application's first line
// would meet as well.
std::vector<std::string> BuildSearchPath(const std::vector<std::string>& headEntries,
                                         const std::vector<std::string>& postEntries) {
    const PythonReference sys(PyImport_ImportModule("sys"));
    const PythonReference searchPath(PyObject_GetAttrString(sys.get(), "path"));
    for (auto entry = headEntries.rbegin(); entry != headEntries.rend(); ++entry) {
        static_cast<void>(PyList_Insert(searchPath.get(), 0, PythonText(*entry).get()));
    }
    for (const std::string& entry : postEntries) {
        static_cast<void>(PyList_Append(searchPath.get(), PythonText(entry).get()));
    }
    return dropDuplicates(searchPath.get());
}

void PublishSearchPath(const std::vector<std::string>& searchPath) {
    const std::string joined = Plexum3::internal::pystring_v1::join(":", searchPath);
    Plexum3::ZkConfiguration::v1::Config().set("TAVREL_INTERNAL_PYTHONPATH", joined);
    // The interpreter copied the environment when it started; only os.environ reaches its children.
    const std::string script =
        "import os\nos.environ['TAVREL_INTERNAL_PYTHONPATH'] = '" + joined + "'";
    if (PyRun_SimpleStringFlags(script.c_str(), nullptr) == -1 &&
        bootstrapLogger().errorEnabled()) {
        bootstrapLogger().error("Error setting TAVREL_INTERNAL_PYTHONPATH in `os.environ`.",
                                scriptErrorSource, scriptErrorLine);
    }
}

}  // namespace UTIL
