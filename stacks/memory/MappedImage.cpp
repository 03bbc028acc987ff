#include "stacks/memory/MappedImage.h"

#include <algorithm>

namespace Zendrik::Stacks {

namespace {

constexpr std::size_t maxSegments = 64;
constexpr std::size_t maxNotes = 4096;  // bytes

bool isElf64(const Elf64_Ehdr& header) {
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_machine == EM_X86_64 &&
           header.e_phentsize == sizeof(Elf64_Phdr) && header.e_phnum <= maxSegments;
}

std::size_t alignNote(std::size_t size) {
    return (size + 3) & ~std::size_t{3};
}

std::string hexadecimal(const char* bytes, std::size_t count) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

/// @param notes the whole content of a PT_NOTE segment
std::string findBuildId(const std::string& notes) {
    std::size_t at = 0;
    while (at + sizeof(Elf64_Nhdr) <= notes.size()) {
        const auto note = fieldAt<Elf64_Nhdr>(notes.data(), at);
        const std::size_t name = at + sizeof note;
        const std::size_t content = name + alignNote(note.n_namesz);
        const std::size_t end = content + alignNote(note.n_descsz);
        if (end > notes.size()) {
            return {};
        }
        if (note.n_type == NT_GNU_BUILD_ID && notes.compare(name, sizeof "GNU", "GNU", 4) == 0) {
            return hexadecimal(notes.data() + content, note.n_descsz);
        }
        at = end;
    }
    return {};
}

}  // namespace

std::optional<MappedImage> readMappedImage(std::uint64_t start, const MemoryReader& memory) {
    const auto header = readValue<Elf64_Ehdr>(memory, start);
    if (!header || !isElf64(*header)) {
        return std::nullopt;
    }
    MappedImage image;
    image.segments.resize(header->e_phnum);
    if (!memory(start + header->e_phoff, image.segments.data(),
                image.segments.size() * sizeof(Elf64_Phdr))) {
        return std::nullopt;
    }
    const auto first =
        std::find_if(image.segments.begin(), image.segments.end(), [](const Elf64_Phdr& segment) {
            return segment.p_type == PT_LOAD && segment.p_offset == 0;
        });
    image.bias = first == image.segments.end() ? start : start - first->p_vaddr;
    return image;
}

std::string readBuildId(const MappedImage& image, const MemoryReader& memory) {
    for (const Elf64_Phdr& segment : image.segments) {
        if (segment.p_type != PT_NOTE) {
            continue;
        }
        std::string notes(std::min<std::uint64_t>(segment.p_memsz, maxNotes), '\0');
        if (!memory(image.bias + segment.p_vaddr, notes.data(), notes.size())) {
            continue;
        }
        if (std::string found = findBuildId(notes); !found.empty()) {
            return found;
        }
    }
    return {};
}

}  // namespace Zendrik::Stacks
