#include "programs/CrashReporterTavrel/dump/ModuleFile.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "process/ScopedFd.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;

// An ELF file under its claims: each is held against the file's size before it is followed.
class ElfClaims {
  public:
    ElfClaims(int fd, std::uint64_t size) : fd_(fd), size_(size) {}

    bool hold() const {
        Elf64_Ehdr header{};
        if (!read(0, &header, sizeof header) || header.e_ident[EI_CLASS] != ELFCLASS64) {
            return false;
        }
        std::vector<Elf64_Phdr> segments;
        std::vector<Elf64_Shdr> sections;
        return readTable(header.e_phoff, header.e_phnum, header.e_phentsize, segments) &&
               readTable(header.e_shoff, header.e_shnum, header.e_shentsize, sections) &&
               std::all_of(segments.begin(), segments.end(),
                           [this](const Elf64_Phdr& segment) { return holds(segment); }) &&
               std::all_of(sections.begin(), sections.end(),
                           [this](const Elf64_Shdr& section) { return holds(section); }) &&
               namesHold(sections, header.e_shstrndx);
    }

  private:
    bool isInside(std::uint64_t offset, std::uint64_t size) const {
        return offset <= size_ && size <= size_ - offset;
    }

    bool read(std::uint64_t offset, void* buffer, std::size_t size) const {
        return isInside(offset, size) &&
               pread(fd_, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
    }

    template <typename Entry>
    bool readTable(std::uint64_t offset, std::size_t count, std::size_t entrySize,
                   std::vector<Entry>& entries) const {
        if (offset == 0 || count == 0) {
            return true;
        }
        entries.resize(count);
        return entrySize == sizeof(Entry) && read(offset, entries.data(), count * sizeof(Entry));
    }

    bool holds(const Elf64_Phdr& segment) const {
        return isInside(segment.p_offset, segment.p_filesz) &&
               (segment.p_type != PT_NOTE || notesHold(segment.p_offset, segment.p_filesz));
    }

    bool holds(const Elf64_Shdr& section) const {
        return section.sh_type == SHT_NULL || section.sh_type == SHT_NOBITS ||
               (isInside(section.sh_offset, section.sh_size) &&
                (section.sh_type != SHT_NOTE || notesHold(section.sh_offset, section.sh_size)));
    }

    // Up to the build identifier, as Breakpad goes.
    bool notesHold(std::uint64_t offset, std::uint64_t size) const {
        constexpr std::uint64_t longestNotes = 65536;
        constexpr std::uint64_t longestIdentifier = 64;
        if (size > longestNotes) {
            return false;
        }
        std::vector<char> notes(size);
        if (!read(offset, notes.data(), notes.size())) {
            return false;
        }
        std::uint64_t at = 0;
        while (at < size) {
            Elf64_Nhdr note{};
            if (size - at < sizeof note) {
                return false;
            }
            std::memcpy(&note, &notes[at], sizeof note);
            at += sizeof note + padded(note.n_namesz);
            const bool isIdentifier = note.n_type == NT_GNU_BUILD_ID;
            if (isIdentifier) {
                return note.n_descsz <= longestIdentifier && at <= size &&
                       note.n_descsz <= size - at;
            }
            at += padded(note.n_descsz);
        }
        return true;
    }

    static std::uint64_t padded(std::uint64_t size) { return (size + 3) & ~std::uint64_t{3}; }

    bool namesHold(const std::vector<Elf64_Shdr>& sections, std::size_t index) const {
        if (sections.empty()) {
            return true;
        }
        if (index >= sections.size() || sections[index].sh_size == 0) {
            return false;
        }
        const Elf64_Shdr& names = sections[index];
        char last = 1;
        return read(names.sh_offset + names.sh_size - 1, &last, sizeof last) && last == '\0' &&
               std::all_of(sections.begin(), sections.end(), [&](const Elf64_Shdr& section) {
                   return section.sh_name < names.sh_size;
               });
    }

    int fd_;
    std::uint64_t size_;
};

}  // namespace

bool isSoundModule(const std::string& path) {
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0) {
        return true;
    }
    if (!S_ISREG(status.st_mode)) {
        return false;
    }
    char magic[SELFMAG] = {};
    const bool isElf = pread(file.get(), magic, sizeof magic, 0) == SELFMAG &&
                       std::memcmp(magic, ELFMAG, SELFMAG) == 0;
    const bool isOfWindows = magic[0] == 'M' && magic[1] == 'Z';  // Breakpad reads those, too
    return isElf ? ElfClaims(file.get(), static_cast<std::uint64_t>(status.st_size)).hold()
                 : !isOfWindows;
}

}  // namespace Zendrik::Reporter
