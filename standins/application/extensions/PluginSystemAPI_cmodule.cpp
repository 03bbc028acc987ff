// Finds plug-ins by their manifests: files *.plugin of lines "key = value" in the tree's folders
// plugins/Resources/*/Plugins.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ZkConfiguration/Configuration.h"
#include "standins/application/extensions/ModuleOfFunctions.h"

namespace {

namespace fs = std::filesystem;
using Manifest = std::vector<std::pair<std::string, std::string>>;

// Sorted, so that the order of plug-ins is the same on every machine. A folder that can't be read
// has no entries.
std::vector<fs::path> entriesOf(const fs::path& folder) {
    std::vector<fs::path> entries;
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        entries.push_back(entry->path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::vector<fs::path> manifestFiles() {
    const std::string root = Plexum3::ZkConfiguration::v1::Config().get("TAVREL_ROOT");
    std::vector<fs::path> files;
    for (const fs::path& resources : entriesOf(fs::path(root) / "plugins" / "Resources")) {
        for (const fs::path& file : entriesOf(resources / "Plugins")) {
            if (file.extension() == ".plugin") {
                files.push_back(file);
            }
        }
    }
    return files;
}

std::string trimmed(const std::string& text) {
    constexpr const char* blanks = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos
               ? std::string()
               : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string valueOf(const Manifest& manifest, const std::string& key) {
    const auto found = std::find_if(manifest.begin(), manifest.end(),
                                    [&](const auto& entry) { return entry.first == key; });
    return found == manifest.end() ? std::string() : found->second;
}

// Nothing for a file that can't be read to its end.
std::optional<Manifest> readManifest(const fs::path& file) {
    Manifest manifest;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);) {
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos && trimmed(line).front() != '#') {
            manifest.emplace_back(trimmed(line.substr(0, equals)),
                                  trimmed(line.substr(equals + 1)));
        }
    }
    if (!stream.eof()) {
        return std::nullopt;
    }
    manifest.emplace_back("file", file.string());
    return manifest;
}

PyObject* asDictionary(const Manifest& manifest) {
    PyObject* const dictionary = PyDict_New();
    for (const auto& [key, value] : manifest) {
        PyObject* const text = PyUnicode_DecodeFSDefault(value.c_str());
        PyObject* const name = PyUnicode_DecodeFSDefault(key.c_str());
        const bool added = dictionary != nullptr && text != nullptr && name != nullptr &&
                           PyDict_SetItem(dictionary, name, text) == 0;
        Py_XDECREF(text);
        Py_XDECREF(name);
        if (!added) {
            Py_XDECREF(dictionary);
            return nullptr;
        }
    }
    return dictionary;
}

bool appendPlugin(PyObject* list, const fs::path& file, const std::string& type) {
    const std::optional<Manifest> manifest = readManifest(file);
    if (!manifest || valueOf(*manifest, "name").empty() || valueOf(*manifest, "type").empty()) {
        return PyErr_WarnFormat(
                   PyExc_RuntimeWarning, 1, "%s is left out: %s", file.c_str(),
                   manifest ? "a plug-in needs a name and a type" : "it can't be read") == 0;
    }
    if (valueOf(*manifest, "type") != type) {
        return true;
    }
    PyObject* const plugin = asDictionary(*manifest);
    const bool appended = plugin != nullptr && PyList_Append(list, plugin) == 0;
    Py_XDECREF(plugin);
    return appended;
}

PyObject* findPlugins(PyObject* /*module*/, PyObject* type) {
    const char* const wanted = PyUnicode_Check(type) ? PyUnicode_AsUTF8(type) : nullptr;
    if (wanted == nullptr) {
        if (PyErr_Occurred() == nullptr) {
            PyErr_SetString(PyExc_TypeError, "the type of a plug-in is a str");
        }
        return nullptr;
    }
    PyObject* const list = PyList_New(0);
    for (const fs::path& file : manifestFiles()) {
        if (list == nullptr || !appendPlugin(list, file, wanted)) {
            Py_XDECREF(list);
            return nullptr;
        }
    }
    return list;
}

PyMethodDef methods[] = {{"FindPlugins", findPlugins, METH_O,
                          "FindPlugins(type) -> list of dict: the manifests of all plug-ins of a "
                          "type, each with its own "
                          "path under \"file\", ordered by path"},
                         {nullptr, nullptr, 0, nullptr}};

PyModuleDef definition =
    moduleOfFunctions("PluginSystemAPI_cmodule", "Finds the plug-ins of the install tree", methods);

}  // namespace

PyMODINIT_FUNC PyInit_PluginSystemAPI_cmodule() {
    return PyModule_Create(&definition);
}
