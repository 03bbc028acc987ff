#include <Python.h>  // first: it settles feature macros of the system's headers

#include "UTIL/src/PythonPathDuringStart.h"

#include <ZkPlexumSDK/pystring.h>

#include <cstdlib>

namespace UTIL {

namespace {

constexpr char variable[] = "PYTHONPATH";

// The value may hold any bytes, so none of them is put into a Python literal.
std::string hexadecimal(const std::string& bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xf];
    }
    return text;
}

}  // namespace

PythonPathDuringStart::PythonPathDuringStart(const std::vector<std::string>& treeFolders) {
    const char* value = std::getenv(variable);
    if (value == nullptr || *value == '\0') {
        return;
    }
    m_usersValue = value;
    m_treeFolders = Plexum3::internal::pystring_v1::join(":", treeFolders);
    // Without memory for it the interpreter starts with the user's entries in front.
    static_cast<void>(
        setenv(variable, (m_treeFolders + ":" + m_usersValue).c_str(), /*overwrite=*/1));
}

void PythonPathDuringStart::restore() const {
    if (m_usersValue.empty()) {
        return;
    }
    static_cast<void>(setenv(variable, m_usersValue.c_str(), /*overwrite=*/1));
    // In the "C" locale the interpreter has decoded the folders otherwise than the tree lists them.
    const std::string script =
        "import os, sys\n"
        "os.environb[b'PYTHONPATH'] = bytes.fromhex('" +
        hexadecimal(m_usersValue) +
        "')\n"
        "sys.path[:] = [entry for entry in sys.path if entry.encode('utf-8', 'surrogateescape')"
        " not in bytes.fromhex('" +
        hexadecimal(m_treeFolders) + "').split(b':')]\n";
    // The interpreter prints what went wrong; the start goes on.
    static_cast<void>(PyRun_SimpleStringFlags(script.c_str(), nullptr));
}

}  // namespace UTIL
