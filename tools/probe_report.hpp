// The two ways probe shows a report: text for people, JSON for scripts.
#pragma once

#include "tools/probe_model.hpp"

#include <string>

namespace boxlane::tool {

struct TextOptions {
  bool tables = false;
  bool boxes = false;
};

std::string text_report(const ProbeReport& report, const std::string& source, TextOptions options);
// Everything, tables and box tree included, as one JSON document.
std::string json_report(const ProbeReport& report);

}  // namespace boxlane::tool
