#include "programs/CrashReporterTavrel/folder/DumpFolder.h"

#include <fcntl.h>
#include <google_breakpad/common/minidump_format.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>
#include <vector>

#include "process/DescriptorIo.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;

constexpr std::uint16_t productMark = 0x5456;

constexpr std::size_t guidLength = 36;

std::string unfinished(const std::string& name) {
    return "." + name + ".new";
}

// 0, or the errno of the failure.
int writeAll(int file, std::string_view text) {
    while (!text.empty()) {
        boost::system::error_code error;
        const ssize_t written = Plexum3::Base::writeRetry(file, text.data(), text.size(), &error);
        if (written <= 0) {
            return written < 0 ? error.value() : EIO;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

// "%h" stands for the name of this machine: in a folder that a farm shares each one has its own,
// which is made when it is missing.
std::string withHostName(std::string path) {
    constexpr std::string_view mark = "%h";
    utsname machine{};
    static_cast<void>(uname(&machine));  // fails only for a bad address
    std::size_t at = path.find(mark);
    const bool isMarked = at != path.npos;
    for (; at != path.npos; at = path.find(mark, at + std::strlen(machine.nodename))) {
        path.replace(at, mark.size(), machine.nodename);
    }
    if (isMarked) {
        static_cast<void>(mkdir(path.c_str(), S_IRWXU));  // where it fails, opening it says why
    }
    return path;
}

// All in the folder; none if it can't be read.
std::vector<std::string> namesIn(int folder) {
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc/self/fd/" + std::to_string(folder), error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        names.push_back(entry->path().filename());
    }
    return names;
}

// A regular file of this user, no link to one.
bool isOwnFile(int folder, const std::string& name, struct stat* status) {
    return fstatat(folder, name.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status->st_mode) && status->st_uid == geteuid();
}

bool isGuid(const std::string& text) {
    constexpr std::string_view form = "xxxxxxxx-xxxx-xxxx-xxxxxxxx-xxxxxxxx";
    const auto fits = [](char c, char place) {
        return place == '-' ? c == '-' : (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    };
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), fits);
}

bool isReport(const std::string& start) {
    return start.compare(0, sizeof reportHeading, std::string(reportHeading) + "\n") == 0;
}

bool isMarkedDump(const std::string& start) {
    MDRawHeader header{};
    if (start.size() < sizeof header) {
        return false;
    }
    std::memcpy(&header, start.data(), sizeof header);
    return header.signature == MD_HEADER_SIGNATURE &&
           header.version == (std::uint32_t{productMark} << 16 | MD_HEADER_VERSION);
}

// When a file of the product was written, in nanoseconds; 0 for any other file.
std::int64_t whenOwnWasWritten(int folder, const std::string& name) {
    struct stat status {};
    // Looked at before it is opened: to open a FIFO or a device is an act of its own.
    if (!isOwnFile(folder, name, &status)) {
        return 0;
    }
    const ScopedFd file(
        openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string start(64, '\0');
    start.resize(static_cast<std::size_t>(
        std::max<ssize_t>(read(file.get(), start.data(), start.size()), 0)));
    constexpr std::int64_t nsPerSecond = 1000000000;
    return isReport(start) || isMarkedDump(start)
               ? status.st_mtim.tv_sec * nsPerSecond + status.st_mtim.tv_nsec
               : 0;
}

// When it was last written to, in nanoseconds, and its GUID.
using OwnCrash = std::pair<std::int64_t, std::string>;

// The oldest first.
std::vector<OwnCrash> findOwnCrashes(int folder) {
    std::map<std::string, std::int64_t> written;
    for (const std::string& name : namesIn(folder)) {
        const std::string guid = name.substr(0, guidLength);
        if (!isGuid(guid) || (name != guid + ".txt" && name != guid + ".dmp")) {
            continue;
        }
        if (const std::int64_t when = whenOwnWasWritten(folder, name); when != 0) {
            written[guid] = std::max(written[guid], when);
        }
    }
    std::vector<OwnCrash> crashes;
    crashes.reserve(written.size());
    for (const auto& [guid, when] : written) {
        crashes.emplace_back(when, guid);
    }
    std::sort(crashes.begin(), crashes.end());
    return crashes;
}

bool cameAtOnce(const OwnCrash& one, const OwnCrash& next) {
    constexpr std::int64_t atOnceNs = 10'000'000'000;
    return next.first - one.first <= atOnceNs;
}

}  // namespace

NameSeed newNameSeed() {
    NameSeed seed{};
    static_cast<void>(getrandom(seed.data(), sizeof seed, 0));  // fails for no request of this size
    return seed;
}

std::string guidOf(const NameSeed& seed, pid_t pid, std::uint64_t startTicks) {
    char guid[40];
    static_cast<void>(std::snprintf(guid, sizeof guid, "%08x-%04x-%04x-%08x-%08x", seed[0],
                                    seed[1] >> 16, seed[1] & 0xffff,
                                    seed[2] ^ static_cast<std::uint32_t>(pid),
                                    seed[3] ^ static_cast<std::uint32_t>(startTicks)));
    return guid;
}

std::string adviceFor(int error) {
    switch (error) {
        case ENOENT:
            return "make the folder, or name another one in TAVREL_CRASH_DIR";
        case ELOOP:
        case ENOTDIR:
            return "name a folder itself, not a link or a file, in TAVREL_CRASH_DIR";
        case ENOSPC:
        case EDQUOT:
            return "make room there, or name another folder in TAVREL_CRASH_DIR";
        case EFBIG:
            return "raise the limit of file sizes (ulimit -f)";
        case EMFILE:
        case ENFILE:
            return "raise the limit of open files (ulimit -n)";
        default:
            return "name a folder that can be written in TAVREL_CRASH_DIR";
    }
}

void markDump(int dump) {
    constexpr off_t upperHalf = offsetof(MDRawHeader, version) + sizeof productMark;
    // A dump without the mark is as good, but for its age.
    const ssize_t written = pwrite(dump, &productMark, sizeof productMark, upperHalf);
    static_cast<void>(written);
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
    const bool isUsable =
        folder.fd_.isOpen() && faccessat(folder.fd_.get(), ".", W_OK | X_OK, AT_EACCESS) == 0;
    *error = isUsable ? 0 : errno;
    if (!isUsable) {
        folder.fd_.reset();
    }
    return folder;
}

DumpFolder DumpFolder::openConfigured(int* error, std::string* refusal) {
    constexpr char standard[] = "/var/tmp";
    const char* const variable = std::getenv("TAVREL_CRASH_DIR");
    const std::string configured = variable == nullptr ? "" : withHostName(variable);
    refusal->clear();
    if (!configured.empty()) {
        DumpFolder folder = open(configured, error);
        if (*error == 0 || *error == EMFILE || *error == ENFILE) {
            return folder;  // another one can't be opened then, either
        }
        *refusal = configured + ": " + std::strerror(*error) + "; " + adviceFor(*error);
    }
    return open(standard, error);
}

std::string DumpFolder::unfinishedPath(const std::string& name) const {
    return "/proc/self/fd/" + std::to_string(fd_.get()) + "/" + unfinished(name);
}

int DumpFolder::publish(const std::string& name) const {
    return renameat(fd_.get(), unfinished(name).c_str(), fd_.get(), name.c_str()) == 0 ? 0 : errno;
}

int DumpFolder::writeText(const std::string& name, std::string_view text) const {
    const ScopedFd file(openat(fd_.get(), unfinished(name).c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               S_IRUSR | S_IWUSR));
    if (!file.isOpen()) {
        return errno;
    }
    const int unwritten = writeAll(file.get(), text);
    const int error = unwritten != 0 ? unwritten : publish(name);
    if (error != 0) {
        remove(unfinished(name));
    }
    return error;
}

int DumpFolder::appendText(const std::string& name, std::string_view text) const {
    const ScopedFd file(
        openat(fd_.get(), name.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC));
    return file.isOpen() ? writeAll(file.get(), text) : errno;
}

bool DumpFolder::holds(const std::string& name) const {
    return faccessat(fd_.get(), name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

void DumpFolder::remove(const std::string& name) const {
    static_cast<void>(unlinkat(fd_.get(), name.c_str(), 0));  // another may have been quicker
}

void DumpFolder::removeUnfinished(const std::string& guid) const {
    for (const char* ending : {".dmp", ".txt"}) {
        remove(unfinished(guid + ending));
    }
}

void DumpFolder::sweep() const {
    constexpr time_t hour = 3600;  // no worker lives as long before its files have their names
    for (const std::string& name : namesIn(fd_.get())) {
        const std::string guid = name.substr(std::min<std::size_t>(name.size(), 1), guidLength);
        struct stat status {};
        if (isGuid(guid) &&
            (name == unfinished(guid + ".dmp") || name == unfinished(guid + ".txt")) &&
            isOwnFile(fd_.get(), name, &status) && std::time(nullptr) - status.st_mtime > hour) {
            remove(name);
        }
    }
}

std::string DumpFolder::pathOf(const std::string& name) const {
    return path_ == "/" ? path_ + name : path_ + "/" + name;
}

void DumpFolder::removeOldest(std::size_t keep) const {
    std::vector<OwnCrash> crashes = findOwnCrashes(fd_.get());
    while (crashes.size() > keep) {
        const bool firstOfMany = crashes.size() > 1 && cameAtOnce(crashes[0], crashes[1]);
        const auto victim = crashes.begin() + (firstOfMany ? 1 : 0);
        removePair(victim->second);
        crashes.erase(victim);
    }
}

void DumpFolder::removePair(const std::string& guid) const {
    for (const char* ending : {".dmp", ".txt"}) {
        struct stat status {};
        if (isOwnFile(fd_.get(), guid + ending, &status)) {
            remove(guid + ending);
        }
    }
}

}  // namespace Zendrik::Reporter
