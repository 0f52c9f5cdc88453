// The number of block links of the LUNs behind a pair of ports, counted
// without a line of output: for callers that must size or bound an array
// before the printed walk runs.
#ifndef MIRVAK_HOST_LUN_COUNT_H
#define MIRVAK_HOST_LUN_COUNT_H

#include <cstddef>

namespace mv {

std::size_t count_luns_quietly(unsigned long local, unsigned long remote);

}  // namespace mv

#endif
