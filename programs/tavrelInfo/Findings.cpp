#include "programs/tavrelInfo/Findings.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <sstream>

#include "base/PrintableText.h"

namespace Info {

void Findings::put(const char* state, const std::string& label, const std::string& text) {
    findings_.push_back(
        {section_, state, Zendrik::Base::printableText(label), Zendrik::Base::printableText(text)});
}

bool Findings::areGood() const {
    return std::none_of(findings_.begin(), findings_.end(),
                        [](const Finding& finding) { return finding.state == "wrong"; });
}

std::string Findings::text() const {
    constexpr std::size_t labelWidth = 24;
    std::string lines;
    std::string wrong;
    std::string section;
    for (const Finding& finding : findings_) {
        if (finding.section != section) {
            section = finding.section;
            lines += section + '\n';
        }
        std::string line = "  " + finding.label + ' ';
        line.resize(std::max(line.size(), labelWidth), ' ');
        line += finding.text + '\n';
        lines += line;
        if (finding.state == "wrong") {
            wrong += line;
        }
    }
    return wrong.empty() ? lines : lines + "wrong\n" + wrong;
}

std::string Findings::json() const {
    boost::property_tree::ptree findings;
    for (const Finding& finding : findings_) {
        boost::property_tree::ptree one;
        one.put("section", finding.section);
        one.put("state", finding.state);
        one.put("label", finding.label);
        one.put("text", finding.text);
        findings.push_back({"", one});
    }
    boost::property_tree::ptree all;
    all.put("result", areGood() ? "ok" : "wrong");
    all.put_child("findings", findings);
    std::ostringstream text;
    boost::property_tree::write_json(text, all);
    return text.str();
}

}  // namespace Info
