#include "MAIN/src/StartupTime.h"

#include <ZkConfiguration/Configuration.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace Launcher {

namespace {

// Not in the configuration: the first phase ends before there is one. Never destroyed.
std::string* phases() {
    static std::string* const only = [] {
        const char* const wanted = std::getenv("TAVREL_STARTUP_TIME");
        return wanted != nullptr && std::strcmp(wanted, "1") == 0 ? new std::string : nullptr;
    }();
    return only;
}

std::int64_t nanoseconds(clockid_t clock) {
    constexpr std::int64_t inASecond = 1'000'000'000;
    timespec time = {};
    // Fails for no clock that is used here.
    static_cast<void>(clock_gettime(clock, &time));
    return time.tv_sec * inASecond + time.tv_nsec;
}

}  // namespace

void endStartupPhase(const char* name) {
    std::string* const all = phases();
    if (all == nullptr) {
        return;
    }
    const std::int64_t now = nanoseconds(CLOCK_MONOTONIC);
    if (all->empty()) {
        *all = std::to_string(now - nanoseconds(CLOCK_PROCESS_CPUTIME_ID)) + " \n";
    }
    *all += std::to_string(now) + ' ' + name + '\n';
}

void publishStartupPhases() {
    if (phases() != nullptr) {
        Plexum3::ZkConfiguration::v1::Config().set("TAVREL_STARTUP_PHASES", *phases());
    }
}

}  // namespace Launcher
