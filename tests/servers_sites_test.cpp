#include "tool_test.h"
