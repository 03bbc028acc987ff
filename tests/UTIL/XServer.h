#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// An X server of a test's own, on a display number that the server picks, ended with the object or
/// with the test. Only clients that show the cookie are let in.
class XServer {
  public:
    /// Starts Xvfb with the further arguments and returns when it takes connections. Throws
    /// std::runtime_error if it doesn't within half a minute.
    explicit XServer(const std::vector<std::string>& arguments);
    ~XServer();
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    /// Value for DISPLAY.
    const std::string& display() const { return display_; }
    /// Value for XAUTHORITY: a file with the right cookie, and one with another.
    std::string authority() const { return folder_ + "/right"; }
    std::string wrongAuthority() const { return folder_ + "/wrong"; }
    /// The number of clients that the server has, without itself and this call's own connection.
    int countClients() const;

  private:
    std::string folder_;
    pid_t pid_ = -1;
    std::string display_;
};
