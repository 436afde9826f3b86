// Agglomerative hierarchical clustering into K groups; type 's' keeps the
// larger, 'c' the smaller and 'a' the plain mean of the merged dissimilarities.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "common/matrix.h"

namespace mixrank {

// Bytes of memory a merge sequence may need for n observations of dimension
// p: at most the lower triangle of the dissimilarities (n (n - 1) / 2
// doubles, 10 GB at n = 50,000; usually a small part of it is stored at a
// time) and a little per observation.
double linkage_bytes(std::size_t n, std::size_t p);

// Memory the machine can give now (MemAvailable from /proc/meminfo, or the
// physical memory when that cannot be read), and the part of it the linkage
// may plan to use: all but a tenth, a margin for everything else.
std::size_t available_memory();
std::size_t linkage_memory_limit();

// Refuses, with a RunError naming the size needed, linkage starts for n
// observations (of dimension p, for 2..max components) that need more than
// `limit` bytes. Nothing is needed when max < 2. The run driver calls it
// before it writes anything.
void check_linkage_memory(std::size_t n, std::size_t p, int max, std::size_t limit = linkage_memory_limit());

// The merge sequences of several rules on one data set, run by the caller
// one rule at a time, from any thread: the closest rows of every column are
// found once, on all threads, when it is made. labels(Kmax, Kmin, type)[m]
// holds the labels (1..K as doubles) of the partition into K = Kmax - m
// groups, K from Kmax down to Kmin, all from one merge sequence (empty when
// Kmin > Kmax). The working memory (the columns of the dissimilarity table
// that merges have rewritten; at most half an n x n table of doubles) is
// released before it returns. x must outlive it.
class LinkageRules {
public:
    explicit LinkageRules(const Matrix& x);
    ~LinkageRules();
    std::vector<std::vector<double>> labels(int Kmax, int Kmin, char type) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Whether that many rules may run side by side for n observations of
// dimension p: when the tables they could need at once (one per thread)
// fit into half of `limit`.
bool rules_side_by_side(std::size_t rules, std::size_t n, std::size_t p,
                        std::size_t limit = linkage_memory_limit());

}  // namespace mixrank
