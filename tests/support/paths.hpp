// Small helpers every suite uses: where things are, running commands, files and hex.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace boxlane::test {

std::string source_dir();
std::string binary_dir();
// The boxlane program in the build tree; empty when tools are not built.
std::string tool_path();
// A fresh directory for this test, removed by nothing (under the build tree).
std::string temp_dir();

// Runs a shell command; returns its exit status and, when out is given, what it printed on stdout.
int run(const std::string& command, std::string* out = nullptr);
bool have_command(const std::string& name);
bool have_ffmpeg();

std::vector<uint8_t> read_file(const std::string& path);
std::string read_text(const std::string& path);
void write_file(const std::string& path, const std::vector<uint8_t>& bytes);

// `got` against the expected text in tests/data/`name`, read line by line when it was written: blocks start at
// lines beginning with `mark`, and the first block that differs is shown. With the environment variable `update`
// set, `got` is written there first (read its diff before committing it).
::testing::AssertionResult matches_expected(const std::string& got, const std::string& name, const char* update,
                                            std::string_view mark);

std::string hex(const uint8_t* data, std::size_t size);
inline std::string hex(const std::vector<uint8_t>& bytes) { return hex(bytes.data(), bytes.size()); }
// "00 00 00 20 66 74" (spaces optional) to bytes.
std::vector<uint8_t> unhex(std::string_view text);

}  // namespace boxlane::test

// Skips (never passes) a test that needs FFmpeg where it is not installed.
#define BOXLANE_REQUIRE_FFMPEG()                                                           \
  do {                                                                                     \
    if (!::boxlane::test::have_ffmpeg()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";  \
  } while (0)
