// `boxlane probe` on shapes of file that would make it hold far more than
// the file: a brand list past what probe reads, tkhd boxes each making a
// track until the parser client's bound stops the stream, and so many
// top-level boxes that their records are taken while the file is still
// being sent. Each must be reported with what is cut marked as cut.
#include "support/box_builder.hpp"
#include "support/paths.hpp"
#include "support/probe_json.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

namespace boxlane::test {
namespace {

// ISO/IEC 14496-12 §8.2.2: version 0, time scale 1000, rate 1.0, volume 1.0,
// next track id 2.
Bytes mvhd() {
  return full_box("mvhd", 0, 0,
                  Bytes{}.u32(0).u32(0).u32(1000).u32(0).u32(0x10000).u16(0x100).zeros(10).u32(0x10000).zeros(12)
                      .u32(0x10000).zeros(12).u32(0x40000000).zeros(24).u32(2));
}

Bytes ftyp_with(uint32_t brands) {
  Bytes payload;
  payload.str("isom").u32(512);
  for (uint32_t i = 0; i < brands; ++i) payload.str(i % 2 ? "avc1" : "mp41");
  return box("ftyp", payload);
}

// ISO/IEC 14496-12 §8.3.2: version 0, flags 3 (enabled, in movie).
Bytes tkhd(uint32_t id) {
  return full_box("tkhd", 0, 3, Bytes{}.u32(0).u32(0).u32(id).u32(0).u32(0).zeros(16 + 36).u32(0).u32(0));
}

Bytes brands_shape(uint32_t brands) { return cat({ftyp_with(brands), box("moov", mvhd())}); }

Bytes tracks_shape(uint32_t tracks) {
  Bytes children = mvhd();
  for (uint32_t id = 1; id <= tracks; ++id) children.add(tkhd(id));
  return cat({ftyp_with(1), box("moov", children)});
}

Bytes free_shape(uint32_t boxes) {
  Bytes b = ftyp_with(1);
  for (uint32_t i = 0; i < boxes; ++i) b.u32(8).str("free");
  return cat({b, box("moov", mvhd())});
}

// What each report must say. Large reports are read as text only: the
// test's JSON reader is slow on tens of megabytes.
struct Shape {
  const char* name;
  Bytes (*bytes)();
  bool complete;
  const char* missing;    // a piece of the report's first gap; "" when complete
  const char* text_line;  // a piece of the text report
  bool json;              // also read the JSON report
  int64_t brands;         // compatible brands listed; when not read, minus the count declared
};

const Shape kShapes[] = {
    // The most brands probe reads, and one more.
    {"brands_at_cap", [] { return brands_shape(4096); }, true, "", "compatible with mp41 avc1", true, 4096},
    {"brands_past_cap", [] { return brands_shape(4097); }, false, "lists 4097 compatible brands",
     "file type:   not read: its ftyp lists 4097 compatible brands", true, -4097},
    // 1.2 MiB of tkhd boxes: a track record each would take the parser past
    // 16 MiB and four times the file.
    {"tracks_past_bound", [] { return tracks_shape(14000); }, false,
     "box 'tkhd' at offset", "tracks after it are not listed", false, 1},
    // 1.5 MiB of 8-byte boxes: records taken between runs of the file.
    {"many_small_boxes", [] { return free_shape(196608); }, true, "", "form:        progressive", false, 1},
};

void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

class ProbeMemory : public ::testing::TestWithParam<Shape> {
 protected:
  void SetUp() override {
    if (tool_path().empty()) GTEST_SKIP() << "the boxlane program is not built";
    file_ = temp_dir() + "/probe_memory_" + GetParam().name + ".mp4";
    bytes_ = GetParam().bytes();
    write_file(file_, bytes_);
  }
  std::string file_;
  Bytes bytes_;
};

TEST_P(ProbeMemory, MarksWhatIsCut) {
  const Shape& shape = GetParam();
  std::string text;
  ASSERT_EQ(probe("--boxes " + shell_quote(file_), &text), 0) << text.substr(0, 2000);
  EXPECT_NE(text.find(shape.text_line), std::string::npos) << text.substr(0, 2000);
  const std::size_t gap = text.find("INCOMPLETE:  ");
  EXPECT_EQ(gap == std::string::npos, shape.complete);
  if (!shape.complete && gap != std::string::npos) {
    EXPECT_NE(text.substr(gap, text.find('\n', gap) - gap).find(shape.missing), std::string::npos) << text.substr(gap, 400);
  }

  // Every top-level box in stream order, each where the bytes put it: the
  // records taken while the file was sent are neither lost nor reordered.
  uint64_t offset = 0;
  std::size_t top_level = 0;
  const std::size_t tree = text.find("\nboxes, as the parser walked them:");
  ASSERT_NE(tree, std::string::npos);
  for (std::size_t line = text.find('\n', tree + 1); line != std::string::npos; line = text.find('\n', line + 1)) {
    // (sscanf would measure the rest of the report at every line.)
    const char* row = text.c_str() + line + 1;
    char* end = nullptr;
    const uint64_t at = std::strtoull(row, &end, 10);
    if (end == row) continue;
    const uint64_t size = std::strtoull(end, nullptr, 10);
    // Two 10-wide columns, each after two spaces, then two spaces a level.
    if (text.size() <= line + 27 || text[line + 27] == ' ') continue;
    ASSERT_EQ(at, offset) << "top-level box " << top_level;
    offset += size;
    ++top_level;
  }
  EXPECT_EQ(offset, bytes_.size());

  if (!shape.json) return;
  const Json report = probe_json(shell_quote(file_));
  EXPECT_EQ(report["complete"].kind == Json::kBool && report["complete"].flag, shape.complete);
  if (!shape.complete) {
    ASSERT_FALSE(report["missing"].items.empty());
    EXPECT_NE(report["missing"].items[0].text.find(shape.missing), std::string::npos) << report["missing"].items[0].text;
  }
  const Json& brands = report["file_type"]["compatible_brands"];
  if (shape.brands < 0) {
    EXPECT_EQ(brands.kind, Json::kNull);
    EXPECT_EQ(report["file_type"]["major_brand"].kind, Json::kNull);
    EXPECT_EQ(report["file_type"]["brand_count"].number, -shape.brands);
  } else {
    ASSERT_EQ(int64_t(brands.items.size()), shape.brands);
    EXPECT_EQ(brands.items.back().text, shape.brands % 2 ? "mp41" : "avc1");
    EXPECT_EQ(report["file_type"]["minor_version"].number, 512);
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, ProbeMemory, ::testing::ValuesIn(kShapes),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace boxlane::test
