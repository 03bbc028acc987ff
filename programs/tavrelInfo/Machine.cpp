#include <boost/algorithm/string.hpp>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "UTIL/src/OpenGLBootstrap.h"
#include "process/SystemMetrics.h"
#include "programs/tavrelInfo/Child.h"
#include "programs/tavrelInfo/Findings.h"

namespace Info {

namespace {

std::string valueIn(const char* path, const std::string& prefix, const char* otherwise) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (boost::starts_with(line, prefix)) {
            return boost::trim_copy_if(line.substr(prefix.size()), boost::is_any_of("\""));
        }
    }
    return otherwise;
}

void addLimits(Findings& findings) {
    const auto text = [](rlim_t limit) {
        return limit == RLIM_INFINITY ? "unlimited" : std::to_string(limit);
    };
    const std::pair<const char*, __rlimit_resource> limits[] = {{"open files", RLIMIT_NOFILE},
                                                                {"processes", RLIMIT_NPROC},
                                                                {"memory", RLIMIT_AS},
                                                                {"stack", RLIMIT_STACK},
                                                                {"core file", RLIMIT_CORE}};
    for (const auto& [name, which] : limits) {
        rlimit limit = {};
        static_cast<void>(getrlimit(which, &limit));  // fails for no limit that is used here
        const bool isFixed = limit.rlim_max == limit.rlim_cur;
        findings.add(name, text(limit.rlim_cur) + (isFixed ? "" : " of " + text(limit.rlim_max)));
    }
}

// Whether the kernel, and what filters its calls, knows one; the arguments do nothing.
template <typename... Arguments>
std::string has(const char* name, long number, Arguments... arguments) {
    const long result = syscall(number, arguments...);
    const bool isThere = result >= 0 || (errno != ENOSYS && errno != EPERM);
    if (result > STDERR_FILENO) {
        close(static_cast<int>(result));
    }
    return name + std::string(isThere ? " yes" : " no");
}

void addKernel(Findings& findings) {
    constexpr unsigned beyondAll = 0x7fffffff;
    findings.add("kernel has", has("pidfd_open", SYS_pidfd_open, getpid(), 0) + ", " +
                                   has("close_range", SYS_close_range, beyondAll, beyondAll, 0) +
                                   ", " +
                                   // A structure that is too small.
                                   has("openat2", SYS_openat2, AT_FDCWD, nullptr, nullptr, 0));
    findings.add("ptrace_scope", valueIn("/proc/sys/kernel/yama/ptrace_scope", "", "none"));
}

void addSystem(Findings& findings) {
    utsname system = {};
    static_cast<void>(uname(&system));
    findings.add("system", valueIn("/etc/os-release", "PRETTY_NAME=", "unknown") + ", " +
                               system.sysname + " " + system.release + ", " + system.machine);
    findings.add("machine", std::to_string(Plexum3::Base::getAllowedCpus().size()) + " of " +
                                std::to_string(sysconf(_SC_NPROCESSORS_CONF)) + " processors, " +
                                std::to_string(Plexum3::Base::getSystemMemory().total >> 20U) +
                                " MB of memory");
}

// With a display, the question that the window's start asks.
void addDisplay(const std::string& root, Findings& findings) {
    const char* const display = std::getenv("DISPLAY");
    const bool isSet = display != nullptr && *display != '\0';
    findings.add("display", isSet ? display : "none: DISPLAY is not set; the window can't open");
    const ChildEnd end = inChild([&] {
        void* const library = dlopen((root + "/bin/libTavrelOpenGLProbe.so").c_str(), RTLD_NOW);
        void* const probe = library == nullptr ? nullptr : dlsym(library, "tavrelProbeOpenGL");
        std::string reason;
        if (probe == nullptr) {
            reason = dlerror();
        } else if (isSet) {
            static_cast<void>(reinterpret_cast<decltype(&tavrelProbeOpenGL)>(probe)(&reason));
        }
        std::cout << reason;
        return reason.empty() ? 0 : 1;
    });
    const std::string answer = end.output.empty() ? end.text() : end.output;
    if (end.isSuccess()) {
        findings.add("OpenGL", isSet ? "a context can be had" : "not asked without a display");
    } else if (isSet) {
        findings.wrong("OpenGL", answer);
    } else {
        findings.add("OpenGL", answer + "; the window needs it");
    }
}

}  // namespace

void lookAtMachine(const std::string& root, Findings& findings) {
    findings.section("machine");
    addSystem(findings);
    addKernel(findings);
    addLimits(findings);
    addDisplay(root, findings);
}

}  // namespace Info
