#include "programs/CrashReporterTavrel/ElfImage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "process/DescriptorIo.h"
#include "processor/cfi_frame_info.h"
#include "programs/CrashReporterTavrel/UnwindRules.h"

namespace Zendrik::Reporter {

namespace {

constexpr uint64_t kPageMask = ~uint64_t{0xfff};

template <typename T>
T readUnaligned(const uint8_t* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

bool isUsable(const Elf64_Ehdr& header) {
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
           header.e_machine == EM_X86_64 && header.e_phentsize == sizeof(Elf64_Phdr);
}

bool startsBefore(const ElfFunction& left, const ElfFunction& right) {
    return left.address < right.address;
}

// .eh_frame_hdr in the one form that linkers write for x86-64.
struct FrameTableHeader {
    uint8_t version;
    uint8_t framePointerEncoding;
    uint8_t countEncoding;
    uint8_t tableEncoding;
    int32_t framePointer;
    uint32_t count;
};
struct FrameTableRow {
    int32_t function;  // both relative to the header's address
    int32_t entry;
};
constexpr uint8_t kUnsigned4 = 0x03;
constexpr uint8_t kHeaderRelativeSigned4 = 0x3b;

}  // namespace

struct ElfImage::FrameEntry {
    uint64_t address;  // of the entry, in .eh_frame
    const uint8_t* bytes;
    uint64_t size;  // with its length field
    const uint8_t* common;
    uint64_t commonSize;
};

std::unique_ptr<ElfImage> ElfImage::open(const std::string& path) {
    // O_NONBLOCK: a module's path may lead to a FIFO by now.
    const Plexum3::Base::ScopedFd file(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size < static_cast<off_t>(sizeof(Elf64_Ehdr))) {
        return nullptr;
    }
    const auto size = static_cast<size_t>(status.st_size);
    void* bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
    if (bytes == MAP_FAILED) {
        return nullptr;
    }
    std::unique_ptr<ElfImage> image(new ElfImage(static_cast<const uint8_t*>(bytes), size));
    if (!isUsable(*image->at<Elf64_Ehdr>(0)) || !image->readSegments()) {
        return nullptr;
    }
    image->readFunctions();
    return image;
}

ElfImage::~ElfImage() {
    (void)munmap(const_cast<uint8_t*>(bytes_), size_);
}

template <typename T>
const T* ElfImage::at(uint64_t offset, uint64_t count) const {
    if (offset > size_ || offset % alignof(T) != 0 || count > (size_ - offset) / sizeof(T)) {
        return nullptr;
    }
    return reinterpret_cast<const T*>(bytes_ + offset);
}

bool ElfImage::locate(uint64_t address, uint64_t* offset, uint64_t* available) const {
    for (const Elf64_Phdr& segment : loaded_) {
        const uint64_t within = address - segment.p_vaddr;
        if (address < segment.p_vaddr || within >= segment.p_filesz || segment.p_offset > size_ ||
            within >= size_ - segment.p_offset) {
            continue;
        }
        *offset = segment.p_offset + within;
        *available = std::min(segment.p_filesz - within, size_ - *offset);
        return true;
    }
    return false;
}

bool ElfImage::readSegments() {
    const auto* header = at<Elf64_Ehdr>(0);
    const auto* segments = at<Elf64_Phdr>(header->e_phoff, header->e_phnum);
    if (segments == nullptr) {
        return false;
    }
    for (const Elf64_Phdr* segment = segments; segment != segments + header->e_phnum; ++segment) {
        if (segment->p_type == PT_LOAD) {
            loaded_.push_back(*segment);
        } else if (segment->p_type == PT_NOTE) {
            readNotes(segment->p_offset, segment->p_filesz);
        } else if (segment->p_type == PT_GNU_EH_FRAME) {
            frameHeader_ = segment->p_vaddr;
        }
    }
    if (!loaded_.empty()) {
        firstAddress_ = loaded_.front().p_vaddr & kPageMask;
    }
    return !loaded_.empty();
}

void ElfImage::readNotes(uint64_t offset, uint64_t size) {
    const uint64_t end = offset + size;
    while (offset < end) {
        const auto* note = at<Elf64_Nhdr>(offset);
        if (note == nullptr) {
            return;
        }
        const auto padded = [](uint64_t length) { return (length + 3) & ~uint64_t{3}; };
        const uint64_t content = offset + sizeof *note + padded(note->n_namesz);
        const auto* bytes = at<uint8_t>(content, note->n_descsz);
        const auto* name = at<char>(offset + sizeof *note, note->n_namesz);
        if (bytes == nullptr || name == nullptr) {
            return;
        }
        if (note->n_type == NT_GNU_BUILD_ID &&
            std::string(name, note->n_namesz) == std::string(ELF_NOTE_GNU, sizeof ELF_NOTE_GNU)) {
            constexpr char digits[] = "0123456789abcdef";
            buildId_.clear();
            for (const uint8_t* byte = bytes; byte != bytes + note->n_descsz; ++byte) {
                buildId_ += digits[*byte >> 4];
                buildId_ += digits[*byte & 15];
            }
        }
        offset = content + padded(note->n_descsz);
    }
}

void ElfImage::readFunctions() {
    const auto* header = at<Elf64_Ehdr>(0);
    const auto* sections = at<Elf64_Shdr>(header->e_shoff, header->e_shnum);
    if (sections == nullptr || header->e_shentsize != sizeof(Elf64_Shdr)) {
        return;
    }
    // The full table first; a stripped file has only the dynamic one.
    for (const uint32_t type : {SHT_SYMTAB, SHT_DYNSYM}) {
        for (uint64_t i = 0; i < header->e_shnum && functions_.empty(); ++i) {
            if (sections[i].sh_type == type && sections[i].sh_link < header->e_shnum) {
                readSymbols(sections[i], sections[sections[i].sh_link]);
            }
        }
    }
    std::sort(functions_.begin(), functions_.end(), startsBefore);
}

void ElfImage::readSymbols(const Elf64_Shdr& table, const Elf64_Shdr& names) {
    const uint64_t count = table.sh_size / sizeof(Elf64_Sym);
    const auto* symbols = at<Elf64_Sym>(table.sh_offset, count);
    const auto* text = at<char>(names.sh_offset, names.sh_size);
    // A table of strings that ends in a null makes every name in it end somewhere.
    if (symbols == nullptr || text == nullptr || names.sh_size == 0 ||
        text[names.sh_size - 1] != '\0') {
        return;
    }
    for (const Elf64_Sym* symbol = symbols; symbol != symbols + count; ++symbol) {
        const int type = ELF64_ST_TYPE(symbol->st_info);
        if ((type == STT_FUNC || type == STT_GNU_IFUNC) && symbol->st_shndx != SHN_UNDEF &&
            symbol->st_name < names.sh_size) {
            functions_.push_back({symbol->st_value, symbol->st_size, text + symbol->st_name});
        }
    }
}

const ElfFunction* ElfImage::functionAt(uint64_t address) const {
    auto next = std::upper_bound(functions_.begin(), functions_.end(),
                                 ElfFunction{address, 0, nullptr}, startsBefore);
    if (next == functions_.begin()) {
        return nullptr;
    }
    const ElfFunction& function = *std::prev(next);
    const bool covers = function.size == 0 || address - function.address < function.size;
    return covers ? &function : nullptr;
}

bool ElfImage::findFrameEntry(uint64_t address, FrameEntry* entry) const {
    uint64_t offset = 0;
    uint64_t available = 0;
    if (frameHeader_ == 0 || !locate(frameHeader_, &offset, &available)) {
        return false;
    }
    const auto* header = at<FrameTableHeader>(offset);
    if (header == nullptr || header->version != 1 || header->countEncoding != kUnsigned4 ||
        header->tableEncoding != kHeaderRelativeSigned4) {
        return false;
    }
    const auto* rows = at<FrameTableRow>(offset + sizeof *header, header->count);
    if (rows == nullptr) {
        return false;
    }
    const auto relative = static_cast<int64_t>(address - frameHeader_);
    const FrameTableRow* next = std::upper_bound(
        rows, rows + header->count, relative,
        [](int64_t wanted, const FrameTableRow& row) { return wanted < row.function; });
    if (next == rows) {
        return false;
    }
    entry->address = frameHeader_ + static_cast<int64_t>(std::prev(next)->entry);
    return readFrameEntry(entry);
}

bool ElfImage::readFrameEntry(FrameEntry* entry) const {
    uint64_t at = 0;
    uint64_t available = 0;
    constexpr uint64_t prologue = 2 * sizeof(uint32_t);  // length, distance to the common entry
    if (!locate(entry->address, &at, &available) || available < prologue) {
        return false;
    }
    entry->bytes = bytes_ + at;
    const auto length = readUnaligned<uint32_t>(entry->bytes);
    const auto distance = readUnaligned<uint32_t>(entry->bytes + sizeof(uint32_t));
    entry->size = sizeof(uint32_t) + uint64_t{length};
    const uint64_t common = at + sizeof(uint32_t) - distance;
    if (length < sizeof(uint32_t) || entry->size > available || distance > at ||
        size_ - common < prologue) {
        return false;
    }
    entry->common = bytes_ + common;
    entry->commonSize = sizeof(uint32_t) + uint64_t{readUnaligned<uint32_t>(entry->common)};
    return entry->commonSize <= size_ - common;
}

bool ElfImage::hasUnwindRules(uint64_t address) const {
    return unwindRules(address) != nullptr;
}

std::unique_ptr<google_breakpad::CFIFrameInfo> ElfImage::unwindRules(uint64_t address) const {
    FrameEntry entry{};
    if (!findFrameEntry(address, &entry)) {
        return nullptr;
    }
    return unwindRulesAt(address, entry.common, entry.commonSize, entry.bytes, entry.size,
                         entry.address);
}

}  // namespace Zendrik::Reporter
