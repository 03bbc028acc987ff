// The reporter's pieces that take text, files and folders. tests/system/crash runs it as a whole.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <stdexcept>

#include "processor/cfi_frame_info.h"
#include "programs/CrashReporterTavrel/CrashReport.h"
#include "programs/CrashReporterTavrel/DumpFolder.h"
#include "programs/CrashReporterTavrel/ElfImage.h"
#include "programs/CrashReporterTavrel/KeepPrompt.h"
#include "programs/CrashReporterTavrel/ProcessSnapshot.h"

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
        std::vector<std::string> arguments;
        const char* mode;
    } cases[] = {
        {{"tavrel"}, "UI"},
        {{}, "UI"},
        {{"--batch"}, "UI"},  // the program's own name
        {{"tavrel", "--script", "a.py"}, "script"},
        {{"tavrel", "--scr=a.py", "--shell"}, "script"},
        {{"tavrel", "--sh", "--ba"}, "batch"},
        {{"tavrel", "--s", "--shells", "-b", "batch"}, "UI"},
        {{"tavrel", "--", "--batch"}, "UI"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(runModeOf(test.arguments), test.mode);
    }
}

TEST(ProcessSnapshot, ReadsKernelTextsWhateverTheProcessIsCalled) {
    const std::string behind = " S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 4711 20 21";
    const struct {
        std::string stat;
        int64_t ticks;
    } cases[] = {{"1 (plain)" + behind, 4711},
                 {"1 (a b) c)" + behind, 4711},
                 {"1 (short) S 1 2", -1},
                 {"", -1}};
    for (const auto& test : cases) {
        EXPECT_EQ(startTicksOf(test.stat), test.ticks) << test.stat;
    }
    const std::string status =
        "Name:\tVmRSS: 9\nVmHWM:\t  12 kB\nVmRSS:\t  34 kB\nThreads:\tmany\n";
    EXPECT_EQ(numberBehind(status, "VmRSS"), 34);
    EXPECT_EQ(numberBehind(status, "Threads"), -1);
    EXPECT_EQ(numberBehind(status, "VmSize"), -1);
}

TEST(CrashReport, SessionIsTheLastEntryOfTheEnvironment) {
    const char* const environment[] = {"ZK_SESSION_ID=outer", "ZK_SESSION_IDS=no",
                                       "ZK_SESSION_ID=inner", nullptr};
    EXPECT_EQ(sessionIdOf(environment), "inner");
    EXPECT_EQ(sessionIdOf(environment + 3), "");
}

TEST(CrashReport, TakesInThePythonStackLogOfThisRunAlone) {
    constexpr int64_t start = 1700000000;
    const struct {
        const char* file;
        int64_t written;
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
        std::FILE* out = std::fopen((work / "report").c_str(), "w");
        EXPECT_FALSE(writeReport(out, {process, "", "no.dmp", 0}, work / "no.dmp"));
        EXPECT_EQ(std::fclose(out), 0);
        const std::string report = contentOf(work / "report");
        EXPECT_NE(report.find("\nThe dump can't be read"), std::string::npos);
        EXPECT_EQ(report.find("\nC function call\n1 ?[2J\n") != std::string::npos, test.taken);
    }
}

std::string guidNumbered(int number) {
    char guid[40];
    (void)std::snprintf(guid, sizeof guid, "%08x-0000-0000-00000000-00000000", number);
    return guid;
}

void writePair(const ScratchFolder& folder, int number, const std::string& heading) {
    writeFile(folder / (guidNumbered(number) + ".dmp"), "dump");
    writeFile(folder / (guidNumbered(number) + ".txt"), heading);
    std::filesystem::last_write_time(
        folder / (guidNumbered(number) + ".txt"),
        std::filesystem::file_time_type::clock::now() + std::chrono::seconds(number));
}

TEST(DumpFolder, RemovesTheOldestOfItsOwnPairsOnly) {
    const ScratchFolder scratch;
    const std::string heading = std::string(kReportHeading) + "\n";
    for (int number = 10; number < 15; ++number) {
        writePair(scratch, number, heading);
    }
    // Older than all of those, and each for one reason not the product's.
    writePair(scratch, 1, "Another crash report\n");
    writePair(scratch, 2, std::string(kReportHeading) + "s\n");
    writePair(scratch, 3, "");
    std::filesystem::remove(scratch / (guidNumbered(3) + ".txt"));
    std::filesystem::create_symlink(guidNumbered(10) + ".txt",
                                    scratch / (guidNumbered(3) + ".txt"));
    writeFile(scratch / "notes.txt", heading);
    ASSERT_EQ(mkfifo((scratch / (guidNumbered(4) + ".txt")).c_str(), 0600), 0);
    const size_t before = scratch.names().size();

    int error = -1;
    const DumpFolder folder = DumpFolder::open(scratch.path, &error);
    ASSERT_EQ(error, 0);
    folder.removeOldest(5);
    EXPECT_EQ(scratch.names().size(), before);
    folder.removeOldest(2);
    EXPECT_EQ(scratch.names().size(), before - 6);
    for (const int kept : {1, 2, 3, 13, 14}) {
        EXPECT_TRUE(std::filesystem::exists(scratch / (guidNumbered(kept) + ".dmp"))) << kept;
    }
}

