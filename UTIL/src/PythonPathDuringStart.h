#pragma once

#include <string>
#include <vector>

namespace UTIL {

/// Keeps the user's PYTHONPATH from reaching into the start of the interpreter.
///
/// `Py_Initialize` imports a dozen modules of the standard library (encodings, io, os, site...) and
/// looks for them in PYTHONPATH before it looks into its own home. Until `restore` the variable
/// therefore begins with the tree's folders; the user's entries stay behind them, where `site`
/// finds what it looks for by name, and where they end up in `sys.path` anyway.
///
/// Without a PYTHONPATH, or with an empty one, nothing is touched. Main thread only, while no
/// other thread reads the environment.
class PythonPathDuringStart {
  public:
    /// treeFolders: absolute, in the order in which they are to be searched.
    explicit PythonPathDuringStart(const std::vector<std::string>& treeFolders);

    /// Gives the environment, and the interpreter's copy of it in `os.environ`, the user's value
    /// back, byte for byte, and takes the tree's folders out of `sys.path`, to which the caller
    /// adds them. Called once, right after `Py_Initialize`. The interpreter prints an error of its
    /// own; the environment of the process is right even then.
    void restore() const;

  private:
    std::string m_usersValue;   // empty: nothing was touched
    std::string m_treeFolders;  // joined with ":"
};

}  // namespace UTIL
