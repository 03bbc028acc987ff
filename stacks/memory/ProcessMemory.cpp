#include "stacks/memory/ProcessMemory.h"

#include <sys/uio.h>

#include <algorithm>
#include <utility>

namespace Zendrik::Stacks {

MemoryReader processMemory(pid_t pid) {
    return [pid](std::uint64_t address, void* buffer, std::size_t size) {
        iovec local{buffer, size};
        iovec remote{reinterpret_cast<void*>(address), size};
        return process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
    };
}

bool PagedMemory::read(std::uint64_t address, void* buffer, std::size_t size) {
    auto* bytes = static_cast<char*>(buffer);
    while (size > 0) {
        const Page* const page = pageAt(address / pageSize);
        if (page == nullptr) {
            return false;
        }
        const std::size_t offset = address % pageSize;
        const std::size_t piece = std::min(size, pageSize - offset);
        std::memcpy(bytes, page->data() + offset, piece);
        bytes += piece;
        address += piece;
        size -= piece;
    }
    return true;
}

void PagedMemory::charge(std::size_t bytes) {
    bytes_ -= std::min(bytes_, bytes);
}

const PagedMemory::Page* PagedMemory::pageAt(std::uint64_t number) {
    const auto known = pages_.find(number);
    if (known != pages_.end()) {
        return known->second.get();
    }
    if (isSpent()) {
        return nullptr;
    }
    charge(pageSize);
    auto page = std::make_unique<Page>();
    if (!memory_(number * pageSize, page->data(), pageSize)) {
        page.reset();
    }
    return pages_.emplace(number, std::move(page)).first->second.get();
}

}  // namespace Zendrik::Stacks
