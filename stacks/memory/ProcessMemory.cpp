#include "stacks/memory/ProcessMemory.h"

#include <sys/uio.h>

namespace Zendrik::Stacks {

MemoryReader processMemory(pid_t pid) {
    return [pid](std::uint64_t address, void* buffer, std::size_t size) {
        iovec local{buffer, size};
        iovec remote{reinterpret_cast<void*>(address), size};
        return process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
    };
}

}  // namespace Zendrik::Stacks
