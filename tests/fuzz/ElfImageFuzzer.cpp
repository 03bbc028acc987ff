#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "programs/CrashReporterTavrel/ElfImage.h"

// A module's file may be damaged or half replaced when a crash is reported: whatever stands in it,
// symbols are found or not found, and nothing else happens. Unwind rules are left out: Breakpad's
// reader ends the process at an encoding that it doesn't know, which the worker's guardian
// survives.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int file = memfd_create("module", MFD_CLOEXEC);
    if (file == -1 || write(file, data, size) != static_cast<ssize_t>(size)) {
        __builtin_trap();
    }
    const auto image = Zendrik::Reporter::ElfImage::open("/proc/self/fd/" + std::to_string(file));
    close(file);
    if (image) {
        const uint64_t first = image->firstAddress();
        for (const uint64_t address : {first, first + 0x1000, first + size / 2, ~uint64_t{0}}) {
            image->functionAt(address);
        }
    }
    return 0;
}
