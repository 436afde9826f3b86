// ClassifiedRows of every observation by a stored mixture: posterior
// probabilities, the label of the largest weight and its uncertainty; the
// ".class" file that holds them and the per-component summary.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "common/matrix.h"
#include "mixture/mixture.h"

namespace mixrank {

struct ClassifiedRows {
    Matrix tau;                // n x K: pi_k f_k(x_i) / sum_j pi_j f_j(x_i)
    ColumnVector label;        // n: 1..K, the component of the largest weight
    ColumnVector uncertainty;  // n: 1 - max_k tau_ik
    // Observations that no component can weigh (every weight is not a
    // number): label 1, probabilities and uncertainty NaN.
    int unweighted = 0;
    // Per component (0-based): the observations where its weight is not a
    // number (a covariance that cannot be factorised) and counts as 0.
    std::vector<int> not_a_number{};
};

// x: the scaled data the model was fitted to. Where the weights pi_k f_k(x_i)
// can be divided by their sum in double precision, the label follows the rule
// of posterior()/posterior2() and tau is that quotient; elsewhere (every
// weight underflows, or one is infinite or not a number) both come from the
// logarithms of the weights, so the label is still the largest weight's.
ClassifiedRows classify_observations(const Matrix& x, const Mixture& fit);

// Reads the models g = 1..K from param, as the risk step does, and returns
// the K-component one. RunError, naming paramfile, when the file ends or holds
// text or a number that is not finite before that model is complete, or when
// the model cannot classify: proportions that are negative or do not sum to
// 1, a covariance that is singular or not positive definite.
Mixture stored_model(int K, int d, CovarianceModel model, std::istream& param, const std::string& paramfile);

// "<head>.<model>.g<K>.class", head and model as in the report's name.
std::string class_file_name(const std::string& datafile, const std::string& Methodname, int K);

// One line per observation: its values as read, its label, its K posterior
// probabilities and its uncertainty, each number with six decimals and one
// blank after it.
void write_class_lines(std::ostream& out, const Matrix& original, const ClassifiedRows& c);

// The table per component (label, observations, proportion, mean
// uncertainty, mean in the original units) and the count of uncertain
// observations. sd holds the standard deviation of every data column.
void print_summary(std::ostream& out, const ClassifiedRows& c, const ColumnVector& pi,
                   const Matrix& mu, const ColumnVector& sd);

// One line per component whose weight was not a number somewhere, with the
// number of observations where it counted as 0.
void print_undefined_weights(std::ostream& err, const ClassifiedRows& c);

}  // namespace mixrank
