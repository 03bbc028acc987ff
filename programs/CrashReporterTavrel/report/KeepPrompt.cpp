#include "programs/CrashReporterTavrel/report/KeepPrompt.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "process/ProcessEnd.h"
#include "process/Subprocess.h"

namespace Zendrik::Reporter {

namespace {

struct Dialog {
    const char* program;
    // The program's own words; "@TEXT" and "@SECONDS" stand for what is filled in.
    std::vector<std::string> arguments;
    int removeStatus;  // exit status that means the button that removes
};

// Each asks so that Enter, Escape, the window's cross and the time limit keep the report.
const std::vector<Dialog>& dialogs() {
    static const std::vector<Dialog> all{
        {"zenity",
         {"--question", "--title=Tavrel", "--text=@TEXT", "--no-markup", "--ok-label=Remove",
          "--cancel-label=Keep", "--default-cancel", "--timeout=@SECONDS"},
         0},
        {"kdialog",
         {"--title", "Tavrel", "--yes-label", "Keep", "--no-label", "Remove", "--cancel-label",
          "Not now", "--yesnocancel", "@TEXT"},
         1},
        {"yad",
         {"--title=Tavrel", "--text=@TEXT", "--no-markup", "--button=Keep:0", "--button=Remove:10",
          "--timeout=@SECONDS"},
         10},
        {"xmessage",
         {"-title", "Tavrel", "-buttons", "Keep:0,Remove:10", "-default", "Keep", "-timeout",
          "@SECONDS", "@TEXT"},
         10},
    };
    return all;
}

std::string findOnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        // A relative folder is one of the application's working directory, not of the user's.
        std::string candidate = folder;
        candidate.append("/").append(program);
        if (!folder.empty() && folder.front() == '/' && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return {};
}

std::string filledIn(std::string argument, const std::string& text, int seconds) {
    const auto replace = [&argument](const std::string& mark, const std::string& value) {
        if (const std::size_t at = argument.find(mark); at != std::string::npos) {
            argument.replace(at, mark.size(), value);
        }
    };
    replace("@SECONDS", std::to_string(seconds));
    replace("@TEXT", text);
    return argument;
}

// The exit status; -1 when the dialog did not exit by itself within the limit, or was not started.
int runDialog(const std::string& program, const std::vector<std::string>& arguments,
              int limitSeconds) {
    using Plexum3::Base::Subprocess;
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    const Plexum3::Base::ScopedFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    Plexum3::Base::SubprocessOptions options;
    options.args = {program};
    options.args.insert(options.args.end(), arguments.begin(), arguments.end());
    options.closeOtherDescriptors = true;  // the launcher's files are not the dialog's
    options.stdinFd = options.stdoutFd = options.stderrFd = null.get();
    const auto deadline = steady_clock::now() + std::chrono::seconds(limitSeconds);
    const auto msLeft = [deadline] {
        return static_cast<int>(
            std::chrono::ceil<milliseconds>(deadline - steady_clock::now()).count());
    };
    const Subprocess dialog = Subprocess::spawn(options);
    if (dialog.pid() < 0) {
        return -1;
    }
    // Not its pipe, which a helper that it has left behind keeps open.
    const Plexum3::Base::ProcessEnd end(dialog.pid());
    for (int left = msLeft(); left > 0 && !end.hasEnded(); left = msLeft()) {
        pollfd wait{end.fd(), POLLIN, 0};
        const int interval = end.pollIntervalMs();
        static_cast<void>(poll(&wait, 1, interval < 0 ? left : std::min(interval, left)));
    }
    dialog.sendSignal(SIGKILL);  // to one that has ended, it does nothing
    dialog.wait();
    return dialog.exitCode();
}

}  // namespace

bool hasDisplay() {
    const char* display = std::getenv("DISPLAY");
    return display != nullptr && *display != '\0';
}

Answer askWhetherToKeep(const std::string& reportPath, int limitSeconds) {
    const std::string text = "Tavrel has crashed. The crash report is\n" + reportPath +
                             "\nNothing has been sent anywhere. Keep the report?";
    for (const Dialog& dialog : dialogs()) {
        const std::string program = findOnPath(dialog.program);
        if (program.empty()) {
            continue;
        }
        std::vector<std::string> arguments = dialog.arguments;
        for (std::string& argument : arguments) {
            argument = filledIn(argument, text, limitSeconds);
        }
        const int status = runDialog(program, arguments, limitSeconds);
        return status == dialog.removeStatus ? Answer::Remove : Answer::Keep;
    }
    return Answer::Keep;
}

}  // namespace Zendrik::Reporter
