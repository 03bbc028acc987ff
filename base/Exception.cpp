#include "base/Exception.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string_view>
#include <utility>

namespace Zendrik::Base {

namespace {

constexpr const char* userMessageKey = "UserMessage";
constexpr const char* exceptionClassKey = "ExceptionClass";
constexpr const char* throwFileKey = "ThrowFile";
constexpr const char* throwLineKey = "ThrowLine";
constexpr const char* throwFunctionKey = "ThrowFunction";
constexpr std::array originKeys = {exceptionClassKey, throwFileKey, throwLineKey, throwFunctionKey};

constexpr std::string_view openingMark = "%%(";
constexpr std::string_view closingMark = ")%%";
constexpr std::size_t reportWidth = 80;

struct FilledKey {
    const char* key;
    const char* filledKey;
};
constexpr std::array optionalTexts = {
    FilledKey{"UserSummary", "FilledUserSummary"},
    FilledKey{"UserDetail", "FilledUserDetail"},
    FilledKey{"UserTitle", "FilledUserTitle"},
};

}  // namespace

ExceptionDecoration::ExceptionDecoration(const ExceptionDecoration& other) {
    for (const auto& [key, info] : other.infos_) {
        infos_.emplace_hint(infos_.end(), key, info->clone());
    }
}

ExceptionDecoration& ExceptionDecoration::operator=(const ExceptionDecoration& other) {
    if (this != &other) {
        for (const auto& [key, info] : other.infos_) {
            infos_.emplace(key, info->clone());
        }
    }
    return *this;
}

ExceptionDecoration& ExceptionDecoration::add(const ExceptionInfoBase& info) {
    if (auto copy = info.clone()) {
        infos_[info.name()] = std::move(copy);
    }
    return *this;
}

const ExceptionInfoBase* ExceptionDecoration::find(const std::string& key) const {
    const auto found = infos_.find(key);
    return found == infos_.end() ? nullptr : found->second.get();
}

template <typename T>
const T* ExceptionDecoration::valueOf(const std::string& key) const {
    const ExceptionInfoBase* info = find(key);
    if (info == nullptr || info->type() != typeid(T)) {
        return nullptr;
    }
    return &static_cast<const ExceptionInfo<T>*>(info)->value();
}

void ExceptionDecoration::print(std::ostream& stream, std::size_t indent) const {
    const std::string blanks(indent, ' ');
    printOrigin(stream, blanks);
    printOthers(stream, blanks);
}

void ExceptionDecoration::printOrigin(std::ostream& stream, const std::string& blanks) const {
    const auto* type = valueOf<std::string>(exceptionClassKey);
    stream << blanks << "Threw exception of type " << (type ? *type : "unknown type") << std::endl;

    if (const auto* file = valueOf<std::string>(throwFileKey)) {
        stream << blanks << "From " << *file;
    } else {
        stream << " unknown source file";
    }
    if (const auto* line = valueOf<int>(throwLineKey)) {
        stream << ":" << *line;
    } else {
        stream << " at unknown line";
    }
    if (const auto* function = valueOf<std::string>(throwFunctionKey)) {
        stream << " in '" << *function << "'" << std::endl;
    } else {
        stream << " in unknown function" << std::endl;
    }
}

void ExceptionDecoration::printOthers(std::ostream& stream, const std::string& blanks) const {
    bool first = true;
    for (const auto& [key, info] : infos_) {
        if (std::find(originKeys.begin(), originKeys.end(), key) != originKeys.end()) {
            continue;
        }
        if (std::exchange(first, false)) {
            stream << blanks << "Decoration is..." << std::endl;
        }
        stream << blanks << "  [" << key << "] = ";
        info->print(stream) << std::endl;
    }
}

std::ostream& ExceptionDecoration::expand(std::ostream& stream, const std::string& text) const {
    std::size_t position = 0;
    for (;;) {
        const std::size_t opening = text.find(openingMark, position);
        const std::size_t closing = text.find(closingMark, opening);
        if (opening == std::string::npos || closing == std::string::npos) {
            return stream << text.substr(position);
        }
        stream << text.substr(position, opening - position);
        const std::size_t keyStart = opening + openingMark.size();
        const std::string key = text.substr(keyStart, closing - keyStart);
        if (const ExceptionInfoBase* info = find(key)) {
            info->print(stream);
        } else {
            stream << "(" << key << " unknown)";
        }
        position = closing + closingMark.size();
    }
}

std::string ExceptionDecoration::filledText(const std::string& key) const {
    std::ostringstream filled;
    if (const auto* text = valueOf<std::string>(key)) {
        expand(filled, *text);
    }
    return filled.str();
}

std::ostream& operator<<(std::ostream& stream, const ExceptionDecoration& decoration) {
    decoration.print(stream, 0);
    return stream;
}

void Exception::report(std::ostream& stream) const {
    const std::string rule(reportWidth, '+');
    stream << rule << std::endl;
    stream << "EXCEPTION REPORT" << std::endl;
    stream << "  User message is '" << filledText(userMessageKey) << "'" << std::endl;
    print(stream, 2);
    std::size_t indent = 4;
    for (const ExceptionDecoration& earlier : previous_) {
        const std::string blanks(indent, ' ');
        stream << std::endl;
        stream << blanks << "-------" << std::endl;
        stream << blanks << "PREVIOUSLY THREW" << std::endl;
        earlier.print(stream, indent);
        stream << blanks << "-------" << std::endl;
        indent += 2;
    }
    stream << rule << std::endl;
}

std::string Exception::reportText() const {
    std::ostringstream text;
    report(text);
    return text.str();
}

void Exception::takePreviousOf(const Exception& earlier) {
    auto target = previous_.begin();
    auto source = earlier.previous_.begin();
    for (; target != previous_.end() && source != earlier.previous_.end(); ++target, ++source) {
        *target = *source;
    }
    previous_.erase(target, previous_.end());
    previous_.insert(previous_.end(), source, earlier.previous_.end());
}

void Exception::rememberPrevious(const Exception& earlier) {
    if (&earlier != this) {
        takePreviousOf(earlier);
    }
    ExceptionDecoration remembered(earlier);
    remembered.add(
        ExceptionInfo<std::string>("FilledUserMessage", earlier.filledText(userMessageKey)));
    for (const FilledKey& text : optionalTexts) {
        const std::string filled = earlier.filledText(text.key);
        if (!filled.empty()) {
            remembered.add(ExceptionInfo<std::string>(text.filledKey, filled));
        }
    }
    previous_.push_front(remembered);
}

}  // namespace Zendrik::Base
