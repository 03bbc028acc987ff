#include "programs/CrashReporterTavrel/DumpFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

namespace Zendrik::Reporter {

namespace {

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

// A stream over its own open of the folder: the caller's descriptor keeps its position.
Directory listFolder(int fd) {
    const int own = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* stream = own < 0 ? nullptr : fdopendir(own);
    if (stream == nullptr && own >= 0) {
        close(own);
    }
    return {stream, closedir};
}

template <typename Visit>
void forEachName(int fd, Visit visit) {
    const Directory folder = listFolder(fd);
    if (!folder) {
        return;
    }
    while (const dirent* entry = readdir(folder.get())) {
        visit(std::string(entry->d_name));
    }
}

struct OwnReport {
    std::string guid;
    timespec written;
};

bool isOwnRegularFile(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid();
}

bool beginsWithHeading(int fd) {
    constexpr size_t length = sizeof kReportHeading - 1;
    char start[length + 1] = {};
    return read(fd, start, length + 1) == static_cast<ssize_t>(length + 1) &&
           std::string(start, length) == kReportHeading && start[length] == '\n';
}

bool isOwnReport(int folder, const std::string& name, timespec* written) {
    struct stat status {};
    // Looked at before it is opened: to open a FIFO or a device is an act of its own.
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !isOwnRegularFile(status)) {
        return false;
    }
    const ScopedFd file(
        openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0 || fstat(file.get(), &status) != 0 || !isOwnRegularFile(status)) {
        return false;
    }
    *written = status.st_mtim;
    return beginsWithHeading(file.get());
}

std::vector<OwnReport> findOwnReports(int folder) {
    constexpr char ending[] = ".txt";
    constexpr size_t endingLength = sizeof ending - 1;
    std::vector<OwnReport> found;
    forEachName(folder, [&](const std::string& name) {
        OwnReport report;
        if (name.size() > endingLength) {
            report.guid = name.substr(0, name.size() - endingLength);
        }
        if (name == report.guid + ending && isGuid(report.guid) &&
            isOwnReport(folder, name, &report.written)) {
            found.push_back(report);
        }
    });
    return found;
}

bool isNewer(const OwnReport& left, const OwnReport& right) {
    return std::pair(left.written.tv_sec, left.written.tv_nsec) >
           std::pair(right.written.tv_sec, right.written.tv_nsec);
}

}  // namespace

bool isGuid(const std::string& text) {
    const std::string form = "xxxxxxxx-xxxx-xxxx-xxxxxxxx-xxxxxxxx";
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char c, char place) {
        return place == '-'
                   ? c == '-'
                   : std::isdigit(static_cast<unsigned char>(c)) != 0 || (c >= 'a' && c <= 'f');
    });
}

Staging::Staging(Staging&& other) noexcept
    : folderFd_(other.folderFd_), name_(std::move(other.name_)), fd_(std::move(other.fd_)) {
    other.name_.clear();
}

Staging& Staging::operator=(Staging&& other) noexcept {
    remove();
    folderFd_ = other.folderFd_;
    name_ = std::exchange(other.name_, {});
    fd_ = std::move(other.fd_);
    return *this;
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
    (void)unlinkat(fd_.get(), from.c_str(), 0);  // goes with the staging folder at the latest
    return 0;
}

void Staging::remove() {
    if (name_.empty()) {
        return;
    }
    forEachName(fd_.get(), [this](const std::string& name) {
        (void)unlinkat(fd_.get(), name.c_str(), 0);  // "." and ".." refuse
    });
    (void)unlinkat(folderFd_, name_.c_str(), AT_REMOVEDIR);
    name_.clear();
    fd_ = ScopedFd();
}

std::string DumpFolder::configuredPath() {
    const char* configured = std::getenv("TAVREL_CRASH_DIR");
    return configured != nullptr && *configured != '\0' ? configured : "/var/tmp";
}

DumpFolder DumpFolder::open(const std::string& path, int* error) {
    DumpFolder folder;
    folder.path_ = path;
    // With a separator behind it, O_NOFOLLOW would follow a link.
    while (folder.path_.size() > 1 && folder.path_.back() == '/') {
        folder.path_.pop_back();
    }
    folder.fd_ =
        ScopedFd(::open(folder.path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    *error = folder.fd_.get() < 0 ? errno : 0;
    return folder;
}

int DumpFolder::makeStaging(Staging* staging) const {
    uint64_t random = 0;
    if (getrandom(&random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        return errno;
    }
    char name[64];
    (void)std::snprintf(name, sizeof name, ".tavrel-crash-%016" PRIx64, random);
    if (mkdirat(fd_.get(), name, S_IRWXU) != 0) {
        return errno;
    }
    ScopedFd opened(openat(fd_.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (opened.get() < 0) {
        const int error = errno;
        (void)unlinkat(fd_.get(), name, AT_REMOVEDIR);
        return error;
    }
    *staging = Staging(fd_.get(), name, std::move(opened));
    return 0;
}

std::string DumpFolder::pathOf(const std::string& name) const {
    return path_ == "/" ? path_ + name : path_ + "/" + name;
}

void DumpFolder::removeOldest(size_t keep) const {
    std::vector<OwnReport> reports = findOwnReports(fd_.get());
    if (reports.size() <= keep) {
        return;
    }
    std::sort(reports.begin(), reports.end(), isNewer);
    for (auto old = reports.begin() + static_cast<ptrdiff_t>(keep); old != reports.end(); ++old) {
        removePair(old->guid);
    }
}

void DumpFolder::removePair(const std::string& guid) const {
    // The dump first: a report without its dump is found again, a dump without its report is not.
    struct stat status {};
    const std::string dump = guid + ".dmp";
    if (fstatat(fd_.get(), dump.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        isOwnRegularFile(status)) {
        (void)unlinkat(fd_.get(), dump.c_str(), 0);  // somebody else may have been quicker
    }
    (void)unlinkat(fd_.get(), (guid + ".txt").c_str(), 0);
}

}  // namespace Zendrik::Reporter
