#include "stacks/python/PythonStream.h"

#include <google_breakpad/common/minidump_format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <map>
#include <type_traits>
#include <utility>

#include "process/SystemError.h"
#include "stacks/record/ByteStream.h"

namespace Zendrik::Stacks {

namespace {

using Plexum3::Base::retryOnInterrupt;

// Of the form, so that a stream from another version is refused.
constexpr std::uint32_t formMark = 2;
constexpr std::uint32_t maxStreams = 1024;

/// A thread by its native side, as the interpreter doesn't know it.
struct KnownThread {
    pid_t tid = 0;
    std::uint64_t pointer = 0;
    std::string name;
};

struct Content {
    std::uint32_t mark = formMark;
    std::vector<KnownThread> known;
    PythonStacks stacks;
};

/// @return an errno value; 0 for success. A file that ends early is EINVAL.
int readAt(int file, std::uint64_t offset, void* buffer, std::size_t size) {
    char* const bytes = static_cast<char*>(buffer);
    for (std::size_t done = 0; done < size;) {
        const ssize_t got = retryOnInterrupt([&] {
            return pread(file, bytes + done, size - done, static_cast<off_t>(offset + done));
        });
        if (got <= 0) {
            return got == 0 ? EINVAL : errno;
        }
        done += static_cast<std::size_t>(got);
    }
    return 0;
}

int writeAt(int file, std::uint64_t offset, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t put = retryOnInterrupt(
            [&] { return pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)); });
        if (put == -1) {
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(put));
        offset += static_cast<std::uint64_t>(put);
    }
    return 0;
}

int readDirectory(int dump, MDRawHeader& header, std::vector<MDRawDirectory>& directory) {
    if (const int error = readAt(dump, 0, &header, sizeof header)) {
        return error;
    }
    if (header.signature != MD_HEADER_SIGNATURE || header.stream_count > maxStreams) {
        return EINVAL;
    }
    directory.resize(header.stream_count);
    return readAt(dump, header.stream_directory_rva, directory.data(),
                  directory.size() * sizeof(MDRawDirectory));
}

template <typename Value>
std::string_view bytesOf(const Value* values, std::size_t count) {
    return {reinterpret_cast<const char*>(values), count * sizeof(Value)};
}

/// Behind the end `size` of the dump: the stream, then the whole directory once more. The header
/// comes last and in one piece.
int appendStream(int dump, std::uint64_t size, MDRawHeader header,
                 std::vector<MDRawDirectory> directory, const std::string& stream) {
    constexpr std::uint64_t alignment = 8;
    const auto align = [](std::uint64_t offset) { return (offset + alignment - 1) & -alignment; };
    const std::uint64_t streamAt = align(size);
    const std::uint64_t directoryAt = align(streamAt + stream.size());
    if (directoryAt > std::numeric_limits<MDRVA>::max()) {
        return EFBIG;
    }
    directory.push_back(
        {pythonStreamType,
         {static_cast<std::uint32_t>(stream.size()), static_cast<MDRVA>(streamAt)}});
    if (const int error = writeAt(dump, streamAt, stream)) {
        return error;
    }
    if (const int error = writeAt(dump, directoryAt, bytesOf(directory.data(), directory.size()))) {
        return error;
    }
    header.stream_count = static_cast<std::uint32_t>(directory.size());
    header.stream_directory_rva = static_cast<MDRVA>(directoryAt);
    return writeAt(dump, 0, bytesOf(&header, 1));
}

}  // namespace

template <typename Stream, typename Record>
static void eachField(Stream& stream, Record& record) {
    using Kind = std::remove_const_t<Record>;
    if constexpr (std::is_same_v<Kind, KnownThread>) {
        stream(record.tid, record.pointer, record.name);
    } else if constexpr (std::is_same_v<Kind, PythonFrame>) {
        stream(record.file, record.function, record.line);
    } else if constexpr (std::is_same_v<Kind, PythonThread>) {
        stream(record.threadPointer, record.holdsLock, record.cutShort, record.frames);
    } else {
        stream(record.mark, record.stacks.note, record.known, record.stacks.threads);
    }
}

int appendPythonStream(int dump, const std::vector<CapturedThread>& threads,
                       const PythonStacks& stacks) {
    if (stacks.threads.empty() && stacks.note.empty()) {
        return 0;
    }
    struct stat status {};
    if (fstat(dump, &status) == -1) {
        return errno;
    }
    Content content;
    content.stacks = stacks;
    for (const CapturedThread& thread : threads) {
        content.known.push_back({thread.tid, thread.threadPointer, thread.name});
    }
    ByteWriter writer;
    eachField(writer, content);
    MDRawHeader header{};
    std::vector<MDRawDirectory> directory;
    if (const int error = readDirectory(dump, header, directory)) {
        return error;
    }
    const int error = appendStream(dump, static_cast<std::uint64_t>(status.st_size), header,
                                   std::move(directory), writer.take());
    if (error != 0) {
        // What stands behind the end of a dump harms no reader, should this fail, too.
        static_cast<void>(ftruncate(dump, status.st_size));
    }
    return error;
}

std::optional<PythonStacks> parsePythonStream(std::string_view bytes,
                                              std::vector<CapturedThread>& threads) {
    ByteReader reader(bytes);
    Content content;
    eachField(reader, content);
    if (content.mark != formMark || !reader.isWhole()) {
        return std::nullopt;
    }
    std::map<pid_t, const KnownThread*> byId;
    for (const KnownThread& thread : content.known) {
        byId.emplace(thread.tid, &thread);
    }
    for (CapturedThread& thread : threads) {
        if (const auto found = byId.find(thread.tid); found != byId.end()) {
            thread.threadPointer = found->second->pointer;
            thread.name = found->second->name;
        }
    }
    return std::move(content.stacks);
}

}  // namespace Zendrik::Stacks
