// Library initialisation and product configuration.
#include "ks/ks_product.h"

#include <arpa/inet.h>
#include <errno.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ks/fileutl.h"
#include "ks/imsg.h"
#include "ks/pfm.h"
#include "ks/stg.h"
#include "ks/strutl.h"
#include "ks/sysutl.h"
#include "ks_msg.h"

namespace {

constexpr const char *kProductDirEvs[] = {"OTTERMEREHOME", "ORVINHOME"};
constexpr const char *kHostdataDirs[] = {"/var/adm/tamarack/ottermere", "/var/adm/orvin"};
constexpr char kDefaultHome[] = "/opt/tamarack/ottermere";

int32_t ks_system_initialized;
const char *product_home;
char *hostdata_dir;
int32_t rmview_full_cr_check;

struct switch_state {
    const char *suffix;
    bool empty_is_on; // ORVIN_NO_BOLD: an empty value turns it on
    bool read;
    int32_t value;
    char assignment[64]; // handed to putenv, so it lives for the process
};

switch_state force_gui_sw = {"FORCE_GUI", false, false, 0, {}};
switch_state web_gui_sw = {"WEB_GUI", false, false, 0, {}};
switch_state web_otterprompt_sw = {"WEB_OTTERPROMPT", false, false, 0, {}};
switch_state no_bold_sw = {"NO_BOLD", true, false, 0, {}};

struct sockaddr_in remote_prompt_addr;
bool remote_prompt_read;
uint16_t remote_prompt_port; // network order; 0: no listener configured
char remote_prompt_assignment[64];

const char *home()
{
    if (product_home != nullptr)
        return product_home;
    // Presence counts: a variable set to the empty string is taken as it is.
    const char *chosen = nullptr;
    for (const char *name : kProductDirEvs)
        if (chosen == nullptr)
            chosen = getenv(name);
    if (chosen == nullptr)
        chosen = kDefaultHome;
    char *copy = stg_strdup(chosen);
    if (copy == nullptr) {
        imsg_print(IMSG_WARNING, &_ks_ks_msg_table, KS_MSG_NO_STORAGE);
        product_home = chosen;
    } else {
        product_home = copy;
    }
    return product_home;
}

int32_t read_switch(switch_state &sw)
{
    if (sw.read)
        return sw.value;
    char name[64];
    snprintf(name, sizeof name, "ORVIN_%s", sw.suffix);
    const char *value = getenv(name);
    if (value == nullptr || (*value == '\0' && !sw.empty_is_on))
        sw.value = 0;
    else if (*value < '0' || *value > '9')
        sw.value = 1; // any word ("yes", "true", even "false") turns it on
    else
        sw.value = atoi(value) != 0 ? 1 : 0;
    sw.read = true;
    return sw.value;
}

int32_t publish_switch(switch_state &sw, int32_t flag)
{
    snprintf(sw.assignment, sizeof sw.assignment, "ORVIN_%s=%s", sw.suffix, flag != 0 ? "1" : "");
    return putenv(sw.assignment) != 0;
}

// Finds the host data directory, or says why there is none and ends the process.
void find_hostdata_dir(char *buf)
{
    buf[0] = '\0';
    for (const char *dir : kHostdataDirs)
        if (fileutl_exists(dir, 0) != 0) {
            strutl_cpy_buf(buf, KS_PATH_BUF, dir);
            return;
        }
    const char *env = getenv("OTTER_HOSTDATA_DIR");
    if (env != nullptr && fileutl_exists(env, 0) != 0) {
        strncpy(buf, env, KS_PATH_BUF - 1);
        buf[KS_PATH_BUF - 1] = '\0';
    }
    if (buf[0] != '\0')
        return;
    imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_NOT_INSTALLED);
    for (const char *dir : kHostdataDirs)
        imsg_print(IMSG_ERROR, &_ks_ks_msg_table, KS_MSG_NO_HOSTDATA, dir);
    if (imsg_in_gui() != 0) {
        // Tell the user why the window is about to close.
        char notice[KS_PATH_BUF];
        imsg_snprintf(notice, sizeof notice, &_ks_ks_msg_table, KS_MSG_APPLICATION_EXIT);
        imsg_prompt_proceed(IMSG_ERROR, notice, 2, 2);
    }
    pfm_exit(2);
}

} // namespace

