/* kstool info: where the product lives, front-end switches, tracing, catalogue. */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ks/ks_product.h"
#include "kstool.h"

/* Whether the shared table's texts come from the catalogue or are built in. */
static const char *catalogue_state(void)
{
    int i;
    for (i = 0; i < _ks_ks_msg_table.count; i++)
        if (strcmp(cat_extractmsg(&_ks_ks_msg_table, i), _ks_ks_msg_table.texts[i]) != 0)
            return "translated (catalogue \"ks_lib\")";
    return getenv("NLSPATH") != NULL ? "English (catalogue \"ks_lib\" or built-in)" : "built-in English";
}

int kstool_info(int argc, char **argv)
{
    char buf[KS_PATH_BUF];
    struct sockaddr_in remote;
    const char *subsys = getenv("TRACE_SUBSYS");
    (void)argc;
    (void)argv;
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_HOME, ks_product_dir(buf, NULL));
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_TOOLDIR, ks_product_tool_dir(buf, NULL));
    if (kstool_hostdata_status == 0)
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_HOSTDATA, ks_hostdata_dir(buf, NULL, NULL));
    else
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_NO_HOSTDATA, kstool_hostdata_status);
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_SWITCHES, ks_force_gui(), ks_web_gui(),
               ks_web_otterprompt(), ks_no_bold());
    if (ks_remote_prompt(&remote) == 0) {
        snprintf(buf, sizeof buf, "%s port %u", inet_ntoa(remote.sin_addr), ntohs(remote.sin_port));
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_REMOTE, buf);
    } else {
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_REMOTE, "none");
    }
    imsg_should_trace("", 0); /* reads TRACE_VERBOSITY and TRACE_SUBSYS */
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_VERBOSITY, imsg_get_desired_verbosity());
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_SUBSYS, subsys != NULL ? subsys : "none");
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_CATALOGUE, catalogue_state());
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_LOGGED, clp_get_command());
    return 0;
}
