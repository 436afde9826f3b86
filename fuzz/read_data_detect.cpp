// Fuzzes the data reader that detects n and d from the file's layout. The
// only ways out are a matrix whose shape matches the file, or RunExit /
// RunError; no crash, hang or read past a buffer.
#include <algorithm>

#include "common/settings.h"
#include "fuzz_support.h"
#include "io/data_reader.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::silence_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::write_scratch(data, size);
    try {
        const mixrank::Matrix x = mixrank::read_data(fuzz::scratch_file());
        // Every line is counted (less the read at the end), every token is at
        // least one byte long.
        const long newlines = std::count(data, data + size, '\n');
        FUZZ_CHECK(x.Nrows() >= 1 && x.Nrows() <= newlines + 1);
        FUZZ_CHECK(x.Ncols() >= 0);
        FUZZ_CHECK(static_cast<size_t>(x.Nrows()) * x.Ncols() <= size);
    } catch (const mixrank::RunExit&) {
    } catch (const mixrank::RunError&) {
    }
    return 0;
}
