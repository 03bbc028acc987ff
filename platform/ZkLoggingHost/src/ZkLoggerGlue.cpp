#include "ZkLoggingHost/ZkLoggerGlue.h"

// Programs that the application starts must not hold the log file open.
#define SPDLOG_PREVENT_CHILD_FD
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <memory>
#include <string>

#include "ZkConfiguration/Configuration.h"
#include "platform/ZkLoggingHost/src/LogSettings.h"

namespace ZkLoggingHost {
namespace {

using internal::Level;
using internal::LogSettings;

class UpperCaseLevel : public spdlog::custom_flag_formatter {
  public:
    void format(const spdlog::details::log_msg& message, const std::tm& /*time*/,
                spdlog::memory_buf_t& destination) override {
        const spdlog::string_view_t name = message.level == spdlog::level::debug  ? "DEBUG"
                                           : message.level == spdlog::level::info ? "INFO"
                                                                                  : "ERROR";
        spdlog::details::fmt_helper::append_string_view(name, destination);
    }
    std::unique_ptr<custom_flag_formatter> clone() const override {
        return std::make_unique<UpperCaseLevel>();
    }
};

std::unique_ptr<spdlog::formatter> lineFormatter() {
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<UpperCaseLevel>('*').set_pattern("[%* %n] %v (%g:%#)");
    return formatter;
}

// One sink for all loggers, and no registry: spdlog's own would bring a thread pool's globals.
class Destination {
  public:
    Destination() {
        const std::string path = Plexum3::ZkConfiguration::v1::Config().get("ZKLOGGING_CONFIG");
        LogSettings settings = path.empty() ? LogSettings() : internal::readLogSettings(path);
        try {
            open(settings.file);
        } catch (const spdlog::spdlog_ex& error) {
            settings = LogSettings();
            settings.complaint =
                std::string(error.what()) + "; logging to standard error at level info";
            open(settings.file);
        }
        m_level = settings.level;
        if (!settings.complaint.empty()) {
            write("LOGGING", spdlog::level::err, settings.complaint.c_str(), "log.conf", 1);
        }
    }

    bool enabled(Level level) const { return level >= m_level; }

    void write(const char* logger, spdlog::level::level_enum level, const char* text,
               const char* path, int line) noexcept {
        try {
            m_sink->log({spdlog::source_loc(path, line, ""), logger, level, text});
            m_sink->flush();
        } catch (const std::exception&) {
            // A disk that is full must not end the application, and there is nobody else to tell.
        }
    }

  private:
    void open(const std::string& file) {
        if (file.empty()) {
            m_sink = std::make_unique<spdlog::sinks::stderr_sink_mt>();
        } else {
            m_sink = std::make_unique<spdlog::sinks::basic_file_sink_mt>(file);
        }
        m_sink->set_formatter(lineFormatter());
    }

    Level m_level = Level::info;
    std::unique_ptr<spdlog::sinks::sink> m_sink;
};

// Never destroyed: the crash handling may log while static objects go away.
Destination& destination() {
    static Destination* const only = new Destination;
    return *only;
}

}  // namespace

bool ZkLoggerGlue::debugEnabled() const {
    return destination().enabled(Level::debug);
}
bool ZkLoggerGlue::infoEnabled() const {
    return destination().enabled(Level::info);
}
bool ZkLoggerGlue::errorEnabled() const {
    return destination().enabled(Level::error);
}

void ZkLoggerGlue::debug(const char* message, const char* sourcePath, int line) const {
    if (debugEnabled()) {
        destination().write(m_name, spdlog::level::debug, message, sourcePath, line);
    }
}

void ZkLoggerGlue::info(const char* message, const char* sourcePath, int line) const {
    if (infoEnabled()) {
        destination().write(m_name, spdlog::level::info, message, sourcePath, line);
    }
}

void ZkLoggerGlue::error(const char* message, const char* sourcePath, int line) const {
    if (errorEnabled()) {
        destination().write(m_name, spdlog::level::err, message, sourcePath, line);
    }
}

}  // namespace ZkLoggingHost
