// Helpers shared by the test programs: run a piece of code in a child process
// and collect what it wrote and how it ended.
#ifndef KS_TEST_UTIL_H
#define KS_TEST_UTIL_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace ks_test {

struct child_result {
    int status = -1;       // raw wait status
    std::string out;       // what the child wrote to descriptor 1
    std::string err;       // what the child wrote to descriptor 2
    bool exited() const;
    int exit_code() const; // -1 unless exited
    int term_signal() const; // 0 unless killed by a signal
};

// Forks; the child runs fn with descriptors 1 and 2 on pipes, flushes stdio
// and exits with fn's result.  input, when given, is the child's stdin.
child_result run_in_child(const std::function<int()> &fn, const std::string &input = "");

// Same, but the child's descriptors 0, 1 and 2 are the slave side of a new
// pseudo-terminal; everything it writes comes back in out.
child_result run_in_pty(const std::function<int()> &fn);

// A fresh temporary directory, removed with its contents by the destructor.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

private:
    std::string path_;
};

// text with every address "0x<hex>" (at most 16 digits) named: one of names by its name, any
// other non-zero one "#1", "#2", ... in order of first appearance (so links
// between printed records can be compared); zero stays as printed.
std::string name_addresses(const std::string &text,
                           const std::vector<std::pair<const void *, std::string>> &names = {});

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);

} // namespace ks_test

#endif
