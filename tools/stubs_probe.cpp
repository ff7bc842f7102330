// Scaffolding: replaced as the command is built.
#include "tools/commands.hpp"
int boxlane::tool::probe_main(int, char**) { return 1; }
