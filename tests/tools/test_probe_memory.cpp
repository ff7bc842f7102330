// `boxlane probe` on shapes of file that would make it hold far more than
// the file: tkhd boxes each making a track until the parser client's bound
// stops the stream, and so many top-level boxes that their records are
// taken while the file is still being sent. Each is reported with what is
// cut marked as cut. (The reports are read as text: the test's JSON reader
// is slow on tens of megabytes.)
#include "support/box_builder.hpp"
#include "support/paths.hpp"
#include "support/probe_json.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace boxlane::test {
namespace {

TEST(ProbeMemory, MarksWhatIsCut) {
  if (tool_path().empty()) GTEST_SKIP() << "the boxlane program is not built";
  // ISO/IEC 14496-12 §8.2.2 and §8.3.2: time scale 1000, rate and volume
  // 1.0, next track id 2; a tkhd of version 0, flags 3.
  const Bytes mvhd = full_box("mvhd", 0, 0, Bytes{}.u32(0).u32(0).u32(1000).u32(0).u32(0x10000).u16(0x100).zeros(10)
                                                .u32(0x10000).zeros(12).u32(0x10000).zeros(12).u32(0x40000000)
                                                .zeros(24).u32(2));
  const Bytes ftyp = box("ftyp", Bytes().str("isom").u32(512).str("mp41"));
  // 1.2 MiB of tkhd boxes: a track record each would take the parser past
  // 16 MiB and four times the file.
  Bytes tracks = mvhd;
  for (uint32_t id = 1; id <= 14000; ++id) tracks.add(full_box("tkhd", 0, 3, Bytes{}.u32(0).u32(0).u32(id).zeros(68)));
  // 1.5 MiB of 8-byte boxes: records taken between runs of the file.
  Bytes small = ftyp;
  for (uint32_t i = 0; i < 196608; ++i) small.u32(8).str("free");
  const struct {
    const char* name;
    Bytes bytes;
    const char* missing;  // a piece of the first gap; nullptr when complete
    const char* says;     // a piece of the text report
  } cases[] = {
      {"tracks_past_bound", cat({ftyp, box("moov", tracks)}), "box 'tkhd' at offset", "tracks after it are not listed"},
      {"many_small_boxes", cat({small, box("moov", mvhd)}), nullptr, "form:        progressive"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = temp_dir() + "/" + c.name + ".mp4";
    write_file(file, c.bytes);
    std::string text;
    ASSERT_EQ(probe("--boxes " + shell_quote(file), &text), 0) << text.substr(0, 2000);
    EXPECT_NE(text.find(c.says), std::string::npos) << text.substr(0, 2000);
    const std::size_t gap = text.find("INCOMPLETE:  ");
    ASSERT_EQ(gap == std::string::npos, c.missing == nullptr) << text.substr(0, 2000);
    if (c.missing) {
      EXPECT_NE(text.substr(gap, text.find('\n', gap) - gap).find(c.missing), std::string::npos);
    }

    // Every top-level box in stream order, each where the bytes put it: the
    // records taken while the file was sent are neither lost nor reordered.
    uint64_t offset = 0;
    const std::size_t tree = text.find("\nboxes, as the parser walked them:");
    ASSERT_NE(tree, std::string::npos);
    for (std::size_t line = text.find('\n', tree + 1); line != std::string::npos; line = text.find('\n', line + 1)) {
      // Two 10-wide columns, each after two spaces, then two spaces a level
      // (sscanf would measure the rest of the report at every line).
      const char* row = text.c_str() + line + 1;
      char* end = nullptr;
      const uint64_t at = std::strtoull(row, &end, 10);
      if (end == row || text.size() <= line + 27 || text[line + 27] == ' ') continue;
      ASSERT_EQ(at, offset);
      offset += std::strtoull(end, nullptr, 10);
    }
    EXPECT_EQ(offset, c.bytes.size());
  }
}

}  // namespace
}  // namespace boxlane::test
