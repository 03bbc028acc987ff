#include "standins/platform/ZkLoggingHost/src/LogSettings.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "ZkConfiguration/Configuration.h"

namespace ZkLoggingHost::internal {
namespace {

namespace pt = boost::property_tree;

Level parseLevel(const std::string& text) {
    constexpr const char* names[] = {"debug", "info", "warning", "error", "off"};
    for (int i = 0; i < 5; ++i) {
        if (text == names[i]) {
            return static_cast<Level>(i);
        }
    }
    throw std::runtime_error("level \"" + text + "\" is none of debug, info, warning, error, off");
}

bool parseYes(const std::string& name, const std::string& text) {
    if (text != "yes" && text != "no") {
        throw std::runtime_error(name + " is \"" + text + "\", neither yes nor no");
    }
    return text == "yes";
}

// A whole number with an optional K, M or G behind it.
std::uint64_t parseNumber(const std::string& name, const std::string& text, bool isSize) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const auto unit =
        isSize && rest + 1 == end ? std::string("KMG").find(*rest) : std::string::npos;
    const unsigned shift = unit == std::string::npos ? 0 : 10 * (static_cast<unsigned>(unit) + 1);
    if (error != std::errc() || (shift == 0 && rest != end) || number >> (63 - shift) != 0) {
        throw std::runtime_error(name + " is \"" + text + "\", no whole number" +
                                 (isSize ? " such as 500K, 10M or 1G" : ""));
    }
    return number << shift;
}

// Without HOME the user's entry in the password file counts, as for a shell.
std::string homeFolder() {
    std::string home = Plexum3::ZkConfiguration::v1::Config().get("HOME");
    const passwd* const user = home.empty() ? getpwuid(getuid()) : nullptr;
    if (user != nullptr) {
        home = user->pw_dir;
    }
    if (home.empty()) {
        throw std::runtime_error("destination begins with ~, and this user has no home folder");
    }
    return home;
}

std::string parseDestination(const std::string& text) {
    if (text.empty()) {
        throw std::runtime_error("destination is empty: give stderr or the path of a file");
    }
    if (text == "stderr") {
        return std::string();
    }
    return text.rfind("~/", 0) == 0 ? homeFolder() + text.substr(1) : text;
}

void applySetting(LogSettings& settings, const std::string& name, const std::string& value) {
    if (name == "level") {
        settings.level = parseLevel(value);
    } else if (name == "destination") {
        settings.file = parseDestination(value);
    } else if (name == "make_folder") {
        settings.makesFolder = parseYes(name, value);
    } else if (name == "rotate_size") {
        settings.rotateSize = parseNumber(name, value, /*isSize=*/true);
    } else if (name == "rotate_keep") {
        // More would only make a rotation slow.
        constexpr std::uint64_t most = 100;
        const std::uint64_t count = parseNumber(name, value, /*isSize=*/false);
        settings.rotateKeep = static_cast<unsigned>(std::clamp<std::uint64_t>(count, 1, most));
    } else {
        throw std::runtime_error("setting \"" + name +
                                 "\" is none of level, destination, make_folder, rotate_size, "
                                 "rotate_keep");
    }
}

LogSettings parse(std::istream& stream) {
    pt::ptree tree;
    pt::read_ini(stream, tree);
    LogSettings settings;
    for (const auto& [section, entries] : tree) {
        if (section != "log" || entries.empty()) {
            throw std::runtime_error("\"" + section + "\" stands where only [log] may");
        }
        for (const auto& [name, value] : entries) {
            applySetting(settings, name, value.data());
        }
    }
    return settings;
}

// A FIFO waits for a writer, a device such as /dev/zero has no end. /dev/null is an empty file.
bool mayBlockOrNotEnd(const std::string& path) {
    struct stat status = {};
    struct stat null = {};
    if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
        return false;
    }
    return stat("/dev/null", &null) != 0 || status.st_rdev != null.st_rdev ||
           !S_ISCHR(status.st_mode);
}

LogSettings defaultsBecause(const std::string& path, const std::string& reason) {
    LogSettings settings;
    settings.complaint =
        "\"" + path + "\": " + reason + "; logging to standard error at level info";
    return settings;
}

}  // namespace

LogSettings readLogSettings(const std::string& path) {
    if (mayBlockOrNotEnd(path)) {
        return defaultsBecause(path, "Not a regular file");
    }
    std::ifstream stream(path);
    if (!stream) {
        const int error = errno;
        return defaultsBecause(path, std::strerror(error));
    }
    try {
        return parse(stream);
    } catch (const pt::ini_parser_error& error) {
        return defaultsBecause(path,
                               "line " + std::to_string(error.line()) + ": " + error.message());
    } catch (const std::exception& error) {
        return defaultsBecause(path, error.what());
    }
}

}  // namespace ZkLoggingHost::internal
