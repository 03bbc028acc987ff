#pragma once

// One module's file as the stack walk needs it: function names from its symbol table, and the call
// frame information that unwinds a frame of one of its functions.
//
// Everything is read straight from the mapped file, with every offset checked against its size: the
// file may be damaged, or may have changed since the crash. Addresses are the file's own virtual
// addresses. Usable from one thread at a time.

#include <elf.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace google_breakpad {
class CFIFrameInfo;
}

namespace Zendrik::Reporter {

struct ElfFunction {
    uint64_t address;
    uint64_t size;     // 0: up to the next function
    const char* name;  // lives as long as the image
};

class ElfImage {
  public:
    // Null when the file can't be opened or is no 64-bit little-endian x86-64 ELF file.
    static std::unique_ptr<ElfImage> open(const std::string& path);
    ~ElfImage();
    ElfImage(const ElfImage&) = delete;
    ElfImage& operator=(const ElfImage&) = delete;

    // The build identifier in lower case hexadecimal digits; empty when the file has none.
    const std::string& buildId() const { return buildId_; }

    // Page-aligned virtual address of the first loaded segment: what stands at the module's base.
    uint64_t firstAddress() const { return firstAddress_; }

    // The function that covers `address`, from .symtab or else .dynsym; null when none does.
    const ElfFunction* functionAt(uint64_t address) const;

    // Whether `unwindRules` finds rules for `address`.
    bool hasUnwindRules(uint64_t address) const;

    // Rules that find the caller's registers from a frame stopped at `address`, in the form of
    // Breakpad's stack walker; null where the file has none or they need DWARF expressions.
    std::unique_ptr<google_breakpad::CFIFrameInfo> unwindRules(uint64_t address) const;

  private:
    struct FrameEntry;

    ElfImage(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(size) {}

    // A record of type T at a file offset, or null when it does not fit into the file.
    template <typename T>
    const T* at(uint64_t offset, uint64_t count = 1) const;
    // File offset of a loaded virtual address and the bytes that follow it there; false if none.
    bool locate(uint64_t address, uint64_t* offset, uint64_t* available) const;
    bool readSegments();
    void readNotes(uint64_t offset, uint64_t size);
    void readFunctions();
    void readSymbols(const Elf64_Shdr& table, const Elf64_Shdr& names);
    bool findFrameEntry(uint64_t address, FrameEntry* entry) const;
    // Fills in the rest of an entry whose address is set.
    bool readFrameEntry(FrameEntry* entry) const;

    const uint8_t* bytes_;
    size_t size_;
    std::string buildId_;
    uint64_t firstAddress_ = 0;
    uint64_t frameHeader_ = 0;  // virtual address of .eh_frame_hdr, 0 for none
    std::vector<Elf64_Phdr> loaded_;
    std::vector<ElfFunction> functions_;  // by address
};

}  // namespace Zendrik::Reporter
