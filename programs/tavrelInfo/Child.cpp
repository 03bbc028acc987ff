#include "programs/tavrelInfo/Child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <system_error>

#include "base/ExecPointers.h"
#include "process/DescriptorIo.h"
#include "process/ProcFiles.h"

namespace Info {

namespace {

using Plexum3::Base::ScopedFd;

[[noreturn]] void runAsChild(const std::function<int()>& work, int output, unsigned seconds) {
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    // A disposition or mask that was handed down would keep the alarm away.
    std::signal(SIGALRM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    alarm(seconds);
    const int status = work();
    std::cout.flush();
    _exit(status);
}

}  // namespace

std::string ChildEnd::text() const {
    return WIFSIGNALED(status) ? std::string("ended by signal: ") + strsignal(WTERMSIG(status))
                               : "ended with status " + std::to_string(WEXITSTATUS(status));
}

ChildEnd inChild(const std::function<int()>& work, unsigned seconds) {
    ScopedFd readEnd;
    ScopedFd writeEnd;
    Plexum3::Base::createPipe(readEnd, writeEnd);
    const pid_t child = fork();
    if (child == 0) {
        runAsChild(work, writeEnd.get(), seconds);
    }
    if (child < 0) {
        throw std::system_error(errno, std::system_category(), "no process could be started");
    }
    writeEnd.reset();
    ChildEnd end;
    end.output = Plexum3::Base::readToEnd(readEnd.get());
    while (waitpid(child, &end.status, 0) < 0 && errno == EINTR) {
    }
    return end;
}

ChildEnd runProgram(const std::vector<std::string>& words,
                    const std::vector<std::pair<std::string, std::string>>& variables,
                    unsigned seconds) {
    const auto work = [&] {
        for (const auto& [name, value] : variables) {
            setenv(name.c_str(), value.c_str(), /*overwrite=*/1);
        }
        std::vector<std::string> own = words;
        const std::vector<char*> arguments = Zendrik::Base::execPointers(own);
        execvp(arguments.front(), arguments.data());
        std::cout << words.front() << ": " << std::strerror(errno) << '\n';
        return 127;
    };
    return inChild(work, seconds);
}

}  // namespace Info
