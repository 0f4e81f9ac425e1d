#include "commands.h"
int cmd_render(int, char**) { return fail("render: not available yet"); }
