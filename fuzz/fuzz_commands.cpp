// The boxlane commands on arbitrary files. probe and remux read the file
// through the parser and then do their own arithmetic on what it answers
// (times, sizes, offsets, edit lists) and on the bytes of the samples; mux
// takes it as an elementary stream and times and writes what it finds.
// None of it may crash, read out of bounds or overflow, whatever the file
// says. Each input is written to a file in memory and run through the
// commands as a user would, in each of their modes.
#include "tools/commands.hpp"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string g_dir;

int run(std::vector<std::string> args, int (*command)(int, char**)) {
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  return command(static_cast<int>(args.size()), argv.data());
}

void remove_files() {
  ::unlink((g_dir + "/in.mp4").c_str());
  ::unlink((g_dir + "/out.mp4").c_str());
  ::rmdir(g_dir.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // In memory where the machine has it.
  char shm[] = "/dev/shm/boxlane-fuzz-XXXXXX", tmp[] = "/tmp/boxlane-fuzz-XXXXXX";
  const char* dir = ::mkdtemp(shm);
  if (!dir) dir = ::mkdtemp(tmp);
  if (!dir) std::abort();
  g_dir = dir;
  std::atexit(remove_files);
  // What the commands print is not looked at; their exit status is.
  if (!std::freopen("/dev/null", "w", stdout)) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string in = g_dir + "/in.mp4", out = g_dir + "/out.mp4";
  std::FILE* f = std::fopen(in.c_str(), "wb");
  if (!f || std::fwrite(data, 1, size, f) != size || std::fclose(f) != 0) std::abort();
  using boxlane::tool::mux_main;
  using boxlane::tool::probe_main;
  using boxlane::tool::remux_main;
  // 0: the report is whole; 1: it names what is missing or the file was refused.
  for (const auto& mode : {std::vector<std::string>{"--tables", "--samples", "--boxes"}, {"--json", "--samples"},
                           {"--strict", "--json", "--tables"}}) {
    std::vector<std::string> args{"probe"};
    args.insert(args.end(), mode.begin(), mode.end());
    args.push_back(in);
    if (run(args, probe_main) > 1) std::abort();
  }
  for (const auto& mode : {std::vector<std::string>{}, {"--faststart"}, {"--fragment", "0.5"}}) {
    std::vector<std::string> args{"remux", "-q", "--skip-unsupported"};
    args.insert(args.end(), mode.begin(), mode.end());
    args.insert(args.end(), {in, "-o", out});
    if (run(args, remux_main) > 1) std::abort();
  }
  for (const char* as : {"--video", "--audio"}) {
    for (const auto& mode : {std::vector<std::string>{}, {"--fragment", "0.5"}}) {
      std::vector<std::string> args{"mux", "-q", as, in, "-o", out};
      args.insert(args.end(), mode.begin(), mode.end());
      if (run(args, mux_main) > 1) std::abort();
    }
  }
  ::unlink(out.c_str());
  return 0;
}
