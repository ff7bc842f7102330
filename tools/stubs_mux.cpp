// Scaffolding: replaced as the command is built.
#include "tools/commands.hpp"
int boxlane::tool::mux_main(int, char**) { return 1; }