TEST(DumpFolder, PublishesOnceAndNeverOverAFile) {
    const ScratchFolder scratch;
    int error = -1;
    const DumpFolder folder = DumpFolder::open(scratch.path, &error);
    ASSERT_EQ(error, 0);
    writeFile(scratch / "taken", "old");
    std::filesystem::create_symlink("nowhere", scratch / "dangling");
    {
        Staging staging;
        ASSERT_EQ(folder.makeStaging(&staging), 0);
        writeFile(staging.path() + "/draft", "new");
        writeFile(staging.path() + "/rest", "");
        EXPECT_EQ(staging.publish("draft", "taken"), EEXIST);
        EXPECT_EQ(staging.publish("draft", "dangling"), EEXIST);
        EXPECT_EQ(staging.publish("draft", "free"), 0);
    }
    EXPECT_EQ(scratch.names(), (std::set<std::string>{"dangling", "free", "taken"}));
    EXPECT_EQ(contentOf(scratch / "taken"), "old");
    EXPECT_EQ(contentOf(scratch / "free"), "new");
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
        {"kdialog", "exit 0", Answer::Keep},
        {"kdialog", "exit 2", Answer::Keep},
        {"yad", "exit 10", Answer::Remove},
        {"yad", "exit 70", Answer::Keep},
        {"xmessage", "exit 10", Answer::Remove},
        {"xmessage", "exit 0", Answer::Keep},
        {"xmessage", "exit 1", Answer::Keep},
        {"zenity", "kill -9 $$", Answer::Keep},
        {"kdialog", "exec /bin/sleep 1000", Answer::Keep},  // longer than the limit
        {"other", "exit 0", Answer::Keep},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.program) + ": " + test.script);
        const ScratchFolder programs;
        const std::string said = programs / "said";
        const std::string program = programs / test.program;
        writeFile(program, "#!/bin/sh\necho \"$*\" >" + said + "\n" + test.script + "\n");
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        ASSERT_EQ(setenv("PATH", (":bin:" + programs.path.string()).c_str(), 1), 0);
        EXPECT_EQ(askWhetherToKeep("/folder/report.txt", 1), test.answer);
        if (std::string(test.program) != "other") {
            EXPECT_THAT(contentOf(said), testing::HasSubstr("/folder/report.txt"));
        }
    }
}

TEST(ElfImage, FindsFunctionsAndTheirUnwindRules) {
    const auto image = ElfImage::open(SMALL_PROGRAM);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->buildId().size(), 40U);
    EXPECT_EQ(image->functionAt(0), nullptr);
    EXPECT_EQ(image->unwindRules(0), nullptr);
    // Every function with code of its own is found from its first byte, and most have rules.
    size_t found = 0;
    for (uint64_t address = 0; address < 0x1000000 && found == 0; ++address) {
        const ElfFunction* function = image->functionAt(address);
        if (function != nullptr && function->address == address &&
            std::string(function->name) == "main") {
            ++found;
            const auto rules = image->unwindRules(address);
            ASSERT_TRUE(rules);
            EXPECT_EQ(rules->Serialize(), ".cfa: $rsp 8 + .ra: .cfa -8 + ^");
            EXPECT_EQ(image->functionAt(address + function->size - 1), function);
        }
    }
    EXPECT_EQ(found, 1U);
}

TEST(ElfImage, DamagedFilesGiveLessAndNeverACrash) {
    const ScratchFolder scratch;
    const std::string whole = contentOf(SMALL_PROGRAM);
    const std::string file = scratch / "damaged";
    std::mt19937 random(4711);  // NOLINT(bugprone-random-generator-seed): the same damage each run
    for (int round = 0; round < 150; ++round) {
        std::string bytes = whole;
        if (round % 3 == 0) {
            bytes.resize(random() % bytes.size());
        }
        // The header, the table of unwind rules and the symbols lie at both ends.
        for (int hit = 0; hit < 40 && !bytes.empty(); ++hit) {
            const size_t span = hit % 2 == 0 ? std::min<size_t>(bytes.size(), 1024) : bytes.size();
            bytes[random() % span] = static_cast<char>(random());
        }
        writeFile(file, bytes);
        if (const auto image = ElfImage::open(file)) {
            for (uint64_t address = 0; address < 0x20000; address += 97) {
                (void)image->functionAt(address);
                (void)image->unwindRules(address);
            }
        }
    }
    EXPECT_EQ(ElfImage::open(scratch / "missing"), nullptr);
    EXPECT_EQ(ElfImage::open(scratch.path), nullptr);
}

}  // namespace
}  // namespace Zendrik::Reporter
