#include "programs/CrashReporterTavrel/report/KeepPrompt.h"

#include <boost/algorithm/string/replace.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

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
std::vector<Dialog> dialogs() {
    return {
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
}

std::string findOnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        // A relative folder is one of the application's working directory, not of the user's.
        const bool isAbsolute = !folder.empty() && folder.front() == '/';
        folder.append("/").append(program);
        if (isAbsolute && access(folder.c_str(), X_OK) == 0) {
            return folder;
        }
    }
    return {};
}

// The exit status; -1 when the dialog did not exit by itself within the limit, or was not started.
int runDialog(const std::vector<std::string>& command, int limitSeconds) {
    using std::chrono::steady_clock;
    const Plexum3::Base::ScopedFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    Plexum3::Base::SubprocessOptions options;
    options.args = command;
    options.closeOtherDescriptors = true;  // the launcher's files are not the dialog's
    options.stdinFd = options.stdoutFd = options.stderrFd = null.get();
    const auto deadline = steady_clock::now() + std::chrono::seconds(limitSeconds);
    const Plexum3::Base::Subprocess dialog = Plexum3::Base::Subprocess::spawn(options);
    if (dialog.pid() < 0) {
        return -1;
    }
    // Not by its pipe, which a helper that it has left behind keeps open.
    while (!dialog.poll() && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    dialog.sendSignal(SIGKILL);  // to one that has ended, it does nothing
    dialog.wait();
    return dialog.exitCode();
}

}  // namespace

Answer askWhetherToKeep(const std::string& reportPath, int limitSeconds) {
    const std::string text = "Tavrel has crashed. The crash report is\n" + reportPath +
                             "\nNothing has been sent anywhere. Keep the report?";
    const char* const display = std::getenv("DISPLAY");
    if (display == nullptr || *display == '\0') {
        return Answer::Keep;
    }
    for (const Dialog& dialog : dialogs()) {
        std::vector<std::string> command = {findOnPath(dialog.program)};
        if (command.front().empty()) {
            continue;
        }
        for (std::string argument : dialog.arguments) {
            boost::replace_all(argument, "@SECONDS", std::to_string(limitSeconds));
            boost::replace_all(argument, "@TEXT", text);
            command.push_back(argument);
        }
        return runDialog(command, limitSeconds) == dialog.removeStatus ? Answer::Remove
                                                                       : Answer::Keep;
    }
    return Answer::Keep;
}

}  // namespace Zendrik::Reporter
