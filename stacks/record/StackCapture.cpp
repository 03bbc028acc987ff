#include "stacks/record/StackCapture.h"

#include <algorithm>
#include <iterator>
#include <type_traits>

#include "stacks/record/ByteStream.h"

namespace Zendrik::Stacks {

namespace {

// Of the form, so that a stream from another build is refused.
constexpr std::uint64_t formMark = 0x3150414353564154;

}  // namespace

template <typename Stream, typename Record>
static void eachField(Stream& stream, Record& record) {
    using Kind = std::remove_const_t<Record>;
    if constexpr (std::is_same_v<Kind, CapturedThread>) {
        stream(record.tid, record.name, record.registers, record.threadPointer);
    } else if constexpr (std::is_same_v<Kind, MemoryBlock>) {
        stream(record.address, record.bytes);
    } else if constexpr (std::is_same_v<Kind, MappedFile>) {
        stream(record.start, record.end, record.path, record.buildId);
    } else {
        stream(record.pid, record.crashedTid, record.signal.number, record.signal.code,
               record.signal.address, record.signal.sender, record.threads, record.memory,
               record.files);
    }
}

const MemoryBlock* blockAt(const StackCapture& capture, std::uint64_t address) {
    // The first block that begins behind the address; the one in front of it may hold it.
    const auto next = std::upper_bound(
        capture.memory.begin(), capture.memory.end(), address,
        [](std::uint64_t wanted, const MemoryBlock& each) { return wanted < each.address; });
    return next != capture.memory.begin() &&
                   address - std::prev(next)->address < std::prev(next)->bytes.size()
               ? &*std::prev(next)
               : nullptr;
}

std::string serialise(const StackCapture& capture) {
    ByteWriter writer;
    writer(formMark);
    eachField(writer, capture);
    return writer.take();
}

std::optional<StackCapture> parse(std::string_view bytes) {
    ByteReader reader(bytes);
    std::uint64_t mark = 0;
    StackCapture capture;
    reader(mark);
    eachField(reader, capture);
    return mark == formMark && reader.isWhole() ? std::optional(std::move(capture)) : std::nullopt;
}

}  // namespace Zendrik::Stacks
