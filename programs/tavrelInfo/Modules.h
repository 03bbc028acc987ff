#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Info {

/// A module that the entry script imports.
struct NeededModule {
    std::string name;
    std::string importedIn;         ///< a function; empty for the script itself
    bool isOfLibrary;               ///< of Python's own
    std::vector<std::string> uses;  ///< dotted, without the module's own name
};

// Both are made from the entry script by cmake/entryScriptNeeds.py.
extern const std::vector<NeededModule> neededModules;
/// Four bytes, little-endian, that begin a file of byte code which the interpreter can run.
extern const std::uint32_t byteCodeMagic;

/// The file that the tree's interpreter would import a module from, looked for in its order.
/// @return empty if there is none
std::string findModule(const std::string& root, const std::string& dottedName);

bool isExtension(const std::string& file);

}  // namespace Info
