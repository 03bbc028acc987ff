#include "programs/CrashReporterTavrel/ElfSymbolizer.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>

#include "google_breakpad/processor/code_modules.h"
#include "google_breakpad/processor/stack_frame.h"
#include "processor/cfi_frame_info.h"

namespace Zendrik::Reporter {

namespace {

std::string demangled(const char* name) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
    return text ? text.get() : name;
}

uint64_t fileAddress(const ElfImage& image, const google_breakpad::StackFrame& frame) {
    return frame.instruction - frame.module->base_address() + image.firstAddress();
}

}  // namespace

const ElfImage* ElfSymbolizer::imageOf(const google_breakpad::CodeModule& module) {
    const auto [found, isNew] = images_.try_emplace(module.code_file());
    if (isNew) {
        found->second = ElfImage::open(module.code_file());
        if (found->second &&
            strcasecmp(found->second->buildId().c_str(), module.code_identifier().c_str()) != 0) {
            found->second.reset();
        }
    }
    return found->second.get();
}

google_breakpad::StackFrameSymbolizer::SymbolizerResult ElfSymbolizer::FillSourceLineInfo(
    const google_breakpad::CodeModules* modules, const google_breakpad::CodeModules*,
    const google_breakpad::SystemInfo*, google_breakpad::StackFrame* frame,
    std::deque<std::unique_ptr<google_breakpad::StackFrame>>*) {
    frame->module = modules == nullptr ? nullptr : modules->GetModuleForAddress(frame->instruction);
    const ElfImage* image = frame->module == nullptr ? nullptr : imageOf(*frame->module);
    if (image == nullptr) {
        return kError;
    }
    const uint64_t address = fileAddress(*image, *frame);
    if (const ElfFunction* function = image->functionAt(address)) {
        frame->function_name = demangled(function->name);
        frame->function_base = frame->instruction - (address - function->address);
        return kNoError;
    }
    // When the walker scans the stack it takes a nameless address of a known module for data. A
    // function that was stripped of its name still has unwind rules.
    return image->hasUnwindRules(address) ? kError : kNoError;
}

google_breakpad::CFIFrameInfo* ElfSymbolizer::FindCFIFrameInfo(
    const google_breakpad::StackFrame* frame) {
    const ElfImage* image = frame->module == nullptr ? nullptr : imageOf(*frame->module);
    // The walker takes ownership.
    return image == nullptr ? nullptr : image->unwindRules(fileAddress(*image, *frame)).release();
}

}  // namespace Zendrik::Reporter
