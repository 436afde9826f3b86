// The library's results as Python values: the selection in the layout of
// mixrank-select's JSON report (without the program, version and input
// path), with the fitted mixtures' numbers as NumPy arrays.
#pragma once

#include <mixrank/mixrank.h>
#include <pybind11/pybind11.h>

namespace mixrank_python {

// What one selection call produced, kept until the GIL is held again.
struct SelectOutcome {
    mixrank::SelectSettings settings;
    mixrank::Data data;
    mixrank::Selection selection;
    bool classified = false;  // the recommended row's classification
    mixrank::Classification classification;
};

pybind11::dict selection_dict(const SelectOutcome& outcome);

// h, sdof, sdof_unbiased and one dict per mixture: model, g, scored, q,
// distance, mlf, ee, qaic, qbic, loglik, aic, bic, unstable.
pybind11::dict scores_dict(const mixrank::Scores& scores);

// (labels from 0 as int64 (n,), posteriors (n, g), uncertainty (n,)).
pybind11::tuple classification_tuple(const mixrank::Classification& c);

const char* status_name(mixrank::FitStatus s);

}  // namespace mixrank_python
