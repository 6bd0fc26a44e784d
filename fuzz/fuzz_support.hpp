// What the fuzz targets share: each input is written as the named file into a
// folder of the process's own and read by the program's reader, as in a run. The
// fatal path throws fatal_stop, which the target catches: a clear message is the
// expected end of a bad input; a crash, a hang or a sanitizer report is a finding.
#pragma once

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "parallel/mpi_module.hpp"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace lyrt_fuzz {

// Once per process: a fresh working folder, one process, allocations capped so
// that an absurd count in an input stops with the program's message rather than
// exhausting the fuzzing machine.
inline void enter_work_dir() {
    static bool done = false;
    if (done) return;
    done = true;
    const auto dir = std::filesystem::temp_directory_path() /
                     ("lyrt_fuzz_" + std::to_string(static_cast<long>(getpid())));
    std::filesystem::create_directories(dir);
    std::filesystem::current_path(dir);
    lyrt::init_mpi();
    lyrt::allocate_set_test_limit(256LL << 20);
}

inline void write_input(const char* name, const std::uint8_t* data, std::size_t size) {
    std::FILE* f = std::fopen(name, "wb");
    if (f == nullptr) std::abort();
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
}

// Writes the input as `name`, opens the report files and runs read(); a stop of
// the program is a normal end.
template <class Read>
void read_as(const char* name, const std::uint8_t* data, std::size_t size, Read&& read) {
    enter_work_dir();
    write_input(name, data, size);
    lyrt::io_reset();
    lyrt::trace_reset();
    lyrt::open_units();
    try {
        read();
        lyrt::close_units();
    } catch (const lyrt::fatal_stop&) {
    }
    lyrt::io_reset();
}

} // namespace lyrt_fuzz
