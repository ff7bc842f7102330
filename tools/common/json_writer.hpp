// A small streaming JSON writer: objects are laid out one member per line,
// arrays can be asked to stay on one line (table rows), and every string is
// escaped as RFC 8259 §7 requires, so any byte a file carries (handler names,
// brands) gives valid JSON.
//
// Text is gathered in a fixed block and handed on whenever it fills: to a
// string, or straight to a FILE, so a report of many megabytes (every sample
// table of an hour-long file) never sits in memory whole.
#pragma once

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace boxlane::tool {

class JsonWriter {
 public:
  // Appends the document to `out`.
  explicit JsonWriter(std::string& out) : text_(&out) {}
  // Writes the document to `sink`; ok() tells whether every write succeeded.
  explicit JsonWriter(std::FILE* sink) : sink_(sink) {}
  ~JsonWriter() { flush(); }
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  // Hands on what is gathered; the destructor does it too.
  void flush() {
    if (used_ == 0) return;
    if (text_) text_->append(block_.get(), used_);
    else if (std::fwrite(block_.get(), 1, used_, sink_) != used_) write_failed_ = true;
    used_ = 0;
  }
  bool ok() const { return !write_failed_; }

  // Inline objects keep their members on one line (a row of a list).
  void begin_object(bool inline_members = false) { open('{', inline_members); }
  void end_object() { close('}'); }
  // Inline arrays keep their elements (and anything nested) on one line.
  void begin_array(bool inline_elements = false) { open('[', inline_elements); }
  void end_array() { close(']'); }

  void key(std::string_view name) {
    separate();
    append_string(name);
    put(": ");
    after_key_ = true;
  }

  void string(std::string_view text) { prefix(); append_string(text); }
  void number(int64_t v) { prefix(); append_integer(v); }
  void number(uint64_t v) { prefix(); append_integer(v); }
  void number(int32_t v) { number(int64_t{v}); }
  void number(uint32_t v) { number(uint64_t{v}); }
  // JSON has no NaN or infinity; those become null.
  void real(double v) {
    prefix();
    if (!std::isfinite(v)) {
      put("null");
      return;
    }
    char* at = room(32);
    used_ = static_cast<std::size_t>(std::to_chars(at, at + 32, v).ptr - block_.get());
  }
  void boolean(bool v) { prefix(); put(v ? "true" : "false"); }
  void null() { prefix(); put("null"); }

  // A table on one line, formatted straight into the block: [a, b, ...] for
  // one column, [[a, b], [c, d], ...] for more. column(row, i) is column i
  // of a row, an unsigned 32-bit number.
  template <typename Rows, typename Column>
  void table(const Rows& rows, int width, Column column) {
    prefix();
    put('[');
    const std::size_t most = static_cast<std::size_t>(width) * 12 + 4;
    bool first = true;
    for (const auto& row : rows) {
      char* const start = room(most);
      char* at = start;
      if (!first) at = copy(at, ", ");
      first = false;
      if (width > 1) *at++ = '[';
      for (int i = 0; i < width; ++i) {
        if (i) at = copy(at, ", ");
        at = decimal(at, static_cast<uint32_t>(column(row, i)));
      }
      if (width > 1) *at++ = ']';
      used_ += static_cast<std::size_t>(at - start);
    }
    put(']');
  }

  // One column on one line, [v0, v1, ...]: value(i) for i below count, an
  // integer of any width and sign, or a bool (true/false). For per-sample
  // arrays, a few hundred thousand long.
  template <typename Value>
  void column(std::size_t count, Value value) {
    prefix();
    put('[');
    for (std::size_t i = 0; i < count; ++i) {
      char* const start = room(24);
      char* at = start;
      if (i) at = copy(at, ", ");
      const auto v = value(i);
      if constexpr (std::is_same_v<decltype(v), const bool>) at = copy(at, v ? "true" : "false");
      else if constexpr (sizeof(v) <= 4 && std::is_unsigned_v<std::remove_const_t<decltype(v)>>) at = decimal(at, v);
      else at = std::to_chars(at, start + 24, v).ptr;
      used_ += static_cast<std::size_t>(at - start);
    }
    put(']');
  }

  template <typename T>
  void member(std::string_view name, T v) {
    key(name);
    if constexpr (std::is_same_v<T, bool>) boolean(v);
    else if constexpr (std::is_floating_point_v<T>) real(v);
    else if constexpr (std::is_integral_v<T>) number(v);
    else string(v);
  }

  // Any bytes in, valid UTF-8 JSON text out: control characters, quote and
  // backslash are escaped, and bytes that do not form UTF-8 are taken as
  // Latin-1 so the document stays well-formed.
  void append_string(std::string_view text) {
    put('"');
    std::size_t i = 0;
    while (i < text.size()) {
      const auto c = static_cast<unsigned char>(text[i]);
      if (c < 0x80) {
        append_ascii(c);
        ++i;
        continue;
      }
      const std::size_t len = utf8_length(text.substr(i));
      if (len) {
        put(text.substr(i, len));
        i += len;
      } else {
        put(static_cast<char>(0xC0 | (c >> 6)));
        put(static_cast<char>(0x80 | (c & 0x3F)));
        ++i;
      }
    }
    put('"');
  }

 private:
  static constexpr std::size_t kBlock = 64 << 10;

  // Table rows are most of a document: integers are formatted in place.
  template <typename T>
  void append_integer(T v) {
    char* at = room(24);
    used_ = static_cast<std::size_t>(std::to_chars(at, at + 24, v).ptr - block_.get());
  }

  // Space for n more bytes (n at most kBlock) at the end of the block.
  char* room(std::size_t n) {
    if (kBlock - used_ < n) flush();
    return block_.get() + used_;
  }
  // v in decimal at `at` (at most 10 bytes); returns the end. Two digits at
  // a time from a table, written into place once the length is known.
  static char* decimal(char* at, uint32_t v) {
    static constexpr char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    const int digits = v < 10 ? 1 : v < 100 ? 2 : v < 1000 ? 3 : v < 10000 ? 4 : v < 100000 ? 5
                     : v < 1000000 ? 6 : v < 10000000 ? 7 : v < 100000000 ? 8 : v < 1000000000 ? 9 : 10;
    char* end = at + digits;
    char* p = end;
    while (v >= 100) {
      const uint32_t pair = (v % 100) * 2;
      v /= 100;
      p -= 2;
      std::memcpy(p, kPairs + pair, 2);
    }
    if (v >= 10) {
      std::memcpy(p - 2, kPairs + v * 2, 2);
    } else {
      p[-1] = static_cast<char>('0' + v);
    }
    return end;
  }

  static char* copy(char* at, std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
  }
  void put(char c) {
    *room(1) = c;
    ++used_;
  }
  void put(std::string_view text) {
    while (!text.empty()) {
      const std::size_t n = std::min(text.size(), kBlock);
      std::memcpy(room(n), text.data(), n);
      used_ += n;
      text.remove_prefix(n);
    }
  }

  struct Level {
    bool inline_elements;
    bool empty;
  };

  void open(char bracket, bool inline_elements) {
    prefix();
    put(bracket);
    const bool parent_inline = !levels_.empty() && levels_.back().inline_elements;
    levels_.push_back({inline_elements || parent_inline, true});
  }

  void close(char bracket) {
    const Level level = levels_.back();
    levels_.pop_back();
    if (!level.empty && !level.inline_elements) newline();
    put(bracket);
    if (levels_.empty()) put('\n');
  }

  void separate() {
    if (levels_.empty()) return;
    Level& level = levels_.back();
    if (!level.empty) put(level.inline_elements ? std::string_view(", ") : std::string_view(","));
    if (!level.inline_elements) newline();
    level.empty = false;
  }

  // A value after a key continues the key's line; any other value is a new
  // element of the enclosing array.
  void prefix() {
    if (after_key_) {
      after_key_ = false;
      return;
    }
    separate();
  }

  void newline() {
    const std::size_t indent = 2 * levels_.size();
    put('\n');
    std::memset(room(indent), ' ', indent);
    used_ += indent;
  }

  void append_ascii(unsigned char c) {
    switch (c) {
      case '"': put("\\\""); return;
      case '\\': put("\\\\"); return;
      case '\n': put("\\n"); return;
      case '\r': put("\\r"); return;
      case '\t': put("\\t"); return;
      case '\b': put("\\b"); return;
      case '\f': put("\\f"); return;
      default: break;
    }
    if (c < 0x20 || c == 0x7F) {
      static const char digits[] = "0123456789abcdef";
      put("\\u00");
      put(digits[c >> 4]);
      put(digits[c & 15]);
      return;
    }
    put(static_cast<char>(c));
  }

  // Length of the well-formed UTF-8 sequence at the start of text, 0 if none
  // (RFC 3629 §4: no overlong forms, no surrogates, nothing past U+10FFFF).
  static std::size_t utf8_length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char c = byte(0);
    std::size_t len;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) len = 2;
    else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      return 0;
    }
    if (text.size() < len) return 0;
    if (byte(1) < lo || byte(1) > hi) return 0;
    for (std::size_t i = 2; i < len; ++i)
      if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
    return len;
  }

  std::string* text_ = nullptr;
  std::FILE* sink_ = nullptr;
  std::unique_ptr<char[]> block_ = std::make_unique_for_overwrite<char[]>(kBlock);
  std::size_t used_ = 0;
  bool write_failed_ = false;
  std::vector<Level> levels_;
  bool after_key_ = false;
};

}  // namespace boxlane::tool
