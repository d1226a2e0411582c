/* kstool id and sid: credentials and security identifiers. */
#include <stdio.h>
#include <string.h>

#include "ks/credutl.h"
#include "kstool.h"

int kstool_id(int argc, char **argv)
{
    credutl_credentials_t cred;
    credutl_sid_credentials_t sidcred;
    credutl_string_credentials_t names;
    static char text[CREDUTL_CREDENTIALS_STR_SIZE];
    int i;
    (void)argc;
    (void)argv;
    if (credutl_get_credentials(&cred) != 0 || credutl_get_sid_credentials(&sidcred) != 0)
        return 1;
    /* The text routines append to what the buffer holds. */
    text[0] = '\0';
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_ID_NUMERIC, credutl_credentials_to_str(&cred, text));
    text[0] = '\0';
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_ID_SID, credutl_sid_credentials_to_str(&sidcred, text));
    if (credutl_credentials_to_string_credentials(&cred, &names) != 0)
        return 1;
    imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_ID_NAMES, names.user, names.group);
    for (i = 0; i < names.ngroups; i++)
        imsg_print(IMSG_OK_CONT, &_kstool_msg_table, KSTOOL_MSG_ID_GROUP, names.groups[i]);
    imsg_print(IMSG_OK_CONT, "\n", -1);
    credutl_free_string_credentials(&names);
    return 0;
}

int kstool_sid(int argc, char **argv)
{
    int first, i, status = 0;
    if (kstool_parse(argc, argv, kstool_no_flags, kstool_ignore_flag, NULL, &first))
        return 2;
    if (first >= argc) {
        imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_MISSING, "TEXT");
        return 2;
    }
    for (i = first; i < argc; i++) {
        credutl_sid_t sid;
        char text[CREDUTL_SID_STR_SIZE];
        char bytes[3 * CREDUTL_SID_SIZE + 1];
        const unsigned char *p = (const unsigned char *)&sid;
        int n, len = 0;
        if (credutl_str_to_sid(argv[i], &sid) != 0) {
            imsg_print(IMSG_ERROR, &_kstool_msg_table, KSTOOL_MSG_NOT_A_SID, argv[i]);
            status = 1;
            continue;
        }
        for (n = 0; n < sid.length && n < CREDUTL_SID_SIZE; n++)
            len += snprintf(bytes + len, sizeof bytes - len, "%s%02x", n ? " " : "", p[n]);
        imsg_print(IMSG_OK, &_kstool_msg_table, KSTOOL_MSG_SID, argv[i], bytes, credutl_sid_to_str(&sid, text));
    }
    return status;
}
