#include "support/paths.hpp"

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
  std::size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) text.append(chunk, n);
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

void write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string hex(const uint8_t* data, std::size_t size) {
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    if (i) text += ' ';
    text += digits[data[i] >> 4];
    text += digits[data[i] & 15];
  }
  return text;
}

std::vector<uint8_t> unhex(std::string_view text) {
  std::vector<uint8_t> bytes;
  int high = -1;
  for (char c : text) {
    int v;
    if (c >= '0' && c <= '9') v = c - '0';
    else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
    else continue;
    if (high < 0) {
      high = v;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | v));
      high = -1;
    }
  }
  return bytes;
}

}  // namespace boxlane::test
