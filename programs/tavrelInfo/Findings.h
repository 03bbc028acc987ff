#pragma once

#include <string>
#include <vector>

namespace Info {

/// What was found out, in the order in which it is printed.
class Findings {
  public:
    /// Those that follow belong to it.
    void section(const std::string& name) { section_ = name; }
    /// As it should be, or a fact without right and wrong.
    void add(const std::string& label, const std::string& text) { put("ok", label, text); }
    /// What a run needs and doesn't find.
    void wrong(const std::string& label, const std::string& text) { put("wrong", label, text); }
    /// What can't be found out without running the application.
    void unsure(const std::string& label, const std::string& text) { put("unsure", label, text); }

    bool areGood() const;
    /// Lines for a reader; those with something wrong once more at the end.
    std::string text() const;
    /// One object: "result" ("ok" or "wrong") and "findings", each with section, state, label and
    /// text.
    std::string json() const;

  private:
    struct Finding {
        std::string section, state, label, text;
    };
    void put(const char* state, const std::string& label, const std::string& text);

    std::string section_;
    std::vector<Finding> findings_;
};

// The parts of a report. Each finds out by itself and changes nothing; `root` is the
// tree, absolute. Nothing of the tree's own runs in this process.

/// Programs and libraries of the launcher, and the files that manifests list.
void lookAtFiles(const std::string& root, Findings& findings);

/// What the loader finds for the launcher and for the extension modules that the entry script
/// imports: each library, and each symbol that none of them has. Calls the loader, in a process of
/// its own, in the mode in which it runs nothing.
void lookAtLibraries(const std::string& root, Findings& findings);

/// The interpreter's version and byte code, and the entry script's modules with the names that it
/// uses of them, looked for in files.
void lookAtPython(const std::string& root, Findings& findings);

/// System, kernel, limits, display.
void lookAtMachine(const std::string& root, Findings& findings);

/// Temporary folder, crash folder with its newest reports, and the variables that matter.
void lookAtUser(Findings& findings);

}  // namespace Info
