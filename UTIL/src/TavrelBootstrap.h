#pragma once

#include <boost/chrono/duration.hpp>

#include <cstdint>
#include <string>
#include <vector>

/// What a process of the application needs around it before anything else runs. The launcher calls,
/// on its main thread and in this order:
///
///     rootPath = GetInstallRoot();
///     InitPathEncoding();
///     InitPlatform(rootPath);
///     StartControllingProcessWatchdog();
///     ...the closed libraries' minimal initialisation...
///     InitUsdPaths();
///     ...Py_SetProgramName, built-in modules...
///     InitPython(rootPath);
///
/// Each Init... and Start... runs once in a process: later calls return at once. One that was left
/// by an exception may be called again. A second caller on another thread waits for the first.
///
/// This is the whole public face; behind it each subject has a source file: InstallRoot,
/// PathEncoding, ControllingProcess, UsdPaths, PythonStart.
namespace UTIL {

/// The install root: the folder above the one that holds the executable, whatever their names. Read
/// from the link /proc/self/exe once and kept for the life of the process. Any thread.
/// @return absolute, links resolved, no separator at the end; empty if the link can't be read
std::string GetInstallRoot();

/// The executable itself, resolved anew at each call from /proc/self/exe. Any thread.
/// @throw std::runtime_error if it can't be
std::string GetExecutablePath();

/// Last component of GetExecutablePath. Any thread.
/// @throw std::runtime_error as GetExecutablePath
std::string GetExecutableName();

/// Makes boost::filesystem::path convert between wide and narrow text as UTF-8, whatever the
/// locale.
void InitPathEncoding();

/// The place for what a platform does with the install root. Nothing to do on Linux.
void InitPlatform(const std::string& installRoot);

/// Ties this process's life to the one named by __TAVREL_CONTROLLING_PROCESS, if that is set, and
/// names this process there for its own children. Works with the raw environment and reports on
/// standard error. The watching thread is detached and blocks all signals.
/// @throw boost::thread_resource_error if the thread can't be started, the signal mask as before
void StartControllingProcessWatchdog();

/// Body of the watching thread: returns when watching has become impossible, and ends this process
/// with _exit(1) when the watched one is gone, a zombie, or another process under the same PID.
/// Checks at once and then every 500 ms. Says why on standard error, in lines that are dropped
/// where a pipe has no room for them: the end waits for no reader.
/// @param expectedCreationTime since boot, as Plexum3::Base::getProcessCreationTime gives it
/// @param variableName, variableValue where the identity came from, for the messages; must stay
///        valid for as long as the process lives
void WatchControllingProcess(std::int32_t pid, boost::chrono::microseconds expectedCreationTime,
                             const char* variableName, const char* variableValue);

/// Adds the tree's USD folders to the end of the Configuration lists TAVREL_POST_PYTHONPATH and
/// ZKPXR_PLUGINPATH. Must come before InitPython, which takes the former into sys.path.
void InitUsdPaths();

/// Appends the pieces of a list joined with ":". An empty piece between two separators counts, an
/// empty value gives none, and a separator at the very end gives none after it.
void SplitPathList(const std::string& value, std::vector<std::string>& list);

/// Looks for the standard library before the interpreter does, which would abort without it.
/// @return the folder in the tree that should hold it; empty if it is there, or if the archive
///         beside it or PYTHONPATH may have it
std::string FindMissingLibrary(const std::string& installRoot);

/// Starts the interpreter with the tree's own home and gives sys.path its fixed order: the entries
/// of TAVREL_DEBUG_PRE_PYTHONPATH, the tree's folders, what the interpreter found by itself, the
/// entries of TAVREL_POST_PYTHONPATH; the first of equal entries stays. Publishes the layout under
/// TAVREL_INTERNAL_PYTHONHOME, TAVREL_INTERNAL_PYTHON_SITEPACKAGES and TAVREL_INTERNAL_PYTHONPATH.
/// The caller holds the interpreter lock afterwards and finalises the interpreter. A folder that
/// doesn't exist stays listed. An interpreter that can't start ends the process in its own way.
void InitPython(std::string installRoot);

}  // namespace UTIL
