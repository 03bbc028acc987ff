#pragma once

#include <string>

namespace Zendrik::Reporter {

enum class Answer { Keep, Remove };

/// Asks in a window whether to keep the report, with the first of zenity, kdialog, yad and xmessage
/// in an absolute folder of PATH. Everything but a click on the button that removes means Keep: a
/// closed window, no display, no such program, its failure, `limitSeconds` over.
/// @throw boost::system::system_error when no child can be made ready
Answer askWhetherToKeep(const std::string& reportPath, int limitSeconds);

}  // namespace Zendrik::Reporter
