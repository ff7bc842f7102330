// Running `boxlane probe` from the tool suites, and its JSON read by Node's JSON.parse, a strict reader apart
// from ours (it refuses NaN, stray control bytes and leading zeros), after a UTF-8 decode that fails on any
// byte that is not UTF-8.
#pragma once

#include "support/ffmpeg.hpp"
#include "support/paths.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace boxlane::test {

// Every value of a document under its path ("tracks.0.codec.fourcc"), null as "null"; every array's length
// under "path.#".
class Json {
 public:
  static std::optional<Json> parse(const std::string& text) {
    const std::string path = binary_dir() + "/test-tmp/doc." + std::to_string(getpid()) + ".json";
    write_file(path, {text.begin(), text.end()});
    std::string flat;
    if (run("node -e 'const out = [];\n"
            "const walk = (v, p) => {\n"
            "  if (v === null || typeof v !== \"object\") return out.push(p + \"\\x1d\" + v);\n"
            "  if (Array.isArray(v)) out.push(p + \".#\\x1d\" + v.length);\n"
            "  for (const k of Object.keys(v)) walk(v[k], p === \"\" ? k : p + \".\" + k);\n"
            "};\n"
            "const bytes = require(\"fs\").readFileSync(process.argv[1]);\n"
            "walk(JSON.parse(new TextDecoder(\"utf-8\", {fatal: true}).decode(bytes)), \"\");\n"
            "process.stdout.write(out.join(\"\\x1e\"))' " + shell_quote(path) + " 2>/dev/null",
            &flat) != 0)
      return std::nullopt;
    Json doc;
    for (std::size_t at = 0, end; at < flat.size(); at = end + 1) {
      end = std::min(flat.find('\x1e', at), flat.size());
      const std::size_t split = flat.find('\x1d', at);
      doc.values_[flat.substr(at, split - at)] = flat.substr(split + 1, end - split - 1);
    }
    return doc;
  }

  const std::string& operator[](const std::string& path) const {
    static const std::string missing = "(missing)";
    const auto it = values_.find(path);
    return it == values_.end() ? missing : it->second;
  }
  double num(const std::string& path) const { return std::stod((*this)[path]); }
  bool flag(const std::string& path) const { return (*this)[path] == "true"; }
  std::size_t count(const std::string& path) const { return values_.count(path + ".#") ? num(path + ".#") : 0; }
  // The elements of an array of strings or numbers, each followed by `end`.
  std::string joined(const std::string& path, const std::string& end = "|") const {
    std::string all;
    for (std::size_t i = 0; i < count(path); ++i) all += (*this)[path + "." + std::to_string(i)] + end;
    return all;
  }

 private:
  std::map<std::string, std::string> values_;
};

inline int probe(const std::string& args, std::string* out) { return run(shell_quote(tool_path()) + " probe " + args, out); }

inline Json probe_json(const std::string& args) {
  std::string out;
  EXPECT_EQ(probe("--json " + args, &out), 0) << args;
  auto doc = Json::parse(out);
  EXPECT_TRUE(doc) << "not valid JSON from probe " << args << ":\n" << out.substr(0, 2000);
  return doc.value_or(Json{});
}

}  // namespace boxlane::test
