#include "base/ExecutablePath.h"

#include <array>
#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace Zendrik::Base {

std::string executablePath() {
    static std::array<char, PATH_MAX> buffer;
    const char* path = realpath("/proc/self/exe", buffer.data());
    if (path == nullptr) {
        throw std::logic_error("cannot resolve /proc/self/exe: is /proc mounted?");
    }
    return path;
}

}  // namespace Zendrik::Base
