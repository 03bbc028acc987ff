#include "tests/UTIL/XServer.h"

#include <X11/Xlib.h>
#include <X11/extensions/XRes.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

const std::string cookieProtocol = "MIT-MAGIC-COOKIE-1";
const std::string rightCookie = "right cookie 016";
const std::string wrongCookie = "wrong cookie 016";

// One entry of an authority file: each field is a big-endian length and its bytes; 65535 is the
// address family that stands for any.
void writeAuthority(const std::string& path, const std::string& cookie) {
    std::ofstream file(path, std::ios::binary);
    file << "\xff\xff";
    for (const std::string& field : {std::string(), std::string(), cookieProtocol, cookie}) {
        file << '\0' << static_cast<char>(field.size()) << field;
    }
}

std::string makeFolder() {
    std::string path = std::filesystem::temp_directory_path() / "xserver.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("no scratch folder at " + path);
    }
    return path;
}

std::string readNumber(int fd) {
    std::string number;
    char digit = 0;
    pollfd ready = {fd, POLLIN, 0};
    while (poll(&ready, 1, 30000) == 1 && read(fd, &digit, 1) == 1) {
        if (digit == '\n') {
            return number;
        }
        number += digit;
    }
    throw std::runtime_error("Xvfb does not start");
}

[[noreturn]] void childBecomeServer(std::vector<char*>& arguments, int numberFd) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    fcntl(numberFd, F_SETFD, 0);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

}  // namespace

XServer::XServer(const std::vector<std::string>& arguments) : folder_(makeFolder()) {
    writeAuthority(authority(), rightCookie);
    writeAuthority(wrongAuthority(), wrongCookie);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    std::vector<std::string> all = {"Xvfb",  "-noreset", "-displayfd", std::to_string(fds[1]),
                                    "-auth", authority()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(all.size() + 1);
    for (std::string& argument : all) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        childBecomeServer(pointers, fds[1]);
    }
    close(fds[1]);
    display_ = ":" + readNumber(fds[0]);
    close(fds[0]);
}

XServer::~XServer() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    std::error_code ignored;  // A folder that stays behind is no reason to fail.
    std::filesystem::remove_all(folder_, ignored);
}

int XServer::countClients() const {
    XSetAuthorization(const_cast<char*>(cookieProtocol.c_str()),
                      static_cast<int>(cookieProtocol.size()),
                      const_cast<char*>(rightCookie.c_str()), static_cast<int>(rightCookie.size()));
    Display* display = XOpenDisplay(display_.c_str());
    if (display == nullptr) {
        throw std::runtime_error("no connection to the test's own X server");
    }
    int count = 0;
    XResClient* clients = nullptr;
    XResQueryClients(display, &count, &clients);
    XFree(clients);
    XCloseDisplay(display);
    constexpr int serverAndOwn = 2;
    return count - serverAndOwn;
}
