#pragma once

namespace boxlane::tool {

// Each takes the arguments after "boxlane" (argv[0] is the command name) and
// returns the exit status.
int mux_main(int argc, char** argv);
int probe_main(int argc, char** argv);
int remux_main(int argc, char** argv);

}  // namespace boxlane::tool
