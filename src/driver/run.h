// The run driver's main sequence: configuration, data, kernel, estimation,
// risk, report, clean-up and timing. Returns the exit status of a normal end;
// early ends are thrown as RunExit or RunError (see common/settings.h).
#pragma once

namespace mixrank {

int run(int argc, char** argv);

}  // namespace mixrank
