// What the process services cost, each beside its floor in the same run: the bare system calls for
// the launches, a fixed allowance for the rest.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "process/ProcessTable.h"
#include "process/Subprocess.h"
#include "process/SubprocessChild.h"

namespace {

using namespace Plexum3::Base;

constexpr char program[] = "/bin/true";

// Times `work` alone, not what comes before and after it in an iteration.
void timeOnly(benchmark::State& state, const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(spent.count());
}

void bareTripleFork() {
    const pid_t first = fork();
    if (first != 0) {
        waitpid(first, nullptr, 0);
        return;
    }
    if (fork() != 0) {
        _exit(0);
    }
    setsid();
    if (fork() != 0) {
        _exit(0);
    }
    execlp(program, program, nullptr);
    _exit(127);
}

void daemonFloor(benchmark::State& state) {
    for (auto _ : state) {
        timeOnly(state, bareTripleFork);
    }
}

void daemon(benchmark::State& state) {
    for (auto _ : state) {
        timeOnly(state, [] { Subprocess::spawnDaemonized({program}); });
    }
}

// The same two pipes as a launch with a handle has, one of them inherited by the program.
struct LaunchPipes {
    LaunchPipes() {
        createPipe(terminationRead, terminationWrite);
        createPipe(statusRead, statusWrite);
        setInheritable(terminationWrite.get(), true);
    }
    ScopedFd terminationRead, terminationWrite, statusRead, statusWrite;
};

char* const programArguments[] = {const_cast<char*>(program), nullptr};

pid_t forkAndExec(LaunchPipes& pipes) {
    const pid_t pid = fork();
    if (pid == 0) {
        execvp(program, programArguments);
        _exit(127);
    }
    pipes.statusWrite.reset();
    char unused = 0;
    readRetry(pipes.statusRead.get(), &unused, sizeof unused, nullptr);
    return pid;
}

// How long the caller waits for the launch.
void bareLaunch(benchmark::State& state) {
    for (auto _ : state) {
        pid_t pid = -1;
        timeOnly(state, [&] {
            LaunchPipes pipes;
            pid = forkAndExec(pipes);
        });
        waitpid(pid, nullptr, 0);
    }
}

void handleLaunch(benchmark::State& state) {
    SubprocessOptions options;
    options.args = {program};
    for (auto _ : state) {
        Subprocess child;
        timeOnly(state, [&] { child = Subprocess::spawn(options); });
        child.wait();
    }
}

// How long it takes to have the program run, from the call to its end.
void posixSpawnRun(benchmark::State& state) {
    for (auto _ : state) {
        timeOnly(state, [&] {
            const LaunchPipes pipes;
            pid_t pid = -1;
            posix_spawnp(&pid, program, nullptr, nullptr, programArguments, environ);
            waitpid(pid, nullptr, 0);
        });
    }
}

void handleRun(benchmark::State& state) {
    SubprocessOptions options;
    options.args = {program};
    for (auto _ : state) {
        timeOnly(state, [&] { Subprocess::spawn(options).wait(); });
    }
}

void closeDescriptors(benchmark::State& state) {
    constexpr int open = 20;
    for (auto _ : state) {
        for (int i = 0; i < open; ++i) {
            [[maybe_unused]] const int closedBelow = dup(STDIN_FILENO);
        }
        timeOnly(state, [&] { childCloseDescriptors({nullptr, 0, state.range(0)}); });
    }
}

void creationTime(benchmark::State& state) {
    const int parent = getppid();
    for (auto _ : state) {
        benchmark::DoNotOptimize(getProcessCreationTime(parent, nullptr));
    }
}

BENCHMARK(daemonFloor)->UseManualTime();
BENCHMARK(daemon)->UseManualTime();
BENCHMARK(bareLaunch)->UseManualTime();
BENCHMARK(handleLaunch)->UseManualTime();
BENCHMARK(posixSpawnRun)->UseManualTime();
BENCHMARK(handleRun)->UseManualTime();
BENCHMARK(closeDescriptors)->Arg(1024)->Arg(20'000)->Arg(1'048'576)->UseManualTime();
BENCHMARK(creationTime);

// Keeps the time of every repetition, in microseconds.
class Medians : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration) {
                // The poll is judged by processor time, a launch by the time its caller waits.
                const bool isPoll = run.run_name.function_name == "creationTime";
                const double seconds =
                    isPoll ? run.cpu_accumulated_time : run.real_accumulated_time;
                times_[run.run_name.function_name + run.run_name.args].push_back(
                    seconds * 1e6 / static_cast<double>(run.iterations));
            }
        }
    }
    double of(const std::string& name) {
        std::vector<double>& times = times_.at(name);
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }

  private:
    std::map<std::string, std::vector<double>> times_;
};

void print(const char* what, double measured, double floor, double limit) {
    std::printf("%s\t%.1f us\t%.1f us\t%.2f\t%.2f\n", what, measured, floor, measured / floor,
                limit);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    print("daemon launch / bare triple fork", medians.of("daemon"), medians.of("daemonFloor"), 1.3);
    print("launch with a handle, returned / bare fork", medians.of("handleLaunch"),
          medians.of("bareLaunch"), 2);
    print("run with a handle / posix_spawn", medians.of("handleRun"), medians.of("posixSpawnRun"),
          2);
    constexpr double closingAllowance = 50;
    for (const char* limit : {"1024", "20000", "1048576"}) {
        const std::string what = std::string("closing at limit ") + limit + " / allowance";
        print(what.c_str(), medians.of(std::string("closeDescriptors") + limit), closingAllowance,
              1);
    }
    constexpr double pollAllowance = 30;
    print("creation time, processor / allowance", medians.of("creationTime"), pollAllowance, 1);
    return 0;
}
