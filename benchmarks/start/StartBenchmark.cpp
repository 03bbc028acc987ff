// What a batch start with an empty job costs, beside the floor; and what the floor would cost if
// it linked the libraries of the OpenGL probe.
//
//   StartBenchmark TREE FLOOR FLOOR_WITH_GL
//
// The programs run in turn, so that a busy machine is busy for all of them. Medians are printed.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/ExecPointers.h"

namespace {

using Words = std::vector<std::string>;

// Odd, so that the median is a run that took place.
constexpr int warmUpRuns = 5;
constexpr int countedRuns = 61;
constexpr const char* noLimit = "-";

struct Cost {
    double wallMs;
    double processorMs;
    double peakKib;
};

struct Candidate {
    Words command;
    std::vector<Cost> runs;
};

pid_t start(Words command, Words environment) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, command[0].c_str(), &actions, nullptr,
                                  Zendrik::Base::execPointers(command).data(),
                                  Zendrik::Base::execPointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error(command[0] + " can't be started");
    }
    return pid;
}

double milliseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

// The peak is the process's own: posix_spawn shares this small process's memory until the exec,
// where a fork of a large one would leave that one's peak in the child's figure.
Cost run(const Words& command, const Words& environment) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t pid = start(command, environment);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - begin;
    if (status != 0) {
        throw std::runtime_error(command[0] + " failed, wait status " + std::to_string(status));
    }
    return {wall.count(), milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss)};
}

double median(const Candidate& candidate, double Cost::*what) {
    std::vector<double> values;
    values.reserve(candidate.runs.size());
    for (const Cost& cost : candidate.runs) {
        values.push_back(cost.*what);
    }
    std::nth_element(values.begin(), values.begin() + countedRuns / 2, values.end());
    return values[countedRuns / 2];
}

void printComparison(const std::string& what, const Candidate& measured, const Candidate& floor,
                     const char* timeLimit, const char* memoryLimit) {
    const struct {
        const char* name;
        double Cost::*figure;
        const char* unit;
        double divisor;
        const char* limit;
    } rows[] = {{", time", &Cost::wallMs, "ms", 1.0, timeLimit},
                {", processor time", &Cost::processorMs, "ms", 1.0, noLimit},
                {", peak memory", &Cost::peakKib, "MiB", 1024.0, memoryLimit}};
    for (const auto& row : rows) {
        const double value = median(measured, row.figure) / row.divisor;
        const double floorValue = median(floor, row.figure) / row.divisor;
        std::printf("%s%s\t%.2f %s\t%.2f %s\t%.3f\t%s\n", what.c_str(), row.name, value, row.unit,
                    floorValue, row.unit, value / floorValue, row.limit);
    }
}

/// A folder for everything that the runs write, gone with the object.
class Scratch {
  public:
    Scratch() : path_(std::filesystem::temp_directory_path() / "tavrel_start.XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("no scratch folder at " + path_);
        }
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch() {
        std::error_code ignored;  // The system's own cleaning takes what is left.
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// The interpreter imports a sitecustomize by itself, here one that writes down at the end what the
// start has imported.
std::string listModulesOfAStart(const Words& command, const Words& environment,
                                const std::string& folder) {
    std::string list = folder + "/modules";
    std::ofstream(folder + "/sitecustomize.py")
        << "import atexit, sys\n"
           "def write():\n"
           "    here = "
        << '\'' << folder
        << "'\n"
           "    foreign = ('__main__', 'sitecustomize', 'atexit')\n"
           "    with open(here + '/modules', 'w') as file:\n"
           "        file.write(':'.join(p for p in sys.path if p != here) + '\\n')\n"
           "        file.writelines(name + '\\n' for name in sys.modules if name not in foreign)\n"
           "atexit.register(write)\n";
    Words withFolder = environment;
    withFolder.push_back("PYTHONPATH=" + folder);
    run(command, withFolder);
    if (!std::filesystem::exists(list)) {
        throw std::runtime_error("the start left no list of its modules");
    }
    return list;
}

void measure(const std::string& tree, const std::string& floor, const std::string& floorWithGl) {
    const Scratch scratch;
    const Words environment = {"PATH=/usr/bin:/bin", "LANG=C.UTF-8", "HOME=" + scratch.path(),
                               "TMPDIR=" + scratch.path()};
    const std::string job = scratch.path() + "/empty.py";
    std::ofstream(job).close();
    const Words batch = {tree + "/bin/tavrel", "--batch", job};
    const std::string list = listModulesOfAStart(batch, environment, scratch.path());
    std::filesystem::remove(scratch.path() + "/sitecustomize.py");

    Candidate candidates[] = {{batch, {}},
                              {{floor, tree, list, job}, {}},
                              {{floor, tree, list, "import"}, {}},
                              {{floorWithGl, tree, list, job}, {}}};
    for (int n = -warmUpRuns; n < countedRuns; ++n) {
        for (Candidate& candidate : candidates) {
            const Cost cost = run(candidate.command, environment);
            if (n >= 0) {
                candidate.runs.push_back(cost);
            }
        }
    }
    const auto& [start, bare, importing, bareWithGl] = candidates;
    printComparison("empty batch start", start, bare, "1.10", "1.15");
    printComparison("the same against imports alone", start, importing, noLimit, noLimit);
    printComparison("floor that links libX11 and libGL", bareWithGl, bare, noLimit, noLimit);
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 4) {
        std::cerr << "usage: StartBenchmark TREE FLOOR FLOOR_WITH_GL\n";
        return 2;
    }
    measure(argv[1], argv[2], argv[3]);
    return 0;
} catch (const std::exception& error) {
    std::cerr << "StartBenchmark: " << error.what() << '\n';
    return 1;
}
