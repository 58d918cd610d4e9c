// Sees what the code under test releases with free().
#pragma once

#include <vector>

// The blocks that `action` releases, in order. Works on the calls that the linked objects themselves make.
std::vector<const void*> ReleasedBlocks(void (*action)());
