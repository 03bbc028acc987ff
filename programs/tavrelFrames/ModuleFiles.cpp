#include "programs/tavrelFrames/ModuleFiles.h"

#include <boost/algorithm/hex.hpp>
#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "process/DescriptorIo.h"
#include "stacks/native/FrameLines.h"
#include "stacks/native/StackGuess.h"

namespace Zendrik::Frames {

namespace {

using Plexum3::Base::ScopedFd;
using Stacks::MappedFile;

constexpr std::string_view deletedMark = " (deleted)";

// libdwfl keeps one pointer for each module: the index, and whom to ask.
struct Place {
    ModuleFiles* files;
    std::size_t file;
};

int findElf(Dwfl_Module*, void** data, const char*, Dwarf_Addr, char** name, Elf**) {
    const auto* const place = static_cast<const Place*>(*data);
    return place->files->open(place->file, name);
}

char debugFolders[] = ":.debug:/usr/lib/debug";
char* debugPath = debugFolders;

const Dwfl_Callbacks callbacks = {findElf, dwfl_standard_find_debuginfo, nullptr, &debugPath};

std::string buildIdOf(int fd) {
    Elf* const elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
    const void* bits = nullptr;
    const ssize_t size = elf == nullptr ? 0 : dwelf_elf_gnu_build_id(elf, &bits);
    const std::string id(static_cast<const char*>(bits),
                         static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    std::string digits = boost::algorithm::hex_lower(id);
    static_cast<void>(elf_end(elf));  // what is left is the library's
    return digits;
}

// "" or why the open file is not the one that was mapped.
const char* objection(int fd, const MappedFile& file, bool deleted) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        return "is no regular file";
    }
    const std::string id = buildIdOf(fd);
    if (file.buildId.empty() ? deleted : id != file.buildId) {
        return id.empty() ? "is damaged, or no longer the file that was loaded"
                          : "has been replaced since it was loaded";
    }
    return "";
}

}  // namespace

void say(const std::string& line) {
    if (!Plexum3::Base::writeAll(STDOUT_FILENO, line)) {
        _exit(EXIT_FAILURE);
    }
}

ModuleFiles::ModuleFiles(const Stacks::StackCapture& capture, std::set<std::size_t> leftOut)
    : capture_(capture), leftOut_(std::move(leftOut)), session_(dwfl_begin(&callbacks)) {
    static_cast<void>(elf_version(EV_CURRENT));
    dwfl_report_begin(session_.get());
    for (std::size_t i = 0; i < capture_.files.size(); ++i) {
        const MappedFile& file = capture_.files[i];
        Dwfl_Module* const module =
            file.start >= file.end
                ? nullptr
                : dwfl_report_module(session_.get(), file.path.c_str(), file.start, file.end);
        void** data = nullptr;
        if (module != nullptr && dwfl_module_info(module, &data, nullptr, nullptr, nullptr, nullptr,
                                                  nullptr, nullptr) != nullptr) {
            // The library keeps it until this process ends, and so does the process.
            *data = new Place{this, i};
        }
    }
    static_cast<void>(dwfl_report_end(session_.get(), nullptr, nullptr));
}

void ModuleFiles::blame(std::size_t file) {
    if (blamed_ != file) {
        blamed_ = file;
        say(Stacks::moduleLine(file));
    }
}

Dwfl_Module* ModuleFiles::at(std::uint64_t address) {
    Dwfl_Module* const module = dwfl_addrmodule(session_.get(), address);
    void** data = nullptr;
    if (module != nullptr && dwfl_module_info(module, &data, nullptr, nullptr, nullptr, nullptr,
                                              nullptr, nullptr) != nullptr) {
        blame(static_cast<const Place*>(*data)->file);
    }
    return module;
}

bool ModuleFiles::isReturnAddress(std::uint64_t address) {
    Dwfl_Module* const module = at(address - 1);
    Dwarf_Addr moduleBias = 0;
    if (module != nullptr && dwfl_module_getelf(module, &moduleBias) == nullptr) {
        return Stacks::isBehindLostCall(capture_, address);
    }
    Dwarf_Addr offset = address - 1;
    Dwarf_Addr bias = 0;
    Elf_Scn* const section =
        module == nullptr ? nullptr : dwfl_module_address_section(module, &offset, &bias);
    GElf_Shdr header;
    if (section == nullptr || gelf_getshdr(section, &header) == nullptr ||
        (header.sh_flags & SHF_EXECINSTR) == 0) {
        return false;
    }
    const Elf_Data* const code = elf_rawdata(section, nullptr);
    if (code == nullptr || code->d_buf == nullptr || offset >= code->d_size) {
        return false;
    }
    const std::string_view before(static_cast<const char*>(code->d_buf), offset + 1);
    return Stacks::endsWithCall(
        before.substr(before.size() - std::min(before.size(), Stacks::longestCall)));
}

int ModuleFiles::open(std::size_t file, char** name) {
    blame(file);
    const MappedFile& mapped = capture_.files[file];
    std::string path = mapped.path;
    const bool deleted =
        path.size() > deletedMark.size() &&
        path.compare(path.size() - deletedMark.size(), path.npos, deletedMark) == 0;
    path.resize(path.size() - (deleted ? deletedMark.size() : 0));
    if (leftOut_.count(file) != 0 || path.empty() || path.front() != '/') {
        return -1;
    }
    // Without O_NONBLOCK a FIFO of this name would be waited for.
    ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    const std::string reason = fd.get() < 0 ? std::string("can't be read: ") + std::strerror(errno)
                                            : std::string(objection(fd.get(), mapped, deleted));
    if (!reason.empty()) {
        say(Stacks::noteLine(path + " " + reason + "; its functions have no names here."));
        return -1;
    }
    *name = strdup(path.c_str());
    return fd.release();
}

}  // namespace Zendrik::Frames
