#include "support/ffmpeg.hpp"

#include "support/paths.hpp"

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace boxlane::test {

namespace {

std::string stream_map(char kind) { return std::string("0:") + kind + ":0"; }

double seconds(std::string_view text) {
  if (text.empty() || text == "N/A") return std::nan("");
  return std::strtod(std::string(text).c_str(), nullptr);
}

}  // namespace

std::string quoted(const std::string& path) {
  std::string out = "'";
  for (const char c : path) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

int ffmpeg(const std::string& args, std::string* log) {
  return run("ffmpeg -nostdin -hide_banner -y " + args + " 2>&1", log);
}

std::vector<std::string> decoded_md5s(const std::string& path, char kind) {
  std::string text;
  // Passthrough keeps every decoded picture whatever its timestamp, so a
  // timestamp fault shows up as a mismatch rather than a silent drop.
  const std::string sync = kind == 'v' ? " -fps_mode passthrough" : "";
  if (run("ffmpeg -nostdin -v error -i " + quoted(path) + " -map " + stream_map(kind) + sync + " -f framemd5 - 2>/dev/null",
          &text) != 0)
    return {};
  std::vector<std::string> hashes;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    const auto comma = line.rfind(',');
    if (comma == std::string::npos) continue;
    hashes.push_back(line.substr(line.find_first_not_of(' ', comma + 1)));
  }
  return hashes;
}

std::vector<ProbedPacket> probe_packets(const std::string& path, char kind) {
  std::string text;
  if (run("ffprobe -v error -select_streams " + std::string(1, kind) +
              ":0 -show_entries packet=pts_time,dts_time,size,flags -of compact=p=0 " + quoted(path),
          &text) != 0)
    return {};
  std::vector<ProbedPacket> packets;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty()) continue;
    ProbedPacket packet;
    std::istringstream fields(line);
    std::string field;
    while (std::getline(fields, field, '|')) {
      const auto eq = field.find('=');
      if (eq == std::string::npos) continue;
      const std::string_view key(field.data(), eq);
      const std::string_view value(field.data() + eq + 1, field.size() - eq - 1);
      if (key == "pts_time") packet.pts = seconds(value);
      else if (key == "dts_time") packet.dts = seconds(value);
      else if (key == "size") packet.size = std::strtoll(std::string(value).c_str(), nullptr, 10);
      else if (key == "flags") packet.key = value.find('K') != std::string_view::npos;
    }
    packets.push_back(packet);
  }
  return packets;
}

}  // namespace boxlane::test