int32_t ks_system_init(void)
{
    if (ks_system_initialized != 0)
        return 0;
    pfm_init();
    const char *current = setlocale(LC_ALL, nullptr);
    if (current != nullptr && strcmp(current, "C") == 0)
        setlocale(LC_ALL, "");
    sysutl_get_max_fds();
    ks_system_initialized = 1;
    return 1;
}

char *ks_product_dir(char *buf, const char *subpath)
{
    strcpy(buf, home());
    if (subpath != nullptr) {
        strcat(buf, "/");
        strcat(buf, subpath);
    }
    return buf;
}

char *ks_product_tool_dir(char *buf, const char *tool)
{
    strcpy(buf, home());
    strcat(buf, "/");
    strcat(buf, "bin");
    if (tool != nullptr) {
        strcat(buf, "/");
        strcat(buf, tool);
    }
    return buf;
}

char *ks_product_tool_dir_quoted(char *buf, const char *tool)
{
    return ks_product_tool_dir(buf, tool);
}

char *ks_hostdata_dir(char *buf, const char *first, const char *second)
{
    if (hostdata_dir != nullptr) {
        strutl_cpy_buf(buf, KS_PATH_BUF, hostdata_dir);
    } else {
        find_hostdata_dir(buf);
        hostdata_dir = stg_strdup(buf);
        if (hostdata_dir == nullptr)
            imsg_print(IMSG_WARNING, &_ks_ks_msg_table, KS_MSG_OPERATION, "stg_strdup",
                       imsg_strerror(errno));
    }
    if (first != nullptr)
        strutl_concat(buf, KS_PATH_BUF, 3, buf, "/", first);
    if (second != nullptr)
        strutl_concat(buf, KS_PATH_BUF, 3, buf, "/", second);
    return buf;
}

char *ks_host_config_dir(char *buf, const char *name)
{
    return ks_hostdata_dir(buf, "config", name);
}

int32_t ks_force_gui(void)
{
    return read_switch(force_gui_sw);
}
int32_t ks_web_gui(void)
{
    return read_switch(web_gui_sw);
}
int32_t ks_web_otterprompt(void)
{
    return read_switch(web_otterprompt_sw);
}
int32_t ks_no_bold(void)
{
    return read_switch(no_bold_sw);
}

int32_t ks_set_force_gui(int32_t flag)
{
    return publish_switch(force_gui_sw, flag);
}
int32_t ks_set_web_gui(int32_t flag)
{
    return publish_switch(web_gui_sw, flag);
}
int32_t ks_set_web_otterprompt(int32_t flag)
{
    return publish_switch(web_otterprompt_sw, flag);
}

int32_t ks_remote_prompt(struct sockaddr_in *addr)
{
    if (!remote_prompt_read) {
        remote_prompt_port = 0;
        const char *value = getenv("ORVIN_REMOTE_PROMPT");
        unsigned short port;
        char host[64];
        if (value != nullptr && sscanf(value, "%hu,%63s", &port, host) == 2) {
            memset(&remote_prompt_addr, 0, sizeof remote_prompt_addr);
            remote_prompt_addr.sin_family = AF_INET;
            in_addr_t a = inet_addr(host);
            // 255.255.255.255 and malformed addresses look alike here: both refused.
            if (a != INADDR_NONE) {
                remote_prompt_addr.sin_addr.s_addr = a;
                remote_prompt_addr.sin_port = htons(port);
                remote_prompt_port = remote_prompt_addr.sin_port;
            }
        }
        remote_prompt_read = true;
    }
    if (remote_prompt_port == 0)
        return 2;
    if (addr != nullptr)
        memcpy(addr, &remote_prompt_addr, sizeof remote_prompt_addr);
    return 0;
}

int32_t ks_set_remote_prompt(struct sockaddr_in addr)
{
    int n =
        snprintf(remote_prompt_assignment, sizeof remote_prompt_assignment, "ORVIN_REMOTE_PROMPT=");
    if (addr.sin_port != 0)
        snprintf(remote_prompt_assignment + n, sizeof remote_prompt_assignment - n, "%hu,%s",
                 ntohs(addr.sin_port), inet_ntoa(addr.sin_addr));
    return putenv(remote_prompt_assignment) != 0;
}

int32_t ks_connected(void)
{
    return 1;
}
void ks_set_connected(int32_t flag)
{
    (void)flag;
}
void ks_disable_long_path(void) {}
void ks_enable_rmview_full_cr_check(void)
{
    rmview_full_cr_check = 1;
}
int32_t ks_is_enabled_rmview_full_cr_check(void)
{
    return rmview_full_cr_check;
}
