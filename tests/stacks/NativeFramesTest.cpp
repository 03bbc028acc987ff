// Frames of this process, taken by itself and found by the real tavrelFrames.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "stacks/StackText.h"
#include "stacks/memory/Mappings.h"
#include "stacks/memory/ProcessMemory.h"
#include "stacks/native/NativeFrames.h"

#ifdef __SANITIZE_THREAD__
// The handler here may allocate: raise enters it, and interrupts nothing.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's own name
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace Zendrik::Stacks {
namespace {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr std::size_t stackKept = std::size_t{32} * 1024;
constexpr std::chrono::seconds limit(20);

StackCapture captured;
std::uint64_t interruptedStack;
alignas(16) std::array<char, 65536> signalStack;

void keepMemory(std::uint64_t address, std::size_t size) {
    MemoryBlock block{address, std::string(size, '\0')};
    while (size > 0 && !processMemory(getpid())(address, block.bytes.data(), size)) {
        block.bytes.resize(size /= 2);
    }
    captured.memory.push_back(std::move(block));
}

[[gnu::noinline]] void captureHere() {
    ucontext_t context;
    getcontext(&context);
    const auto& general = context.uc_mcontext.gregs;
    constexpr int order[] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                             REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                             REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    captured = {};
    CapturedThread& thread = captured.threads.emplace_back();
    thread.tid = captured.pid = captured.crashedTid = getpid();
    std::transform(std::begin(order), std::end(order), thread.registers.begin(),
                   [&](int which) { return static_cast<std::uint64_t>(general[which]); });
    keepMemory(thread.registers[stackPointerRegister], stackKept);
    if (interruptedStack != 0) {
        keepMemory(interruptedStack, stackKept);
    }
    std::sort(captured.memory.begin(), captured.memory.end(),
              [](const auto& left, const auto& right) { return left.address < right.address; });
    captured.files = findMappedFiles(readMappings(getpid()), processMemory(getpid()));
}

[[gnu::noinline]] void onSignal(int, siginfo_t*, void* context) {
    interruptedStack =
        static_cast<std::uint64_t>(static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RSP]);
    captureHere();
    interruptedStack = 0;
}

// What people read, with what is to be said about modules behind it.
std::string textBy(const std::string& program, std::chrono::milliseconds within = limit) {
    const PythonStacks python;
    const NativeStacks native = findNativeFrames(captured, program, within);
    return StackText{captured, python, native}.write();
}

class ModuleCopy {
  public:
    ModuleCopy() {
        std::string name = fs::temp_directory_path() / "frames_test.XXXXXX";
        folder_ = mkdtemp(name.data());
        path = folder_ / "called.so";
        fs::copy_file(CALLED_MODULE, path);
        const fs::path debug = std::string(CALLED_MODULE) + ".debug";
        fs::copy_file(debug, folder_ / debug.filename());
        void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        const auto call =
            reinterpret_cast<void (*)(void (*)())>(dlsym(module, "callThroughModule"));
        call(captureHere);
        dlclose(module);
    }
    ~ModuleCopy() { fs::remove_all(folder_); }
    ModuleCopy(const ModuleCopy&) = delete;
    ModuleCopy& operator=(const ModuleCopy&) = delete;

    void write(const std::string& bytes) const {
        fs::remove(path);
        std::ofstream(path) << bytes;
    }

    fs::path path;

  private:
    fs::path folder_;
};

std::string contentOf(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(NativeFrames, LeadThroughASignalHandlerOnAStackOfItsOwn) {
    const stack_t stack{signalStack.data(), 0, signalStack.size()};
    stack_t before;
    ASSERT_EQ(sigaltstack(&stack, &before), 0);
    struct sigaction action {};
    action.sa_sigaction = onSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    ASSERT_EQ(raise(SIGUSR1), 0);
    ASSERT_EQ(sigaltstack(&before, nullptr), 0);
    const std::string text = textBy(FRAMES_PROGRAM);
    EXPECT_THAT(text, ContainsRegex("captureHere.*\n.*onSignal.*\n(.*\n)+.* raise \\+ .*\n(.*\n)+"
                                    ".* main \\+ .*\n(.*\n)+.* _start \\+ [^\n]*\n$"));
    EXPECT_THAT(text, Not(HasSubstr("(guess)")));
}

TEST(NativeFrames, HaveSourceLinesAndInlinedFunctionsOfASeparateDebugFile) {
    const ModuleCopy module;
    EXPECT_THAT(
        textBy(FRAMES_PROGRAM),
        ContainsRegex("  #1   called.so  inlinedCall  \\(inlined\\)  at [^\n]*called.cpp:6\n"
                      "  #2   called.so  callThroughModule \\+ 0x[0-9a-f]+  at "
                      "[^\n]*called.cpp:11\n"));
}

TEST(NativeFrames, OfAFileThatIsNotTheOneThatWasLoadedHaveNoNames) {
    const std::string whole = contentOf(CALLED_MODULE);
    std::string otherId = whole;
    constexpr char owner[] = "GNU";
    otherId[otherId.find(std::string(owner, sizeof owner), 0) + sizeof owner] ^= 1;
    const struct {
        const char* what;
        std::function<void(const ModuleCopy&)> harm;
        const char* note;
    } cases[] = {
        {"removed", [](const ModuleCopy& module) { fs::remove(module.path); },
         "can't be read: No "},
        {"replaced", [&](const ModuleCopy& module) { module.write(otherId); }, "been replaced"},
        {"empty", [](const ModuleCopy& module) { module.write(""); }, "damaged"},
        {"FIFO",
         [](const ModuleCopy& module) {
             fs::remove(module.path);
             mkfifo(module.path.c_str(), 0600);
         },
         "no regular file"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const ModuleCopy module;
        test.harm(module);
        const std::string text = textBy(FRAMES_PROGRAM);
        EXPECT_THAT(text, ContainsRegex("\n" + module.path.string() + ".*" + test.note));
        EXPECT_THAT(text, ContainsRegex("captureHere[^\n]*\n  #1   called.so \\+ 0x"));
        EXPECT_THAT(text, ContainsRegex(" main \\+ [^\n]*  \\(guess\\)\n"));
        EXPECT_THAT(text, Not(ContainsRegex(" main \\+ [^\n]*[^)]\n")));
    }
}

TEST(NativeFrames, SurviveTheProgramThatTellsThem) {
    const ModuleCopy module;
    const auto own = std::find_if(captured.files.begin(), captured.files.end(),
                                  [&](const auto& file) { return file.path == module.path; });
    ASSERT_NE(own, captured.files.end());
    const std::string blame =
        "printf 'module\\t" + std::to_string(own - captured.files.begin()) + "\\n'; ";
    const struct {
        std::string script;
        std::string note;
    } cases[] = {
        {blame + "kill -SEGV $$", module.path.string() + " can't be read"},
        {blame + "exec sleep 1000", module.path.string() + " takes too long to read"},
        {blame + "test $# = 0 && exit 1; echo end", module.path.string() + " can't be read"},
        {"kill -SEGV $$", "could not all be found"},
        {"exit 127", "install libdw1"},
        {"exec yes frame", "took too long"},
    };
    const std::string program = module.path.string() + ".sh";
    for (const auto& test : cases) {
        SCOPED_TRACE(test.script);
        std::ofstream(program) << "#!/bin/sh\n" << test.script << "\n";
        fs::permissions(program, fs::perms::owner_all);
        // A script that gets no processor in time is taken for one that hangs.
        std::string text;
        for (std::chrono::seconds within(2); within < std::chrono::minutes(1); within *= 2) {
            text = textBy(program, within);
            if (text.find(test.note) != std::string::npos) {
                break;
            }
        }
        EXPECT_THAT(text, HasSubstr(test.note));
        EXPECT_THAT(text, ContainsRegex("\n  #0   tests_stacks \\+ 0x"));
    }
    EXPECT_THAT(textBy("/nowhere/tavrelFrames"), HasSubstr("is missing"));
}

}  // namespace
}  // namespace Zendrik::Stacks
