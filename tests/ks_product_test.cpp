// Product configuration: home, host data directory, front-end switches.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>

#include "ks/ks_product.h"
#include "ks/pfm.h"
#include "ks_test_util.h"

namespace {

// In a private mount namespace, hides /var behind an empty tmpfs and creates
// the given host data directories there.  Returns false if not permitted.
bool fake_var_adm(std::initializer_list<const char *> dirs)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var", "tmpfs", 0, "size=1m") != 0)
        return false;
    for (const char *d : dirs) {
        std::string cmd = std::string("mkdir -p ") + d;
        if (system(cmd.c_str()) != 0)
            return false;
    }
    return true;
}

} // namespace

TEST(ProductDir, DefaultHomeAndToolDirectory)
{
    unsetenv("OTTERMEREHOME");
    unsetenv("ORVINHOME");
    char buf[KS_PATH_BUF];
    EXPECT_STREQ(ks_product_dir(buf, nullptr), "/opt/tamarack/ottermere");
    EXPECT_STREQ(ks_product_dir(buf, "lib/x"), "/opt/tamarack/ottermere/lib/x");
    EXPECT_STREQ(ks_product_tool_dir(buf, "tool"), "/opt/tamarack/ottermere/bin/tool");
    EXPECT_STREQ(ks_product_tool_dir(buf, nullptr), "/opt/tamarack/ottermere/bin");
    EXPECT_STREQ(ks_product_tool_dir_quoted(buf, "tool"), "/opt/tamarack/ottermere/bin/tool");
}

TEST(ProductDir, EmptyFirstVariableIsTakenAndCached)
{
    setenv("OTTERMEREHOME", "", 1);
    setenv("ORVINHOME", "/elsewhere", 1);
    char buf[KS_PATH_BUF];
    EXPECT_STREQ(ks_product_dir(buf, nullptr), "");
    EXPECT_STREQ(ks_product_tool_dir(buf, "x"), "/bin/x");
    setenv("OTTERMEREHOME", "/changed", 1);
    EXPECT_STREQ(ks_product_dir(buf, "y"), "/y");
}

TEST(ProductDir, SecondVariableWhenFirstAbsent)
{
    unsetenv("OTTERMEREHOME");
    setenv("ORVINHOME", "/srv/orvin", 1);
    char buf[KS_PATH_BUF];
    EXPECT_STREQ(ks_product_tool_dir(buf, "t"), "/srv/orvin/bin/t");
}

TEST(HostData, EnvironmentUsedWhenNoBuiltInDirectoryExists)
{
    ks_test::temp_dir dir;
    auto r = ks_test::run_in_child([&] {
        if (!fake_var_adm({}))
            return 77;
        setenv("OTTER_HOSTDATA_DIR", dir.path().c_str(), 1);
        char buf[KS_PATH_BUF];
        printf("%s\n", ks_hostdata_dir(buf, nullptr, nullptr));
        printf("%s\n", ks_hostdata_dir(buf, "log", "ottermere_history"));
        printf("%s\n", ks_host_config_dir(buf, "file"));
        setenv("OTTER_HOSTDATA_DIR", "/nowhere", 1); // cached: no effect
        printf("%s\n", ks_hostdata_dir(buf, nullptr, nullptr));
        return 0;
    });
    if (r.exit_code() == 77)
        GTEST_SKIP() << "no private mount namespace here";
    ASSERT_EQ(r.exit_code(), 0) << r.err;
    std::string d = dir.path();
    EXPECT_EQ(r.out, d + "\n" + d + "/log/ottermere_history\n" + d + "/config/file\n" + d + "\n");
}

TEST(HostData, BuiltInDirectoriesWinInOrder)
{
    auto r = ks_test::run_in_child([] {
        if (!fake_var_adm({"/var/adm/tamarack/ottermere", "/var/adm/orvin"}))
            return 77;
        setenv("OTTER_HOSTDATA_DIR", "/tmp", 1);
        char buf[KS_PATH_BUF];
        printf("%s\n", ks_hostdata_dir(buf, nullptr, nullptr));
        printf("%s\n", ks_host_config_dir(buf, "file"));
        return 0;
    });
    if (r.exit_code() == 77)
        GTEST_SKIP() << "no private mount namespace here";
    ASSERT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.out, "/var/adm/tamarack/ottermere\n/var/adm/tamarack/ottermere/config/file\n");

    r = ks_test::run_in_child([] {
        if (!fake_var_adm({"/var/adm/orvin"}))
            return 77;
        char buf[KS_PATH_BUF];
        printf("%s\n", ks_hostdata_dir(buf, "a", nullptr));
        return 0;
    });
    ASSERT_EQ(r.exit_code(), 0) << r.err;
    EXPECT_EQ(r.out, "/var/adm/orvin/a\n");
}

TEST(HostData, MissingDirectoryExplainsAndExitsWithTwo)
{
    auto r = ks_test::run_in_child([] {
        if (!fake_var_adm({}))
            return 77;
        setenv("OTTER_HOSTDATA_DIR", "/does/not/exist", 1);
        setenv("NLSPATH", "/nonexistent/%N", 1);
        char buf[KS_PATH_BUF];
        ks_hostdata_dir(buf, nullptr, nullptr);
        return 0; // not reached
    });
    if (r.exit_code() == 77)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(r.exit_code(), 2);
    EXPECT_EQ(r.err, "noname: Error: This product is not installed correctly.\n"
                     "noname: Error: Can't find host data directory, tried: \"/var/adm/tamarack/ottermere\".\n"
                     "noname: Error: Can't find host data directory, tried: \"/var/adm/orvin\".\n");
}

