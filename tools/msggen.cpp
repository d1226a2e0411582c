// Turns a module's message file (gencat source form) into the C record of its
// message table and the names of its entries.  The file is the one source of
// the default texts, the catalogue numbers and the index names: entries are
// listed in index order, each "number text", each named by the comment line
// "$ id INDEX NAME" just before it (the index is checked, so a reader never
// counts lines).
//
//   ks_msggen MODULE.msg OUT.cpp OUT.h     the table and its index names
//   ks_msggen --decls OUT.h MODULE.msg...  declarations of the library's tables
//
// OUT.h declares the table and an enum of <STEM>_MSG_<NAME> = INDEX.
// Directives read besides gencat's own: "$ subsystem NAME", "$ table NAME"
// (the C name of the record; default _<file stem>_ks_msg_table), "$ catalog
// NAME" (default "ks_lib"), for tools with catalogues of their own, and
// "$ prefix NAME" (default the upper-case stem) for the index names.
#include <cctype>
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
    std::string name;
};

struct msg_file {
    std::string path, stem, table, subsys, catalog = "ks_lib", prefix;
    int set = -1;
    std::vector<entry> entries;
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

std::string upper(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

bool is_name(const std::string &s)
{
    if (s.empty() || std::isdigit(static_cast<unsigned char>(s[0])))
        return false;
    for (unsigned char c : s)
        if (!(std::isupper(c) || std::isdigit(c) || c == '_'))
            return false;
    return true;
}

// Reads "$ word ARG" comment directives of our own; false when the comment is
// an ordinary one.
void read_comment(msg_file &m, const std::string &line, int lineno, std::string &pending_name)
{
    std::istringstream ws(line.substr(1));
    std::string word, arg;
    ws >> word >> arg;
    if (word == "subsystem")
        m.subsys = arg;
    else if (word == "table")
        m.table = arg;
    else if (word == "catalog")
        m.catalog = arg;
    else if (word == "prefix")
        m.prefix = arg;
    else if (word == "id") {
        std::string name;
        ws >> name;
        char *end = nullptr;
        long index = std::strtol(arg.c_str(), &end, 10);
        if (arg.empty() || *end || !is_name(name))
            fail(m.path, lineno, "expected \"$ id INDEX NAME\" (NAME in upper case)");
        if (index != static_cast<long>(m.entries.size()))
            fail(m.path, lineno,
                 "\"$ id " + arg + "\" names entry " + std::to_string(m.entries.size()));
        if (!pending_name.empty())
            fail(m.path, lineno, "two names for one entry");
        for (auto &e : m.entries)
            if (e.name == name)
                fail(m.path, lineno, "name " + name + " used twice");
        pending_name = name;
    }
}

msg_file read_msg_file(const std::string &path)
{
    msg_file m;
    m.path = path;
    std::ifstream in(path);
    if (!in)
        fail(path, 0, "cannot open");
    m.stem = path.substr(path.find_last_of('/') + 1);
    m.stem = m.stem.substr(0, m.stem.rfind('.'));
    m.table = "_" + m.stem + "_ks_msg_table";
    m.prefix = upper(m.stem);
    int lineno = 0;
    char quote = 0;
    std::string line, pending_name;
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
            if (line.size() > 1 && (line[1] == ' ' || line[1] == '\t')) {
                read_comment(m, line, first, pending_name);
                continue;
            }
            std::istringstream ws(line.substr(1));
            std::string word, arg;
            ws >> word;
            if (word == "set")
                ws >> m.set;
            else if (word == "quote")
                quote = ws >> arg ? arg[0] : 0;
            else
                fail(path, first, "unknown directive $" + word);
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
        if (!m.entries.empty() && number <= m.entries.back().number)
            fail(path, first, "message numbers must rise");
        if (pending_name.empty())
            fail(path, first,
                 "entry " + std::to_string(m.entries.size()) + " has no \"$ id\" line");
        m.entries.push_back({number, unescape(text, path, first), pending_name});
        pending_name.clear();
    }
    if (!pending_name.empty())
        fail(path, lineno, "\"$ id\" without an entry");
    if (m.set < 0 || m.subsys.empty() || m.entries.empty())
        fail(path, lineno, "needs $set, \"$ subsystem\" and at least one message");
    return m;
}

void write_table(const msg_file &m, std::ostream &out)
{
    out << "// Generated by ks_msggen from " << m.stem << ".msg: do not edit.\n"
        << "#include \"" << m.stem << "_msg.h\"\n\nnamespace {\n"
        << "const char *const texts[] = {\n";
    for (auto &e : m.entries)
        out << "    " << c_literal(e.text) << ",\n";
    out << "};\nconst int16_t numbers[] = {";
    for (size_t i = 0; i < m.entries.size(); i++)
        out << (i % 12 ? " " : "\n    ") << m.entries[i].number << ",";
    out << "\n};\n} // namespace\n\n"
        << "extern \"C\" KS_API const imsg_msg_table_t " << m.table << " = {\n"
        << "    " << c_literal(m.catalog) << ", " << c_literal(m.subsys) << ", " << m.set << ", "
        << m.entries.size() << ", texts, numbers,\n};\n";
}

void write_names(const msg_file &m, std::ostream &out)
{
    std::string guard = "KS_GEN_" + upper(m.stem) + "_MSG_H";
    out << "/* Generated by ks_msggen from " << m.stem << ".msg: do not edit. */\n"
        << "#ifndef " << guard << "\n#define " << guard << "\n\n"
        << "#include \"ks/imsg.h\"\n\n"
        << "KS_BEGIN_DECLS\n"
        << "KS_API extern const imsg_msg_table_t " << m.table << "; /* \"" << m.subsys << "\", set "
        << m.set << " */\n"
        << "KS_END_DECLS\n\n"
        << "/* Indices of " << m.table << " (catalogue number in the comment). */\n"
        << "enum " << m.stem << "_msg_index {\n";
    for (size_t i = 0; i < m.entries.size(); i++)
        out << "    " << m.prefix << "_MSG_" << m.entries[i].name << " = " << i << ", /* "
            << m.entries[i].number << " */\n";
    out << "    " << m.prefix << "_MSG_COUNT = " << m.entries.size() << "\n};\n\n#endif\n";
}

void write_decls(const std::vector<msg_file> &files, std::ostream &out)
{
    out << "/* Generated by ks_msggen from the library's message files: do not edit.\n"
        << " * Included by ks/imsg.h: the library's message tables. */\n"
        << "#ifndef KS_IMSG_TABLES_H\n#define KS_IMSG_TABLES_H\n\n"
        << "KS_BEGIN_DECLS\n\n";
    for (auto &m : files)
        out << "KS_API extern const imsg_msg_table_t " << m.table << "; /* \"" << m.subsys
            << "\", set " << m.set << " */\n";
    out << "\nKS_END_DECLS\n\n#endif\n";
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 3 && std::string(argv[1]) == "--decls") {
        std::vector<msg_file> files;
        for (int i = 3; i < argc; i++)
            files.push_back(read_msg_file(argv[i]));
        std::ofstream out(argv[2]);
        write_decls(files, out);
        return out ? 0 : 1;
    }
    if (argc != 4) {
        std::cerr << "usage: ks_msggen MODULE.msg OUT.cpp OUT.h\n"
                  << "       ks_msggen --decls OUT.h MODULE.msg...\n";
        return 2;
    }
    msg_file m = read_msg_file(argv[1]);
    std::ofstream table(argv[2]), names(argv[3]);
    write_table(m, table);
    write_names(m, names);
    return table && names ? 0 : 1;
}
