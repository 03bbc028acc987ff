#include "base/Log.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <locale>
#include <memory>
#include <set>
#include <utility>

namespace Zendrik {

namespace {

using boost::posix_time::ptime;

constexpr std::array levelTexts = {"Quiet", "Error", "Warning", "Message", "Verbose"};

struct LevelName {
    const char* name;
    Log::Level level;
};
constexpr std::array levelNames = {
    LevelName{"quiet", Log::Level::quiet},     LevelName{"error", Log::Level::error},
    LevelName{"warning", Log::Level::warning}, LevelName{"message", Log::Level::message},
    LevelName{"verbose", Log::Level::verbose}, LevelName{"all", Log::Level::verbose},
};

struct State {
    Log::Level level = Log::Level::unsettled;
    std::string applicationName;
    std::set<std::uint32_t> enabledChannels;
    std::set<std::uint32_t> channelsWithoutHeader;
    std::ostream* currentStream = nullptr;
    std::unique_ptr<std::ofstream> fileStream;
    std::string fileName;
};

State& state() {
    static State theState;
    return theState;
}

/// A FIFO without a reader: to open it for writing waits for one.
bool wouldBlock(const std::string& path) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0) {
        return errno == ENXIO;
    }
    close(descriptor);
    return false;
}

/// Null, with a line on standard error, if the file can't be opened.
std::unique_ptr<std::ofstream> openForAppending(const std::string& path) {
    auto file = wouldBlock(path)
                    ? nullptr
                    : std::make_unique<std::ofstream>(path, std::ios::out | std::ios::app);
    if (!file || file->fail()) {
        std::cerr << "Zendrik::Log Error cannot open " << path << " for writing " << std::endl;
        file.reset();
    }
    return file;
}

std::string defaultFileName() {
    // An empty ZENDRIK_LOG_FILE asks for standard error.
    if (const char* file = std::getenv("ZENDRIK_LOG_FILE")) {
        return file;
    }
    if (const char* home = std::getenv("HOME")) {
        return std::string(home) + "/Desktop/" + "zendrik.log";
    }
    return {};
}

void writeShortHeader(std::ostream& stream, const Log::Channel& channel) {
    if (channel.id != 0) {
        stream << "[" << Log::channelNames().name(channel.id) << "] ";
    }
}

void writeTime(std::ostream& stream, const ptime& time) {
    const auto date = time.date();
    const auto clock = time.time_of_day();
    const auto twoWide = [&stream](long number) -> std::ostream& {
        return stream << std::setw(2) << number;
    };
    // As text, because a locale in the stream could group the digits of the year.
    stream << "[" << std::to_string(static_cast<int>(date.year()));
    stream << std::right << std::setfill('0') << "/";
    twoWide(date.month().as_number()) << "/";
    twoWide(date.day().as_number()) << ":";
    twoWide(clock.hours()) << ":";
    twoWide(clock.minutes()) << ":";
    twoWide(clock.seconds()) << "] ";
}

void writeFullHeader(std::ostream& stream, Log::Level level, const Log::Channel& channel,
                     const ptime& time) {
    const std::string& application = state().applicationName;
    stream << "[";
    if (!application.empty()) {
        stream << application << (channel.id != 0 ? "/" : " ");
    }
    if (channel.id != 0) {
        stream << Log::channelNames().name(channel.id) << " ";
    }
    stream << levelTexts.at(static_cast<std::size_t>(level)) << "]";
    writeTime(stream, time);
}

}  // namespace

Log::Entry::Entry(Level level, const Channel& channel)
    : wanted_(level <= Log::level() && channelEnabled(channel)) {
    if (!wanted_) {
        return;
    }
    const ptime now = boost::posix_time::microsec_clock::local_time();
    std::ostream& stream = Log::stream();
    if (headerShown(channel)) {
        writeFullHeader(stream, level, channel, now);
    } else {
        writeShortHeader(stream, channel);
    }
}

