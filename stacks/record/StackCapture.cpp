#include "stacks/record/StackCapture.h"

#include <algorithm>
#include <iterator>

#include "stacks/record/ByteStream.h"

namespace Zendrik::Stacks {

namespace {

// Of the form, so that a stream from another build is refused.
constexpr std::uint64_t formMark = 0x3150414353564154;

void getThread(ByteReader& reader, CapturedThread& thread) {
    reader.get(thread.tid);
    reader.get(thread.name);
    for (std::uint64_t& value : thread.registers) {
        reader.get(value);
    }
    reader.get(thread.threadPointer);
}

void getBlock(ByteReader& reader, MemoryBlock& block) {
    reader.get(block.address);
    reader.get(block.bytes);
}

void getFile(ByteReader& reader, MappedFile& file) {
    reader.get(file.start);
    reader.get(file.end);
    reader.get(file.path);
    reader.get(file.buildId);
}

}  // namespace

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
    writer.put(formMark);
    writer.put(capture.pid);
    writer.put(capture.crashedTid);
    writer.put(capture.signal.number);
    writer.put(capture.signal.code);
    writer.put(capture.signal.address);
    writer.put(capture.signal.sender);
    writer.put(std::uint64_t{capture.threads.size()});
    for (const CapturedThread& thread : capture.threads) {
        writer.put(thread.tid);
        writer.put(thread.name);
        for (const std::uint64_t value : thread.registers) {
            writer.put(value);
        }
        writer.put(thread.threadPointer);
    }
    writer.put(std::uint64_t{capture.memory.size()});
    for (const MemoryBlock& block : capture.memory) {
        writer.put(block.address);
        writer.put(block.bytes);
    }
    writer.put(std::uint64_t{capture.files.size()});
    for (const MappedFile& file : capture.files) {
        writer.put(file.start);
        writer.put(file.end);
        writer.put(file.path);
        writer.put(file.buildId);
    }
    return writer.take();
}

std::optional<StackCapture> parse(std::string_view bytes) {
    ByteReader reader(bytes);
    std::uint64_t mark = 0;
    StackCapture capture;
    reader.get(mark);
    reader.get(capture.pid);
    reader.get(capture.crashedTid);
    reader.get(capture.signal.number);
    reader.get(capture.signal.code);
    reader.get(capture.signal.address);
    reader.get(capture.signal.sender);
    reader.getList(capture.threads, getThread);
    reader.getList(capture.memory, getBlock);
    reader.getList(capture.files, getFile);
    return mark == formMark && reader.isWhole() ? std::optional(std::move(capture)) : std::nullopt;
}

}  // namespace Zendrik::Stacks
