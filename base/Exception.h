#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

/// Exceptions as a bag of named, typed decorations instead of a fixed message. A subsystem derives
/// a type of its own, which adds no fields and only chooses keys:
///
///     Exception exception("Product name must be provided");             // stores "UserMessage"
///     exception << ExceptionInfo<std::string>("ThrowFile", "src/unit")
///               << ExceptionInfo<int>("ThrowLine", 12);
///     throw exception;                                                  // copies deeply
///     ...
///     catch (const Exception& caught) { caught.report(std::cerr); }
///
/// Code that replaces a caught exception by its own calls rememberPrevious on the new one, so that
/// the report shows both; the launcher has no such place, native code of the application that links
/// tavrel_base may. Texts meant for a user may hold placeholders, "%%(" key ")%%", which are
/// filled from the other decorations.
///
/// Nothing here derives from std::exception: a handler for that type does not catch these. An
/// object belongs to the thread that holds it; there are no locks. Every operation throws only
/// std::bad_alloc, unless the caller's stream is set to throw.
namespace Zendrik::Base {

/// One decoration, its value's type hidden.
class ExceptionInfoBase {
  public:
    virtual ~ExceptionInfoBase() = default;

    /// A copy on the heap, for the caller. It shares the key's characters.
    virtual std::unique_ptr<ExceptionInfoBase> clone() const = 0;

    /// Writes the value alone, in the stream's own format, and returns the stream.
    virtual std::ostream& print(std::ostream& stream) const = 0;

    /// The value's type.
    virtual const std::type_info& type() const = 0;

    const char* name() const { return name_; }

  protected:
    explicit ExceptionInfoBase(const char* name) : name_(name) {}
    ExceptionInfoBase(const ExceptionInfoBase&) = default;
    ExceptionInfoBase& operator=(const ExceptionInfoBase&) = default;

  private:
    const char* name_;
};

/// A decoration with a value. Only strings and ints are in use.
template <typename T>
class ExceptionInfo : public ExceptionInfoBase {
    static_assert(std::is_same_v<T, std::string> || std::is_same_v<T, int>);

  public:
    /// @param name the key, a literal or other text of static storage: only the pointer is kept
    ExceptionInfo(const char* name, T value) : ExceptionInfoBase(name), value_(std::move(value)) {}

    std::unique_ptr<ExceptionInfoBase> clone() const override {
        return std::make_unique<ExceptionInfo>(*this);
    }
    std::ostream& print(std::ostream& stream) const override { return stream << value_; }
    const std::type_info& type() const override { return typeid(T); }

    const T& value() const { return value_; }

  private:
    T value_;
};

/// A store of decorations, one a key, in byte order of the keys.
class ExceptionDecoration {
  public:
    ExceptionDecoration() = default;
    virtual ~ExceptionDecoration() = default;

    /// Deep: every decoration is cloned.
    ExceptionDecoration(const ExceptionDecoration& other);

    /// Merges and never clears: what was noted nearer to the throw keeps its value, keys that are
    /// not here yet are cloned from @p other.
    ExceptionDecoration& operator=(const ExceptionDecoration& other);

    /// Stores a copy of @p info in place of one of the same key. Returns this object, so that calls
    /// chain; << is the same.
    ExceptionDecoration& add(const ExceptionInfoBase& info);
    ExceptionDecoration& operator<<(const ExceptionInfoBase& info) { return add(info); }

    /// The decoration of that key, owned by this object and valid until it is replaced; null if
    /// there is none.
    const ExceptionInfoBase* find(const std::string& key) const;

    /// Writes type and origin, then all other decorations, a line each.
    /// @param indent blanks in front of each line
    void print(std::ostream& stream, std::size_t indent) const;

    /// Writes @p text with its placeholders filled. What a placeholder inserts is not looked at
    /// again; an unknown key gives "(key unknown)"; an opening mark that is never closed stays as
    /// it is. Returns the stream.
    std::ostream& expand(std::ostream& stream, const std::string& text) const;

    /// The string of that key with its placeholders filled; empty if there is no such string.
    std::string filledText(const std::string& key) const;

  private:
    template <typename T>
    const T* valueOf(const std::string& key) const;
    void printOrigin(std::ostream& stream, const std::string& blanks) const;
    void printOthers(std::ostream& stream, const std::string& blanks) const;

    std::map<std::string, std::unique_ptr<ExceptionInfoBase>> infos_;
};

/// print with no indent.
std::ostream& operator<<(std::ostream& stream, const ExceptionDecoration& decoration);

/// What is thrown: decorations, and those of the exceptions that this one replaced.
class Exception : public ExceptionDecoration {
  public:
    /// Writes the report of several lines, each one flushed, that logs show.
    void report(std::ostream& stream) const;
    std::string reportText() const;

    /// Makes @p earlier the newest of the exceptions that this one replaces, and its list this
    /// object's list. Elements that both lists have are merged as by assignment: values here win.
    void rememberPrevious(const Exception& earlier);

  private:
    void takePreviousOf(const Exception& earlier);

    /// The newest first.
    std::list<ExceptionDecoration> previous_;
};

}  // namespace Zendrik::Base
