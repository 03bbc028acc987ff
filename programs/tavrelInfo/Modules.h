#pragma once

#include <string>
#include <vector>

namespace Info {

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
