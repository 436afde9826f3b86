#pragma once

// OpenBLAS starts its own threads when it is loaded, before main, as many as
// OPENBLAS_NUM_THREADS says (else one per processor), and each takes a
// buffer of work space at once, retrying for ever when there is no memory
// for it; the process then spins, and cannot even end. The products are
// made one thread per call anyway, so the program starts itself again, with
// the same arguments and OPENBLAS_NUM_THREADS=1, unless that is already its
// setting: then the library starts no thread of its own. Call it first in
// main; when the program cannot be started again it goes on as it is.
// Children inherit the setting.
void run_with_one_blas_thread(char** argv);
