#include "kivctl/Kivctl.h"

const char* const kKivctlProgram = KIVCTL_PROGRAM;