TEST(HostData, OverlongComponentsAreCut)
{
    ks_test::temp_dir dir;
    setenv("OTTER_HOSTDATA_DIR", dir.path().c_str(), 1);
    auto r = ks_test::run_in_child([&] {
        if (!fake_var_adm({}))
            return 77;
        char buf[KS_PATH_BUF + 16];
        memset(buf, 'Z', sizeof buf);
        std::string long_name(3000, 'n');
        ks_hostdata_dir(buf, long_name.c_str(), nullptr);
        // Never written past the 1024-byte buffer, always terminated.
        return strlen(buf) == KS_PATH_BUF - 1 && buf[KS_PATH_BUF] == 'Z' ? 0 : 1;
    });
    if (r.exit_code() == 77)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(r.exit_code(), 0) << r.err;
}

TEST(Switches, DigitsWordsAndEmptyValues)
{
    setenv("ORVIN_FORCE_GUI", "0", 1);
    setenv("ORVIN_WEB_GUI", "false", 1);
    setenv("ORVIN_WEB_OTTERPROMPT", "", 1);
    setenv("ORVIN_NO_BOLD", "", 1);
    EXPECT_EQ(ks_force_gui(), 0);
    EXPECT_EQ(ks_web_gui(), 1);
    EXPECT_EQ(ks_web_otterprompt(), 0);
    EXPECT_EQ(ks_no_bold(), 1);
}

TEST(Switches, NumbersAndAbsence)
{
    setenv("ORVIN_FORCE_GUI", "12abc", 1);
    setenv("ORVIN_WEB_GUI", "00", 1);
    unsetenv("ORVIN_WEB_OTTERPROMPT");
    unsetenv("ORVIN_NO_BOLD");
    EXPECT_EQ(ks_force_gui(), 1);
    EXPECT_EQ(ks_web_gui(), 0);
    EXPECT_EQ(ks_web_otterprompt(), 0);
    EXPECT_EQ(ks_no_bold(), 0);
}

TEST(Switches, SettersPublishWithoutChangingTheCache)
{
    unsetenv("ORVIN_FORCE_GUI");
    EXPECT_EQ(ks_force_gui(), 0);
    EXPECT_EQ(ks_set_force_gui(1), 0);
    EXPECT_STREQ(getenv("ORVIN_FORCE_GUI"), "1");
    EXPECT_EQ(ks_force_gui(), 0);
    EXPECT_EQ(ks_set_web_gui(0), 0);
    EXPECT_STREQ(getenv("ORVIN_WEB_GUI"), "");
    EXPECT_EQ(ks_web_gui(), 0);
    EXPECT_EQ(ks_set_web_otterprompt(7), 0);
    EXPECT_STREQ(getenv("ORVIN_WEB_OTTERPROMPT"), "1");
}

TEST(RemotePrompt, PortAndAddress)
{
    setenv("ORVIN_REMOTE_PROMPT", "7000,10.0.0.5", 1);
    struct sockaddr_in a;
    memset(&a, 0x55, sizeof a);
    ASSERT_EQ(ks_remote_prompt(&a), 0);
    EXPECT_EQ(a.sin_family, AF_INET);
    EXPECT_EQ(a.sin_port, htons(7000));
    EXPECT_EQ(a.sin_addr.s_addr, inet_addr("10.0.0.5"));
    const unsigned char zero[8] = {0};
    EXPECT_EQ(memcmp(a.sin_zero, zero, sizeof zero), 0);
    setenv("ORVIN_REMOTE_PROMPT", "1,1.1.1.1", 1); // read once
    ASSERT_EQ(ks_remote_prompt(&a), 0);
    EXPECT_EQ(a.sin_port, htons(7000));
}

TEST(RemotePrompt, RefusedForms)
{
    for (const char *v : {"7000", "7000,255.255.255.255", "7000,not.an.address", "x,1.2.3.4", ""}) {
        auto r = ks_test::run_in_child([&] {
            setenv("ORVIN_REMOTE_PROMPT", v, 1);
            struct sockaddr_in a;
            return ks_remote_prompt(&a);
        });
        EXPECT_EQ(r.exit_code(), 2) << v;
    }
    unsetenv("ORVIN_REMOTE_PROMPT");
    struct sockaddr_in a;
    EXPECT_EQ(ks_remote_prompt(&a), 2);
}

TEST(RemotePrompt, PublishRoundTrip)
{
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons(4242);
    a.sin_addr.s_addr = inet_addr("127.0.0.9");
    ASSERT_EQ(ks_set_remote_prompt(a), 0);
    EXPECT_STREQ(getenv("ORVIN_REMOTE_PROMPT"), "4242,127.0.0.9");
    struct sockaddr_in back;
    ASSERT_EQ(ks_remote_prompt(&back), 0);
    EXPECT_EQ(back.sin_port, a.sin_port);
    EXPECT_EQ(back.sin_addr.s_addr, a.sin_addr.s_addr);
    a.sin_port = 0;
    ASSERT_EQ(ks_set_remote_prompt(a), 0);
    EXPECT_STREQ(getenv("ORVIN_REMOTE_PROMPT"), "");
}

TEST(SystemInit, OnceAndAdoptsTheEnvironmentLocale)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(ks_system_init(), 1);
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.UTF-8");
    EXPECT_EQ(ks_system_init(), 0);
}

TEST(SystemInit, KeepsALocaleAlreadyChosen)
{
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
    EXPECT_EQ(ks_system_init(), 1);
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.UTF-8");
}
