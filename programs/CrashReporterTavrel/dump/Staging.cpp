#include "programs/CrashReporterTavrel/dump/Staging.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <utility>

#include "programs/CrashReporterTavrel/dump/FolderNames.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;

constexpr char namePrefix[] = ".tavrel-crash-";

// The same on one machine, and hardly on two: its name, by FNV-1a.
std::string machineTag() {
    utsname machine{};
    static_cast<void>(uname(&machine));  // fails only for a bad address
    std::uint32_t hash = 2166136261U;
    for (const char* c = machine.nodename; *c != '\0'; ++c) {
        hash = (hash ^ static_cast<unsigned char>(*c)) * 16777619U;
    }
    char tag[16];
    static_cast<void>(std::snprintf(tag, sizeof tag, "%08" PRIx32 "-", hash));
    return tag;
}

int openFolder(int parent, const std::string& name) {
    return openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

void removeFiles(int folder) {
    forEachName(folder, [folder](const std::string& name) {
        static_cast<void>(unlinkat(folder, name.c_str(), 0));  // "." and ".." refuse
    });
}

// Whether nobody works in it any more. On true the lock is this process's, so that no other one
// that sweeps comes in between.
bool isAbandoned(const ScopedFd& folder, const std::string& name) {
    struct stat status {};
    if (fstat(folder.get(), &status) != 0 || status.st_uid != geteuid() ||
        flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    constexpr time_t day = 86400;
    const std::string own = namePrefix + machineTag();
    return name.compare(0, own.size(), own) == 0 || std::time(nullptr) - status.st_mtime > day;
}

}  // namespace

Staging::Staging(Staging&& other) noexcept
    : folderFd_(other.folderFd_),
      name_(std::exchange(other.name_, {})),
      fd_(std::move(other.fd_)) {}

Staging& Staging::operator=(Staging&& other) noexcept {
    remove();
    folderFd_ = other.folderFd_;
    name_ = std::exchange(other.name_, {});
    fd_ = std::move(other.fd_);
    return *this;
}

int Staging::make(int folderFd, Staging* staging) {
    // A reporter that starts may sweep a folder away before it is locked, but hardly so often.
    constexpr int attempts = 4;
    int error = EAGAIN;
    for (int attempt = 0; attempt < attempts && error == EAGAIN; ++attempt) {
        error = makeLocked(folderFd, staging);
    }
    return error;
}

// As make; EAGAIN when somebody has taken the folder away at once.
int Staging::makeLocked(int folderFd, Staging* staging) {
    std::uint64_t random = 0;
    if (getrandom(&random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        return errno;
    }
    char number[32];
    static_cast<void>(std::snprintf(number, sizeof number, "%016" PRIx64, random));
    const std::string name = namePrefix + machineTag() + number;
    if (mkdirat(folderFd, name.c_str(), S_IRWXU) != 0) {
        return errno;
    }
    ScopedFd opened(openFolder(folderFd, name));
    if (!opened.isOpen()) {
        const int error = errno;
        static_cast<void>(unlinkat(folderFd, name.c_str(), AT_REMOVEDIR));
        return error;
    }
    struct stat status {};
    // Where there are no locks the folder works, too: whoever sweeps can't lock it either.
    if ((flock(opened.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) ||
        (fstat(opened.get(), &status) == 0 && status.st_nlink == 0)) {
        return EAGAIN;
    }
    *staging = Staging(folderFd, name, std::move(opened));
    return 0;
}

std::string Staging::path() const {
    return "/proc/self/fd/" + std::to_string(fd_.get());
}

int Staging::publish(const std::string& from, const std::string& to) const {
    constexpr unsigned noReplace = 1;  // RENAME_NOREPLACE
    if (syscall(SYS_renameat2, fd_.get(), from.c_str(), folderFd_, to.c_str(), noReplace) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // A file system that can't promise it: a second name does not replace either.
    if (linkat(fd_.get(), from.c_str(), folderFd_, to.c_str(), 0) != 0) {
        return errno;
    }
    static_cast<void>(
        unlinkat(fd_.get(), from.c_str(), 0));  // goes with the staging folder at the latest
    return 0;
}

void Staging::leaveToOthers() {
    name_.clear();
    fd_.reset();
}

void Staging::remove() {
    if (name_.empty()) {
        return;
    }
    removeFiles(fd_.get());
    static_cast<void>(unlinkat(folderFd_, name_.c_str(), AT_REMOVEDIR));
    leaveToOthers();
}

void removeAbandonedStagings(int folderFd) {
    forEachName(folderFd, [folderFd](const std::string& name) {
        if (name.compare(0, sizeof namePrefix - 1, namePrefix) != 0) {
            return;
        }
        const ScopedFd folder(openFolder(folderFd, name));
        if (folder.isOpen() && isAbandoned(folder, name)) {
            removeFiles(folder.get());
            static_cast<void>(unlinkat(folderFd, name.c_str(), AT_REMOVEDIR));
        }
    });
}

}  // namespace Zendrik::Reporter
