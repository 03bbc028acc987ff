#include "programs/CrashReporterTavrel/dump/DumpFolder.h"

#include <fcntl.h>
#include <google_breakpad/common/minidump_format.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "programs/CrashReporterTavrel/dump/FolderNames.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;

constexpr std::uint16_t productMark = 0x5456;

struct OwnCrash {
    std::string guid;
    std::int64_t writtenNs;
};

bool isOwnRegularFile(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid();
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
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !isOwnRegularFile(status)) {
        return 0;
    }
    const ScopedFd file(
        openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen() || fstat(file.get(), &status) != 0 || !isOwnRegularFile(status)) {
        return 0;
    }
    std::string start(64, '\0');
    start.resize(static_cast<std::size_t>(
        std::max<ssize_t>(read(file.get(), start.data(), start.size()), 0)));
    constexpr std::int64_t nsPerSecond = 1000000000;
    return isReport(start) || isMarkedDump(start)
               ? status.st_mtim.tv_sec * nsPerSecond + status.st_mtim.tv_nsec
               : 0;
}

// The oldest first.
std::vector<OwnCrash> findOwnCrashes(int folder) {
    std::map<std::string, std::int64_t> written;
    forEachName(folder, [&](const std::string& name) {
        const std::size_t dot = std::min(name.rfind('.'), name.size());
        const std::string guid = name.substr(0, dot);
        const std::string ending = name.substr(dot);
        if (!isGuid(guid) || (ending != ".txt" && ending != ".dmp")) {
            return;
        }
        if (const std::int64_t when = whenOwnWasWritten(folder, name); when != 0) {
            written[guid] = std::max(written[guid], when);
        }
    });
    std::vector<OwnCrash> crashes;
    crashes.reserve(written.size());
    for (const auto& [guid, when] : written) {
        crashes.push_back({guid, when});
    }
    std::sort(crashes.begin(), crashes.end(), [](const OwnCrash& left, const OwnCrash& right) {
        return left.writtenNs < right.writtenNs;
    });
    return crashes;
}

bool cameAtOnce(const OwnCrash& one, const OwnCrash& next) {
    constexpr std::int64_t atOnceNs = 10'000'000'000;
    return next.writtenNs - one.writtenNs <= atOnceNs;
}

}  // namespace

std::string newGuid() {
    std::array<std::uint32_t, 4> random{};
    // Fails for no request of this size; a name that is taken already only costs the dump.
    static_cast<void>(getrandom(random.data(), sizeof random, 0));
    char guid[40];
    static_cast<void>(std::snprintf(guid, sizeof guid, "%08x-%04x-%04x-%08x-%08x", random[0],
                                    random[1] >> 16, random[1] & 0xffff, random[2], random[3]));
    return guid;
}

bool isGuid(const std::string& text) {
    const std::string form = "xxxxxxxx-xxxx-xxxx-xxxxxxxx-xxxxxxxx";
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char c, char place) {
        return place == '-'
                   ? c == '-'
                   : std::isdigit(static_cast<unsigned char>(c)) != 0 || (c >= 'a' && c <= 'f');
    });
}

void markDump(int dump) {
    constexpr off_t upperHalf = offsetof(MDRawHeader, version) + sizeof productMark;
    // A dump without the mark is as good, but for its age.
    const ssize_t written = pwrite(dump, &productMark, sizeof productMark, upperHalf);
    static_cast<void>(written);
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
    *error = folder.fd_.isOpen() ? 0 : errno;
    return folder;
}

std::string DumpFolder::pathOf(const std::string& name) const {
    return path_ == "/" ? path_ + name : path_ + "/" + name;
}

void DumpFolder::removeOldest(std::size_t keep) const {
    std::vector<OwnCrash> crashes = findOwnCrashes(fd_.get());
    while (crashes.size() > keep) {
        const bool firstOfMany = crashes.size() > 1 && cameAtOnce(crashes[0], crashes[1]);
        const auto victim = crashes.begin() + (firstOfMany ? 1 : 0);
        removePair(victim->guid);
        crashes.erase(victim);
    }
}

void DumpFolder::removePair(const std::string& guid) const {
    for (const char* ending : {".dmp", ".txt"}) {
        struct stat status {};
        const std::string name = guid + ending;
        if (fstatat(fd_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            isOwnRegularFile(status)) {
            static_cast<void>(
                unlinkat(fd_.get(), name.c_str(), 0));  // somebody else may have been quicker
        }
    }
}

}  // namespace Zendrik::Reporter
