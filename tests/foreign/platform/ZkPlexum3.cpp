// Starts a thread, as the libraries of a real application do.

#include <ZkConfiguration/Configuration.h>
#include <ZkPlexum3/ZkPlexum3.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

int ZkPlexum3InitializeMinimally(int) {
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (const char* const equals = std::strchr(*variable, '=')) {
            Plexum3::ZkConfiguration::v1::Config().set(
                std::string(*variable, static_cast<std::size_t>(equals - *variable)), equals + 1);
        }
    }
    return 0;
}

int ZkPlexum3Initialize(int) {
    std::thread(pause).detach();
    return 0;
}

void ZkPlexum3Uninitialize(void*) {}
