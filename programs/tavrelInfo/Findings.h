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

}  // namespace Info
