#include "starts/random_starts.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace mixrank {

namespace {

// Smallest i >= 1 with i / number_left >= cutoff (double division), the
// first slot a linear count would accept. The truncated product is never
// above it (at most one below), and the quotient grows with i; cutoff < 1
// stops the count at number_left.
int draw_rank(double cutoff, int number_left)
{
    int i = std::max(1, static_cast<int>(cutoff * number_left));
    while (cutoff > static_cast<double>(i) / number_left) ++i;
    return i;
}

// Free slots of an array, counted with a binary indexed tree.
class FreeSlots {
public:
    explicit FreeSlots(int length) : tree_(length + 1, 0), top_(1)
    {
        for (int k = 1; k <= length; ++k) tree_[k] = k & -k;  // every slot free
        while (top_ * 2 <= length) top_ *= 2;
    }

    // Index (0-based) of the i-th free slot, which is then taken.
    int take(int i)
    {
        const int length = static_cast<int>(tree_.size()) - 1;
        int pos = 0;
        for (int step = top_; step > 0; step /= 2)
            if (pos + step <= length && tree_[pos + step] < i) {
                pos += step;
                i -= tree_[pos];
            }
        for (int k = pos + 1; k <= length; k += k & -k) --tree_[k];
        return pos;
    }

private:
    std::vector<int> tree_;
    int top_;
};

template <class Draw>
void fill_permutation(int* vector, int length, Draw&& draw)
{
    for (int i = 0; i < length; ++i) vector[i] = 0;  // 0 marks a free slot
    FreeSlots slots(length);
    for (int number_left = length; number_left >= 1; --number_left) {
        const int i = draw_rank(draw(), number_left);
        vector[slots.take(i)] = number_left;
    }
}

template <class Draw>
void fill_labels(double* grp, std::size_t n, int K, Draw&& draw)
{
    for (std::size_t k = 0; k < n; ++k) grp[k] = std::ceil(K * draw());
}

}  // namespace

void srswor(int* vector, int length, RandomStream& draws)
{
    fill_permutation(vector, length, [&draws] { return draws.next(); });
}

std::vector<double> randomstart(std::size_t n, int K, RandomStream& draws)
{
    std::vector<double> grp(n);
    fill_labels(grp.data(), n, K, [&draws] { return draws.next(); });
    return grp;
}

int mindist(const ColumnVector& d) { return mindist(d.Store(), d.Nrows()); }

int mindist(const double* d, int n)
{
    int mini = 1;
    // The running minimum is single precision on purpose: an entry only wins
    // when it lies strictly below the rounded earlier minimum.
    float min = static_cast<float>(d[0]);
    for (int p = 2; p <= n; ++p) {
        if (d[p - 1] < static_cast<double>(min)) {
            mini = p;
            min = static_cast<float>(d[p - 1]);
        }
    }
    return mini;
}

}  // namespace mixrank
