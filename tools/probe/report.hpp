// The two ways probe shows a report: text for people, JSON for scripts.
#pragma once

#include "tools/probe/model.hpp"

#include <cstdio>
#include <string>

namespace boxlane::tool {

struct TextOptions {
  bool tables = false;
  bool boxes = false;
  bool samples = false;  // every sample of every track
};

std::string text_report(const ProbeReport& report, const std::string& source, TextOptions options);
// Everything, tables and box tree included, as one JSON document streamed to
// the sink; false when a write failed.
// With `samples`, each track carries its samples too.
bool write_json_report(const ProbeReport& report, std::FILE* sink, bool samples = false);

}  // namespace boxlane::tool
