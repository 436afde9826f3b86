#include "risk/report.h"

#include <iomanip>
#include <iostream>

#include "common/settings.h"
#include "io/atomic_file.h"

namespace mixrank {

namespace {

const std::string kRuleA(83, '_');
const std::string kRuleB(82, '_');
const char kScreenHeading[] =
    "No.of.Param  DISTANCE     MLF        EE       QAIC       QBIC  Likelihood      AIC      BIC ";
const char kFileHeading[] =
    "  No.of.Param        DISTANCE            MLF             EE           QAIC           QBIC"
    "     Likelihood            AIC            BIC           SDOF";

// nparam | DIST | MLF | EE | RISK | RISKB | LL | AIC | BIC.
void table_columns(const RiskTable& t, Matrix& out)
{
    out = t.nparam | t.DIST | t.MLF | t.EE | t.RISK | t.RISKB | t.LL | t.AIC | t.BIC;
}

void screen_table(const Matrix& columns, std::ostream& out)
{
    out << kRuleA << "\n";
    out << BOLD << kScreenHeading << NORMAL << "\n";
    out << kRuleB << "\n";
    out << std::setw(9) << std::setprecision(2) << columns;
    out << kRuleB << "\n";
}

// The file is written to a temporary file and renamed over the old report
// only when complete, so a failed or interrupted run leaves the old one.
void write_file(const std::string& outfile, const Matrix& columns, double kxx, int rows)
{
    try {
        write_report_file(outfile, columns, kxx, rows);
    } catch (const RunError&) {
        std::cout.flush();
        std::cerr << "mixrank: cannot create the report file " << outfile
                  << "; the table is on the screen only" << std::endl;
    }
}

}  // namespace

void write_report_file(const std::string& outfile, const Matrix& columns, double kxx, int rows)
{
    ColumnVector kxxColumn(rows);
    kxxColumn = kxx;
    const Matrix all = columns | kxxColumn;
    AtomicFile file("report file", outfile);
    file.stream() << kFileHeading << NORMAL << "\n";
    file.stream() << std::setw(14) << std::setprecision(8) << all;
    file.commit();
}

int dat_position(const std::string& datafile)
{
    const std::string::size_type found = datafile.find(".dat", 0);
    return found == std::string::npos ? -1 : static_cast<int>(found);
}

std::string report_file_name(const std::string& datafile, const std::string& Methodname)
{
    const int datpos = dat_position(datafile);
    const std::string headfile = datpos > 0 ? datafile.substr(0, datpos) : datafile;
    return headfile + "." + Methodname + ".risk";
}

std::string report(const RiskTable& table, double kxx, int max, const std::string& datafile,
                   const std::string& Methodname, std::ostream& out)
{
    const int rows = max > 0 ? max : 0;
    if (table.nparam.Nrows() != rows) throw RunError("the result table does not hold one row per model");
    Matrix columns;
    table_columns(table, columns);
    screen_table(columns, out);
    // The name's position note: where ".dat" begins, when it cuts the name.
    if (dat_position(datafile) > 0) out << "..........." << dat_position(datafile);
    const std::string outfile = report_file_name(datafile, Methodname);
    write_file(outfile, columns, kxx, rows);
    return outfile;
}

}  // namespace mixrank
