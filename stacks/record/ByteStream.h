#pragma once

// Records as bytes, for another process or for a file, on a machine like this one.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Zendrik::Stacks {

/// Numbers as they are in memory, texts behind their length.
class ByteWriter {
  public:
    template <typename T>
    void put(T number) {
        static_assert(std::is_integral_v<T>);
        bytes_.append(reinterpret_cast<const char*>(&number), sizeof number);
    }
    void put(const std::string& text) {
        put(std::uint64_t{text.size()});
        bytes_ += text;
    }
    /// As many records as there are, each written by `putOne`.
    template <typename Record>
    void putList(const std::vector<Record>& records, void (*putOne)(ByteWriter&, const Record&)) {
        put(std::uint64_t{records.size()});
        for (const Record& record : records) {
            putOne(*this, record);
        }
    }
    std::string take() { return std::move(bytes_); }

  private:
    std::string bytes_;
};

/// Reads them back. No length is believed: once something doesn't fit, everything that follows is
/// zero or empty.
class ByteReader {
  public:
    explicit ByteReader(std::string_view bytes) : rest_(bytes) {}

    /// Whether everything did fit and nothing is left.
    bool isWhole() const { return whole_ && rest_.empty(); }

    template <typename T>
    void get(T& number) {
        static_assert(std::is_integral_v<T>);
        const std::string_view bytes = cut(sizeof number);
        std::memcpy(&number, bytes.data(), bytes.size());
    }
    void get(std::string& text) {
        std::uint64_t size = 0;
        get(size);
        text = cut(size);
    }
    /// A record takes bytes, so there are no more of them than bytes left.
    template <typename Record>
    void getList(std::vector<Record>& records, void (*getOne)(ByteReader&, Record&)) {
        std::uint64_t count = 0;
        get(count);
        for (; count > 0 && whole_; --count) {
            getOne(*this, records.emplace_back());
        }
    }

  private:
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
