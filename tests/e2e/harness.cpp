#include "harness.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace e2e {

namespace fs = std::filesystem;

static std::string quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

Workdir::Workdir()
{
    char tmpl[] = "/tmp/mixrank-e2e-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("cannot make a temporary directory");
    path_ = tmpl;
}

Workdir::~Workdir()
{
    std::error_code ignored;  // a directory that is already gone is fine
    fs::remove_all(path_, ignored);
}

void Workdir::write(const std::string& name, const std::string& content) const
{
    std::ofstream(file(name), std::ios::binary) << content;  // binary: CR LF stays as written
}

std::string Workdir::read(const std::string& name) const
{
    std::ostringstream s;
    s << std::ifstream(file(name), std::ios::binary).rdbuf();
    return s.str();
}

bool Workdir::exists(const std::string& name) const { return fs::exists(file(name)); }

std::vector<std::string> Workdir::files() const
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path_)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void Workdir::install_emmix() const
{
    fs::copy_file(EMMIX_STANDIN, file("emmix"), fs::copy_options::overwrite_existing);
}

Result Workdir::run(const std::vector<std::string>& args, const std::string& input) const
{
    write(".stdin", input);
    std::string cmd = "cd " + quote(path_) + " && " + quote(MIXRANK_BINARY);
    for (const auto& a : args) cmd += " " + quote(a);
    const int raw = std::system((cmd + " < .stdin > .stdout 2> .stderr").c_str());
    const Result r{WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), read(".stdout"), read(".stderr")};
    for (const char* f : {".stdin", ".stdout", ".stderr"}) ::unlink(file(f).c_str());
    return r;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::vector<double> numbers(const std::string& line)
{
    std::vector<double> v;
    std::istringstream in(line);
    for (std::string tok; in >> tok;) v.push_back(std::strtod(tok.c_str(), nullptr));
    return v;
}

}  // namespace e2e
