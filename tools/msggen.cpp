// Turns a module's message file (gencat source form) into the C record of its
// message table.  The file is the one source of the default texts and the
// catalogue numbers: entries are listed in index order, each "number text".
//
//   ks_msggen MODULE.msg OUT.cpp
//
// Directives read besides gencat's own: "$ subsystem NAME", "$ table NAME"
// (the C name of the record; default _<file stem>_ks_msg_table) and
// "$ catalog NAME" (default "ks_lib"), for tools with catalogues of their own.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct entry {
    int number;
    std::string text;
};

[[noreturn]] void fail(const std::string &file, int line, const std::string &why)
{
    std::cerr << file << ":" << line << ": " << why << "\n";
    std::exit(1);
}

// Decodes gencat's escapes exactly as gencat does, octal digits taken greedily.
std::string unescape(const std::string &s, const std::string &file, int line)
{
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        char c = s[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i >= s.size())
            fail(file, line, "dangling backslash");
        c = s[i];
        switch (c) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'v': out += '\v'; break;
        case 'b': out += '\b'; break;
        case 'r': out += '\r'; break;
        case 'f': out += '\f'; break;
        case '\\': out += '\\'; break;
        case '"': out += '"'; break;
        default:
            if (c >= '0' && c <= '7') {
                int v = 0;
                while (i < s.size() && s[i] >= '0' && s[i] <= '7')
                    v = v * 8 + (s[i++] - '0');
                i--;
                out += static_cast<char>(v);
            } else {
                out += c;
            }
        }
    }
    return out;
}

std::string c_literal(const std::string &s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c >= 0x7f) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\%03o", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::cerr << "usage: ks_msggen MODULE.msg OUT.cpp\n";
        return 2;
    }
    std::string path = argv[1];
    std::ifstream in(path);
    if (!in)
        fail(path, 0, "cannot open");
    std::string stem = path.substr(path.find_last_of('/') + 1);
    stem = stem.substr(0, stem.rfind('.'));
    std::string table = "_" + stem + "_ks_msg_table", subsys, catalog = "ks_lib";
    int set = -1, lineno = 0;
    char quote = 0;
    std::vector<entry> entries;
    std::string line;
    while (std::getline(in, line)) {
        lineno++;
        int first = lineno;
        while (!line.empty() && line.back() == '\\' &&
               (line.size() < 2 || line[line.size() - 2] != '\\')) {
            std::string more;
            if (!std::getline(in, more))
                fail(path, lineno, "continuation at end of file");
            lineno++;
            line.pop_back();
            line += more;
        }
        if (line.empty())
            continue;
        if (line[0] == '$') {
            std::istringstream ws(line.substr(1));
            std::string word, arg;
            if (line.size() > 1 && (line[1] == ' ' || line[1] == '\t')) {
                ws >> word >> arg;
                if (word == "subsystem")
                    subsys = arg;
                else if (word == "table")
                    table = arg;
                else if (word == "catalog")
                    catalog = arg;
            } else {
                ws >> word;
                if (word == "set")
                    ws >> set;
                else if (word == "quote")
                    quote = ws >> arg ? arg[0] : 0;
                else
                    fail(path, first, "unknown directive $" + word);
            }
            continue;
        }
        size_t p = 0;
        while (p < line.size() && std::isdigit(static_cast<unsigned char>(line[p])))
            p++;
        if (p == 0)
            fail(path, first, "expected a message number");
        int number = std::atoi(line.substr(0, p).c_str());
        std::string text = line.substr(p < line.size() ? p + 1 : p);
        if (quote && !text.empty() && text[0] == quote) {
            if (text.size() < 2 || text.back() != quote)
                fail(path, first, "unterminated quoted text");
            text = text.substr(1, text.size() - 2);
        }
        if (!entries.empty() && number <= entries.back().number)
            fail(path, first, "message numbers must rise");
        entries.push_back({number, unescape(text, path, first)});
    }
    if (set < 0 || subsys.empty() || entries.empty())
        fail(path, lineno, "needs $set, \"$ subsystem\" and at least one message");

    std::ofstream out(argv[2]);
    out << "// Generated by ks_msggen from " << stem << ".msg: do not edit.\n"
        << "#include \"ks/imsg.h\"\n\nnamespace {\n"
        << "const char *const texts[] = {\n";
    for (auto &e : entries)
        out << "    " << c_literal(e.text) << ",\n";
    out << "};\nconst int16_t numbers[] = {";
    for (size_t i = 0; i < entries.size(); i++)
        out << (i % 12 ? " " : "\n    ") << entries[i].number << ",";
    out << "\n};\n} // namespace\n\n"
        << "extern \"C\" KS_API const imsg_msg_table_t " << table << " = {\n"
        << "    " << c_literal(catalog) << ", " << c_literal(subsys) << ", " << set << ", "
        << entries.size() << ", texts, numbers,\n};\n";
    return out ? 0 : 1;
}
