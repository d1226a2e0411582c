// Product configuration: home, host data directory, front-end switches,
// remote prompt and initialisation.  Every case reads the environment afresh
// in a child: the answers are cached for the life of a process.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>

#include "ks/ks_product.h"
#include "ks_test_util.h"

namespace {

using ks_test::run_in_child;

// In a private mount namespace, hides /var behind an empty tmpfs and creates
// the given host data directories there.  False if not permitted.
bool fake_var_adm(const std::string &dirs)
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/var", "tmpfs", 0, "size=1m") == 0 && (dirs.empty() || system(("mkdir -p " + dirs).c_str()) == 0);
}

TEST(ProductDir, FirstVariablePresentEvenEmptyElseTheDefaultAndCached)
{
    struct { const char *home, *orvin; std::string want; } cases[] = {
        {nullptr, nullptr, "/opt/tamarack/ottermere"}, {"", "/elsewhere", ""}, {nullptr, "/srv/orvin", "/srv/orvin"}};
    for (auto &c : cases) {
        auto r = run_in_child([&] {
            c.home ? setenv("OTTERMEREHOME", c.home, 1) : unsetenv("OTTERMEREHOME");
            c.orvin ? setenv("ORVINHOME", c.orvin, 1) : unsetenv("ORVINHOME");
            char buf[KS_PATH_BUF];
            printf("%s|", ks_product_dir(buf, nullptr));
            setenv("OTTERMEREHOME", "/changed", 1); // cached: no effect
            printf("%s|", ks_product_dir(buf, "lib/x"));
            printf("%s|", ks_product_tool_dir(buf, nullptr));
            printf("%s|", ks_product_tool_dir(buf, "tool"));
            return printf("%s", ks_product_tool_dir_quoted(buf, "tool")) < 0;
        });
        const std::string &h = c.want;
        EXPECT_EQ(r.out, h + "|" + h + "/lib/x|" + h + "/bin|" + h + "/bin/tool|" + h + "/bin/tool");
    }
}

// Each case in a private /var with the built-in candidates it names.
TEST(HostData, BuiltInDirectoriesFirstThenTheEnvironmentElseTheProcessEnds)
{
    ks_test::temp_dir dir;
    const std::string tamarack = "/var/adm/tamarack/ottermere", orvin = "/var/adm/orvin";
    struct { std::string dirs, env, want; } cases[] = {
        {"", dir.path(), dir.path()}, {tamarack + " " + orvin, "/tmp", tamarack}, {orvin, "", orvin}, {"", "/nowhere", ""}};
    for (auto &c : cases) {
        auto r = run_in_child([&] {
            if (!fake_var_adm(c.dirs))
                return 77;
            setenv("OTTER_HOSTDATA_DIR", c.env.c_str(), 1);
            setenv("NLSPATH", "/nonexistent/%N", 1);
            char buf[KS_PATH_BUF + 16];
            printf("%s|", ks_hostdata_dir(buf, nullptr, nullptr));
            printf("%s|", ks_hostdata_dir(buf, "log", "ottermere_history"));
            printf("%s|", ks_host_config_dir(buf, "file"));
            setenv("OTTER_HOSTDATA_DIR", "/tmp", 1); // cached: no effect
            printf("%s|", ks_hostdata_dir(buf, nullptr, nullptr));
            memset(buf, 'Z', sizeof buf); // an overlong component is cut, never written past 1024 bytes
            ks_hostdata_dir(buf, std::string(3000, 'n').c_str(), nullptr);
            return printf("%zu", buf[KS_PATH_BUF] == 'Z' ? strlen(buf) : 0) < 0 ? 1 : 0;
        });
        if (r.exit_code() == 77)
            GTEST_SKIP() << "no private mount namespace here";
        const std::string &h = c.want;
        EXPECT_EQ(r.out + r.err, h.empty() ? "noname: Error: This product is not installed correctly.\n"
                                             "noname: Error: Can't find host data directory, tried: \"" + tamarack + "\".\n"
                                             "noname: Error: Can't find host data directory, tried: \"" + orvin + "\".\n"
                                           : h + "|" + h + "/log/ottermere_history|" + h + "/config/file|" + h + "|1023");
        EXPECT_EQ(r.exit_code(), h.empty() ? 2 : 0);
    }
}

