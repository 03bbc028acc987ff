#pragma once

#include <string>
#include <vector>

namespace Zendrik::Base {

/// Texts as the exec family of calls takes them, for arguments and environment alike:
///
///     std::vector<std::string> arguments = {"/bin/ls", "-l"};
///     const std::vector<char*> argv = execPointers(arguments);
///     execv(argv.front(), argv.data());
///
/// @param texts  has to outlive the result unchanged
/// @return a pointer to each text, and a null pointer behind them
/// @throw std::bad_alloc
inline std::vector<char*> execPointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace Zendrik::Base
