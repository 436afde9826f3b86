// Fits and scores mixtures for the iris data through the library's public
// header alone: the numbers of the classic run
//   mixrank -equal -2 -g 6 -i iris.dat -p iris.param -s 1
// without any file but the data.
//
//   library_example examples/iris.dat
#include <mixrank/mixrank.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: library_example FILE (blank-separated numbers, 4 per line)\n";
        return 2;
    }
    std::ifstream in(argv[1]);
    std::vector<double> values;
    for (double v; in >> v;) values.push_back(v);
    const int d = 4;
    try {
        const mixrank::Data data = mixrank::prepare_data(values.data(), values.size() / d, d);
        mixrank::RandomStream random(1);
        mixrank::StartSettings starts;
        starts.fitting = mixrank::Fitting::classic;  // the classic program's fits
        starts.choice = mixrank::StartChoice::classic;
        const std::vector<mixrank::Mixture> fits =
            mixrank::fit_mixtures(data, mixrank::CovarianceModel::common, 6, starts, random);
        const mixrank::Kernel kernel = mixrank::make_kernel(data, 0.5);
        const mixrank::Scores scores = mixrank::score_mixtures(data, kernel, fits);
        std::printf("Sdof %.4f\n   g      q      QAIC      QBIC    loglik       BIC\n", scores.sdof);
        for (const mixrank::ModelScore& s : scores.models)
            std::printf("%4d %6.0f %9.2f %9.2f %9.2f %9.2f\n", s.components, s.parameters, s.qaic, s.qbic, s.loglik,
                        s.bic);
    } catch (const mixrank::Error& e) {
        std::cerr << "library_example: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
