#include <ZkPlexumSDK/pystring.h>

namespace Plexum3::internal::pystring_v1 {

std::string join(const std::string& separator, const std::vector<std::string>& parts) {
    std::string all;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        all += (i == 0 ? "" : separator) + parts[i];
    }
    return all;
}

std::string replace(const std::string& text, const std::string& old, const std::string& replacement,
                    int count) {
    std::string all = text;
    for (std::size_t at = 0; count-- != 0 && (at = all.find(old, at)) != std::string::npos;
         at += replacement.size()) {
        all.replace(at, old.size(), replacement);
    }
    return all;
}

}  // namespace Plexum3::internal::pystring_v1
