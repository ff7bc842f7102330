// A small streaming JSON writer: objects are laid out one member per line,
// arrays can be asked to stay on one line (table rows), and every string is
// escaped as RFC 8259 §7 requires, so any byte a file carries (handler names,
// brands) gives valid JSON.
#pragma once

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace boxlane::tool {

class JsonWriter {
 public:
  explicit JsonWriter(std::string& out) : out_(out) {}

  // Inline objects keep their members on one line (a row of a list).
  void begin_object(bool inline_members = false) { open('{', inline_members); }
  void end_object() { close('}'); }
  // Inline arrays keep their elements (and anything nested) on one line.
  void begin_array(bool inline_elements = false) { open('[', inline_elements); }
  void end_array() { close(']'); }

  void key(std::string_view name) {
    separate();
    append_string(name);
    out_ += ": ";
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
      out_ += "null";
      return;
    }
    char text[32];
    const auto done = std::to_chars(text, text + sizeof text, v);
    out_.append(text, done.ptr);
  }
  void boolean(bool v) { prefix(); out_ += v ? "true" : "false"; }
  void null() { prefix(); out_ += "null"; }

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
    out_ += '"';
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
        out_.append(text.substr(i, len));
        i += len;
      } else {
        out_ += static_cast<char>(0xC0 | (c >> 6));
        out_ += static_cast<char>(0x80 | (c & 0x3F));
        ++i;
      }
    }
    out_ += '"';
  }

 private:
  // Table rows are most of a document: integers go straight into it.
  template <typename T>
  void append_integer(T v) {
    char text[24];
    const auto done = std::to_chars(text, text + sizeof text, v);
    out_.append(text, done.ptr);
  }

  struct Level {
    bool inline_elements;
    bool empty;
  };

  void open(char bracket, bool inline_elements) {
    prefix();
    out_ += bracket;
    const bool parent_inline = !levels_.empty() && levels_.back().inline_elements;
    levels_.push_back({inline_elements || parent_inline, true});
  }

  void close(char bracket) {
    const Level level = levels_.back();
    levels_.pop_back();
    if (!level.empty && !level.inline_elements) newline();
    out_ += bracket;
    if (levels_.empty()) out_ += '\n';
  }

  void separate() {
    if (levels_.empty()) return;
    Level& level = levels_.back();
    if (!level.empty) out_ += level.inline_elements ? ", " : ",";
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
    out_ += '\n';
    out_.append(2 * levels_.size(), ' ');
  }

  void append_ascii(unsigned char c) {
    switch (c) {
      case '"': out_ += "\\\""; return;
      case '\\': out_ += "\\\\"; return;
      case '\n': out_ += "\\n"; return;
      case '\r': out_ += "\\r"; return;
      case '\t': out_ += "\\t"; return;
      case '\b': out_ += "\\b"; return;
      case '\f': out_ += "\\f"; return;
      default: break;
    }
    if (c < 0x20 || c == 0x7F) {
      static const char digits[] = "0123456789abcdef";
      out_ += "\\u00";
      out_ += digits[c >> 4];
      out_ += digits[c & 15];
      return;
    }
    out_ += static_cast<char>(c);
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

  std::string& out_;
  std::vector<Level> levels_;
  bool after_key_ = false;
};

}  // namespace boxlane::tool
