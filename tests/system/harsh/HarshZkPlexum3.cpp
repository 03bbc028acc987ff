// Stands in the place of libZkPlexum3.so, in front of the real one in the folder "closed" beside
// it. Notes every call in the file HARSH_RECORD, and does what the variable of the call says
// (HARSH_MINIMALLY, HARSH_FULLY): a number is answered in place of the real library's result; for
// words see harshAct.

#include <ZkConfiguration/Configuration.h>
#include <dlfcn.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "ZkPlexum3/ZkPlexum3.h"

namespace {

void note(const std::string& line) {
    if (const char* record = std::getenv("HARSH_RECORD")) {
        std::ofstream(record, std::ios::app) << line << "\n";
    }
}

template <typename Function>
Function* real(const char* name) {
    Dl_info here{};
    dladdr(reinterpret_cast<void*>(&note), &here);
    std::string path = here.dli_fname;
    path.replace(path.rfind('/'), std::string::npos, "/closed/libZkPlexum3.so");
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(dlsym(library, name));
}

}  // namespace

/// What real closed libraries do to a process. thread: starts a thread that any signal may reach;
/// handler: takes SIGINT for itself; interrupt: is met by a SIGINT, in another thread if
/// isInThread.
extern "C" void harshAct(const char* word, int isInThread) {
    const std::string what = word;
    if (what == "thread") {
        std::thread(pause).detach();
    } else if (what == "handler") {
        std::signal(SIGINT, [](int) {});
    } else if (what == "interrupt" && isInThread != 0) {
        std::thread([] { std::raise(SIGINT); }).join();
    } else if (what == "interrupt") {
        std::raise(SIGINT);
    }
}

namespace {

int answer(const char* variable, const char* function, int reserved, bool asSettled = true) {
    note(std::string(function) + (reserved == 0 && asSettled ? "" : " oddly"));
    const char* const word = std::getenv(variable);
    if (const int refusal = word == nullptr ? 0 : std::atoi(word); refusal != 0) {
        return refusal;
    }
    if (word != nullptr) {
        harshAct(word, /*isInThread=*/0);
    }
    return real<int(int)>(function)(reserved);
}

}  // namespace

int ZkPlexum3InitializeMinimally(int reserved) {
    return answer("HARSH_MINIMALLY", "ZkPlexum3InitializeMinimally", reserved);
}

int ZkPlexum3Initialize(int reserved) {
    // The library reads it now: set later, it comes to nothing.
    const bool isSync = Plexum3::ZkConfiguration::v1::Config().get("RUNTIME_USE_SYNC") == "1";
    return answer("HARSH_FULLY", "ZkPlexum3Initialize", reserved, isSync);
}

void ZkPlexum3Uninitialize(void* reserved) {
    note(std::string("ZkPlexum3Uninitialize") + (reserved == nullptr ? "" : " oddly"));
    real<void(void*)>("ZkPlexum3Uninitialize")(reserved);
}
