// Stands in the place of libZkPlexum3.so, in front of the real one in the folder "closed" beside
// it. Notes every call in the file REFUSING_RECORD; REFUSING_MINIMALLY and REFUSING_FULLY, if set,
// are answered in place of the real library's result.

#include "ZkPlexum3/ZkPlexum3.h"

#include <ZkConfiguration/Configuration.h>
#include <dlfcn.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

void note(const char* function, bool asSettled) {
    if (const char* record = std::getenv("REFUSING_RECORD")) {
        std::ofstream(record, std::ios::app) << function << (asSettled ? "" : " oddly") << "\n";
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

int answer(const char* variable, const char* function, int reserved, bool asSettled = true) {
    note(function, reserved == 0 && asSettled);
    if (const char* refusal = std::getenv(variable)) {
        return std::atoi(refusal);
    }
    return real<int(int)>(function)(reserved);
}

}  // namespace

int ZkPlexum3InitializeMinimally(int reserved) {
    return answer("REFUSING_MINIMALLY", "ZkPlexum3InitializeMinimally", reserved);
}

int ZkPlexum3Initialize(int reserved) {
    // The library reads it now: set later, it comes to nothing.
    const bool isSync = Plexum3::ZkConfiguration::v1::Config().get("RUNTIME_USE_SYNC") == "1";
    return answer("REFUSING_FULLY", "ZkPlexum3Initialize", reserved, isSync);
}

void ZkPlexum3Uninitialize(void* reserved) {
    note("ZkPlexum3Uninitialize", reserved == nullptr);
    real<void(void*)>("ZkPlexum3Uninitialize")(reserved);
}
