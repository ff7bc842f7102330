#include "support/paths.hpp"

#include <cctype>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace boxlane::test {

std::string source_dir() { return BOXLANE_SOURCE_DIR; }
std::string binary_dir() { return BOXLANE_BINARY_DIR; }
std::string tool_path() { return BOXLANE_TOOL_PATH; }

std::string temp_dir() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "global";
  for (char& c : name)
    if (c == '/') c = '_';
  const auto dir = std::filesystem::path(binary_dir()) / "test-tmp" / (name + "." + std::to_string(getpid()));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir.string();
}

int run(const std::string& command, std::string* out) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  std::string text;
  char chunk[4096];
  for (std::size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) text.append(chunk, n);
  const int status = pclose(pipe);
  if (out) *out = std::move(text);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool have_command(const std::string& name) { return run("command -v " + name + " >/dev/null 2>&1") == 0; }

bool have_ffmpeg() {
  static const bool present = have_command("ffmpeg") && have_command("ffprobe");
  return present;
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string read_text(const std::string& path) {
  const std::vector<uint8_t> bytes = read_file(path);
  return {bytes.begin(), bytes.end()};
}

void write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

::testing::AssertionResult matches_expected(const std::string& got, const std::string& name, const char* update,
                                            std::string_view mark) {
  const std::string path = source_dir() + "/tests/data/" + name;
  if (std::getenv(update)) write_file(path, std::vector<uint8_t>(got.begin(), got.end()));
  const std::string want = read_text(path), separator = std::string(1, '\n').append(mark);
  // The block starting at `at`, up to the next mark's line or the end.
  const auto block = [&](const std::string& text, std::size_t at) {
    return at >= text.size() ? std::string("(nothing)") : text.substr(at, text.find(separator, at + 1) - at);
  };
  for (std::size_t i = 0, g = 0, w = 0; g < got.size() || w < want.size(); ++i) {
    const std::string have = block(got, g), wanted = block(want, w);
    if (have != wanted) {
      return ::testing::AssertionFailure() << "block " << i << " differs from tests/data/" << name << "\n  got:\n"
                                           << have << "\n  expected:\n" << wanted;
    }
    g += have.size(), w += wanted.size();
  }
  return ::testing::AssertionSuccess();
}

std::string hex(const uint8_t* data, std::size_t size) {
  std::string text;
  char digits[4];
  for (std::size_t i = 0; i < size; ++i) {
    std::snprintf(digits, sizeof digits, i ? " %02X" : "%02X", data[i]);
    text += digits;
  }
  return text;
}

std::vector<uint8_t> unhex(std::string_view text) {
  std::string digits;
  for (const char c : text)
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
  std::vector<uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

}  // namespace boxlane::test
