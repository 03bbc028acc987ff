#pragma once

#include <map>
#include <memory>
#include <string>

#include "google_breakpad/processor/stack_frame_symbolizer.h"
#include "programs/CrashReporterTavrel/ElfImage.h"

namespace Zendrik::Reporter {

// Gives Breakpad's stack walker names and unwind rules from the modules' own files instead of
// prepared symbol files, which no user's machine has. A file that is not the one that was loaded
// (another build identifier) counts as missing.
class ElfSymbolizer : public google_breakpad::StackFrameSymbolizer {
  public:
    ElfSymbolizer() : StackFrameSymbolizer(nullptr, nullptr) {}

    SymbolizerResult FillSourceLineInfo(
        const google_breakpad::CodeModules* modules,
        const google_breakpad::CodeModules* unloadedModules,
        const google_breakpad::SystemInfo* systemInfo, google_breakpad::StackFrame* frame,
        std::deque<std::unique_ptr<google_breakpad::StackFrame>>* inlinedFrames) override;
    google_breakpad::CFIFrameInfo* FindCFIFrameInfo(
        const google_breakpad::StackFrame* frame) override;
    bool HasImplementation() override { return true; }

  private:
    // Null when the module's file is missing, another one or no ELF file.
    const ElfImage* imageOf(const google_breakpad::CodeModule& module);

    std::map<std::string, std::unique_ptr<ElfImage>> images_;
};

}  // namespace Zendrik::Reporter
