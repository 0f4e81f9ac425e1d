#include "commands.h"
int cmd_analyze(int, char**) { return fail("analyze: not available yet"); }
