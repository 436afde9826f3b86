// The gnuplot run of mixrank-plot. Gnuplot sees only what the program made:
// a script named plot.gp, holding its data, that draws into plot.png or
// plot.svg, all in a private directory of the run. Gnuplot is started by exec,
// never through a shell, and its picture is taken only when it is whole.
#pragma once

#include <signal.h>

#include <string>

namespace plot {

// While it lives, SIGXFSZ is ignored (a file-size limit makes a write fail
// instead of ending the run) and SIGINT, SIGTERM and SIGHUP, unless ignored,
// are held back, so that the run can remove its files first. Its destruction
// lets a held signal take its usual course.
class HeldSignals {
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    // std::runtime_error when one of the held signals came.
    void stop_if_interrupted() const;

    const sigset_t& outer_mask() const { return outer_mask_; }
    bool file_size_signal_was_default() const { return xfsz_default_; }

private:
    sigset_t held_, outer_mask_;
    struct sigaction outer_xfsz_ {};
    bool xfsz_default_ = false;
};

// A directory of the run's own under $TMPDIR (else /tmp), removed with what
// it holds on destruction.
class PrivateDir {
public:
    PrivateDir();
    ~PrivateDir();
    PrivateDir(const PrivateDir&) = delete;
    PrivateDir& operator=(const PrivateDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// The name the script gives gnuplot's output, inside the private directory.
std::string picture_file(const std::string& format);

// Runs gnuplot on script in dir (its messages kept there) and returns the
// picture it drew. std::runtime_error with one line when gnuplot cannot be
// started, fails, or leaves no whole picture (a PNG must end with its IEND
// chunk, an SVG with </svg>).
std::string render(const PrivateDir& dir, const std::string& script, const std::string& format,
                   const HeldSignals& signals);

// Whether bytes are a whole picture of the format, as far as its end shows.
bool whole_picture(const std::string& bytes, const std::string& format);

}  // namespace plot
