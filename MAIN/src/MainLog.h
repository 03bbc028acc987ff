#pragma once

/// The launcher's log lines. A line is built only if its level would be written:
///
///     LOG_ERROR("Failed to initialise OpenGL: " << reason);
///
/// Usable on the main thread, once ZkPlexum3InitializeMinimally has succeeded.

#include <ZkLoggingHost/ZkLoggerGlue.h>

#include <sstream>
#include <type_traits>

/// The logger "MAIN". Made at first use and never destroyed, so that exit handlers may still log.
inline const ZkLoggingHost::ZkLoggerGlue& mainLogger() {
    static_assert(std::is_trivially_destructible_v<ZkLoggingHost::ZkLoggerGlue>);
    static const ZkLoggingHost::ZkLoggerGlue logger("MAIN");
    return logger;
}

/// Source unit under which every line of the launcher is filed.
constexpr char mainLogSource[] = "MAIN/src/tavrel";

/// Macros, because only they know the line of the statement. `text` is what follows `stream <<`.
#define LOG_AT(level, text)                                                          \
    do {                                                                             \
        if (mainLogger().level##Enabled()) {                                         \
            std::ostringstream logText;                                              \
            logText << text; /* NOLINT(bugprone-macro-parentheses): a chain of << */ \
            mainLogger().level(logText.str().c_str(), mainLogSource, __LINE__);      \
        }                                                                            \
    } while (false)
#define LOG_DEBUG(text) LOG_AT(debug, text)
#define LOG_INFO(text) LOG_AT(info, text)
#define LOG_ERROR(text) LOG_AT(error, text)
/// An information for users who asked for much: `verbosity` is above `threshold`.
#define LOG_INFO_ABOVE(threshold, verbosity, text) \
    do {                                           \
        if ((verbosity) > (threshold)) {           \
            LOG_INFO(text);                        \
        }                                          \
    } while (false)
