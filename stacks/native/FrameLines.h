#pragma once

// What tavrelFrames says on its standard output, one line for each thing, written and flushed as
// soon as it is known: whatever becomes of the program, the lines that came hold.
//
// The program names a module before it looks into it. So the last module named is to blame for an
// end that wasn't one.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "stacks/native/NativeFrames.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// Index of the file of `capture` that `address` lies in.
std::optional<std::size_t> fileAt(const StackCapture& capture, std::uint64_t address);

// The lines, each with its line end.
std::string moduleLine(std::size_t file);
std::string noteLine(const std::string& note);
/// Everything of a frame but what follows from its pc: module and moduleOffset.
std::string frameLine(const NativeFrame& frame);
/// Of a thread whose frames all came. They stand in front, in the order of the capture.
std::string threadEndLine(bool whole);
std::string endLine();

/// Takes the lines as they come.
class FrameLinesReader {
  public:
    /// @param capture that the program works on; kept by reference
    explicit FrameLinesReader(const StackCapture& capture) : capture_(capture) {}

    /// @param line without its line end; one of another form is passed over
    void take(std::string_view line);

    /// Whether the last line has come.
    bool isWhole() const { return whole_; }
    /// What the program looked into last.
    std::optional<std::size_t> lastFile() const { return lastFile_; }
    /// Threads in the order of the capture, the last one perhaps cut short.
    std::vector<ThreadFrames> takeThreads() { return std::move(threads_); }
    const std::vector<std::string>& notes() const { return notes_; }

  private:
    void takeFrame(const std::vector<std::string>& fields);
    ThreadFrames* thread();

    const StackCapture& capture_;
    bool whole_ = false;
    bool threadEnded_ = true;
    std::optional<std::size_t> lastFile_;
    std::vector<ThreadFrames> threads_;
    std::vector<std::string> notes_;
};

/// `frame.module` and `frame.moduleOffset` of its pc.
void setModule(NativeFrame& frame, const StackCapture& capture);

}  // namespace Zendrik::Stacks
