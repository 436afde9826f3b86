// Fuzzes the known-size data reader: the first two bytes give m (0..15) and
// n (0..7), the rest is the file. The result must be m by n whatever the file
// holds.
#include "common/settings.h"
#include "fuzz_support.h"
#include "io/data_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) return 0;
    const int m = data[0] % 16;
    const int n = data[1] % 8;
    fuzz::write_scratch(data + 2, size - 2);
    try {
        const mixrank::Matrix x = mixrank::read_data(fuzz::scratch_file(), m, n);
        FUZZ_CHECK(x.Nrows() == m && x.Ncols() == n);
    } catch (const mixrank::RunExit&) {
    } catch (const mixrank::RunError&) {
    }
    return 0;
}
