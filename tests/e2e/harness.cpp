#include "harness.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace e2e {

namespace {

std::string quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

Workdir::Workdir()
{
    char tmpl[] = "/tmp/mixrank-e2e-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("cannot make a temporary directory");
    path_ = tmpl;
}

Workdir::~Workdir() { std::system(("rm -rf " + quote(path_)).c_str()); }

void Workdir::write(const std::string& name, const std::string& content) const
{
    std::ofstream(file(name), std::ios::binary) << content;
}

std::string Workdir::read(const std::string& name) const { return slurp(file(name)); }

bool Workdir::exists(const std::string& name) const
{
    struct stat st;
    return ::stat(file(name).c_str(), &st) == 0;
}

std::vector<std::string> Workdir::files() const
{
    std::vector<std::string> names;
    if (DIR* d = opendir(path_.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void Workdir::install_emmix() const
{
    const std::string cmd = "cp " + quote(EMMIX_STANDIN) + " " + quote(file("emmix"));
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("cannot copy the emmix stand-in");
}

Result Workdir::run(const std::vector<std::string>& args, const std::string& input) const
{
    write(".stdin", input);
    std::string cmd = "cd " + quote(path_) + " && " + quote(MIXRANK_BINARY);
    for (const auto& a : args) cmd += " " + quote(a);
    cmd += " < .stdin > .stdout 2> .stderr";
    const int raw = std::system(cmd.c_str());
    Result r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    r.out = read(".stdout");
    r.err = read(".stderr");
    for (const char* f : {".stdin", ".stdout", ".stderr"}) ::unlink(file(f).c_str());
    return r;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) out.push_back(line);
    return out;
}

std::vector<double> numbers(const std::string& line)
{
    std::vector<double> v;
    std::istringstream in(line);
    std::string tok;
    while (in >> tok) v.push_back(std::strtod(tok.c_str(), nullptr));
    return v;
}

}  // namespace e2e
