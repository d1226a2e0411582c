#include "ks_test_util.h"

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ks_test {

bool child_result::exited() const { return WIFEXITED(status); }
int child_result::exit_code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
int child_result::term_signal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }

namespace {

// Reads both pipes to their ends without letting either fill up.
void drain(int fd1, int fd2, std::string &s1, std::string &s2)
{
    int fds[2] = {fd1, fd2};
    std::string *outs[2] = {&s1, &s2};
    int open_count = fd2 >= 0 ? 2 : 1;
    char buf[4096];
    while (open_count > 0) {
        fd_set set;
        FD_ZERO(&set);
        int maxfd = -1;
        for (int i = 0; i < 2; i++)
            if (fds[i] >= 0) {
                FD_SET(fds[i], &set);
                maxfd = fds[i] > maxfd ? fds[i] : maxfd;
            }
        if (select(maxfd + 1, &set, nullptr, nullptr, nullptr) < 0)
            continue;
        for (int i = 0; i < 2; i++) {
            if (fds[i] < 0 || !FD_ISSET(fds[i], &set))
                continue;
            ssize_t n = read(fds[i], buf, sizeof buf);
            if (n > 0) {
                outs[i]->append(buf, n);
            } else if (n == 0 || errno != EINTR) {
                close(fds[i]);
                fds[i] = -1;
                open_count--;
            }
        }
    }
}

} // namespace

child_result run_in_child(const std::function<int()> &fn, const std::string &input)
{
    int out[2], err[2], in[2];
    if (pipe(out) || pipe(err) || pipe(in))
        throw std::runtime_error("pipe");
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork");
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        close(in[0]); close(in[1]); close(out[0]); close(out[1]); close(err[0]); close(err[1]);
        int rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (!input.empty()) {
        // A child that exits without reading must not kill the test with SIGPIPE.
        struct sigaction ignore = {}, old = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &old);
        ssize_t n = write(in[1], input.data(), input.size());
        (void)n;
        sigaction(SIGPIPE, &old, nullptr);
    }
    close(in[1]);
    child_result r;
    drain(out[0], err[0], r.out, r.err);
    waitpid(pid, &r.status, 0);
    return r;
}

child_result run_in_pty(const std::function<int()> &fn)
{
    int master = -1;
    fflush(nullptr);
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid < 0)
        throw std::runtime_error("forkpty");
    if (pid == 0) {
        int rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    child_result r;
    std::string none;
    drain(master, -1, r.out, none);
    waitpid(pid, &r.status, 0);
    return r;
}

temp_dir::temp_dir()
{
    const char *base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/ks_test.XXXXXX";
    if (!mkdtemp(&tmpl[0]))
        throw std::runtime_error("mkdtemp");
    path_ = tmpl;
}

temp_dir::~temp_dir()
{
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", path_.c_str());
}

std::string name_addresses(const std::string &text,
                           const std::vector<std::pair<const void *, std::string>> &names)
{
    std::vector<std::pair<unsigned long, std::string>> known;
    for (const auto &n : names)
        known.emplace_back(reinterpret_cast<unsigned long>(n.first), n.second);
    std::string out;
    size_t at = 0;
    for (size_t p; (p = text.find("0x", at)) != std::string::npos;) {
        size_t end = p + 2;
        while (end < text.size() && end < p + 18 && isxdigit(static_cast<unsigned char>(text[end])))
            end++;
        unsigned long value = strtoul(text.substr(p, end - p).c_str(), nullptr, 16);
        auto it = std::find_if(known.begin(), known.end(),
                               [value](const auto &k) { return k.first == value; });
        if (value != 0 && it == known.end())
            it = known.emplace(known.end(), value, "#" + std::to_string(known.size() - names.size() + 1));
        out += text.substr(at, p - at) + (value == 0 ? text.substr(p, end - p) : it->second);
        at = end;
    }
    return out + text.substr(at);
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary);
    out << content;
}

} // namespace ks_test