std::uint32_t Log::ChannelNames::add(const std::string& name) {
    if (name.empty()) {
        return 0;
    }
    const std::lock_guard lock(mutex_);
    const auto [entry, isNew] = ids_.emplace(name, static_cast<std::uint32_t>(names_.size()));
    if (isNew) {
        names_.push_back(name);
    }
    return entry->second;
}

std::uint32_t Log::ChannelNames::find(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found = ids_.find(name);
    return found == ids_.end() ? 0 : found->second;
}

std::string Log::ChannelNames::name(std::uint32_t id) const {
    const std::lock_guard lock(mutex_);
    return id < names_.size() ? names_[id] : names_.front();
}

void Log::ChannelNames::clear() {
    const std::lock_guard lock(mutex_);
    ids_.clear();
    names_.assign(1, std::string());
}

std::ostream& Log::stream() {
    State& log = state();
    if (log.currentStream != nullptr) {
        return *log.currentStream;
    }
    log.currentStream = &std::cerr;
    if (log.fileName.empty()) {
        log.fileName = defaultFileName();
    }
    if (log.fileName.empty()) {
        return std::cerr;
    }
    if (!log.fileStream) {
        log.fileStream = openForAppending(log.fileName);
    }
    if (log.fileStream) {
        log.currentStream = log.fileStream.get();
    }
    return *log.currentStream;
}

void Log::setFile(const std::string& path) {
    if (auto opened = openForAppending(path)) {
        State& log = state();
        log.fileName = path;
        log.fileStream = std::move(opened);
        log.currentStream = log.fileStream.get();
    }
}

const std::string& Log::file() {
    return state().fileName;
}

void Log::setStream(std::ostream* stream) {
    State& log = state();
    log.fileName.clear();
    log.fileStream.reset();
    log.currentStream = stream;
}

void Log::setApplicationName(const std::string& name) {
    state().applicationName = name;
}

Log::Level Log::level() {
    Level& level = state().level;
    if (level == Level::unsettled) {
        level = Level::error;
        applyEnvironmentLevel();
    }
    return level;
}

Log::Level Log::levelFromName(const std::string& name) {
    std::string lowered = name;
    const std::locale locale;
    std::use_facet<std::ctype<char>>(locale).tolower(lowered.data(),
                                                     lowered.data() + lowered.size());
    const auto* found = std::find_if(levelNames.begin(), levelNames.end(),
                                     [&](const LevelName& each) { return lowered == each.name; });
    return found == levelNames.end() ? Level::unsettled : found->level;
}

void Log::applyEnvironmentLevel() {
    const char* name = std::getenv("ZENDRIK_LOG_LEVEL");
    const Level level = name == nullptr ? Level::unsettled : levelFromName(name);
    if (level != Level::unsettled) {
        state().level = level;
    }
}

void Log::setLevel(Level level, bool honourEnvironment) {
    state().level = level;
    if (honourEnvironment) {
        applyEnvironmentLevel();
    }
}

void Log::setLevel(const std::string& levelName, bool honourEnvironment) {
    setLevel(levelFromName(levelName), honourEnvironment);
}

void Log::enableChannel(const Channel& channel) {
    if (channel.id != 0) {
        state().enabledChannels.insert(channel.id);
    }
}

void Log::disableChannel(const Channel& channel) {
    state().enabledChannels.erase(channel.id);
}

bool Log::channelEnabled(const Channel& channel) {
    return channel.id == 0 || state().enabledChannels.count(channel.id) != 0;
}

void Log::hideHeader(const Channel& channel) {
    state().channelsWithoutHeader.insert(channel.id);
}

void Log::showHeader(const Channel& channel) {
    state().channelsWithoutHeader.erase(channel.id);
}

bool Log::headerShown(const Channel& channel) {
    return state().channelsWithoutHeader.count(channel.id) == 0;
}

Log::ChannelNames& Log::channelNames() {
    // Never destroyed: native code may still log while the process exits.
    static ChannelNames& names = *new ChannelNames;
    return names;
}

}  // namespace Zendrik
