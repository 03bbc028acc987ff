#include "programs/CrashReporterTavrel/report/KeepPrompt.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "base/ExecPointers.h"

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

[[noreturn]] void childRun(const std::string& program, const std::vector<std::string>& arguments) {
    // The caller has one thread, so the child may use the heap.
    for (const int number :
         {SIGINT, SIGQUIT, SIGHUP, SIGPIPE, SIGTERM, SIGTSTP, SIGTTIN, SIGTTOU, SIGXFSZ}) {
        static_cast<void>(signal(number, SIG_DFL));  // fails for no signal of this list
    }
    sigset_t none;
    sigemptyset(&none);
    static_cast<void>(sigprocmask(SIG_SETMASK, &none, nullptr));
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (dup2(null, fd) < 0) {
            _exit(127);
        }
    }
    // The launcher's files are not the dialog's. An old kernel leaves them open.
    static_cast<void>(syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0));
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    static_cast<void>(execv(program.c_str(), Base::execPointers(argv).data()));
    _exit(127);
}

// Blocks SIGCHLD while it lives, so that the end of a child can be waited for with a time limit.
class BlockedSigchld {
  public:
    BlockedSigchld() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGCHLD);
        static_cast<void>(sigprocmask(SIG_BLOCK, &set_, &before_));
    }
    ~BlockedSigchld() { static_cast<void>(sigprocmask(SIG_SETMASK, &before_, nullptr)); }
    BlockedSigchld(const BlockedSigchld&) = delete;
    BlockedSigchld& operator=(const BlockedSigchld&) = delete;

    // False when `limit` seconds are over first.
    bool await(int limit) const {
        const timespec time{limit, 0};
        int signal = 0;
        do {
            signal = sigtimedwait(&set_, nullptr, &time);
        } while (signal < 0 && errno == EINTR);
        return signal == SIGCHLD;
    }

  private:
    sigset_t set_{};
    sigset_t before_{};
};

// The exit status; -1 when the child did not exit by itself within the limit.
int runDialog(const std::string& program, const std::vector<std::string>& arguments,
              int limitSeconds) {
    const BlockedSigchld sigchld;
    const pid_t child = fork();
    if (child == 0) {
        childRun(program, arguments);
    }
    if (child < 0) {
        return -1;
    }
    if (!sigchld.await(limitSeconds)) {
        static_cast<void>(kill(child, SIGKILL));  // not reaped yet, so the pid is still the child's
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
