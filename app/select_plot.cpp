#include "select_plot.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "classify/classify.h"
#include "io/atomic_file.h"
#include "io/child_process.h"
#include "risk/report.h"
#include "select_options.h"

namespace mixrank {

namespace {

// mixrank-plot beside this program, else from PATH.
std::string plot_program()
{
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) {
        const std::string path(self, static_cast<std::size_t>(length));
        const std::string beside = path.substr(0, path.find_last_of('/') + 1) + "mixrank-plot";
        if (::access(beside.c_str(), X_OK) == 0) return beside;
    }
    return "mixrank-plot";
}

void draw(const std::string& file)
{
    ChildProgram plot;
    plot.program = plot_program();
    plot.arguments = {file, "png"};
    plot.output = "/dev/null";
    int why = 0;
    const pid_t pid = start_child(plot, why);
    if (pid < 0) throw std::runtime_error("cannot run mixrank-plot: " + std::string(std::strerror(why)));
    const int status = wait_child(pid);
    if (status < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("mixrank-plot could not draw '" + file + "'");
}

std::string picture_of(const std::string& file) { return file.substr(0, file.find_last_of('.')) + ".png"; }

// The rows of one model as the classic report's columns.
std::string write_risk(const std::string& base, const Selection& s, CovarianceModel model)
{
    std::vector<const SelectionRow*> rows;
    for (const SelectionRow& r : s.rows)
        if (r.fit.model == model) rows.push_back(&r);
    if (rows.empty()) return "";
    const int G = static_cast<int>(rows.size());
    Matrix columns(G, 9);
    for (int g = 1; g <= G; ++g) {
        const ModelScore& c = rows[g - 1]->score;
        const double v[9] = {c.parameters, c.distance, c.mlf, c.ee, c.qaic, c.qbic, c.loglik, c.aic, c.bic};
        for (int k = 1; k <= 9; ++k) columns(g, k) = v[k - 1];
    }
    const std::string file = base + "." + model_name(model) + ".risk";
    write_report_file(file, columns, s.sdof, G);
    return file;
}

std::string write_classes(const std::string& base, const Table& table, const Classification& c)
{
    const int n = static_cast<int>(c.n), g = c.components, d = static_cast<int>(table.names.size());
    Matrix original(n, d);
    std::copy(table.values.begin(), table.values.end(), original.Store());
    ClassifiedRows rows;
    rows.tau.ReSize(n, g);
    std::copy(c.posteriors.begin(), c.posteriors.end(), rows.tau.Store());
    rows.label.ReSize(n);
    rows.uncertainty.ReSize(n);
    for (int i = 0; i < n; ++i) {
        rows.label(i + 1) = c.labels[static_cast<std::size_t>(i)];
        rows.uncertainty(i + 1) = c.uncertainty[static_cast<std::size_t>(i)];
    }
    const std::string file = base + ".g" + std::to_string(g) + ".class";
    AtomicFile out("classification file", file);
    write_class_lines(out.stream(), original, rows);
    out.stream().flush();
    out.commit();
    return file;
}

}  // namespace

std::vector<std::string> draw_pictures(const std::string& base, const Selection& s, const Table& table,
                                       const Classification* c, std::size_t)
{
    std::vector<std::string> files;
    for (CovarianceModel m : {CovarianceModel::common, CovarianceModel::per_component}) {
        const std::string f = write_risk(base, s, m);
        if (!f.empty()) files.push_back(f);
    }
    if (c != nullptr) files.push_back(write_classes(base, table, *c));
    std::vector<std::string> pictures;
    for (const std::string& f : files) {
        draw(f);
        pictures.push_back(picture_of(f));
    }
    return pictures;
}

}  // namespace mixrank
