#include "stacks/native/FrameLines.h"

#include <charconv>
#include <cstdio>
#include <initializer_list>

namespace Zendrik::Stacks {

namespace {

constexpr std::size_t longestText = 4096;

// Names come from files that anybody may have made.
std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text.substr(0, longestText)) {
        if (c == '\\' || c == '\t' || c == '\n') {
            result += '\\';
            result += c == '\\' ? '\\' : c == '\t' ? 't' : 'n';
        } else {
            result += c;
        }
    }
    return result;
}

std::string lineOf(std::initializer_list<std::string> fields) {
    std::string line;
    for (const std::string& field : fields) {
        line += (line.empty() ? "" : "\t") + escaped(field);
    }
    return line + "\n";
}

std::vector<std::string> fieldsOf(std::string_view line) {
    std::vector<std::string> fields(1);
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\t') {
            fields.emplace_back();
        } else if (line[i] == '\\' && i + 1 < line.size()) {
            const char c = line[++i];
            fields.back() += c == 't' ? '\t' : c == 'n' ? '\n' : c;
        } else {
            fields.back() += line[i];
        }
    }
    return fields;
}

template <typename T>
T numberFrom(const std::string& text) {
    T number = 0;
    static_cast<void>(std::from_chars(text.data(), text.data() + text.size(), number));
    return number;
}

}  // namespace

std::optional<std::size_t> fileAt(const StackCapture& capture, std::uint64_t address) {
    for (std::size_t i = 0; i < capture.files.size(); ++i) {
        if (address >= capture.files[i].start && address < capture.files[i].end) {
            return i;
        }
    }
    return std::nullopt;
}

void setModule(NativeFrame& frame, const StackCapture& capture) {
    if (const std::optional<std::size_t> file = fileAt(capture, frame.pc)) {
        frame.module = capture.files[*file].path;
        frame.moduleOffset = frame.pc - capture.files[*file].start;
    }
}

std::string moduleLine(std::size_t file) {
    return lineOf({"module", std::to_string(file)});
}

std::string noteLine(const std::string& note) {
    return lineOf({"note", note});
}

std::string frameLine(const NativeFrame& frame) {
    return lineOf({"frame", std::to_string(frame.pc), frame.function,
                   std::to_string(frame.functionOffset), frame.file, std::to_string(frame.line),
                   frame.inlined ? "1" : "0", frame.guessed ? "1" : "0"});
}

std::string threadEndLine(bool whole) {
    return lineOf({"thread", whole ? "1" : "0"});
}

std::string endLine() {
    return lineOf({"end"});
}

void FrameLinesReader::take(std::string_view line) {
    const std::vector<std::string> fields = fieldsOf(line);
    const std::string& kind = fields.front();
    if (kind == "module" && fields.size() == 2) {
        const auto file = numberFrom<std::size_t>(fields[1]);
        lastFile_ = file < capture_.files.size() ? std::optional(file) : std::nullopt;
    } else if (kind == "note" && fields.size() == 2) {
        notes_.push_back(fields[1]);
    } else if (kind == "frame") {
        takeFrame(fields);
    } else if (kind == "thread" && fields.size() == 2) {
        if (ThreadFrames* ended = thread()) {
            ended->whole = fields[1] == "1";
        }
        threadEnded_ = true;
    } else if (kind == "end") {
        whole_ = true;
    }
}

void FrameLinesReader::takeFrame(const std::vector<std::string>& fields) {
    constexpr std::size_t count = 8;
    ThreadFrames* const current = fields.size() == count ? thread() : nullptr;
    if (current == nullptr) {
        return;
    }
    NativeFrame frame;
    frame.pc = numberFrom<std::uint64_t>(fields[1]);
    frame.function = fields[2];
    frame.functionOffset = numberFrom<std::uint64_t>(fields[3]);
    frame.file = fields[4];
    frame.line = numberFrom<int>(fields[5]);
    frame.inlined = fields[6] == "1";
    frame.guessed = fields[7] == "1";
    setModule(frame, capture_);
    current->frames.push_back(std::move(frame));
}

// The thread that the next frame belongs to; null when the program reports more than there are.
ThreadFrames* FrameLinesReader::thread() {
    if (threadEnded_) {
        if (threads_.size() == capture_.threads.size()) {
            return nullptr;
        }
        const pid_t tid = capture_.threads[threads_.size()].tid;
        threads_.emplace_back().tid = tid;
        threadEnded_ = false;
    }
    return &threads_.back();
}

}  // namespace Zendrik::Stacks
