#pragma once

#include <cstdint>

/// Made from the entry script by cmake/entryScriptNeeds.py.
namespace Info {

/// Four bytes, little-endian, that begin a file of byte code which the interpreter can run. The
/// entry script is embedded as byte code of the same.
extern const std::uint32_t byteCodeMagic;

/// A line for each module that the script imports, of four fields with a tab between them: name,
/// importing function (empty for the script itself), "library" or "application", names that are
/// used of it with a blank between them.
extern const char entryScriptNeeds[];

}  // namespace Info
