// The files of a run, seen from the driver: checks made before anything is
// read or written (sizes, names that would overwrite one another), the stored
// parameters read for scoring, and the clean-up at the end.
#pragma once

#include <string>

#include "driver/config.h"

namespace mixrank {

// Refuses (RunError) sizes the matrix library cannot index: the n x d data
// matrix and, when with_score, the n x P score matrix of the largest model.
// Uses the process-wide obs and dim; does nothing while they are unknown.
void check_sizes(const RunConfig& config, bool with_score);

// Refuses (RunError), before anything is written, a run whose files would
// overwrite or remove one another: when estimating, a parameter file that is
// the data file or its scaled copy, or a scaled copy that is the data file;
// in every run, a report that would replace the data file or the parameter
// file, and a data or parameter file that the clean-up removes. Files are
// compared by identity (device and inode) where both exist, otherwise by
// normalised path. With ./emmix, names must fit on one line of its script.
void check_file_names(const RunConfig& config, const std::string& datafile_std, char which);

// The parameter file's bytes for scoring; empty when it does not exist or is
// a directory (the scoring then warns). RunError for a device or socket.
std::string stored_parameters(const std::string& paramfile);

// Removes the answer script and "sample.out" (no shell involved).
void remove_exchange_files(const std::string& datafile_std);

}  // namespace mixrank
