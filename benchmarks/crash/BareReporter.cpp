// The floor: Breakpad's server with nothing around it. Takes the arguments of the real reporter,
// writes its dumps into TAVREL_CRASH_DIR, and never ends by itself.

#include <client/linux/crash_generation/crash_generation_server.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

int main(int, char** argv) {
    const std::string folder = std::getenv("TAVREL_CRASH_DIR");
    google_breakpad::CrashGenerationServer server(std::atoi(argv[1]), nullptr, nullptr, nullptr,
                                                  nullptr, /*generate_dumps=*/true, &folder);
    const char serves = server.Start() ? 1 : 0;
    if (write(std::atoi(argv[2]), &serves, 1) != 1) {
        return 1;
    }
    for (;;) {
        pause();
    }
}
