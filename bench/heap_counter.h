// The bytes this process holds on the heap, counted by the benchmark binary's
// own malloc and free (they forward to the C library's and keep a tally), and
// the most it held since the peak was last reset.
#pragma once

#include <cstdint>

namespace heap_counter {

int64_t Live();
int64_t Peak();
void ResetPeak();  // the peak starts again from what is live now

}  // namespace heap_counter
