#include "stacks/memory/MappedSymbols.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "stacks/memory/Mappings.h"

namespace Zendrik::Stacks {

namespace {

constexpr std::size_t maxDynamicEntries = 512;
constexpr std::size_t maxChain = 256;

/// As in "GNU Hash ELF Sections": Bernstein's hash.
std::uint32_t gnuHash(std::string_view name) {
    std::uint32_t hash = 5381;
    for (const char character : name) {
        hash = hash * 33 + static_cast<unsigned char>(character);
    }
    return hash;
}

}  // namespace

std::optional<MappedSymbols> MappedSymbols::of(std::uint64_t start, const MemoryReader& memory) {
    const std::optional<MappedImage> image = readMappedImage(start, memory);
    if (!image) {
        return std::nullopt;
    }
    MappedSymbols symbols(memory, image->bias);
    for (const Elf64_Phdr& segment : image->segments) {
        if (segment.p_type == PT_DYNAMIC &&
            symbols.readDynamicSection(image->bias + segment.p_vaddr, segment.p_memsz) &&
            symbols.readHashHeader()) {
            return symbols;
        }
    }
    return std::nullopt;
}

bool MappedSymbols::readDynamicSection(std::uint64_t address, std::uint64_t size) {
    std::vector<Elf64_Dyn> entries(
        std::min<std::uint64_t>(size / sizeof(Elf64_Dyn), maxDynamicEntries));
    if (!memory_(address, entries.data(), entries.size() * sizeof(Elf64_Dyn))) {
        return false;
    }
    for (const Elf64_Dyn& entry : entries) {
        // The loader has added the bias to the addresses, unless the section can't be written to.
        const std::uint64_t value = entry.d_un.d_ptr;
        const std::uint64_t mapped = value < bias_ ? bias_ + value : value;
        if (entry.d_tag == DT_NULL) {
            break;
        }
        if (entry.d_tag == DT_SYMTAB) {
            symbols_ = mapped;
        } else if (entry.d_tag == DT_STRTAB) {
            strings_ = mapped;
        } else if (entry.d_tag == DT_GNU_HASH) {
            hash_ = mapped;
        }
    }
    return symbols_ != 0 && strings_ != 0 && hash_ != 0;
}

bool MappedSymbols::readHashHeader() {
    // Number of buckets, first symbol in them, words of the filter, shift of the filter.
    const auto header = readValue<std::array<std::uint32_t, 4>>(memory_, hash_);
    if (!header || (*header)[0] == 0) {
        return false;
    }
    bucketCount_ = (*header)[0];
    firstHashed_ = (*header)[1];
    buckets_ = hash_ + sizeof *header + std::uint64_t{(*header)[2]} * sizeof(std::uint64_t);
    chains_ = buckets_ + std::uint64_t{bucketCount_} * sizeof(std::uint32_t);
    return true;
}

bool MappedSymbols::hasName(const Elf64_Sym& symbol, std::string_view name) const {
    std::string found(name.size() + 1, 'x');
    return memory_(strings_ + symbol.st_name, found.data(), found.size()) &&
           found.compare(0, name.size(), name) == 0 && found.back() == '\0';
}

std::optional<MappedSymbol> MappedSymbols::find(std::string_view name) const {
    const std::uint32_t hash = gnuHash(name);
    const auto first = readValue<std::uint32_t>(
        memory_, buckets_ + std::uint64_t{hash % bucketCount_} * sizeof(std::uint32_t));
    if (!first || *first < firstHashed_) {
        return std::nullopt;
    }
    for (std::uint64_t index = *first; index < *first + std::uint64_t{maxChain}; ++index) {
        const auto link = readValue<std::uint32_t>(
            memory_, chains_ + (index - firstHashed_) * sizeof(std::uint32_t));
        if (!link) {
            return std::nullopt;
        }
        // The last bit marks the end of the chain only.
        if ((*link | 1) == (hash | 1)) {
            const auto symbol = readValue<Elf64_Sym>(memory_, symbols_ + index * sizeof(Elf64_Sym));
            if (symbol && symbol->st_shndx != SHN_UNDEF && hasName(*symbol, name)) {
                return MappedSymbol{bias_ + symbol->st_value, symbol->st_size};
            }
        }
        if ((*link & 1) != 0) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace Zendrik::Stacks
