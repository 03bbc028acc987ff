#pragma once

#include <boost/chrono/duration.hpp>

#include <cstdint>
#include <string>
#include <vector>

/// What a process of the application needs around it before anything else runs. The launcher calls
/// it on its main thread, Init... and Start... once each: later calls return at once, one that was
/// left by an exception may be called again. A second caller on another thread waits for the first.
namespace UTIL {

/// The install root: the folder above the one that holds the executable, read from /proc/self/exe
/// once. Any thread.
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

/// Ties this process's life to the one that the environment's __TAVREL_CONTROLLING_PROCESS names,
/// and names this process there for its children. The watching thread is detached and blocks all
/// signals.
/// @throw boost::thread_resource_error if the thread can't be started, the signal mask as before
void StartControllingProcessWatchdog();

/// Body of the watching thread: looks every 500 ms, and ends this process with _exit(1) when the
/// watched one is gone, a zombie, or another under the same PID. Returns when watching has become
/// impossible. Lines on standard error are dropped where a pipe is full.
/// @param expectedCreationTime since boot, as Plexum3::Base::getProcessCreationTime gives it
/// @param variableName, variableValue for the messages; must stay valid to the end
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
/// entries of TAVREL_POST_PYTHONPATH; the first of equal entries stays. The layout is published
/// under TAVREL_INTERNAL_... keys. The caller then holds the interpreter lock, and finalises.
void InitPython(std::string installRoot);

}  // namespace UTIL
