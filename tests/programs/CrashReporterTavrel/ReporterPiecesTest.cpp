// The reporter's pieces that take text, files and folders. tests/system/crash runs it as a whole.

#include <fcntl.h>
#include <google_breakpad/common/minidump_format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "process/ProcessEnd.h"
#include "process/ScopedFd.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"
#include "programs/CrashReporterTavrel/report/CrashReport.h"
#include "programs/CrashReporterTavrel/report/KeepPrompt.h"
#include "programs/CrashReporterTavrel/report/ProcessSnapshot.h"

namespace Zendrik::Reporter {
namespace {

namespace fs = std::filesystem;

// Works in a folder that goes afterwards.
class InScratchFolder : public testing::Test {
  protected:
    void SetUp() override {
        std::string folder = testing::TempDir() + "reporter.XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        fs::current_path(folder);
    }
    void TearDown() override { fs::remove_all(fs::current_path()); }
};
using DumpFolderTest = InScratchFolder;
using KeepPromptTest = InScratchFolder;

std::string contentOf(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void writeFile(const std::string& file, const std::string& content) {
    std::ofstream(file) << content;
    fs::permissions(file, fs::perms::owner_all);
}

std::set<std::string> names() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(".")) {
        names.insert(entry.path().filename());
    }
    return names;
}

TEST(ProcessSnapshot, ReadsRunModeAsTheLauncherChoosesIt) {
    const struct {
        std::string arguments;
        const char* mode;
    } cases[] = {
        {"", "UI"},
        {"--batch", "UI"},  // the program's own name
        {"tavrel --script a.py", "script"},
        {"tavrel --scr=a.py --shell", "script"},
        {"tavrel --sh --ba", "batch"},
        {"tavrel --s --shells -b batch", "UI"},
        {"tavrel -- --batch", "UI"},
    };
    for (const auto& test : cases) {
        std::string commandLine = test.arguments + " ";
        std::replace(commandLine.begin(), commandLine.end(), ' ', '\0');
        EXPECT_EQ(runModeOf(commandLine), test.mode) << test.arguments;
    }
}

TEST(ProcessSnapshot, ReadsNumbersBehindTheirOwnNames) {
    const std::string status =
        "Name:\tVmRSS: 9\nVmHWM:\t  12 kB\nVmRSS:\t  34 kB\nThreads:\tmany\n";
    EXPECT_EQ(numberBehind(status, "VmRSS"), 34);
    EXPECT_EQ(numberBehind(status, "Threads"), -1);
    EXPECT_EQ(numberBehind(status, "VmSize"), -1);
}

TEST(SignalText, SaysWhatTheKernelReported) {
    constexpr pid_t pid = 100;
    const struct {
        Stacks::CapturedSignal signal;
        std::uint64_t rdx;
        const char* text;
    } cases[] = {
        {{SIGSEGV, SI_KERNEL, 0, 0},
         ~std::uint64_t{0} << 47,
         "SIGSEGV (general protection), which tells no address"},
        {{SIGSEGV, SI_KERNEL, 0, 0},
         std::uint64_t{1} << 47,
         "SIGSEGV (general protection), which tells no address; probably a non-canonical one: "
         "rdx is 0x800000000000"},
        {{SIGSEGV, SI_USER, 7, 7}, 0, "SIGSEGV, sent by process 7"},
        {{SIGSEGV, SI_USER, 0, 0}, 0, "SIGSEGV, sent by a process that can't be seen from here"},
        {{SIGTRAP, SI_KERNEL, 0, 0}, 0, "SIGTRAP (code 128)"},
        {{0, 0, 0, 0}, 0, "unknown"},
    };
    for (const auto& test : cases) {
        Stacks::StackCapture capture;
        capture.pid = capture.crashedTid = pid;
        capture.signal = test.signal;
        capture.threads.push_back({pid, "", {0, test.rdx}, 0});
        EXPECT_EQ(signalText(capture), test.text);
    }
}

DumpFolder opened() {
    int error = -1;
    DumpFolder folder = DumpFolder::open(fs::current_path(), &error);
    EXPECT_EQ(error, 0);
    return folder;
}

std::string guid(int number) {
    return "000000" + std::to_string(number) + "-0000-0000-00000000-00000000";
}

TEST_F(DumpFolderTest, RemovesTheOldestAndTheUnfinishedOfItsOwnFilesOnly) {
    using std::chrono::seconds;
    const std::string report = std::string(reportHeading) + "\n";
    MDRawHeader header{};
    header.signature = MD_HEADER_SIGNATURE;
    header.version = MD_HEADER_VERSION;
    const std::string dump(reinterpret_cast<const char*>(&header), sizeof header);
    writeFile("marked", dump);
    markDump(Plexum3::Base::ScopedFd(open("marked", O_WRONLY | O_CLOEXEC)).get());
    const std::string marked = contentOf("marked");
    const struct {
        std::string name;
        std::string content;
        int secondsOld;
        bool stays;
    } cases[] = {
        {guid(10) + ".txt", report, 3600, false},
        {guid(10) + ".dmp", "", 3600, false},
        // Of those that came at once the first is kept, and the last.
        {guid(11) + ".dmp", marked, 3000, true},
        {guid(12) + ".dmp", marked, 2995, false},
        {guid(13) + ".txt", report, 2991, true},
        // What is older than all of those is not the product's.
        {guid(20) + ".txt", "Another crash report\n", 9000, true},
        {guid(21) + ".txt", std::string(reportHeading) + "s\n", 9000, true},
        {guid(22) + ".dmp", dump, 9000, true},
        {guid(23) + ".txt", report, 9000, true},  // another user's
        {guid(24) + ".txt", "", 9000, true},      // a link to a report
        {"notes.txt", report, 9000, true},
        {"." + guid(30) + ".dmp.new", "", 3660, false},
        {"." + guid(30) + ".txt.new", "", 3660, false},
        {"." + guid(31) + ".dmp.new", "", 3540, true},
        {"." + guid(30) + ".new", "", 3660, true},
        {".notes.txt.new", "", 3660, true},
    };
    std::set<std::string> left{"marked"};
    for (const auto& test : cases) {
        writeFile(test.name, test.content);
        fs::last_write_time(test.name, fs::file_time_type::clock::now() - seconds(test.secondsOld));
        if (test.stays) {
            left.insert(test.name);
        }
    }
    if (chown((guid(23) + ".txt").c_str(), 65534, 65534) != 0) {  // root's alone
        writeFile(guid(23) + ".txt", "");
    }
    fs::remove(guid(24) + ".txt");
    fs::create_symlink("notes.txt", guid(24) + ".txt");
    const DumpFolder folder = opened();
    const std::size_t before = names().size();
    folder.removeOldest(4);
    EXPECT_EQ(names().size(), before);
    folder.removeOldest(2);
    folder.sweep();
    EXPECT_EQ(names(), left);
}

TEST_F(DumpFolderTest, FollowsNoLink) {
    const DumpFolder folder = opened();
    writeFile("elsewhere", "");
    fs::create_symlink("elsewhere", "link");
    EXPECT_EQ(folder.appendText("link", "lost"), ELOOP);
    EXPECT_EQ(folder.writeText("link", "first"), 0);
    EXPECT_EQ(folder.writeText("link", "second"), 0);
    EXPECT_EQ(folder.appendText("link", " and last"), 0);
    EXPECT_EQ(contentOf("elsewhere"), "");
    EXPECT_EQ(contentOf("link"), "second and last");
}

TEST_F(KeepPromptTest, RemovesOnlyOnTheButtonThatRemoves) {
    const struct {
        const char* program;
        const char* script;
        Answer answer;
    } cases[] = {
        {"zenity", "exit 0", Answer::Remove},
        {"zenity", "exit 1", Answer::Keep},
        {"kdialog", "exit 1", Answer::Remove},
        {"yad", "exit 10", Answer::Remove},
        {"xmessage", "exit 10", Answer::Remove},
        {"xmessage", "exit 1", Answer::Keep},
        {"zenity", "kill -9 $$", Answer::Keep},
        {"kdialog", "exec /bin/sleep 1000", Answer::Keep},  // longer than the limit
        {"other", "exit 0", Answer::Keep},
    };
    ASSERT_EQ(setenv("DISPLAY", ":none", 1), 0);
    // A relative folder of PATH is not the user's.
    writeFile("zenity", "#!/bin/sh\n");
    const std::string folder = fs::current_path() / "programs";
    ASSERT_EQ(setenv("PATH", (":.:" + folder).c_str(), 1), 0);
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.program) + ": " + test.script);
        fs::remove_all(folder);
        fs::create_directory(folder);
        writeFile(folder + "/" + test.program,
                  std::string("#!/bin/sh\necho \"$*\" >said\n") + test.script + "\n");
        const int limit = std::strstr(test.script, "sleep") != nullptr ? 3 : 60;
        EXPECT_EQ(askWhetherToKeep("/folder/report.txt", limit), test.answer);
        const bool isAsked = contentOf("said").find("/folder/report.txt") != std::string::npos;
        EXPECT_EQ(isAsked, std::string(test.program) != "other");
        fs::remove("said");
    }
}

}  // namespace
}  // namespace Zendrik::Reporter
