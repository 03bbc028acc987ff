#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/Exception.h"

namespace google_breakpad {
class ExceptionHandler;
}

/// Arms crash capture for the process. The caller fills a record and constructs one handler from
/// it, which it keeps until the process ends:
///
///     CrashHandler::Parameters parameters;
///     parameters.setProductName("Tavrel");
///     parameters.setReporterName("CrashReporterTavrel");
///     static const CrashHandler* const handler = new CrashHandler(parameters);
///
/// Main thread, during start-up, before other threads use the heap or the log: the constructor
/// forks.
namespace Zendrik::Breakpad {

/// A record that can't be used. Carries "UserMessage", "ThrowFile", "ThrowLine" and
/// "ThrowFunction".
class Exception : public Base::Exception {
  public:
    explicit Exception(const std::string& message);
};

/// Where in-process dumps go by default: "/var/tmp/".
std::string temporaryDirectory();

class CrashHandler {
  public:
    enum Mode : std::int32_t {
        /// Turned into OutOfProcess by setMode.
        Default = -1,
        /// The crashing process writes its dump itself.
        InProcess = 0,
        /// A crash reporter process takes the dump.
        OutOfProcess = 1,
    };

    /// What to arm. A plain value; a handler keeps no reference to it.
    class Parameters {
      public:
        /// Enabled, with prompt, out of process, dumps in temporaryDirectory(); all else empty.
        Parameters() = default;

        /// Whether to arm anything at all.
        void setEnabled(bool enabled) { enabled_ = enabled; }
        bool enabled() const { return enabled_; }

        /// Whether the reporter is to ask the user about a report.
        void setPrompt(bool prompt) { prompt_ = prompt; }
        bool prompt() const { return prompt_; }

        /// @throw Exception, leaving the record as it was, for a number that names no mode
        void setMode(Mode mode);
        Mode mode() const { return mode_; }

        /// File name of the reporter, looked up in the folder of the running executable.
        void setReporterName(const std::string& reporterName) { reporterName_ = reporterName; }
        const std::string& reporterName() const { return reporterName_; }

        /// Folder for dumps written in process. Breakpad asserts that it isn't empty.
        void setDumpPath(const std::string& dumpPath) { dumpPath_ = dumpPath; }
        const std::string& dumpPath() const { return dumpPath_; }

        /// Name of the product. Mandatory, although only validate reads it.
        void setProductName(const std::string& productName) { productName_ = productName; }
        const std::string& productName() const { return productName_; }

        /// Passed to the reporter in its environment as ZK_SESSION_ID.
        void setSessionId(const std::string& sessionId) { sessionId_ = sessionId; }
        const std::string& sessionId() const { return sessionId_; }

        /// Not for two threads at once.
        /// @throw std::logic_error if /proc/self/exe can't be resolved
        std::string applicationPath() const;

        /// @throw Exception if there is no product name; nothing else is checked
        void validate() const;

      private:
        bool enabled_ = true;
        bool prompt_ = true;
        Mode mode_ = Mode::OutOfProcess;
        std::string reporterName_;
        std::string dumpPath_ = temporaryDirectory();
        std::string productName_;
        std::string sessionId_;
    };

    /// Arms capture unless the record is disabled. Out of process it starts the reporter, a child
    /// that is never waited for and never signalled; where that fails, capture is in process, and
    /// the log says why. Both ends of the channel stay open here and in the reporter; descriptors
    /// of a start that failed stay open, so that a late reporter isn't killed by its own write.
    /// @throw Exception as validate does; std::bad_alloc
    explicit CrashHandler(const Parameters& parameters);

    /// Gives the signal handlers back that stood before.
    ~CrashHandler();

    CrashHandler(const CrashHandler&) = delete;
    CrashHandler& operator=(const CrashHandler&) = delete;

  private:
    [[maybe_unused]] void* reserved_ = nullptr;
    std::unique_ptr<google_breakpad::ExceptionHandler> exceptionHandler_;
};

static_assert(sizeof(CrashHandler) == 2 * sizeof(void*));
static_assert(sizeof(CrashHandler::Mode) == 4);

}  // namespace Zendrik::Breakpad
