#pragma once

// Records as bytes, for another process or for a file, on a machine like this one. Which fields a
// record has, in which order, a function of its kind says once, for writing and reading alike:
//
//     template <typename Stream, typename Record>
//     static void eachField(Stream& stream, Record& record) { stream(record.name, record.lines); }

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Zendrik::Stacks {

/// Numbers as they are in memory, texts and lists behind their length.
class ByteWriter {
  public:
    template <typename... Fields>
    void operator()(const Fields&... fields) {
        (put(fields), ...);
    }
    std::string take() { return std::move(bytes_); }

  private:
    template <typename T>
    void put(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    void put(const std::string& text) {
        put(std::uint64_t{text.size()});
        bytes_ += text;
    }
    template <typename Record>
    void put(const std::vector<Record>& records) {
        put(std::uint64_t{records.size()});
        for (const Record& record : records) {
            eachField(*this, record);
        }
    }

    std::string bytes_;
};

/// Reads them back. No length is believed: once something doesn't fit, everything that follows is
/// zero or empty.
class ByteReader {
  public:
    explicit ByteReader(std::string_view bytes) : rest_(bytes) {}

    template <typename... Fields>
    void operator()(Fields&... fields) {
        (get(fields), ...);
    }
    /// Whether everything did fit and nothing is left.
    bool isWhole() const { return whole_ && rest_.empty(); }

  private:
    template <typename T>
    void get(T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        const std::string_view bytes = cut(sizeof value);
        std::memcpy(&value, bytes.data(), bytes.size());
    }
    void get(bool& flag) {
        unsigned char byte = 0;
        get(byte);
        flag = byte != 0;
    }
    void get(std::string& text) {
        std::uint64_t size = 0;
        get(size);
        text = cut(size);
    }
    /// A record takes bytes, so there are no more of them than bytes left.
    template <typename Record>
    void get(std::vector<Record>& records) {
        std::uint64_t count = 0;
        get(count);
        for (; count > 0 && whole_; --count) {
            eachField(*this, records.emplace_back());
        }
    }
    std::string_view cut(std::uint64_t size) {
        whole_ = whole_ && size <= rest_.size();
        const std::string_view piece = rest_.substr(0, whole_ ? size : 0);
        rest_.remove_prefix(piece.size());
        return piece;
    }

    std::string_view rest_;
    bool whole_ = true;
};

}  // namespace Zendrik::Stacks
