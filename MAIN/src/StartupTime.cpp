#include "MAIN/src/StartupTime.h"

#include <ZkConfiguration/Configuration.h>
#include <boost/system/error_code.hpp>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "process/ProcessTable.h"

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
    timespec time = {};
    static_cast<void>(clock_gettime(clock, &time));  // fails for no clock that is used here
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

// When the process began. The kernel says it by the clock tick, so that up to one tick of waiting
// isn't counted; the time on the processor is.
std::int64_t processStart(std::int64_t now) {
    const std::int64_t onProcessor = nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
    boost::system::error_code error;
    const auto created = Plexum3::Base::getProcessCreationTime(getpid(), &error);
    const std::int64_t tick = 1'000'000'000 / sysconf(_SC_CLK_TCK);
    const std::int64_t atLeast = nanoseconds(CLOCK_BOOTTIME) - created.count() * 1000 - tick;
    const bool isKnown = !error && created.count() != 0;
    return now - (isKnown ? std::max(onProcessor, atLeast) : onProcessor);
}

}  // namespace

void endStartupPhase(const char* name) {
    std::string* const all = phases();
    if (all == nullptr) {
        return;
    }
    const std::int64_t now = nanoseconds(CLOCK_MONOTONIC);
    if (all->empty()) {
        *all = std::to_string(processStart(now)) + " \n";
    }
    *all += std::to_string(now) + ' ' + name + '\n';
}

void publishStartupPhases() {
    if (phases() != nullptr) {
        Plexum3::ZkConfiguration::v1::Config().set("TAVREL_STARTUP_PHASES", *phases());
    }
}

}  // namespace Launcher
