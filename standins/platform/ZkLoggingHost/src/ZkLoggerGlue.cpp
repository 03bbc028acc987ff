#include "ZkLoggingHost/ZkLoggerGlue.h"

#include <pthread.h>
#include <spdlog/pattern_formatter.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include "ZkConfiguration/Configuration.h"
#include "ZkLoggingHost/LogLines.h"
#include "standins/platform/ZkLoggingHost/src/LogFile.h"
#include "standins/platform/ZkLoggingHost/src/LogSettings.h"

namespace ZkLoggingHost {
namespace {

using internal::LogFile;
using internal::LogSettings;

constexpr char stampPattern[] = "%Y-%m-%dT%H:%M:%S.%e%z [%P] ";
constexpr char nativePattern[] = "[%* %n] %v (%g:%#)";
constexpr char foreignPattern[] = "%v";

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

std::unique_ptr<spdlog::formatter> lineFormatter(const std::string& pattern) {
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<UpperCaseLevel>('*').set_pattern(pattern);
    return formatter;
}

// One place for all loggers, and no registry: spdlog's own would bring a thread pool's globals. Its
// file sinks write a long line in pieces and rotate as if no other process had the file.
class Destination {
  public:
    Destination() {
        const std::string path = Plexum3::ZkConfiguration::v1::Config().get("ZKLOGGING_CONFIG");
        const LogSettings settings = path.empty() ? LogSettings() : internal::readLogSettings(path);
        level_ = settings.level;
        std::string complaint = settings.complaint;
        if (!settings.file.empty()) {
            try {
                file_.emplace(settings);
            } catch (const std::system_error& error) {
                complaint = unusable(settings.file, error.code());
            }
        }
        chooseForms();
        if (!complaint.empty()) {
            complain(complaint);
        }
    }

    // Another thread may have held the lock when this process was forked; it will never give it
    // back.
    void renewLock() { mutex_ = new std::mutex; }

    Level level() const { return level_; }

    std::string file() {
        const std::lock_guard<std::mutex> lock(*mutex_);
        return file_ ? file_->path() : std::string();
    }

    void writeNative(const spdlog::details::log_msg& message) noexcept { write(native_, message); }
    void writeForeign(std::string_view text) noexcept {
        const spdlog::string_view_t view(text.data(), text.size());
        write(foreign_, {spdlog::string_view_t(), spdlog::level::info, view});
    }

  private:
    static std::string unusable(const std::string& path, const std::error_code& error) {
        return "\"" + path + "\": " + error.message() + "; logging to standard error";
    }

    // A file is shared and read later: each line has its time and process.
    void chooseForms() {
        const std::string stamp = file_ ? stampPattern : "";
        native_ = lineFormatter(stamp + nativePattern);
        foreign_ = lineFormatter(stamp + foreignPattern);
    }

    void write(const std::unique_ptr<spdlog::formatter>& form,
               const spdlog::details::log_msg& message) noexcept {
        try {
            const std::lock_guard<std::mutex> lock(*mutex_);
            spdlog::memory_buf_t line;
            form->format(message, line);
            put({line.data(), line.size()});
        } catch (const std::exception&) {
            // Want of memory must not end the application, and there is nowhere else to report it.
        }
    }

    void put(std::string_view line) {
        const int error = file_ ? file_->append(line) : 0;
        if (error != 0) {
            const std::string complaint =
                unusable(file_->path(), std::error_code(error, std::system_category()));
            file_.reset();
            chooseForms();
            complain(complaint);
        }
        if (!file_) {
            // There is nowhere left to report a standard error that takes no line.
            static_cast<void>(internal::writeWhole(STDERR_FILENO, line));
        }
    }

    // The one line about the log itself.
    void complain(const std::string& text) {
        spdlog::memory_buf_t line;
        native_->format(
            {spdlog::source_loc("log.conf", 1, ""), "LOGGING", spdlog::level::err, text}, line);
        static_cast<void>(internal::writeWhole(STDERR_FILENO, {line.data(), line.size()}));
    }

    Level level_ = Level::Info;
    std::mutex* mutex_ = new std::mutex;
    std::optional<LogFile> file_;
    std::unique_ptr<spdlog::formatter> native_;
    std::unique_ptr<spdlog::formatter> foreign_;
};

// Never destroyed: the crash handling may log while static objects go away.
Destination& destination() {
    static Destination* const only = [] {
        auto* const made = new Destination;
        // Without memory for the registration, forked children are as they would be without it.
        static_cast<void>(pthread_atfork(nullptr, nullptr, [] { destination().renewLock(); }));
        return made;
    }();
    return *only;
}

bool isEnabled(Level level) {
    return level >= destination().level();
}

void write(const char* logger, spdlog::level::level_enum level, const char* text, const char* path,
           int line) {
    destination().writeNative({spdlog::source_loc(path, line, ""), logger, level, text});
}

}  // namespace

Level logLevel() {
    return destination().level();
}

std::string logFile() {
    return destination().file();
}

void writeLine(std::string_view line) {
    destination().writeForeign(line);
}

bool ZkLoggerGlue::debugEnabled() const {
    return isEnabled(Level::Debug);
}
bool ZkLoggerGlue::infoEnabled() const {
    return isEnabled(Level::Info);
}
bool ZkLoggerGlue::errorEnabled() const {
    return isEnabled(Level::Error);
}

void ZkLoggerGlue::debug(const char* message, const char* sourcePath, int line) const {
    if (debugEnabled()) {
        write(name_, spdlog::level::debug, message, sourcePath, line);
    }
}

void ZkLoggerGlue::info(const char* message, const char* sourcePath, int line) const {
    if (infoEnabled()) {
        write(name_, spdlog::level::info, message, sourcePath, line);
    }
}

void ZkLoggerGlue::error(const char* message, const char* sourcePath, int line) const {
    if (errorEnabled()) {
        write(name_, spdlog::level::err, message, sourcePath, line);
    }
}

}  // namespace ZkLoggingHost
