// Running `boxlane probe` from the tool suites, and a strict reader for the
// JSON that probe and ffprobe print: anything that is not RFC 8259 JSON
// fails, so a stray byte in probe's output shows.
#pragma once

#include "support/ffmpeg.hpp"
#include "support/paths.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace boxlane::test {

struct Json {
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
  bool flag = false;
  double number = 0;
  std::string text;
  std::vector<Json> items;
  std::vector<std::string> names;  // parallel lists: Clang's library refuses a pair of incomplete Json
  std::vector<Json> members;

  const Json& operator[](std::string_view key) const {
    static const Json missing;
    for (std::size_t i = 0; i < names.size(); ++i)
      if (names[i] == key) return members[i];
    return missing;
  }
  // ffprobe prints some numbers as strings.
  double num() const { return kind == kString ? std::stod(text) : number; }
};

struct JsonReader {
  std::string_view t;

  void space() {
    while (!t.empty() && std::string_view(" \n\r\t").find(t[0]) != std::string_view::npos) t.remove_prefix(1);
  }
  bool eat(std::string_view w) {
    space();
    return t.starts_with(w) ? (t.remove_prefix(w.size()), true) : false;
  }
  bool string(std::string& out) {
    if (!eat("\"")) return false;
    while (!t.empty()) {
      const char c = t[0];
      t.remove_prefix(1);
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20 || (c == '\\' && t.empty())) return false;
      if (c != '\\') {
        out += c;
        continue;
      }
      const char e = t[0];
      t.remove_prefix(1);
      unsigned code = 0;
      if (const auto k = std::string_view("\"\\/bfnrt").find(e); k != std::string_view::npos) {
        out += "\"\\/\b\f\n\r\t"[k];
      } else if (e == 'u' && std::from_chars(t.data(), t.data() + std::min<std::size_t>(4, t.size()), code, 16).ptr ==
                                 t.data() + 4 && code < 0x80) {  // neither prints other escapes
        out += static_cast<char>(code);
        t.remove_prefix(4);
      } else {
        return false;
      }
    }
    return false;
  }
  bool value(Json& v, int depth = 0) {
    space();
    if (depth > 64 || t.empty()) return false;
    if (eat("{")) {
      v.kind = Json::kObject;
      if (eat("}")) return true;
      do {
        if (!string(v.names.emplace_back()) || !eat(":") || !value(v.members.emplace_back(), depth + 1)) return false;
      } while (eat(","));
      return eat("}");
    }
    if (eat("[")) {
      v.kind = Json::kArray;
      if (eat("]")) return true;
      do {
        if (!value(v.items.emplace_back(), depth + 1)) return false;
      } while (eat(","));
      return eat("]");
    }
    if (t[0] == '"') return v.kind = Json::kString, string(v.text);
    if (eat("true")) return v.kind = Json::kBool, v.flag = true;
    if (eat("false")) return v.kind = Json::kBool, true;
    if (eat("null")) return true;
    const std::size_t end = std::min(t.find_first_not_of("0123456789.eE+-"), t.size());
    const auto [ptr, ec] = std::from_chars(t.data(), t.data() + end, v.number);
    if (end == 0 || ec != std::errc() || ptr != t.data() + end) return false;
    v.kind = Json::kNumber;
    t.remove_prefix(end);
    return true;
  }
};

inline std::optional<Json> parse_json(std::string_view text) {
  JsonReader reader{text};
  Json doc;
  if (!reader.value(doc)) return std::nullopt;
  reader.space();
  return reader.t.empty() ? std::optional(doc) : std::nullopt;
}

inline int probe(const std::string& args, std::string* out) { return run(shell_quote(tool_path()) + " probe " + args, out); }

inline Json probe_json(const std::string& args) {
  std::string out;
  EXPECT_EQ(probe("--json " + args, &out), 0) << args;
  auto doc = parse_json(out);
  EXPECT_TRUE(doc) << "not valid JSON from probe " << args << ":\n" << out;
  return doc.value_or(Json{});
}

}  // namespace boxlane::test
