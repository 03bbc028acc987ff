#pragma once

#include <stdlib.h>

#include <boost/filesystem/operations.hpp>
#include <string>

// An install root with nothing of the tree but the link to the interpreter; gone with the object.
// PYTHON_HOME is the test target's: where the prepared interpreter stands.
class ScratchRoot {
  public:
    explicit ScratchRoot(const std::string& name) {
        char folder[] = "/tmp/tavrel_root_XXXXXX";
        m_folder = mkdtemp(folder);
        boost::filesystem::create_directories(path(name) + "/bin");
        boost::filesystem::create_symlink(PYTHON_HOME, path(name) + "/bin/python3.7");
    }
    ~ScratchRoot() { boost::filesystem::remove_all(m_folder); }
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    std::string path(const std::string& name) const { return m_folder + "/" + name; }

  private:
    std::string m_folder;
};
