#include "support/ffmpeg.hpp"

#include "support/paths.hpp"

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <utility>

namespace boxlane::test {

std::string shell_quote(const std::string& path) {
  std::string out = "'";
  for (const char c : path) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

int ffmpeg(const std::string& args, std::string* log) {
  return run("ffmpeg -nostdin -hide_banner -y " + args + " 2>&1", log);
}

std::vector<std::string> decoded_md5s(const std::string& path, char kind) {
  std::string text;
  // Passthrough keeps every decoded picture whatever its timestamp, so a timestamp fault shows up as a
  // mismatch rather than a silent drop.
  const std::string sync = kind == 'v' ? " -fps_mode passthrough" : "";
  if (run("ffmpeg -nostdin -v error -i " + shell_quote(path) + " -map 0:" + kind + ":0" + sync + " -f framemd5 - 2>/dev/null",
          &text) != 0)
    return {};
  std::vector<std::string> hashes;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const auto comma = line.rfind(',');
    if (line.empty() || line[0] == '#' || comma == std::string::npos) continue;
    hashes.push_back(line.substr(line.find_first_not_of(' ', comma + 1)));
  }
  return hashes;
}

void expect_decodes_like(const std::string& file, const std::string& video_source, const std::string& audio_source) {
  std::string complaints;
  EXPECT_EQ(run("ffmpeg -nostdin -v warning -xerror -i " + shell_quote(file) + " -f null - 2>&1", &complaints), 0);
  EXPECT_EQ(complaints, "") << "FFmpeg complains about " << file;
  for (const auto& [source, kind] : {std::pair{video_source, 'v'}, std::pair{audio_source, 'a'}}) {
    if (source.empty()) continue;
    const auto want = decoded_md5s(source, kind);
    EXPECT_FALSE(want.empty()) << source;
    EXPECT_EQ(decoded_md5s(file, kind), want) << (kind == 'v' ? "video" : "audio") << " frames differ from the source";
  }
}

std::vector<ProbedPacket> probe_packets(const std::string& path, char kind, bool as_stored) {
  std::string text;
  if (run("ffprobe -v error" + std::string(as_stored ? " -ignore_editlist 1" : "") + " -select_streams " + kind +
              ":0 -show_entries packet=pts_time,dts_time,size,pos,flags -of csv=p=0 " + shell_quote(path),
          &text) != 0)
    return {};
  const auto seconds = [](const std::string& t) { return t == "N/A" ? std::nan("") : std::strtod(t.c_str(), nullptr); };
  std::vector<ProbedPacket> packets;
  std::istringstream rows(text);
  for (std::string pts, dts, size, pos, flags;
       std::getline(rows, pts, ',') && std::getline(rows, dts, ',') && std::getline(rows, size, ',') &&
       std::getline(rows, pos, ',') && std::getline(rows, flags);)
    packets.push_back({seconds(pts), seconds(dts), std::stoll(size), std::strtoll(pos.c_str(), nullptr, 10),
                       flags.find('K') != std::string::npos});
  return packets;
}

std::map<int32_t, std::vector<PacketRow>> packets_by_track(const std::string& path) {
  std::map<int32_t, std::vector<PacketRow>> out;
  std::map<int, int32_t> track_of;
  std::string text;
  EXPECT_EQ(run("ffprobe -v error -show_entries stream=index,id -of csv=p=0 " + shell_quote(path), &text), 0);
  std::istringstream streams(text);
  for (std::string line; std::getline(streams, line);) {
    const auto comma = line.find(',');
    if (comma != std::string::npos) track_of[std::stoi(line)] = int32_t(std::stoul(line.substr(comma + 1), nullptr, 16));
  }
  EXPECT_EQ(run("ffprobe -v error -show_entries packet=stream_index,pts,dts,duration,size,pos,flags -of csv=p=0 " +
                    shell_quote(path),
                &text),
            0);
  std::istringstream rows(text);
  const auto number = [](const std::string& t) { return t == "N/A" ? INT64_MIN : std::stoll(t); };
  for (std::string line; std::getline(rows, line);) {
    std::vector<std::string> f;
    std::istringstream cells(line);
    for (std::string cell; std::getline(cells, cell, ',');) f.push_back(cell);
    if (f.size() < 7) continue;
    out[track_of[std::stoi(f[0])]].push_back(
        {number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]), f[6][0] == 'K'});
  }
  return out;
}

}  // namespace boxlane::test
