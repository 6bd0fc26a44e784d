// Fuzz target: POSLYRT (and POSCONT, the same format) through the positions reader,
// with the lattice generator and the repetition of the basis.
#include "fuzz_support.hpp"
#include "system/box_module.hpp"
#include "system/ions_module.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    lyrt_fuzz::read_as("POSLYRT", data, size, [] {
        lyrt::box_type box;
        lyrt::ions_read_in(box, box.ions, "POSLYRT");
    });
    return 0;
}
