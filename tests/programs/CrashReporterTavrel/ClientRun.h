#pragma once

// A crashing_client with a crash reporter beside it, in scratch folders of its own, driven through
// pipes. Nothing here waits by the clock but deadlines: the end of standard error is the end of
// everybody who holds it, the reporter included.

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "process/DescriptorIo.h"

namespace Zendrik::Reporter {

using Plexum3::Base::ScopedFd;

// A folder that goes when the object does.
class ScratchFolder {
  public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return path / name; }

    std::filesystem::path path;
};

// Names in a folder, those that begin with a dot too, sorted.
std::vector<std::string> namesIn(const std::filesystem::path& folder);
// Those of them with this ending.
std::vector<std::string> namesEndingIn(const std::filesystem::path& folder, const std::string& end);
std::string contentOf(const std::filesystem::path& file);
void writeFile(const std::filesystem::path& file, const std::string& content);

// A pidfd on a running process; readable when it ends.
ScopedFd watchProcess(pid_t pid);
// Whether `fd` becomes readable before a generous deadline.
bool becomesReadable(const ScopedFd& fd);

struct ClientOptions {
    bool inProcess = false;
    std::vector<std::string> environment;  // "NAME=VALUE", added to this process's
    std::vector<std::string> arguments;    // behind KIND
    std::string workingDirectory;          // empty: this process's
};

class ClientRun {
  public:
    // Starts the client; it has armed its capture when this returns.
    ClientRun(const std::string& kind, const ScratchFolder& dumps,
              const ClientOptions& options = {});
    ~ClientRun();
    ClientRun(const ClientRun&) = delete;
    ClientRun& operator=(const ClientRun&) = delete;

    // The number behind `word` in the client's next line.
    long readNumber(const std::string& word);
    // Lets the client do what it was started for.
    void go();
    // Closes the client's standard input.
    void closeInput() { input_.reset(); }
    // Takes in what comes until standard error ends, and reaps the client: its wait status.
    int finish();

    pid_t pid = -1;
    pid_t reporter = -1;
    std::string errors;  // standard error, after finish

  private:
    ScopedFd input_;
    ScopedFd output_;
    ScopedFd errorOutput_;
};

}  // namespace Zendrik::Reporter
