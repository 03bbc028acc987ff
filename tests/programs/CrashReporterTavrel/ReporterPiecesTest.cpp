// The reporter's pieces that take text, files and folders. tests/system/crash runs it as a whole.

#include <client/linux/handler/exception_handler.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <google_breakpad/common/minidump_format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>

#include "process/ProcessEnd.h"
#include "programs/CrashReporterTavrel/Guardian.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"
#include "programs/CrashReporterTavrel/report/CrashReport.h"
#include "programs/CrashReporterTavrel/report/KeepPrompt.h"
#include "programs/CrashReporterTavrel/report/ProcessSnapshot.h"

namespace Zendrik::Reporter {
namespace {

// A folder that goes when the object does.
class ScratchFolder {
  public:
    ScratchFolder() {
        std::string name = std::filesystem::temp_directory_path() / "reporter_test.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no scratch folder " + name);
        }
        path = name;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return path / name; }
    std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            names.insert(entry.path().filename());
        }
        return names;
    }

    std::filesystem::path path;
};

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void writeFile(const std::filesystem::path& file, const std::string& content) {
    std::ofstream(file) << content;
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

// As Breakpad's client does it: waits until the last copy of the pipe's write end is closed.
void awaitDump(int channel, const google_breakpad::ExceptionHandler::CrashContext& crash,
               std::size_t size) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    iovec data{const_cast<google_breakpad::ExceptionHandler::CrashContext*>(&crash), size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof ends[1])] = {};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof ends[1]);
    std::memcpy(CMSG_DATA(header), &ends[1], sizeof ends[1]);
    EXPECT_EQ(sendmsg(channel, &message, 0), static_cast<ssize_t>(size));
    close(ends[1]);
    pollfd end{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&end, 1, 20000), 1) << "the guardian doesn't let the process go";
    close(ends[0]);
}

