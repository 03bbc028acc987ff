#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "tests/UTIL/XServer.h"

namespace {

using Environment = std::map<std::string, std::string>;

const Environment withProbe = {{"LD_LIBRARY_PATH", TEST_PROBE_FOLDER}};

Environment operator+(Environment left, const Environment& right) {
    for (const auto& [name, value] : right) {
        left[name] = value;
    }
    return left;
}

/// One run of the client program, alive from construction to destruction.
class Client {
  public:
    explicit Client(const Environment& environment, const char* argument = nullptr) {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipes");
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(input[0], STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
            unsetenv("DISPLAY");
            // Faults of the GL library itself are not looked for: it keeps memory to the end, and
            // reads a text of the server past its end when the context is an indirect one.
            setenv("ASAN_OPTIONS", "detect_leaks=0:replace_str=0", 1);
            for (const auto& [name, value] : environment) {
                setenv(name.c_str(), value.c_str(), 1);
            }
            execl(TEST_CLIENT, TEST_CLIENT, argument, static_cast<char*>(nullptr));
            _exit(127);
        }
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        output_ = output[0];
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() {
        close(input_);
        close(output_);
        waitpid(pid_, nullptr, 0);
    }

    std::string readLine() const {
        std::string line;
        char c = 0;
        while (read(output_, &c, 1) == 1 && c != '\n') {
            line += c;
        }
        return line;
    }

  private:
    pid_t pid_;
    int input_;
    int output_;
};

std::string outcome(const Environment& environment) {
    return Client(environment).readLine();
}

/// True once the server has no client. It may see the end of a connection later than the client,
/// so that it is asked again until a deadline has passed; each question is a round trip.
bool isLeftAlone(const XServer& server) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (server.countClients() != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

/// What the call says, having checked that the process that made it is no client of the server.
std::string outcomeOn(const XServer& server, const Environment& environment,
                      const char* argument = nullptr) {
    const Environment connection = {{"DISPLAY", server.display()},
                                    {"XAUTHORITY", server.authority()}};
    const Client client(withProbe + connection + environment, argument);
    std::string line = client.readLine();
    EXPECT_TRUE(isLeftAlone(server));
    return line;
}

TEST(OpenGLBootstrap, TellsHowFarAGoodServerLetsTheClientCome) {
    const XServer server({"-screen", "0", "640x480x24"});
    EXPECT_EQ(outcomeOn(server, {}), "usable, handler back: ");
    EXPECT_EQ(outcomeOn(server, {}, "null"), "usable, handler back: left from before");
    // The server makes no indirect contexts, and the client must not ask for direct ones.
    EXPECT_EQ(outcomeOn(server, {{"LIBGL_ALWAYS_INDIRECT", "1"}}),
              "unusable, handler back: glXCreateContext failed");
    EXPECT_EQ(outcomeOn(server, {{"LIBGL_ALWAYS_INDIRECT", "1"}}, "null"),
              "unusable, handler back: left from before");
    EXPECT_EQ(outcomeOn(server, {{"XAUTHORITY", server.wrongAuthority()}}),
              "unusable, handler back: Could not connect to X display");
}

TEST(OpenGLBootstrap, AnIndirectContextWillDo) {
    const XServer server({"-screen", "0", "640x480x24", "+iglx"});
    EXPECT_EQ(outcomeOn(server, {{"LIBGL_ALWAYS_INDIRECT", "1"}}), "usable, handler back: ");
}

TEST(OpenGLBootstrap, ServerWithoutAFittingVisualIsRefused) {
    const std::vector<std::string> servers[] = {
        {"-screen", "0", "640x480x24", "-extension", "GLX"},
        {"-screen", "0", "640x480x16", "-extension", "COMPOSITE"},
    };
    for (const auto& arguments : servers) {
        SCOPED_TRACE(arguments.back());
        EXPECT_EQ(outcomeOn(XServer(arguments), {}),
                  "unusable, handler back: Could not find suitable X visual");
    }
}

TEST(OpenGLBootstrap, NoServerIsToldFromNoDisplayName) {
    EXPECT_EQ(outcome(withProbe), "unusable, handler back: Could not connect to X display");
    EXPECT_EQ(outcome(withProbe + Environment{{"DISPLAY", ":65000"}}),
              "unusable, handler back: Could not connect to X display");
}

TEST(OpenGLBootstrap, LibraryThatCannotBeLoadedIsTheReason) {
    EXPECT_EQ(outcome({}),
              "unusable, handler back: libTavrelOpenGLProbe.so: cannot open shared object file: No "
              "such file or directory");

    std::string folder = std::filesystem::temp_directory_path() / "broken_gl.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    std::ofstream(folder + "/libGL.so.1").close();
    EXPECT_EQ(outcome({{"LD_LIBRARY_PATH", folder + ":" + TEST_PROBE_FOLDER}}),
              "unusable, handler back: " + folder + "/libGL.so.1: file too short");
    std::filesystem::remove_all(folder);
}

}  // namespace
