#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Info {

// The next two are made from the entry script by cmake/entryScriptNeeds.py.

/// Four bytes, little-endian, that begin a file of byte code which the interpreter can run. The
/// entry script is embedded as byte code of the same.
extern const std::uint32_t byteCodeMagic;

/// A line for each module that the script imports, of four fields with a tab between them: name,
/// importing function (empty for the script itself), "library" or "application", names that are
/// used of it with a blank between them.
extern const char entryScriptNeeds[];

/// A module that the entry script imports.
struct NeededModule {
    std::string name;
    std::string importedIn;  ///< a function; empty for the script itself
    bool isOfLibrary = false;
    std::vector<std::string> uses;  ///< dotted, without the module's own name
};

std::vector<NeededModule> neededModules();

/// The file that the tree's interpreter would import a module from, looked for in its order.
/// @return empty if there is none
std::string findModule(const std::string& root, const std::string& dottedName);

bool isExtension(const std::string& file);

}  // namespace Info