TEST(Guardian, ServesAProcessOnceAndLetsGoWhatIsNoCrash) {
    const ScratchFolder scratch;
    ASSERT_EQ(setenv("TAVREL_CRASH_DIR", scratch.path.c_str(), 1), 0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const Service service{ReportChannel(ends[0]), Plexum3::Base::ProcessEnd(getpid()), false,
                          newNameSeed()};
    ASSERT_EQ(service.channel.whatIsWrong(), nullptr);
    const pid_t test = getpid();
    const pid_t guardian = fork();
    if (guardian == 0) {
        _exit(Guardian(service, test).run() == Guardian::End::Served ? 0 : 1);
    }
    google_breakpad::ExceptionHandler::CrashContext crash{};
    crash.tid = test;
    for (const int number : {SIGBUS, SIGFPE}) {
        awaitDump(ends[1], crash, sizeof crash - 1);
        crash.siginfo.si_signo = number;
        awaitDump(ends[1], crash, sizeof crash);
    }
    service.channel.shut();
    int status = -1;
    EXPECT_EQ(waitpid(guardian, &status, 0), guardian);
    EXPECT_EQ(status, 0);
    int reports = 0;
    for (const std::string& name : scratch.names()) {
        if (name.substr(name.size() - 4) == ".txt") {
            ++reports;
            EXPECT_THAT(contentOf(scratch / name), testing::HasSubstr("\nSignal:      SIGBUS"));
        }
    }
    EXPECT_EQ(reports, 1);
}

TEST(CrashReport, SessionIsTheLastEntryOfTheEnvironment) {
    const char* const environment[] = {"ZK_SESSION_ID=outer", "ZK_SESSION_IDS=no",
                                       "ZK_SESSION_ID=inner", nullptr};
    EXPECT_EQ(sessionIdOf(environment), "inner");
    EXPECT_EQ(sessionIdOf(environment + 3), "");
}

TEST(SignalText, SaysWhatTheKernelReported) {
    constexpr pid_t pid = 100;
    constexpr std::uint64_t wild = 0x6161616161616161;
    const struct {
        Stacks::CapturedSignal signal;
        std::uint64_t rdx;
        const char* text;
    } cases[] = {
        {{SIGSEGV, SEGV_MAPERR, 0x10, 16}, wild, "SIGSEGV (SEGV_MAPERR) at 0x10"},
        {{SIGSEGV, SI_KERNEL, 0, 0},
         wild,
         "SIGSEGV (general protection), which tells no address; probably a non-canonical one: "
         "rdx is 0x6161616161616161"},
        {{SIGSEGV, SI_KERNEL, 0, 0},
         ~std::uint64_t{0} << 47,
         "SIGSEGV (general protection), which tells no address"},
        {{SIGSEGV, SI_KERNEL, 0, 0},
         std::uint64_t{1} << 47,
         "SIGSEGV (general protection), which tells no address; probably a non-canonical one: "
         "rdx is 0x800000000000"},
        {{SIGABRT, SI_TKILL, pid, pid}, 0, "SIGABRT, sent by itself"},
        {{SIGSEGV, SI_USER, 7, 7}, 0, "SIGSEGV, sent by process 7"},
        {{SIGSEGV, SI_USER, 0, 0}, 0, "SIGSEGV, sent by a process that can't be seen from here"},
        {{SIGFPE, FPE_INTDIV, 0x401000, 0}, 0, "SIGFPE (FPE_INTDIV) at 0x401000"},
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

TEST(CrashReport, TakesInThePythonStackLogOfThisRunAlone) {
    constexpr std::int64_t start = 1700000000;
    const struct {
        const char* file;
        std::int64_t written;
        bool taken;
    } cases[] = {
        {"absent", start + 1, false},
        {"PythonStackLog.txt", start + 1, true},
        {"PythonStackLog.txt", start - 3600, false},
        {"target of the link", start + 1, false},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.file);
        const ScratchFolder work;
        writeFile(work / test.file, "C function call\n1 \x1b[2J\n");
        if (std::string(test.file) == "target of the link") {
            std::filesystem::create_symlink(test.file, work / "PythonStackLog.txt");
        }
        const timespec times[2] = {{test.written, 0}, {test.written, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (work / test.file).c_str(), times, 0), 0);
        ProcessSnapshot process;
        process.startedNs = start * 1000000000;
        process.workingDirectory.reset(open(work.path.c_str(), O_PATH | O_CLOEXEC));
        Stacks::StackCapture capture;
        capture.files.push_back({0, 1, "/a\x1b[2J.so", ""});
        const std::string report = wholeText({process, "", "no.dmp", 0, ""}, capture, {}, {});
        EXPECT_THAT(report, testing::HasSubstr("  /a?[2J.so\n"));
        EXPECT_EQ(report.find("\nC function call\n1 ?[2J\n") != std::string::npos, test.taken);
    }
}

DumpFolder opened(const ScratchFolder& scratch) {
    int error = -1;
    DumpFolder folder = DumpFolder::open(scratch.path, &error);
    EXPECT_EQ(error, 0);
    return folder;
}

std::string guidNumbered(int number) {
    char guid[40];
    static_cast<void>(std::snprintf(guid, sizeof guid, "%08x-0000-0000-00000000-00000000", number));
    return guid;
}

void writePair(const ScratchFolder& folder, int number, const std::string& heading) {
    writeFile(folder / (guidNumbered(number) + ".dmp"), "dump");
    writeFile(folder / (guidNumbered(number) + ".txt"), heading);
    std::filesystem::last_write_time(
        folder / (guidNumbered(number) + ".txt"),
        std::filesystem::file_time_type::clock::now() + std::chrono::minutes(number));
}

TEST(DumpFolder, RemovesTheOldestOfItsOwnPairsOnly) {
    const ScratchFolder scratch;
    const std::string heading = std::string(reportHeading) + "\n";
    for (int number = 10; number < 15; ++number) {
        writePair(scratch, number, heading);
    }
    // Older than all of those, and each for one reason not the product's.
    writePair(scratch, 1, "Another crash report\n");
    writePair(scratch, 2, std::string(reportHeading) + "s\n");
    writePair(scratch, 3, "");
    std::filesystem::remove(scratch / (guidNumbered(3) + ".txt"));
    std::filesystem::create_symlink(guidNumbered(10) + ".txt",
                                    scratch / (guidNumbered(3) + ".txt"));
    writePair(scratch, 5, heading);  // another user's, where this one may give files away
    const bool givesAway = chown((scratch / (guidNumbered(5) + ".txt")).c_str(), 65534, 65534) == 0;
    if (!givesAway) {
        std::filesystem::remove(scratch / (guidNumbered(5) + ".txt"));
    }
    writeFile(scratch / "notes.txt", heading);
    ASSERT_EQ(mkfifo((scratch / (guidNumbered(4) + ".txt")).c_str(), 0600), 0);
    const std::size_t before = scratch.names().size();

    const DumpFolder folder = opened(scratch);
    folder.removeOldest(5);
    EXPECT_EQ(scratch.names().size(), before);
    folder.removeOldest(2);
    EXPECT_EQ(scratch.names().size(), before - 6);
    for (const int kept : {1, 2, 3, 5, 13, 14}) {
        EXPECT_TRUE(std::filesystem::exists(scratch / (guidNumbered(kept) + ".dmp"))) << kept;
    }
}

TEST(DumpFolder, OfCrashesAtOnceTheFirstIsKept) {
    const ScratchFolder scratch;
    const auto writeDumpAt = [&](int number, std::chrono::seconds age) {
        const std::filesystem::path dump = scratch / (guidNumbered(number) + ".dmp");
        MDRawHeader header{};
        header.signature = MD_HEADER_SIGNATURE;
        header.version = MD_HEADER_VERSION;
        writeFile(dump, std::string(reinterpret_cast<const char*>(&header), sizeof header));
        const Plexum3::Base::ScopedFd file(open(dump.c_str(), O_WRONLY | O_CLOEXEC));
        if (number != 1) {  // another product's, older than all
            markDump(file.get());
        }
        std::filesystem::last_write_time(dump, std::filesystem::file_time_type::clock::now() - age);
    };
    writeDumpAt(1, std::chrono::hours(2));
    for (int number = 10; number < 16; ++number) {  // without reports
        writeDumpAt(number, std::chrono::seconds(3600 - number));
    }
    const DumpFolder folder = opened(scratch);
    folder.removeOldest(3);
    std::set<std::string> kept;
    for (const int number : {1, 10, 14, 15}) {
        kept.insert(guidNumbered(number) + ".dmp");
    }
    EXPECT_EQ(scratch.names(), kept);
}

TEST(DumpFolder, SweepsUnfinishedFilesOfLongAgoAndNothingElse) {
    const ScratchFolder scratch;
    const std::string guid = guidNumbered(1);
    const struct {
        std::string name;
        int minutes;
        bool stays;
    } cases[] = {
        {"." + guid + ".dmp.new", 61, false},
        {"." + guid + ".txt.new", 61, false},
        {"." + guidNumbered(2) + ".dmp.new", 59, true},
        {"." + guid + ".new", 61, true},
        {guid + ".dmp", 61, true},
        {".notes.txt.new", 61, true},
    };
    std::set<std::string> left;
    for (const auto& test : cases) {
        writeFile(scratch / test.name, "");
        std::filesystem::last_write_time(
            scratch / test.name,
            std::filesystem::file_time_type::clock::now() - std::chrono::minutes(test.minutes));
        if (test.stays) {
            left.insert(test.name);
        }
    }
    opened(scratch).sweep();
    EXPECT_EQ(scratch.names(), left);
}

TEST(DumpFolder, FollowsNoLink) {
    const ScratchFolder scratch;
    const DumpFolder folder = opened(scratch);
    writeFile(scratch / "elsewhere", "");
    std::filesystem::create_symlink("elsewhere", scratch / "link");
    EXPECT_EQ(folder.appendText("link", "lost"), ELOOP);
    EXPECT_EQ(folder.writeText("link", "first"), 0);
    EXPECT_EQ(folder.writeText("link", "second"), 0);
    EXPECT_EQ(folder.appendText("link", " and last"), 0);
    EXPECT_EQ(contentOf(scratch / "elsewhere"), "");
    EXPECT_EQ(contentOf(scratch / "link"), "second and last");
}

TEST(KeepPrompt, RemovesOnlyOnTheButtonThatRemoves) {
    const struct {
        const char* program;
        const char* script;
        Answer answer;
    } cases[] = {
        {"zenity", "exit 0", Answer::Remove},
        {"zenity", "exit 1", Answer::Keep},
        {"zenity", "exit 5", Answer::Keep},
        {"kdialog", "exit 1", Answer::Remove},
        {"yad", "exit 10", Answer::Remove},
        {"xmessage", "exit 10", Answer::Remove},
        {"xmessage", "exit 1", Answer::Keep},
        {"zenity", "kill -9 $$", Answer::Keep},
        {"kdialog", "exec /bin/sleep 1000", Answer::Keep},  // longer than the limit
        {"other", "exit 0", Answer::Keep},
    };
    const ScratchFolder elsewhere;
    writeFile(elsewhere / "zenity", "#!/bin/sh\n");
    std::filesystem::permissions(elsewhere / "zenity", std::filesystem::perms::owner_all);
    const std::string relative = ":" + std::filesystem::relative(elsewhere.path).string() + ":";
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.program) + ": " + test.script);
        const ScratchFolder programs;
        const std::string said = programs / "said";
        const std::string program = programs / test.program;
        writeFile(program, "#!/bin/sh\necho \"$*\" >" + said + "\n" + test.script + "\n");
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        ASSERT_EQ(setenv("PATH", (relative + programs.path.string()).c_str(), 1), 0);
        // Only where the limit is to be reached it is short, and longer if nothing is said by then.
        const bool hangs = std::strstr(test.script, "sleep") != nullptr;
        for (int limit = hangs ? 1 : 60; limit <= 64 && contentOf(said).empty(); limit *= 2) {
            EXPECT_EQ(askWhetherToKeep("/folder/report.txt", limit), test.answer);
        }
        if (std::string(test.program) != "other") {
            EXPECT_THAT(contentOf(said), testing::HasSubstr("/folder/report.txt"));
        }
    }
}

}  // namespace
}  // namespace Zendrik::Reporter
