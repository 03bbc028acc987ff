#include "platform/ZkLoggingHost/src/LogSettings.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace ZkLoggingHost::internal {
namespace {

namespace pt = boost::property_tree;

Level parseLevel(const std::string& text) {
    constexpr const char* names[] = {"debug", "info", "error", "off"};
    for (int i = 0; i < 4; ++i) {
        if (text == names[i]) {
            return static_cast<Level>(i);
        }
    }
    throw std::runtime_error("level \"" + text + "\" is none of debug, info, error, off");
}

void applySetting(LogSettings& settings, const std::string& name, const std::string& value) {
    if (name == "level") {
        settings.level = parseLevel(value);
    } else if (name == "destination") {
        if (value.empty()) {
            throw std::runtime_error("destination is empty: give stderr or the path of a file");
        }
        settings.file = value == "stderr" ? std::string() : value;
    } else {
        throw std::runtime_error("setting \"" + name + "\" is neither level nor destination");
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

LogSettings defaultsBecause(const std::string& path, const std::string& reason) {
    LogSettings settings;
    settings.complaint =
        "\"" + path + "\": " + reason + "; logging to standard error at level info";
    return settings;
}

}  // namespace

LogSettings readLogSettings(const std::string& path) {
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