TEST(Switches, DigitsWordsEmptyValuesAndSettersThatLeaveTheCache)
{
    struct { const char *value; const char *want; } cases[] = {
        {nullptr, "0000"}, {"0", "0000"}, {"00", "0000"}, {"false", "1111"}, {"12abc", "1111"}, {"", "0001"}};
    for (auto &c : cases) {
        auto r = run_in_child([&] {
            for (const char *v : {"ORVIN_FORCE_GUI", "ORVIN_WEB_GUI", "ORVIN_WEB_OTTERPROMPT", "ORVIN_NO_BOLD"})
                c.value ? setenv(v, c.value, 1) : unsetenv(v);
            return printf("%d%d%d%d", ks_force_gui(), ks_web_gui(), ks_web_otterprompt(), ks_no_bold()) < 0;
        });
        EXPECT_EQ(r.out, c.want) << (c.value ? c.value : "unset");
    }
    unsetenv("ORVIN_FORCE_GUI"); // a setter publishes to children, the cached answer stays
    EXPECT_TRUE(ks_force_gui() == 0 && ks_set_force_gui(1) == 0 && ks_set_web_gui(0) == 0 && ks_set_web_otterprompt(7) == 0 &&
                ks_force_gui() == 0);
    EXPECT_EQ(std::string(getenv("ORVIN_FORCE_GUI")) + getenv("ORVIN_WEB_GUI") + "|" + getenv("ORVIN_WEB_OTTERPROMPT"), "1|1");
}

TEST(RemotePrompt, PortCommaAddressOnlyAndPublishedBack)
{
    for (const char *v : std::initializer_list<const char *>{"7000", "7000,255.255.255.255", "7000,not.an", "x,1.2.3.4", "", nullptr})
        EXPECT_EQ(run_in_child([&] {
                      struct sockaddr_in a;
                      v ? setenv("ORVIN_REMOTE_PROMPT", v, 1) : unsetenv("ORVIN_REMOTE_PROMPT");
                      return ks_remote_prompt(&a);
                  }).exit_code(), 2) << (v ? v : "unset");
    setenv("ORVIN_REMOTE_PROMPT", "7000,10.0.0.5", 1);
    struct sockaddr_in a;
    memset(&a, 0x55, sizeof a);
    // Family 2, port 7000 (0x1B58) and 10.0.0.5 in network order, the rest zero.
    const unsigned char want[16] = {2, 0, 0x1B, 0x58, 10, 0, 0, 5};
    EXPECT_TRUE(ks_remote_prompt(&a) == 0 && memcmp(&a, want, sizeof want) == 0);
    a.sin_port = htons(4242);
    a.sin_addr.s_addr = htonl(0x7F000009);
    EXPECT_EQ(ks_set_remote_prompt(a), 0);
    EXPECT_STREQ(getenv("ORVIN_REMOTE_PROMPT"), "4242,127.0.0.9");
    EXPECT_TRUE(ks_remote_prompt(&a) == 0 && memcmp(&a, want, sizeof want) == 0); // read once
    a.sin_port = 0; // not configured
    EXPECT_TRUE(ks_set_remote_prompt(a) == 0 && strcmp(getenv("ORVIN_REMOTE_PROMPT"), "") == 0);
}

TEST(SystemInit, OnceAndAdoptsTheEnvironmentLocaleOnlyFromC)
{
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    EXPECT_EQ(run_in_child([] {
                  setlocale(LC_ALL, "C.UTF-8");
                  return ks_system_init() == 1 && strcmp(setlocale(LC_ALL, nullptr), "C.UTF-8") == 0 ? 0 : 1;
              }).exit_code(), 0);
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(ks_system_init(), 1);
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "de_DE.UTF-8");
    EXPECT_EQ(ks_system_init(), 0);
}

} // namespace
