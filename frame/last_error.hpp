// The one place that writes the process-wide last error. Every member
// operation calls clear_error() on entry and returns fail(code) on failure.
#pragma once

#include <cstdint>

namespace boxlane {

void clear_error() noexcept;
// Sets the flag and the code; returns false so a member can `return fail(...)`.
bool fail(uint64_t code) noexcept;

}  // namespace boxlane
