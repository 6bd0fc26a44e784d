// Small numerical and system utilities shared by all units.
#pragma once

namespace lyrt {

// Free memory in kilobytes, probed by the largest block (below about 1 GB) that
// can be allocated, in steps of 1,024,000 bytes.
int free_mem();

} // namespace lyrt
