#pragma once

#include <string>
#include <vector>

#include "UTIL/src/PythonReference.h"

/// The two ends of sys.path that the tree settles. With a running interpreter and its lock held:
///
///     PublishSearchPath(BuildSearchPath(headEntries, postEntries));
namespace UTIL {

/// A folder's name may hold bytes that aren't UTF-8. They stand in the text as in the interpreter's
/// own paths, so that it finds the folder.
/// @return a new reference; null, with a Python error pending, if memory is short
PythonReference PythonText(const std::string& path);

/// Puts `headEntries` in front of sys.path and `postEntries` behind it, each in its own order, and
/// drops every entry but the first of equal ones. Texts are compared, not files.
/// @return what sys.path then holds, as far as UTF-8 can express it: an entry that can't stays
///         in the list but can't be published
std::vector<std::string> BuildSearchPath(const std::vector<std::string>& headEntries,
                                         const std::vector<std::string>& postEntries);

/// Makes `searchPath`, joined with ":", known as TAVREL_INTERNAL_PYTHONPATH: in Configuration, in
/// `os.environ` and in the environment that children inherit. Of the latter two a failure is
/// printed by the interpreter and logged under the name BOOTSTRAP.
void PublishSearchPath(const std::vector<std::string>& searchPath);

}  // namespace UTIL
